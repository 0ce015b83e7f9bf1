// Bytes in and out of the Windows Runtime's buffers.
#pragma once

#include <activation.h>
#include <windows.storage.streams.h>

#include <array>
#include <cstdint>
#include <span>

#include "winrt.h"

namespace platform::winrt {

// The longest attribute value has 512 bytes (Bluetooth Core, vol 3, F 3.2.9); what is beyond this is cut.
using ValueBytes = std::array<std::uint8_t, 1024>;

// The factories are looked up once, not for every packet.
//
// Threads: any.
class Streams {
  public:
    Streams();

    ComPtr<ABI::Windows::Storage::Streams::IBuffer> bufferOf(std::span<const std::uint8_t> bytes) const;
    // The bytes of the buffer, in `storage`.
    std::span<const std::uint8_t> bytesOf(ABI::Windows::Storage::Streams::IBuffer* buffer,
                                          ValueBytes& storage) const;

  private:
    const ComPtr<IActivationFactory> writers_;
    const ComPtr<ABI::Windows::Storage::Streams::IDataReaderStatics> readers_;
};

}  // namespace platform::winrt
