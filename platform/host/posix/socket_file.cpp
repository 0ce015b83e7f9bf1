#include "socket_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>

#include "system_error.h"

namespace platform {

namespace {

// One client is served at a time; those who come meanwhile wait here.
constexpr int kBacklog = 4;

std::string lockPath(const std::string& path) {
    return path + ".lock";
}

bool sameFile(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

sockaddr_un address(const std::string& path) {
    sockaddr_un result{};
    result.sun_family = AF_UNIX;
    path.copy(result.sun_path, sizeof result.sun_path - 1);
    return result;
}

// A lock that `error` says why it is missing.
struct Lock {
    Descriptor file;
    int error = 0;
};

Lock takeLock(const std::string& path) {
    for (;;) {
        Lock lock{Descriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)), 0};
        if (!lock.file) return {{}, errno};
        if (::flock(lock.file.get(), LOCK_EX | LOCK_NB) != 0) {
            return {{}, errno == EWOULDBLOCK ? EADDRINUSE : errno};
        }
        struct stat locked {
        }, present{};
        if (::fstat(lock.file.get(), &locked) != 0) return {{}, errno};
        // Ours are empty. Anything else is a file of the user's and would be removed with the pipe.
        if (!S_ISREG(locked.st_mode) || locked.st_size != 0) return {{}, EEXIST};
        // The previous owner may have removed the file between our open and our lock: then others lock a new
        // one.
        if (::lstat(path.c_str(), &present) == 0 && sameFile(locked, present)) return lock;
    }
}

// Removes a socket that nobody listens on. The lock already excludes our own kind; the attempt to connect is
// for sockets of other programs, which do not know the lock. Returns an errno.
int removeStale(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return errno == ENOENT ? 0 : errno;
    if (!S_ISSOCK(status.st_mode)) return EEXIST;

    const Descriptor probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!probe) return errno;
    const sockaddr_un target = address(path);
    if (::connect(probe.get(), reinterpret_cast<const sockaddr*>(&target), sizeof target) == 0)
        return EADDRINUSE;
    if (errno != ECONNREFUSED) return EADDRINUSE;
    return ::unlink(path.c_str()) == 0 ? 0 : errno;
}

}  // namespace

SocketFile::~SocketFile() {
    struct stat present {};
    if (socket_.st_ino != 0 && ::lstat(path_.c_str(), &present) == 0 && sameFile(socket_, present)) {
        ::unlink(path_.c_str());
    }
    // Before the lock is released: whoever locks the file from now on finds that it is no longer there.
    ::unlink(lockPath(path_).c_str());
}

SystemError SocketFile::remember() {
    return ::lstat(path_.c_str(), &socket_) == 0 ? SystemError::none : fromErrno(errno);
}

BoundSocket bindSocket(const std::string& path) {
    const auto failed = [](int code) { return BoundSocket{{}, nullptr, fromErrno(code)}; };

    Lock lock = takeLock(lockPath(path));
    if (!lock.file) return failed(lock.error);
    auto file = std::make_unique<SocketFile>(path, std::move(lock.file));
    if (const int error = removeStale(path)) return failed(error);

    Descriptor listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener) return failed(errno);
    // Linux gives the file the mode of the socket, so that it never exists with another one; the umask is the
    // whole process's and stays out of it.
    if (::fchmod(listener.get(), S_IRUSR | S_IWUSR) != 0) return failed(errno);
    const sockaddr_un own = address(path);
    if (::bind(listener.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0)
        return failed(errno);
    if (const SystemError error = file->remember(); error != SystemError::none) return {{}, nullptr, error};
    if (::listen(listener.get(), kBacklog) != 0) return failed(errno);
    return {std::move(listener), std::move(file), SystemError::none};
}

}  // namespace platform
