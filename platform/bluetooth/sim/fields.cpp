#include "fields.h"

#include <algorithm>

#include "platform/runtime.h"
#include "platform/text.h"

namespace sim {

namespace {

using nlohmann::json;

constexpr std::size_t kShownLength = 60;

// Containers are only named: they may be huge, or nested deeper than a recursive printer could go.
std::string describe(const json& value) {
    if (value.is_object()) return "an object";
    if (value.is_array()) return "a list of " + std::to_string(value.size());
    std::string text = value.dump(-1, ' ', true);
    if (text.size() > kShownLength) text = text.substr(0, kShownLength) + "...";
    return text;
}

std::string shownPath(const std::string& path) {
    return path.empty() ? "scenario" : path;
}

}  // namespace

void failAt(const std::string& path, const std::string& expected, const json& found) {
    throw platform::BluetoothConfigError(shownPath(path) + ": expected " + expected + ", found " +
                                         describe(found));
}

bool readFlag(const json& value, const std::string& path) {
    if (!value.is_boolean()) failAt(path, "true or false", value);
    return value.get<bool>();
}

std::string readText(const json& value, const std::string& path) {
    if (!value.is_string()) failAt(path, "a text", value);
    return value.get<std::string>();
}

std::int64_t readInteger(const json& value, const std::string& path, std::int64_t lowest,
                         std::int64_t highest) {
    const bool fits =
        value.is_number_unsigned() ? value.get<std::uint64_t>() <= INT64_MAX : value.is_number_integer();
    if (fits) {
        const auto number = value.get<std::int64_t>();
        if (number >= lowest && number <= highest) return number;
    }
    failAt(path, "a whole number from " + std::to_string(lowest) + " to " + std::to_string(highest), value);
}

std::size_t readName(const json& value, const std::string& path,
                     std::initializer_list<std::string_view> names) {
    if (value.is_string()) {
        const auto* found = std::find(names.begin(), names.end(), value.get_ref<const std::string&>());
        if (found != names.end()) return static_cast<std::size_t>(found - names.begin());
    }
    std::string expected = "one of";
    for (const auto name : names)
        expected += " \"" + std::string(name) + "\"";
    failAt(path, expected, value);
}

Fields::Fields(const json& object, std::string path) : object_(object), path_(std::move(path)) {
    if (!object_.is_object()) failAt(path_, "an object", object_);
}

std::string Fields::pathOf(std::string_view key) const {
    return path_.empty() ? std::string(key) : path_ + "." + std::string(key);
}

void Fields::text(std::string_view key, std::wstring& out) {
    with(key,
         [&](const json& value, const std::string& path) { out = platform::widen(readText(value, path)); });
}

void Fields::rejectOthers() const {
    for (const auto& item : object_.items()) {
        if (std::find(known_.begin(), known_.end(), item.key()) != known_.end()) continue;
        std::string expected = "one of the keys";
        for (const auto& key : known_)
            expected += " " + key;
        throw platform::BluetoothConfigError(pathOf(item.key()) + ": unknown key, expected " + expected +
                                             ", found " + describe(item.value()));
    }
}

}  // namespace sim
