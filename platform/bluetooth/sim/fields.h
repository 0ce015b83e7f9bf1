// Reading a scenario's JSON with errors that name the key.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

// Throws platform::BluetoothConfigError: "PATH: expected EXPECTED, found VALUE".
[[noreturn]] void failAt(const std::string& path, const std::string& expected, const nlohmann::json& found);

// The value of the right kind, or an error.
bool readFlag(const nlohmann::json& value, const std::string& path);
std::string readText(const nlohmann::json& value, const std::string& path);
std::int64_t readInteger(const nlohmann::json& value, const std::string& path, std::int64_t lowest,
                         std::int64_t highest);
// The position of the text among the names.
std::size_t readName(const nlohmann::json& value, const std::string& path,
                     std::initializer_list<std::string_view> names);

template <class Item>
std::vector<Item> readList(const nlohmann::json& value, const std::string& path,
                           Item (*readItem)(const nlohmann::json&, const std::string&)) {
    if (!value.is_array()) failAt(path, "a list", value);
    std::vector<Item> items;
    for (std::size_t i = 0; i < value.size(); ++i) {
        items.push_back(readItem(value[i], path + "[" + std::to_string(i) + "]"));
    }
    return items;
}

// The keys of one object. Each key that is asked for counts as known; rejectOthers() comes last.
class Fields {
  public:
    Fields(const nlohmann::json& object, std::string path);

    std::string pathOf(std::string_view key) const;

    // Calls read(value, path) where the key is present.
    template <class Read>
    void with(std::string_view key, Read read) {
        known_.emplace_back(key);
        const auto found = object_.find(key);
        if (found != object_.end()) read(*found, pathOf(key));
    }

    // Each leaves `out` alone where the key is absent.
    template <class Value, class Read>
    void read(std::string_view key, Value& out, Read readValue) {
        with(key, [&](const auto& value, const auto& path) { out = readValue(value, path); });
    }
    template <class List, class Read>
    void list(std::string_view key, List& out, Read readItem) {
        with(key, [&](const auto& value, const auto& path) { out = readList(value, path, readItem); });
    }
    template <class Number>
    void integer(std::string_view key, Number& out, std::int64_t lowest, std::int64_t highest) {
        with(key, [&](const auto& value, const auto& path) {
            out = static_cast<Number>(readInteger(value, path, lowest, highest));
        });
    }
    void text(std::string_view key, std::wstring& out);

    void rejectOthers() const;

  private:
    const nlohmann::json& object_;
    std::string path_;
    std::vector<std::string> known_;
};

}  // namespace sim
