#include "bus.h"

#include <algorithm>
#include <optional>

#include "advice.h"
#include "connection.h"
#include "platform/runtime.h"
#include "radio.h"

namespace bluez {

namespace {

using platform::PlatformError;

constexpr const char* kService = "org.bluez";
constexpr const char* kPropertiesInterface = "org.freedesktop.DBus.Properties";
constexpr const char* kObjectManager = "org.freedesktop.DBus.ObjectManager";
const std::string kRoot = "/";

using Variants = std::map<std::string, sdbus::Variant>;
using InterfaceVariants = std::map<std::string, Variants>;

std::optional<Value> convert(const sdbus::Variant& variant) {
    const std::string type = variant.peekValueType();
    if (type == "b") return variant.get<bool>();
    if (type == "n") return std::int64_t{variant.get<std::int16_t>()};
    if (type == "s") return variant.get<std::string>();
    if (type == "o") return std::string(variant.get<sdbus::ObjectPath>());
    if (type == "as") return variant.get<std::vector<std::string>>();
    if (type == "ay") return variant.get<std::vector<std::uint8_t>>();
    return std::nullopt;
}

Properties convert(const Variants& variants) {
    Properties properties;
    for (const auto& [name, variant] : variants) {
        if (auto value = convert(variant)) properties.emplace(name, std::move(*value));
    }
    return properties;
}

Interfaces convert(const InterfaceVariants& variants) {
    Interfaces interfaces;
    for (const auto& [name, properties] : variants)
        interfaces.emplace(name, convert(properties));
    return interfaces;
}

// How long a wait may go on after the program was asked to stop.
constexpr std::chrono::milliseconds kStopPoll{100};

std::uint64_t microseconds(std::chrono::milliseconds time) {
    return static_cast<std::uint64_t>(std::chrono::microseconds(time).count());
}

// The running Bluetooth side's bus, if there is one.
struct Slot {
    std::mutex mutex;
    std::shared_ptr<Bus> bus;
    bool allowed = false;
};

Slot& slot() {
    static Slot instance;
    return instance;
}

}  // namespace

std::shared_ptr<Bus> Bus::current() {
    std::shared_ptr<Bus> bus;
    {
        const std::lock_guard lock(slot().mutex);
        if (!slot().allowed) throw PlatformError(platform::kECancelled);
        if (!slot().bus || slot().bus->lost()) {
            try {
                slot().bus = std::make_shared<Bus>();
            } catch (const sdbus::Error& error) {
                advise(Trouble::noBus, error.what());
                throw PlatformError(platform::kRoEClosed, error.what());
            }
        }
        bus = slot().bus;
    }
    bus->load();
    return bus;
}

void Bus::allow() {
    const std::lock_guard lock(slot().mutex);
    slot().allowed = true;
}

void Bus::closeCurrent() {
    std::shared_ptr<Bus> bus;
    {
        const std::lock_guard lock(slot().mutex);
        slot().allowed = false;
        std::swap(bus, slot().bus);
    }
    if (bus) bus->close();
}

Bus::Bus()
    : objects_([this](const Change& change) { tell(change); }),
      closedSignal_(newSignal()),
      connection_(sdbus::createSystemBusConnection()) {
    watch();
    loop_ = std::thread([this] { runLoop(); });
}

Bus::~Bus() {
    close();
    matches_.clear();
    proxies_.clear();
}

// Objects of the program may hold the bus beyond this.
void Bus::close() {
    {
        const std::lock_guard lock(mutex_);
        closed_ = true;
    }
    ended_.notify_all();
    objects_.close();
    raise(closedSignal_);
    if (!loop_.joinable()) return;
    connection_->leaveEventLoop();
    loop_.join();
}

bool Bus::lost() {
    const std::lock_guard lock(mutex_);
    return lost_;
}

platform::Subscription Bus::onChange(Objects::Listener handler) {
    return bluetooth::addCallback<const Change&>(listeners_, std::move(handler));
}

void Bus::tell(const Change& change) {
    bool running = false;
    {
        const std::lock_guard lock(mutex_);
        running = loaded_;
    }
    // When bluetoothd ends, its adapters disappear with it. That says nothing about the adapters.
    if (running) adviseOnAdapter(change);
    Connection::onChange(change);
    listeners_->call(change);
}

Bus::Ticket::Ticket(Bus& toCount) : bus(toCount) {
    const std::lock_guard lock(bus.proxiesMutex_);
    ++bus.callsOut_;
}

Bus::Ticket::~Ticket() {
    const std::lock_guard lock(bus.proxiesMutex_);
    --bus.callsOut_;
}

sdbus::IProxy& Bus::proxy(const std::string& path) {
    const std::lock_guard lock(proxiesMutex_);
    auto& proxy = proxies_[path];
    if (!proxy) proxy = sdbus::createProxy(*connection_, kService, path);
    return *proxy;
}

// A program that runs for months meets many peripherals. A proxy must not go while a call of it is out; this
// runs on the loop's thread, so that no reply is being handled.
void Bus::dropProxies() {
    const std::lock_guard lock(proxiesMutex_);
    if (callsOut_ == 0) proxies_.clear();
}

void Bus::await(const Outgoing& message, std::chrono::milliseconds timeout, ReadReply read) {
    const auto reply = std::make_shared<Reply>();
    requireOpen();
    const auto arrived = [this, reply, read = std::move(read), ticket = message.ticket](
                             sdbus::MethodReply& values, const sdbus::Error* error) mutable {
        const auto out = std::move(ticket);  // the library may keep the rest for ever
        std::unique_ptr<sdbus::Error> failure;
        try {
            error ? throw *error : read(values);
        } catch (const sdbus::Error& caught) {
            failure = std::make_unique<sdbus::Error>(caught);
        }
        const std::lock_guard lock(mutex_);
        reply->error = std::move(failure);
        reply->here = true;
        ended_.notify_all();
    };
    try {
        message.proxy.callMethod(message.call, arrived, microseconds(timeout));
    } catch (const sdbus::Error& error) {
        throw translate(error);
    }
    std::unique_lock lock(mutex_);
    const auto over = [&] { return reply->here || closed_ || lost_; };
    while (!ended_.wait_for(lock, kStopPoll, over)) {
        if (platform::stopRequested().isSet()) throw PlatformError(platform::kECancelled);
    }
    if (!reply->here) throw PlatformError(closed_ ? platform::kECancelled : platform::kRoEClosed);
    if (reply->error) throw translate(*reply->error);
}

void Bus::sendOff(const Outgoing& message, std::chrono::milliseconds timeout, const Answered& answered) {
    const auto arrived = [answered, ticket = message.ticket](sdbus::MethodReply&,
                                                             const sdbus::Error* error) mutable {
        const auto out = std::move(ticket);
        if (!error) return answered(nullptr);
        const PlatformError failure = translate(*error);
        answered(&failure);
    };
    try {
        message.proxy.callMethod(message.call, arrived, microseconds(timeout));
    } catch (const sdbus::Error& error) {
        throw translate(error);
    }
}

void Bus::refresh(const std::string& path, const char* interface) {
    const Outgoing message = newCall({path, kPropertiesInterface, "GetAll"}, interface);
    await(message, kCallTime, [this, path, interface](sdbus::MethodReply& reply) {
        Variants properties;
        reply >> properties;
        objects_.change(path, interface, convert(properties), {});
    });
}

bool Bus::waitFor(std::chrono::milliseconds timeout,
                  const std::function<bool(const ObjectTree&)>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (objects_.waitFor(std::min(left, kStopPoll), condition)) return true;
        requireOpen();
        if (left <= kStopPoll) return false;
        if (platform::stopRequested().isSet()) throw PlatformError(platform::kECancelled);
    }
}

