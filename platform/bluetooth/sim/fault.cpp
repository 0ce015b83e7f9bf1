#include "fault.h"

#include <charconv>
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

std::optional<platform::HResult> parseCode(std::string_view text) {
    if (!text.starts_with("0x") || text.size() > 10) return std::nullopt;
    std::uint32_t bits = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data() + 2, end, bits, 16);
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
    constexpr std::pair<std::string_view, FaultAction> kPlain[] = {
        {"null", FaultAction::null},
        {"no-operation", FaultAction::noOperation},
        {"cancel", FaultAction::cancel},
        {"unreachable", FaultAction::unreachable},
        {"protocol-error", FaultAction::protocolError},
        {"access-denied", FaultAction::accessDenied},
        {"disconnect", FaultAction::disconnect},
        {"hang", FaultAction::hang},
    };
    for (const auto& [name, action] : kPlain) {
        if (text == name) return Fault{action};
    }
    constexpr std::pair<std::string_view, FaultAction> kWithCode[] = {
        {"error:", FaultAction::error},
        {"throw:", FaultAction::throwError},
    };
    for (const auto& [prefix, action] : kWithCode) {
        if (!text.starts_with(prefix)) continue;
        const auto code = parseCode(text.substr(prefix.size()));
        if (code) return Fault{action, *code};
    }
    return std::nullopt;
}

bool isPossible(const FaultPoint& point, FaultAction action) {
    if (point.call == FaultPoint::Call::session) {
        return action == FaultAction::error || action == FaultAction::throwError ||
               action == FaultAction::disconnect || action == FaultAction::hang;
    }
    if (point.call != FaultPoint::Call::notify) return true;
    return action == FaultAction::null || action == FaultAction::noOperation ||
           action == FaultAction::disconnect || action == FaultAction::hang;
}

FaultTable::FaultTable(const std::vector<FaultRule>& rules) {
    for (auto& rule : rules)
        entries_.push_back({rule});
}

std::optional<Fault> FaultTable::pass(const FaultPoint& point) {
    for (auto& entry : entries_) {
        if (entry.rule.point != point) continue;
        if (entry.passed < entry.rule.after) {
            ++entry.passed;
            continue;
        }
        if (entry.rule.times != 0 && entry.fired == entry.rule.times) continue;
        if (entry.rule.times != 0) ++entry.fired;
        ++happened_;
        return entry.rule.fault;
    }
    return std::nullopt;
}

}  // namespace sim
