// The system's part of host.h.
#pragma once

#include <fcntl.h>
#include <io.h>

#include <asio/windows/stream_handle.hpp>

namespace ziqble::host {

using PipeStream = asio::windows::stream_handle;
// Of a write that fails or is cancelled the bridge may have read a part, which nobody tells.
inline constexpr bool kFailedWriteTakesNothing = false;
inline constexpr std::size_t kLargestWrite = 512;
inline constexpr int kBinary = _O_BINARY;

}  // namespace ziqble::host
