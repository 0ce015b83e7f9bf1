// Lets clients on the build machine use named pipes, which only programs under Wine can open. Prints the
// number of its TCP port. A connection's first line is a request:
//   open NAME       opens the pipe. The answer is a line: the system's error number, and the process that
//                   serves the pipe. From then on the connection is the pipe: closing one closes the other.
//   exists NAME     the answer is 1 or 0
//   usage PROCESS   the answer is its number of threads and of handles
#include <array>
#include <asio/awaitable.hpp>
#include <asio/buffer.hpp>
#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/experimental/awaitable_operators.hpp>
#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/read_until.hpp>
#include <asio/use_awaitable.hpp>
#include <asio/windows/stream_handle.hpp>
#include <asio/write.hpp>
#include <cstdio>
#include <sstream>
#include <string>

#include "tools/machine_resources.h"

namespace {

using asio::use_awaitable;
using asio::ip::tcp;
using asio::windows::stream_handle;
using namespace asio::experimental::awaitable_operators;

// Ends without an error when either side does.
template <class From, class To>
asio::awaitable<void> copy(From& from, To& to) {
    try {
        for (std::array<char, 4096> bytes;;) {
            const std::size_t count = co_await from.async_read_some(asio::buffer(bytes), use_awaitable);
            co_await asio::async_write(to, asio::buffer(bytes, count), use_awaitable);
        }
    } catch (const asio::system_error&) {
    }
}

// The client gets what came last, even if it still writes: closing the socket would throw that away.
asio::awaitable<void> letClientLeave(tcp::socket& client) {
    client.shutdown(tcp::socket::shutdown_send);
    try {
        for (std::array<char, 4096> bytes;;)
            co_await client.async_read_some(asio::buffer(bytes), use_awaitable);
    } catch (const asio::system_error&) {
    }
}

asio::awaitable<void> answer(tcp::socket& client, std::string line) {
    line += '\n';
    co_await asio::async_write(client, asio::buffer(line), use_awaitable);
}

asio::awaitable<void> relay(tcp::socket& client, std::string name) {
    const HANDLE handle = ::CreateFileA(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                        FILE_FLAG_OVERLAPPED, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        std::string error = std::to_string(::GetLastError());
        co_return co_await answer(client, std::move(error));
    }
    stream_handle pipe(client.get_executor(), handle);
    DWORD process = 0;
    ::GetNamedPipeServerProcessId(handle, &process);
    std::string opened = "0 " + std::to_string(process);
    co_await answer(client, std::move(opened));
    co_await (copy(pipe, client) || copy(client, pipe));
    pipe.close();
    co_await letClientLeave(client);
}

asio::awaitable<void> serve(tcp::socket client) {
    client.set_option(tcp::no_delay(true));
    // So that a client that does not read holds up the program soon.
    client.set_option(tcp::socket::send_buffer_size(8192));
    std::string request;
    // The client sends nothing more before it has the answer.
    co_await asio::async_read_until(client, asio::dynamic_buffer(request), '\n', use_awaitable);
    std::istringstream words(request);
    std::string what, name;
    words >> what >> name;
    if (what == "open") co_return co_await relay(client, std::move(name));
    std::string found;
    if (what == "exists") {
        found = std::to_string(machine::pipeExists(name));
    } else {
        const auto used = machine::resourcesOf(static_cast<std::uint32_t>(std::stoul(name)));
        found = std::to_string(used.threads) + " " + std::to_string(used.handles);
    }
    co_await answer(client, std::move(found));
}

asio::awaitable<void> accept(tcp::acceptor& acceptor) {
    for (;;) {
        tcp::socket client = co_await acceptor.async_accept(use_awaitable);
        asio::co_spawn(acceptor.get_executor(), serve(std::move(client)), asio::detached);
    }
}

}  // namespace

int main() {
    asio::io_context io;
    tcp::acceptor acceptor(io, {asio::ip::address_v4::loopback(), 0});
    std::printf("%u\n", unsigned{acceptor.local_endpoint().port()});
    std::fflush(stdout);
    asio::co_spawn(io, accept(acceptor), asio::detached);
    io.run();
}
