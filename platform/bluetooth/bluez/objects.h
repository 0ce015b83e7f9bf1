// What bluetoothd tells of its objects, kept so that a look at it costs no call.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace bluez {

inline constexpr const char* kAdapter = "org.bluez.Adapter1";
inline constexpr const char* kDevice = "org.bluez.Device1";
inline constexpr const char* kGattService = "org.bluez.GattService1";
inline constexpr const char* kGattCharacteristic = "org.bluez.GattCharacteristic1";

// Properties of other types are of no use here and left out.
using Value =
    std::variant<bool, std::int64_t, std::string, std::vector<std::string>, std::vector<std::uint8_t>>;
using Properties = std::map<std::string, Value, std::less<>>;
using Interfaces = std::map<std::string, Properties, std::less<>>;

// What happened to one interface of one object.
struct Change {
    enum class Kind { added, changed, removed };
    Kind kind;
    const std::string& path;
    const std::string& interface;
    const Properties& properties;  // the new values

    template <class Type>
    const Type* get(const char* property) const {
        const auto at = properties.find(property);
        return at == properties.end() ? nullptr : std::get_if<Type>(&at->second);
    }
};

// Not locked.
class ObjectTree {
  public:
    bool has(const std::string& path, const char* interface) const;
    // Nothing: there is no such object, or the property is not offered.
    template <class Type>
    std::optional<Type> get(const std::string& path, const char* interface, const char* property) const {
        const Value* const value = find(path, interface, property);
        const Type* const typed = value ? std::get_if<Type>(value) : nullptr;
        return typed ? std::optional<Type>(*typed) : std::nullopt;
    }
    bool isTrue(const std::string& path, const char* interface, const char* property) const {
        return get<bool>(path, interface, property).value_or(false);
    }
    // Of the objects with this interface, in the order of their paths. A property that refers to another
    // object can be asked to be `parent`.
    std::vector<std::string> paths(const char* interface) const;
    std::vector<std::string> children(const char* interface, const char* property,
                                      const std::string& parent) const;

  private:
    friend class Objects;
    const Value* find(const std::string& path, const char* interface, const char* property) const;

    std::map<std::string, Interfaces> objects_;
};

// Threads: any. Only the bus changes it.
class Objects {
  public:
    using Listener = std::function<void(const Change&)>;

    // `listener` hears of each change after it has been made, on the calling thread, without a lock.
    explicit Objects(Listener listener) : listener_(std::move(listener)) {}

    void add(const std::string& path, const Interfaces& interfaces);
    void change(const std::string& path, const std::string& interface, const Properties& properties,
                const std::vector<std::string>& invalidated);
    void remove(const std::string& path, const std::vector<std::string>& interfaces);
    void clear();
    // Ends all waits, now and later.
    void close();

    template <class Look>
    auto read(Look look) const {
        const std::lock_guard lock(mutex_);
        return look(std::as_const(tree_));
    }
    template <class Type>
    std::optional<Type> get(const std::string& path, const char* interface, const char* property) const {
        return read([&](const ObjectTree& tree) { return tree.get<Type>(path, interface, property); });
    }
    bool isTrue(const std::string& path, const char* interface, const char* property) const {
        return get<bool>(path, interface, property).value_or(false);
    }

    // Waits until the condition holds; false when the time has passed, or the waits were ended, before.
    bool waitFor(std::chrono::milliseconds timeout, const std::function<bool(const ObjectTree&)>& condition);

  private:
    const Listener listener_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    ObjectTree tree_;      // guarded by mutex_
    bool closed_ = false;  // guarded by mutex_
};

}  // namespace bluez
