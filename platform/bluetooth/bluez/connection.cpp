#include "connection.h"

#include <algorithm>
#include <condition_variable>
#include <map>
#include <mutex>
#include <utility>

#include "error.h"
#include "platform/clock.h"

namespace bluez {

namespace {

using platform::PlatformError;

// On the air it is common that a link does not come up, or drops at once. Another attempt often works.
constexpr int kAttempts = 3;
constexpr std::chrono::seconds kConnectTime{7};  // of one attempt
constexpr std::chrono::seconds kResolveTime{20};
constexpr std::chrono::seconds kEndTime{3};
constexpr std::chrono::milliseconds kReadvertiseTime{200};
constexpr std::chrono::seconds kReportTime{2};  // from the reply to the property that it is about
constexpr std::chrono::seconds kReturnTime{2};  // of a descriptor

// What the connections to one peripheral share.
struct Link {
    int users = 0;
    bool asked = false;   // one of them asked for it, and there is no answer yet
    bool ours = false;    // one of them made it. If it is `ours` or `asked`, the last one ends it
    bool ending = false;  // its end was asked for, and has not been reported yet
};

struct Links {
    std::mutex mutex;
    std::condition_variable ended;
    std::map<std::string, Link> byPath;  // guarded by mutex
};

Links& links() {
    static Links instance;
    return instance;
}

// No matter who ended it: the next link may be made by another program.
void linkEnded(const std::string& path) {
    const std::lock_guard lock(links().mutex);
    const auto entry = links().byPath.find(path);
    if (entry == links().byPath.end()) return;
    entry->second.ours = false;
    entry->second.ending = false;
    if (entry->second.users == 0) links().byPath.erase(entry);
    links().ended.notify_all();
}

// Returns the flag's earlier value.
bool setLink(const std::string& path, bool Link::*flag, bool value) {
    const std::lock_guard lock(links().mutex);
    return std::exchange(links().byPath[path].*flag, value);
}

bool isShared(const std::string& path) {
    const std::lock_guard lock(links().mutex);
    return links().byPath[path].users > 1;
}

}  // namespace

Connection::Connection(std::shared_ptr<Bus> bus, std::string devicePath)
    : bus_(std::move(bus)), path_(std::move(devicePath)) {
    {
        const std::lock_guard lock(links().mutex);
        ++links().byPath[path_].users;
    }
    changes_ = bus_->onChange([this](const Change& change) {
        if (change.kind == Change::Kind::removed && change.interface == kDevice && change.path == path_)
            gone_ = true;
    });
}

Connection::~Connection() {
    changes_.reset();
    {
        const std::lock_guard lock(links().mutex);
        Link& link = links().byPath[path_];
        if (--link.users > 0) return;
        if ((!link.ours && !link.asked) || gone_) {
            if (!link.ending) links().byPath.erase(path_);
            return;
        }
        link.ours = link.asked = false;
        link.ending = true;
    }
    disconnect();
}

void Connection::onChange(const Change& change) {
    if (change.interface != kDevice) return;
    const bool* const connected = change.get<bool>("Connected");
    if (change.kind == Change::Kind::removed || (connected && !*connected)) linkEnded(change.path);
}

void Connection::awaitReturn(const std::string& characteristic, const char* acquired) const {
    bus_->waitFor(kReturnTime, [&](const ObjectTree& tree) {
        return !tree.isTrue(characteristic, kGattCharacteristic, acquired);
    });
}

void Connection::awaitEnds() {
    std::unique_lock lock(links().mutex);
    links().ended.wait_for(lock, kEndTime, [] {
        return std::none_of(links().byPath.begin(), links().byPath.end(),
                            [](const auto& entry) { return entry.second.ending; });
    });
}

bool Connection::connected() const {
    return !gone_ && bus_->objects().isTrue(path_, kDevice, "Connected");
}

bool Connection::gone() const {
    return gone_ ||
           !bus_->objects().read([this](const ObjectTree& tree) { return tree.has(path_, kDevice); });
}

void Connection::requirePresent() const {
    if (gone()) throw PlatformError(platform::kRoEClosed);
}

void Connection::requireLink() const {
    requirePresent();
    if (!connected()) throw PlatformError(kNotConnected);
}

void Connection::establish() {
    awaitEarlierEnd();
    for (int left = kAttempts; !tryToEstablish(left == 1); --left) {
    }
}

// False: it failed, and another attempt may succeed. Throws if none would, or if this was the last attempt.
bool Connection::tryToEstablish(bool last) {
    requirePresent();
    try {
        if (!connected()) connect();
        if (waitFor(Until::resolved, kResolveTime)) return true;
        requireLink();
        throw PlatformError(kTimeout);
    } catch (const PlatformError& error) {
        const bool ofTheAir = error.code() == kNotConnected || error.code() == kTimeout;
        if (last || !ofTheAir || connected()) throw;
        return false;
    }
}

// A link whose end was asked for still reads as connected until it is down.
void Connection::awaitEarlierEnd() {
    {
        const std::lock_guard lock(links().mutex);
        if (!links().byPath[path_].ending) return;
    }
    bus_->waitFor(kEndTime,
                  [this](const ObjectTree& tree) { return !tree.isTrue(path_, kDevice, "Connected"); });
    // It takes the peripheral a moment to advertise again. An attempt before that fails in the controller,
    // and the kernel (6.1) does not repeat it.
    platform::sleepFor(kReadvertiseTime);
}

// BlueZ 5.66 does not signal "Connected" if the link's socket reports the new link first (src/device.c,
// device_attach_att). So the property is asked for before and after the call.
void Connection::connect() {
    bus_->refresh(path_, kDevice);
    if (connected()) return;
    const bool answered = requestLink();
    if (answered) bus_->refresh(path_, kDevice);
    if (!waitFor(Until::connected, answered ? kReportTime : kConnectTime)) {
        requirePresent();
        bus_->refresh(path_, kDevice);
        requireLink();
    }
    if (!answered) return;
    setLink(path_, &Link::ours, true);
    setLink(path_, &Link::asked, false);
    if (!connected()) setLink(path_, &Link::ours, false);  // it has dropped meanwhile
}

// False: bluetoothd is already making this link, which serves as well. An attempt goes on in bluetoothd after
// we have stopped waiting for it; if it makes a link, the last connection ends that link.
bool Connection::requestLink() {
    const bool asked = setLink(path_, &Link::asked, true);
    try {
        bus_->call({path_, kDevice, "Connect", kConnectTime});
        return true;
    } catch (const PlatformError& error) {
        if (error.code() == platform::kECancelled) throw;
        if (error.code() != kTimeout) setLink(path_, &Link::asked, asked && error.code() == kInProgress);
        if (error.code() == kInProgress) return false;
        if (error.code() == kTimeout && !isShared(path_)) disconnect();  // gives the attempt up
        requirePresent();
        throw;
    }
}

// False: it did not happen in time, or can no longer happen.
bool Connection::waitFor(Until what, std::chrono::milliseconds timeout) {
    bool reached = false;
    bus_->waitFor(timeout, [&](const ObjectTree& tree) {
        const bool linked = tree.isTrue(path_, kDevice, "Connected");
        reached = linked && (what == Until::connected || tree.isTrue(path_, kDevice, "ServicesResolved"));
        return reached || !tree.has(path_, kDevice) || (what == Until::resolved && !linked);
    });
    return reached;
}

void Connection::disconnect() {
    try {
        bus_->send({path_, kDevice, "Disconnect"},
                   [&objects = bus_->objects(), path = path_](const auto* error) {
                       // Otherwise the change of the property, which follows the reply, ends it.
                       if (error || !objects.isTrue(path, kDevice, "Connected")) linkEnded(path);
                   });
    } catch (const PlatformError&) {
        linkEnded(path_);  // no bus, no link
    }
}

}  // namespace bluez
