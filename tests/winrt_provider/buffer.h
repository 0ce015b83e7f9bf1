// Buffers of bytes.
#pragma once

#include <windows.storage.streams.h>

#include <cstdint>
#include <span>
#include <vector>

#include "tests/winrt_provider/object.h"

namespace provider {

namespace streams = ABI::Windows::Storage::Streams;

ComPtr<streams::IBuffer> makeBuffer(std::vector<std::uint8_t> bytes);

// The bytes of a buffer, which are valid as long as the buffer lives. Throws PlatformError when it is not one
// of makeBuffer's.
std::span<const std::uint8_t> bytesOf(streams::IBuffer* buffer);

}  // namespace provider
