// A system bus of the test's own, and on it a bluetoothd with one adapter and one peripheral.
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

// Ends with the object; DBUS_SYSTEM_BUS_ADDRESS leads to it.
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

// One object with properties of one interface, which signal their changes.
class Thing {
  public:
    using Properties = std::map<std::string, sdbus::Variant>;
    using Methods = std::function<void(sdbus::IObject&, const std::string& interface)>;

    Thing(sdbus::IConnection& connection, const std::string& path, std::string interface,
          Properties properties, const Methods& methods = {});
    ~Thing() { object_->emitInterfacesRemovedSignal(); }
    Thing(const Thing&) = delete;
    Thing& operator=(const Thing&) = delete;

    void set(const std::string& property, const sdbus::Variant& value);
    bool isTrue(const std::string& property) const;

  private:
    mutable std::mutex mutex_;
    const std::string interface_;
    Properties properties_;  // guarded by mutex_; the set of names never changes
    std::unique_ptr<sdbus::IObject> object_;
};

// What a test sets before, and looks at afterwards. The sockets are bluetoothd's ends.
struct Script {
    std::atomic<bool> appears = false;  // with the next search
    std::atomic<bool> resolves = true;  // the services of a connection
    std::atomic<int> connects = 0;
    std::atomic<int> disconnects = 0;
    std::atomic<int> searches = 0;
    std::atomic<int> calls = 0;  // of a characteristic
    std::atomic<int> notifySocket = -1;
    std::atomic<int> writeSocket = -1;

    std::mutex mutex;
    std::string refusal;              // guarded by mutex, like all: the message that connections fail with
    std::string notifyError;          // the name of the error of AcquireNotify
    std::vector<std::string> writes;  // "CHARACTERISTIC:TYPE:LENGTH"
};

class Bluetoothd {
  public:
    explicit Bluetoothd(Script& script);
    ~Bluetoothd();
    Bluetoothd(const Bluetoothd&) = delete;
    Bluetoothd& operator=(const Bluetoothd&) = delete;

    Thing& adapter() { return *adapter_; }
    Thing& device() { return *device_; }
    Thing& characteristic(const std::string& name) { return *gatt_.at(name); }
    void addDevice();
    void removeAdapter() { adapter_.reset(); }
    // The link, with or without the object behind it.
    void connected(bool is);
    void drop();
    void forget();

  private:
    void addGatt();
    void addMethods(const std::string& name, sdbus::IObject& object, const std::string& interface);

    Script& script_;
    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<Thing> adapter_;
    std::unique_ptr<Thing> device_;
    std::map<std::string, std::unique_ptr<Thing>> gatt_;
};

}  // namespace fake
