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

// The bytes of a buffer, whoever has made it. They are valid as long as the buffer lives. Throws
// PlatformError when the buffer does not give them.
std::span<const std::uint8_t> bytesOf(streams::IBuffer* buffer);

}  // namespace provider
