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

    // As bluetoothd last reported, without asking it. When bluetoothd has forgotten the device, its
    // connections stay gone, even if a device of the same address appears again: its services are other
    // objects.
    bool connected() const;
    bool gone() const;
    // Throws PlatformError unless the link is up.
    void requireLink() const;

    // Waits, bounded, until the links that the program ended are down, which takes bluetoothd two seconds.
    // Otherwise a program that is started right afterwards would find a link that still looks connected.
    static void awaitEnds();

    // Called by the bus on the loop's thread: notes which links the program made, and when they are down.
    static void onChange(const Change& change);

    // Waits, bounded, until the descriptor of a characteristic is free again: a session that has just ended
    // may still hold it. `acquired` is the characteristic's property that says so.
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
