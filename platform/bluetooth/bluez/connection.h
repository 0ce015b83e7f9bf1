// The link to one peripheral.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include "bus.h"

namespace bluez {

// Shared by a device object, its services and their characteristics. The link itself is shared by all
// connections to one peripheral; when the last of them goes it is ended, provided that one of them made it.
// Threads: any.
class Connection {
  public:
    Connection(std::shared_ptr<Bus> bus, std::string devicePath);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    Bus& bus() const { return *bus_; }
    const std::string& devicePath() const { return path_; }

    // What was last heard, without asking. A device that bluetoothd has forgotten stays gone for its
    // connections, even when one of the same address appears again: its services are not theirs.
    bool connected() const;
    bool gone() const;
    // Throws PlatformError unless the link is up.
    void requireLink() const;

    // Waits until the links that the program ended are down, bounded: who starts it again finds none that
    // only looks as if it were up. bluetoothd takes two seconds for it.
    static void awaitEnds();

    // Bookkeeping, for the bus: who made a link, and when it is down. On the loop's thread.
    static void onChange(const Change& change);

    // Waits, bounded, until a descriptor is back that a session which has just ended may still hold.
    // `acquired` is the property of the characteristic that tells.
    void awaitReturn(const std::string& characteristic, const char* acquired) const;

    // Connects if need be and waits until the services are known, both bounded. Throws PlatformError.
    void establish();

  private:
    enum class Until { connected, resolved };

    void requirePresent() const;
    void awaitEarlierEnd();
    bool tryToEstablish(bool last);
    void connect();
    bool requestLink();
    bool waitFor(Until what, std::chrono::milliseconds timeout);
    void disconnect();

    const std::shared_ptr<Bus> bus_;
    const std::string path_;
    std::atomic<bool> gone_ = false;
    platform::Subscription changes_;
};

}  // namespace bluez
