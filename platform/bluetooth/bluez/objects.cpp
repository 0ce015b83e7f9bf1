#include "objects.h"

namespace bluez {

bool ObjectTree::has(const std::string& path, const char* interface) const {
    const auto object = objects_.find(path);
    return object != objects_.end() && object->second.contains(interface);
}

const Value* ObjectTree::find(const std::string& path, const char* interface, const char* property) const {
    const auto object = objects_.find(path);
    if (object == objects_.end()) return nullptr;
    const auto properties = object->second.find(interface);
    if (properties == object->second.end()) return nullptr;
    const auto value = properties->second.find(property);
    return value == properties->second.end() ? nullptr : &value->second;
}

std::vector<std::string> ObjectTree::paths(const char* interface) const {
    std::vector<std::string> found;
    for (const auto& [path, interfaces] : objects_) {
        if (interfaces.contains(interface)) found.push_back(path);
    }
    return found;
}

std::vector<std::string> ObjectTree::children(const char* interface, const char* property,
                                              const std::string& parent) const {
    auto found = paths(interface);
    std::erase_if(found, [&](const std::string& path) {
        return get<std::string>(path, interface, property) != parent;
    });
    return found;
}

void Objects::add(const std::string& path, const Interfaces& interfaces) {
    {
        const std::lock_guard lock(mutex_);
        auto& object = tree_.objects_[path];
        for (const auto& [interface, properties] : interfaces)
            object[interface] = properties;
    }
    changed_.notify_all();
    for (const auto& [interface, properties] : interfaces)
        listener_({Change::Kind::added, path, interface, properties});
}

void Objects::change(const std::string& path, const std::string& interface, const Properties& properties,
                     const std::vector<std::string>& invalidated) {
    {
        const std::lock_guard lock(mutex_);
        const auto object = tree_.objects_.find(path);
        if (object == tree_.objects_.end()) return;
        const auto known = object->second.find(interface);
        if (known == object->second.end()) return;
        for (const auto& [name, value] : properties)
            known->second[name] = value;
        for (const auto& name : invalidated)
            known->second.erase(name);
    }
    changed_.notify_all();
    listener_({Change::Kind::changed, path, interface, properties});
}

void Objects::remove(const std::string& path, const std::vector<std::string>& interfaces) {
    {
        const std::lock_guard lock(mutex_);
        const auto object = tree_.objects_.find(path);
        if (object == tree_.objects_.end()) return;
        for (const auto& interface : interfaces)
            object->second.erase(interface);
        if (object->second.empty()) tree_.objects_.erase(object);
    }
    changed_.notify_all();
    for (const auto& interface : interfaces)
        listener_({Change::Kind::removed, path, interface, {}});
}

void Objects::clear() {
    ObjectTree gone;
    {
        const std::lock_guard lock(mutex_);
        std::swap(gone, tree_);
    }
    changed_.notify_all();
    for (const auto& [path, interfaces] : gone.objects_) {
        for (const auto& [interface, properties] : interfaces)
            listener_({Change::Kind::removed, path, interface, {}});
    }
}

void Objects::close() {
    {
        const std::lock_guard lock(mutex_);
        closed_ = true;
    }
    changed_.notify_all();
}

bool Objects::waitFor(std::chrono::milliseconds timeout,
                      const std::function<bool(const ObjectTree&)>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::unique_lock lock(mutex_);
    bool holds = condition(tree_);
    while (!holds && !closed_ && changed_.wait_until(lock, deadline) != std::cv_status::timeout)
        holds = condition(tree_);
    return holds;
}

}  // namespace bluez
