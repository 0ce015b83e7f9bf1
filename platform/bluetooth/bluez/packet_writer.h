// Writes without response to one characteristic, through a descriptor where BlueZ offers one.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>

#include "connection.h"
#include "descriptor.h"

namespace bluez {

// Threads: any.
class PacketWriter {
  public:
    PacketWriter(std::shared_ptr<Connection> connection, std::string path)
        : connection_(std::move(connection)), path_(std::move(path)) {}

    enum class Outcome {
        sent,
        noDescriptor,  // BlueZ offers none: write the value by a D-Bus call, without response
        tooLong,       // for the descriptor: write the value by a D-Bus call that can carry it
    };

    // Waits while the link cannot take more. Throws PlatformError.
    Outcome write(std::span<const std::uint8_t> value);

  private:
    struct Channel {
        Descriptor socket;  // none: given back
        std::size_t longest = 0;
    };

    std::shared_ptr<const Channel> channel();
    std::shared_ptr<const Channel> acquire() const;
    void send(const Channel& channel, std::span<const std::uint8_t> value) const;
    void giveBack(std::shared_ptr<const Channel> channel);
    bool waitUntilWritable(int socket) const;

    const std::shared_ptr<Connection> connection_;
    const std::string path_;
    std::mutex mutex_;
    bool tried_ = false;                      // guarded by mutex_
    std::shared_ptr<const Channel> channel_;  // guarded by mutex_
};

}  // namespace bluez
