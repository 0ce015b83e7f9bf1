// A listening socket in the file system that belongs to one process at a time.
#pragma once

#include <sys/stat.h>

#include <memory>
#include <string>

#include "platform/error.h"
#include "posix/descriptor.h"

namespace platform {

// The socket's file and the lock file PATH.lock beside it. The lock is what says that the socket is in use:
// taking it is one step, so of two processes that start at once one gets the socket, and no client has to be
// faked to find out whether the other one lives. Both files go with the object.
class SocketFile {
  public:
    SocketFile(std::string path, Descriptor lock) : path_(std::move(path)), lock_(std::move(lock)) {}
    ~SocketFile();
    SocketFile(const SocketFile&) = delete;
    SocketFile& operator=(const SocketFile&) = delete;

    // The socket has been bound: remembers which file it is.
    SystemError remember();

  private:
    std::string path_;
    Descriptor lock_;
    struct stat socket_ {};
};

struct BoundSocket {
    Descriptor listener;  // non-blocking
    std::unique_ptr<SocketFile> file;
    SystemError error = SystemError::none;
};

// Makes the socket, for the user alone. EADDRINUSE: another pipe has it. Replaces a socket that nobody
// listens on; any other kind of file is left alone (EEXIST). The path must fit into a socket address.
BoundSocket bindSocket(const std::string& path);

}  // namespace platform
