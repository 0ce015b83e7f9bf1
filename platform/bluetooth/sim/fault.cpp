#include "fault.h"

#include <algorithm>
#include <charconv>
#include <initializer_list>
#include <system_error>
#include <utility>

namespace sim {

namespace {

std::optional<CharacteristicKind> parseCharacteristic(std::string_view name) {
    for (std::size_t i = 0; i < kCharacteristicKinds; ++i) {
        if (kCharacteristicNames[i] == name) return static_cast<CharacteristicKind>(i);
    }
    return std::nullopt;
}

// Behind the names of the actions that carry a result code.
constexpr std::string_view kCodeMark = "0x";

// As scenarios write them.
constexpr std::pair<std::string_view, FaultAction> kActions[] = {
    {"null", FaultAction::null},
    {"no-operation", FaultAction::noOperation},
    {"error:0x", FaultAction::error},
    {"cancel", FaultAction::cancel},
    {"unreachable", FaultAction::unreachable},
    {"protocol-error", FaultAction::protocolError},
    {"access-denied", FaultAction::accessDenied},
    {"throw:0x", FaultAction::throwError},
    {"disconnect", FaultAction::disconnect},
    {"hang", FaultAction::hang},
};

std::optional<platform::HResult> parseCode(std::string_view digits) {
    if (digits.size() > 8) return std::nullopt;
    std::uint32_t bits = 0;
    const char* end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, bits, 16);
    if (error != std::errc() || stop != end) return std::nullopt;
    return platform::hresult(bits);
}

}  // namespace

std::optional<FaultPoint> parseFaultPoint(std::string_view text) {
    using Call = FaultPoint::Call;
    if (text == "device") return FaultPoint{Call::device};
    if (text == "services") return FaultPoint{Call::services};
    if (text == "services:all") return FaultPoint{Call::servicesAll};
    if (text == "characteristics") return FaultPoint{Call::characteristics};
    if (text == "pair") return FaultPoint{Call::pair};
    if (text == "session") return FaultPoint{Call::session};
    if (text == "radios") return FaultPoint{Call::radios};
    if (text == "radio:state") return FaultPoint{Call::radioState};
    if (text == "adapters") return FaultPoint{Call::adapters};
    if (text == "drivers") return FaultPoint{Call::drivers};
    if (text == "notify:TX") return FaultPoint{Call::notify, CharacteristicKind::tx};

    const auto colon = text.find(':');
    if (colon == std::string_view::npos) return std::nullopt;
    const auto characteristic = parseCharacteristic(text.substr(colon + 1));
    if (!characteristic) return std::nullopt;
    if (text.substr(0, colon) == "subscribe") return FaultPoint{Call::subscribe, *characteristic};
    if (text.substr(0, colon) == "write") return FaultPoint{Call::write, *characteristic};
    return std::nullopt;
}

std::optional<Fault> parseFault(std::string_view text) {
    for (const auto& [name, action] : kActions) {
        if (!name.ends_with(kCodeMark)) {
            if (text == name) return Fault{action};
        } else if (text.starts_with(name)) {
            if (const auto code = parseCode(text.substr(name.size()))) return Fault{action, *code};
        }
    }
    return std::nullopt;
}

bool isPossible(const FaultPoint& point, FaultAction action) {
    using enum FaultAction;
    const auto isOneOf = [action](std::initializer_list<FaultAction> actions) {
        return std::find(actions.begin(), actions.end(), action) != actions.end();
    };
    switch (point.call) {
        case FaultPoint::Call::notify:
            return isOneOf({null, noOperation, disconnect, hang});
        case FaultPoint::Call::session:
            return isOneOf({error, throwError, disconnect, hang});
        case FaultPoint::Call::radios:
        case FaultPoint::Call::radioState:
            return !isOneOf({disconnect, unreachable, protocolError, accessDenied});
        case FaultPoint::Call::adapters:
        case FaultPoint::Call::drivers:
            return isOneOf({null, error, hang});
        default:
            return true;
    }
}

std::string possibleActions(const FaultPoint& point) {
    std::string names;
    for (const auto& [name, action] : kActions) {
        if (!isPossible(point, action)) continue;
        names.append(names.empty() ? "" : ", ").append(name);
        if (name.ends_with(kCodeMark)) names.append("HRESULT");
    }
    return names;
}

std::optional<Fault> FaultTable::pass(const FaultPoint& point) {
    for (auto rule = rules_.begin(); rule != rules_.end(); ++rule) {
        if (rule->point != point) continue;
        if (rule->after > 0) {
            --rule->after;
            continue;
        }
        const Fault fault = rule->fault;
        if (rule->times > 0 && --rule->times == 0) rules_.erase(rule);
        ++happened_;
        return fault;
    }
    return std::nullopt;
}

}  // namespace sim