void Bus::requireOpen() {
    const std::lock_guard lock(mutex_);
    if (closed_) throw PlatformError(platform::kECancelled);
    if (lost_) throw PlatformError(platform::kRoEClosed);
}

// The matches name the sender, so that nobody else on the bus can play bluetoothd.
void Bus::watch() {
    const auto match = [this](const std::string& rule, void (Bus::*handler)(sdbus::Message&)) {
        const auto guarded = [this, handler](sdbus::Message& signal) {
            try {
                (this->*handler)(signal);
            } catch (const std::runtime_error&) {
                // BlueZ sends no signal of this form: ignored.
            }
        };
        matches_.push_back(connection_->addMatch(rule, guarded));
    };
    const std::string bluez = "type='signal',sender='org.bluez',interface='";
    match(bluez + kObjectManager + "',member='InterfacesAdded'", &Bus::interfacesAdded);
    match(bluez + kObjectManager + "',member='InterfacesRemoved'", &Bus::interfacesRemoved);
    match(bluez + kPropertiesInterface + "',member='PropertiesChanged'", &Bus::propertiesChanged);
    match(
        "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
        "member='NameOwnerChanged',arg0='org.bluez'",
        &Bus::ownerChanged);
}

void Bus::runLoop() {
    try {
        connection_->enterEventLoop();
    } catch (const sdbus::Error& error) {
        advise(Trouble::noBus, error.what());
        endOfLoop();
    }
}

