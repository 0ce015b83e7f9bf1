// Misbehaviour on request: at which call, after how many calls that went well, how often, and what.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/error.h"
#include "profile.h"

namespace sim {

struct FaultPoint {
    enum class Call {
        device,
        services,
        servicesAll,
        characteristics,
        subscribe,
        write,
        notify,
        pair,
        session,
        // Of the world, the others of a peripheral:
        radios,
        radioState,
        adapters,
        drivers
    };

    Call call = Call::device;
    CharacteristicKind characteristic = CharacteristicKind::tx;  // of subscribe, write and notify

    bool ofWorld() const { return call >= Call::radios; }
    bool operator==(const FaultPoint&) const = default;
};

enum class FaultAction {
    null,
    noOperation,
    error,
    cancel,
    unreachable,
    protocolError,
    accessDenied,
    throwError,
    disconnect,
    hang
};

struct Fault {
    FaultAction action = FaultAction::null;
    platform::HResult code = 0;  // of error and throwError

    bool operator==(const Fault&) const = default;
};

struct FaultRule {
    FaultPoint point;
    std::uint32_t after = 0;
    std::uint32_t times = 1;  // 0: for ever
    Fault fault;

    bool operator==(const FaultRule&) const = default;
};

// From their texts in a scenario; nothing for any other text.
std::optional<FaultPoint> parseFaultPoint(std::string_view text);
std::optional<Fault> parseFault(std::string_view text);

// Whether the action can happen there: a notification, for one, has no operation that could end in an error.
bool isPossible(const FaultPoint& point, FaultAction action);
// The actions that can happen there, as scenarios write them: "null, hang".
std::string possibleActions(const FaultPoint& point);

// Counts the passes of each rule. Rules of one point are asked in order; the one that fires hides that pass
// from those behind it. Not thread-safe.
class FaultTable {
  public:
    explicit FaultTable(std::vector<FaultRule> rules) : rules_(std::move(rules)) {}

    // Called once for each pass; what goes wrong this time, if anything.
    std::optional<Fault> pass(const FaultPoint& point);
    std::uint64_t happened() const { return happened_; }

  private:
    std::vector<FaultRule> rules_;  // what is left of them
    std::uint64_t happened_ = 0;
};

}  // namespace sim
