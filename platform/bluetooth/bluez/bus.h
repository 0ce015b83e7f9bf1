// The connection to the system bus, and what is known of bluetoothd's objects.
#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "bluetooth/callback_list.h"
#include "descriptor.h"
#include "error.h"
#include "objects.h"
#include "platform/subscription.h"

namespace bluez {

// The bus's own default.
inline constexpr std::chrono::seconds kCallTime{25};

// A method of one of bluetoothd's objects.
struct Method {
    const std::string& path;
    const char* interface;
    const char* name;
    std::chrono::milliseconds timeout = kCallTime;
};

// One thread runs the event loop: it takes in replies and signals, and calls listeners. Nothing that blocks
// may be done on it. Every failure is thrown as PlatformError; where the connection is gone for good, with
// kRoEClosed, and once it was closed, with kECancelled.
class Bus {
  public:
    // The bus, connected, with bluetoothd's objects. A connection that was lost is made anew. Any thread.
    static std::shared_ptr<Bus> current();
    // current() works between these two calls. closeCurrent() also ends all waits.
    static void allow();
    static void closeCurrent();

    Bus();
    ~Bus();
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;

    Objects& objects() { return objects_; }

    // Handlers run on the loop's thread, after objects() has changed.
    [[nodiscard]] platform::Subscription onChange(Objects::Listener handler);

    // Calls, waits for the reply, and returns its values.
    template <class... Results, class... Arguments>
    std::tuple<Results...> call(const Method& method, const Arguments&... arguments) {
        // Shared with the reply, which may come after nobody waits for it any more.
        const auto results = std::make_shared<std::tuple<Results...>>();
        const Outgoing message = newCall(method, arguments...);
        await(message, method.timeout, [results](sdbus::MethodReply& reply) { reply >> *results; });
        return std::move(*results);
    }

    // Calls and does not wait. `answered` is called on the loop's thread, with null or the error.
    using Answered = std::function<void(const platform::PlatformError* error)>;
    template <class... Arguments>
    void send(const Method& method, const Answered& answered, const Arguments&... arguments) {
        sendOff(newCall(method, arguments...), method.timeout, answered);
    }

    // Asks bluetoothd for all properties of an interface, and updates objects(): signals may have been
    // missed.
    void refresh(const std::string& path, const char* interface);

    // Waits until the condition holds of the objects; false when the time has passed before. Like a call it
    // ends with kECancelled when the program was asked to stop.
    bool waitFor(std::chrono::milliseconds timeout, const std::function<bool(const ObjectTree&)>& condition);

    // Readable once the bus was closed; for waits on descriptors.
    int closedDescriptor() const { return closedSignal_.get(); }

  private:
    using ReadReply = std::function<void(sdbus::MethodReply&)>;
    // Counts the calls that are out, from their making to the end of their reply.
    struct Ticket {
        explicit Ticket(Bus& toCount);
        ~Ticket();
        Ticket(const Ticket&) = delete;
        Ticket& operator=(const Ticket&) = delete;
        Bus& bus;
    };
    struct Outgoing {
        std::shared_ptr<Ticket> ticket;
        sdbus::IProxy& proxy;
        sdbus::MethodCall call;
    };
    // How a call ended.
    struct Reply {
        bool here = false;
        std::unique_ptr<sdbus::Error> error;
    };

    template <class... Arguments>
    Outgoing newCall(const Method& method, const Arguments&... arguments) {
        try {
            auto ticket = std::make_shared<Ticket>(*this);
            sdbus::IProxy& target = proxy(method.path);
            auto message = target.createMethodCall(method.interface, method.name);
            static_cast<void>((static_cast<sdbus::Message&>(message) << ... << arguments));
            return {std::move(ticket), target, std::move(message)};
        } catch (const sdbus::Error& error) {
            throw translate(error);
        }
    }

    sdbus::IProxy& proxy(const std::string& path);
    void await(const Outgoing& message, std::chrono::milliseconds timeout, ReadReply read);
    void sendOff(const Outgoing& message, std::chrono::milliseconds timeout, const Answered& answered);
    void requireOpen();
    void close();
    bool lost();

    void watch();
    void runLoop();
    void endOfLoop();
    void load();
    void takeObjects(sdbus::Message& reply);
    void reload();
    void ownerChanged(sdbus::Message& signal);
    void interfacesAdded(sdbus::Message& signal);
    void interfacesRemoved(sdbus::Message& signal);
    void propertiesChanged(sdbus::Message& signal);
    void dropProxies();
    void tell(const Change& change);

    using Listeners = bluetooth::CallbackList<const Change&>;

    const std::shared_ptr<Listeners> listeners_ = std::make_shared<Listeners>();
    Objects objects_;
    Descriptor closedSignal_;

    std::mutex mutex_;
    std::condition_variable ended_;  // a call, or the bus
    bool loaded_ = false;            // guarded by mutex_, like the next two
    bool lost_ = false;
    bool closed_ = false;

    const std::unique_ptr<sdbus::IConnection> connection_;
    std::vector<sdbus::Slot> matches_;
    std::mutex proxiesMutex_;
    std::map<std::string, std::unique_ptr<sdbus::IProxy>> proxies_;  // guarded by proxiesMutex_
    int callsOut_ = 0;                                               // guarded by proxiesMutex_
    std::thread loop_;
};

}  // namespace bluez
