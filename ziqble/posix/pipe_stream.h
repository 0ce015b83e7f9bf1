// The system's part of host.h.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <asio/local/stream_protocol.hpp>

namespace ziqble::host {

using PipeStream = asio::local::stream_protocol::socket;
// A write that fails or is cancelled has taken nothing.
inline constexpr bool kFailedWriteTakesNothing = true;
inline constexpr std::size_t kLargestWrite = 65536;
inline constexpr int kBinary = O_CLOEXEC;

}  // namespace ziqble::host
