#include "fake_bluez.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <thread>

// The library is built without the sanitizer, so the sanitizer does not see that this reference count is
// synchronized.
extern "C" const char* __tsan_default_suppressions() {
    return "race:sdbus::PendingAsyncCall::~PendingAsyncCall";
}

namespace fake {

namespace {

const std::string kCharacteristic = "org.bluez.GattCharacteristic1";
const std::string kServicePath = kDevicePath + "/service0010";
using Options = std::map<std::string, sdbus::Variant>;

std::string uuid(const char* shortForm) {
    return "0000" + std::string(shortForm) + "-0000-1000-8000-00805f9b34fb";
}

// Returns one end of a new pair of sockets and keeps the other one. Their buffers are small, so that they are
// soon full.
std::tuple<sdbus::UnixFd, std::uint16_t> openSocketPair(std::atomic<int>& kept) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        throw std::runtime_error("socketpair");
    const int size = 8192;
    for (const int end : ends)
        ::setsockopt(end, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    kept = ends[0];
    return {sdbus::UnixFd(ends[1], sdbus::adopt_fd), std::uint16_t{100}};
}

void closeSocket(std::atomic<int>& socket) {
    if (const int fd = socket.exchange(-1); fd >= 0) ::close(fd);
}

// The library writes a value only by its C++ type.
void serialize(sdbus::Message& message, const sdbus::Variant& value) {
    const std::string type = value.peekValueType();
    if (type == "b") message << value.get<bool>();
    if (type == "n") message << value.get<std::int16_t>();
    if (type == "s") message << value.get<std::string>();
    if (type == "o") message << value.get<sdbus::ObjectPath>();
    if (type == "as") message << value.get<std::vector<std::string>>();
    if (type == "ay") message << value.get<std::vector<std::uint8_t>>();
}

}  // namespace

Daemon::Daemon() {
    std::string name = std::filesystem::temp_directory_path() / "ziqble-bus-XXXXXX";
    folder_ = ::mkdtemp(name.data());
    const auto config = folder_ / "config";
    std::ofstream(config) << "<busconfig><listen>unix:path=" << (folder_ / "bus").string()
                          << "</listen><auth>EXTERNAL</auth><policy context='default'><allow own='*'/>"
                             "<allow send_destination='*'/><allow receive_sender='*'/></policy></busconfig>";
    int ready[2];
    if (::pipe(ready) != 0) throw std::runtime_error("pipe");
    const std::string option = "--config-file=" + config.string();
    // With setpriv the daemon ends when the test does, even when the test crashes.
    const char* const arguments[] = {"setpriv",     "--pdeathsig",       "KILL",
                                     "dbus-daemon", option.c_str(),      "--nofork",
                                     "--nopidfile", "--print-address=3", nullptr};
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addclose(&actions, ready[0]);
    ::posix_spawn_file_actions_adddup2(&actions, ready[1], 3);
    const int error =
        ::posix_spawnp(&process_, arguments[0], &actions, nullptr, const_cast<char**>(arguments), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(ready[1]);
    std::string address(256, '\0');  // printed once the bus can be reached
    const ssize_t size = error == 0 ? ::read(ready[0], address.data(), address.size()) : 0;
    ::close(ready[0]);
    if (size <= 0) throw std::runtime_error("dbus-daemon does not start");
    address.resize(address.find('\n'));
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
}

Daemon::~Daemon() {
    kill();
    std::filesystem::remove_all(folder_);
}

void Daemon::kill() {
    if (process_ < 0) return;
    ::kill(process_, SIGTERM);
    ::waitpid(process_, nullptr, 0);
    process_ = -1;
}

BusObject::BusObject(sdbus::IConnection& connection, const std::string& path, std::string interface,
                     Properties properties, const Methods& methods)
    : interface_(std::move(interface)),
      properties_(std::move(properties)),
      object_(sdbus::createObject(connection, path)) {
    for (const auto& [name, value] : properties_) {
        const auto get = [this, &value = value](sdbus::PropertyGetReply& reply) {
            const std::lock_guard lock(mutex_);
            serialize(reply, value);
        };
        // The program sets only properties of type bool.
        const auto assign = [this, &value = properties_.at(name)](sdbus::PropertySetCall& call) {
            bool on = false;
            call >> on;
            const std::lock_guard lock(mutex_);
            value = sdbus::Variant(on);
        };
        object_->registerProperty(interface_, name, value.peekValueType(), get, assign);
    }
    if (methods) methods(*object_, interface_);
    object_->finishRegistration();
    object_->emitInterfacesAddedSignal();
}

void BusObject::set(const std::string& property, const sdbus::Variant& value) {
    {
        const std::lock_guard lock(mutex_);
        properties_.at(property) = value;
    }
    object_->emitPropertiesChangedSignal(interface_, {property});
}

bool BusObject::isTrue(const std::string& property) const {
    const std::lock_guard lock(mutex_);
    return properties_.at(property).get<bool>();
}

Bluetoothd::Bluetoothd(Script& script)
    : script_(script), connection_(sdbus::createSystemBusConnection("org.bluez")) {
    connection_->addObjectManager("/", sdbus::floating_slot);
    connection_->enterEventLoopAsync();
    adapter_ = std::make_unique<BusObject>(
        *connection_, kAdapterPath, "org.bluez.Adapter1",
        BusObject::Properties{{"Alias", std::string("Pult \u00fc")}, {"Powered", true}},
        [this](sdbus::IObject& object, const std::string& interface) {
            object.registerMethod("SetDiscoveryFilter")
                .onInterface(interface)
                .implementedAs([](const Options&) {});
            object.registerMethod("StartDiscovery").onInterface(interface).implementedAs([this] {
                if (script_.searches > 0) throw sdbus::Error("org.bluez.Error.InProgress", "In Progress");
                ++script_.searches;
                if (script_.appears) addDevice();
            });
            object.registerMethod("StopDiscovery").onInterface(interface).implementedAs([this] {
                --script_.searches;
            });
        });
}

Bluetoothd::~Bluetoothd() {
    forget();
    adapter_.reset();
    connection_->leaveEventLoop();
}

void Bluetoothd::addDevice() {
    device_ = std::make_unique<BusObject>(
        *connection_, kDevicePath, "org.bluez.Device1",
        BusObject::Properties{{"Address", std::string("00:1A:7D:DA:71:13")},
                              {"Adapter", sdbus::ObjectPath(kAdapterPath)},
                              {"Name", std::string("T\u00efO;\r\n\U0001F50C")},
                              {"UUIDs", std::vector<std::string>{uuid("fefb")}},
                              {"RSSI", std::int16_t{-60}},
                              {"Connected", false},
                              {"ServicesResolved", false}},
        [this](sdbus::IObject& object, const std::string& interface) {
            object.registerMethod("Connect").onInterface(interface).implementedAs([this] {
                ++script_.connects;
                const std::lock_guard lock(script_.mutex);
                if (!script_.refusal.empty()) throw sdbus::Error("org.bluez.Error.Failed", script_.refusal);
                connected(true);
            });
            object.registerMethod("Disconnect").onInterface(interface).implementedAs([this] {
                drop();
                ++script_.disconnects;
            });
        });
}

void Bluetoothd::connected(bool is) {
    device_->set("Connected", is);
    if (is && gatt_.empty()) addGatt();
    if (!is || script_.resolves) device_->set("ServicesResolved", is);
}

void Bluetoothd::addGatt() {
    gatt_["service"] = std::make_unique<BusObject>(
        *connection_, kServicePath, "org.bluez.GattService1",
        BusObject::Properties{{"UUID", uuid("fefb")}, {"Device", sdbus::ObjectPath(kDevicePath)}});
    const auto add = [this](const std::string& name, BusObject::Properties properties) {
        properties["UUID"] = uuid(name.c_str());
        properties["Service"] = sdbus::ObjectPath(kServicePath);
        properties["Value"] = std::vector<std::uint8_t>();
        gatt_[name] = std::make_unique<BusObject>(
            *connection_, kServicePath + "/char" + name, kCharacteristic, std::move(properties),
            [this, name](sdbus::IObject& object, const std::string& interface) {
                addMethods(name, object, interface);
            });
    };
    add("0001", {{"WriteAcquired", false}});
    add("0002", {{"NotifyAcquired", false}});
    add("0004", {});
}

void Bluetoothd::addMethods(const std::string& name, sdbus::IObject& object, const std::string& interface) {
    object.registerMethod("AcquireNotify").onInterface(interface).implementedAs([this](const Options&) {
        ++script_.calls;
        const std::lock_guard lock(script_.mutex);
        if (!script_.notifyError.empty()) throw sdbus::Error(script_.notifyError, "no descriptor");
        return openSocketPair(script_.notifySocket);
    });
    object.registerMethod("AcquireWrite").onInterface(interface).implementedAs([this](const Options&) {
        ++script_.calls;
        return openSocketPair(script_.writeSocket);
    });
    object.registerMethod("StartNotify").onInterface(interface).implementedAs([this] { ++script_.calls; });
    object.registerMethod("StopNotify").onInterface(interface).implementedAs([this] { ++script_.calls; });
    object.registerMethod("WriteValue")
        .onInterface(interface)
        .implementedAs([this, name](const std::vector<std::uint8_t>& value, const Options& options) {
            ++script_.calls;
            const auto type = options.find("type");
            const std::lock_guard lock(script_.mutex);
            script_.writes.push_back(name + ":" +
                                     (type == options.end() ? "" : type->second.get<std::string>()) + ":" +
                                     std::to_string(value.size()));
        });
}

void Bluetoothd::drop() {
    closeSocket(script_.notifySocket);
    closeSocket(script_.writeSocket);
    if (device_) connected(false);
}

void Bluetoothd::forget() {
    closeSocket(script_.notifySocket);
    closeSocket(script_.writeSocket);
    gatt_.clear();
    device_.reset();
}

}  // namespace fake
