// A system bus for one test, and on it a stand-in for bluetoothd with one adapter and one peripheral.
#pragma once

#include <sdbus-c++/sdbus-c++.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace fake {

// The system bus: a dbus-daemon that runs as long as the object lives. Sets DBUS_SYSTEM_BUS_ADDRESS to it.
class Daemon {
  public:
    Daemon();
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    void kill();

  private:
    std::filesystem::path folder_;
    int process_ = -1;
};

inline const std::string kAdapterPath = "/org/bluez/hci0";
inline const std::string kDevicePath = kAdapterPath + "/dev_00_1A_7D_DA_71_13";
inline constexpr std::uint64_t kAddress = 0x001A7DDA7113;

// An object on the bus with one interface. It sends a signal when one of its properties changes.
class BusObject {
  public:
    using Properties = std::map<std::string, sdbus::Variant>;
    using Methods = std::function<void(sdbus::IObject&, const std::string& interface)>;

    BusObject(sdbus::IConnection& connection, const std::string& path, std::string interface,
              Properties properties, const Methods& methods = {});
    ~BusObject() { object_->emitInterfacesRemovedSignal(); }
    BusObject(const BusObject&) = delete;
    BusObject& operator=(const BusObject&) = delete;

    void set(const std::string& property, const sdbus::Variant& value);
    bool isTrue(const std::string& property) const;

  private:
    mutable std::mutex mutex_;
    const std::string interface_;
    Properties properties_;  // guarded by mutex_; the set of names never changes
    std::unique_ptr<sdbus::IObject> object_;
};

// What a test tells the stand-in to do, and what the stand-in has counted.
struct Script {
    std::atomic<bool> appears = false;  // the device, at the next search
    std::atomic<bool> resolves = true;  // the services of a new connection
    std::atomic<int> connects = 0;
    std::atomic<int> disconnects = 0;
    std::atomic<int> searches = 0;  // that run now
    std::atomic<int> calls = 0;     // of methods of characteristics
    // The stand-in's ends of the sockets that it gave to the program; -1: none.
    std::atomic<int> notifySocket = -1;
    std::atomic<int> writeSocket = -1;

    std::mutex mutex;                 // guards the members below
    std::string refusal;              // the message that Connect fails with; empty: it succeeds
    std::string notifyError;          // the error that AcquireNotify fails with; empty: it succeeds
    std::vector<std::string> writes;  // each "CHARACTERISTIC:TYPE:LENGTH"
};

class Bluetoothd {
  public:
    explicit Bluetoothd(Script& script);
    ~Bluetoothd();
    Bluetoothd(const Bluetoothd&) = delete;
    Bluetoothd& operator=(const Bluetoothd&) = delete;

    BusObject& adapter() { return *adapter_; }
    BusObject& device() { return *device_; }
    BusObject& characteristic(const std::string& name) { return *gatt_.at(name); }
    void addDevice();
    void removeAdapter() { adapter_.reset(); }
    void connected(bool is);  // changes the properties of the device
    void drop();              // ends the link
    void forget();            // removes the device and its characteristics

  private:
    void addGatt();
    void addMethods(const std::string& name, sdbus::IObject& object, const std::string& interface);

    Script& script_;
    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<BusObject> adapter_;
    std::unique_ptr<BusObject> device_;
    std::map<std::string, std::unique_ptr<BusObject>> gatt_;
};

}  // namespace fake