void Bus::endOfLoop() {
    {
        const std::lock_guard lock(mutex_);
        lost_ = true;
        loaded_ = false;
    }
    ended_.notify_all();
    objects_.clear();
    objects_.close();
}

// Starts bluetoothd where the bus knows how to.
void Bus::load() {
    {
        const std::lock_guard lock(mutex_);
        if (loaded_) return;
    }
    try {
        const Outgoing message = newCall({kRoot, kObjectManager, "GetManagedObjects"});
        await(message, kCallTime, [this](sdbus::MethodReply& reply) { takeObjects(reply); });
    } catch (const PlatformError& error) {
        // systemd lets the start of a bluetoothd that has no adapter run into the bus's time-out.
        if (error.code() != platform::kRoEClosed && error.code() != kTimeout) throw;
        advise(Trouble::noService);
        throw PlatformError(platform::kRoEClosed, error.what());
    }
}

void Bus::takeObjects(sdbus::Message& reply) {
    std::map<sdbus::ObjectPath, InterfaceVariants> objects;
    reply >> objects;
    for (const auto& [path, interfaces] : objects)
        objects_.add(path, convert(interfaces));
    const std::lock_guard lock(mutex_);
    loaded_ = true;
}

// On the loop's thread, which cannot wait for the reply.
void Bus::reload() {
    const Outgoing message = newCall({kRoot, kObjectManager, "GetManagedObjects"});
    message.proxy.callMethod(message.call, [this, ticket = message.ticket](
                                               sdbus::MethodReply& reply, const sdbus::Error* error) mutable {
        const auto out = std::move(ticket);
        try {
            if (!error) takeObjects(reply);
        } catch (const sdbus::Error&) {
            // BlueZ did not answer this. The next call asks again, and reports the error.
        }
    });
}

void Bus::ownerChanged(sdbus::Message& signal) {
    std::string name;
    std::string before;
    std::string now;
    signal >> name >> before >> now;
    if (!before.empty()) {
        {
            const std::lock_guard lock(mutex_);
            loaded_ = false;
        }
        advise(Trouble::serviceEnded);
        objects_.clear();
    }
    if (!now.empty()) reload();
}

void Bus::interfacesAdded(sdbus::Message& signal) {
    sdbus::ObjectPath path;
    InterfaceVariants interfaces;
    signal >> path >> interfaces;
    objects_.add(path, convert(interfaces));
}

void Bus::interfacesRemoved(sdbus::Message& signal) {
    sdbus::ObjectPath path;
    std::vector<std::string> interfaces;
    signal >> path >> interfaces;
    objects_.remove(path, interfaces);
    dropProxies();
}

void Bus::propertiesChanged(sdbus::Message& signal) {
    std::string interface;
    Variants changed;
    std::vector<std::string> invalidated;
    signal >> interface >> changed >> invalidated;
    objects_.change(signal.getPath(), interface, convert(changed), invalidated);
}

}  // namespace bluez
