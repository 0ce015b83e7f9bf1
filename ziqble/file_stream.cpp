#include "file_stream.h"

#include <asio/post.hpp>
#include <cerrno>
#include <cstring>

#include "host.h"

namespace ziqble {

namespace {

using Bytes = std::vector<std::uint8_t>;

struct Result {
    Bytes bytes;
    int error;
};

// A signal for the program does not end the call.
template <class Call>
auto retried(Call call) {
    auto result = call();
    while (result < 0 && errno == EINTR)
        result = call();
    return result;
}

Result readSome(int file) {
    Bytes bytes(16384);
    const auto count =
        retried([&] { return ::read(file, bytes.data(), static_cast<unsigned>(bytes.size())); });
    const int error = count < 0 ? errno : 0;
    bytes.resize(static_cast<std::size_t>(std::max<std::int64_t>(count, 0)));
    return {std::move(bytes), error};
}

Result writeAll(int file, ByteSpan bytes) {
    while (!bytes.empty()) {
        const auto count =
            retried([&] { return ::write(file, bytes.data(), static_cast<unsigned>(bytes.size())); });
        if (count < 0) return {{}, errno};
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
    return {{}, 0};
}

}  // namespace

// Shared with the call, which may outlive the object.
struct FileStream::State {
    State(Context& given, const std::string& givenPath, Mode givenMode)
        : context(given), path(givenPath), mode(givenMode) {
        if (path.empty()) file = mode == Mode::read ? 0 : 1;
    }
    ~State() {
        if (file > 1) ::close(file);
    }

    // Opening a file waits, too, if it is a named pipe.
    void open() {
        const int flags = mode == Mode::read ? O_RDONLY : O_WRONLY | O_CREAT | O_TRUNC;
        file = retried([&] { return ::open(path.c_str(), host::kBinary | flags, 0666); });
    }

    // Throws Failure when the call has failed.
    template <class Call>
    static Awaitable<Bytes> run(std::shared_ptr<State> self, Call call) {
        if (!std::exchange(self->busy, true)) {
            asio::post(self->context.blocking, [self, call] {
                if (self->file < 0) self->open();
                Result result = self->file < 0 ? Result{{}, errno} : call(self->file);
                asio::post(self->context.io, [self, result = std::move(result)]() mutable {
                    self->busy = false;
                    self->done.put(std::move(result));
                });
            });
        }
        auto result = co_await self->done.take();
        if (result->error == 0) co_return std::move(result->bytes);
        const std::string standard = self->mode == Mode::read ? "standard input" : "standard output";
        throw Failure(Code::failed, std::string(self->mode == Mode::read ? "cannot read " : "cannot write ") +
                                        (self->path.empty() ? standard : self->path) + ": " +
                                        std::strerror(result->error));
    }

    Context& context;
    std::string path;
    Mode mode;
    int file = -1;
    Mailbox<Result> done{context.io.get_executor()};
    bool busy = false;
};

FileStream::FileStream(Context& context, const std::string& path, Mode mode)
    : state_(std::make_shared<State>(context, path, mode)) {}

Awaitable<Bytes> FileStream::read() {
    return State::run(state_, readSome);
}

Awaitable<> FileStream::write(ByteSpan bytes) {
    const auto writeCopy = [copy = Bytes(bytes.begin(), bytes.end())](int file) {
        return writeAll(file, copy);
    };
    co_await State::run(state_, writeCopy);
}

}  // namespace ziqble
