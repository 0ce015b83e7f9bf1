// The machine's radios and their switches.
//
// Threads: any. Every call may throw PlatformError.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/async.h"

namespace platform {

// The platform's values.
enum class RadioKind { other = 0, wiFi = 1, mobileBroadband = 2, bluetooth = 3, fm = 4 };
enum class RadioState { unknown = 0, on = 1, off = 2, disabled = 3 };
enum class RadioAccessStatus { allowed = 1 };  // others mean a refusal

class Radio {
  public:
    virtual ~Radio() = default;
    virtual std::wstring name() const = 0;
    virtual RadioKind kind() const = 0;
    virtual RadioState state() const = 0;
    // The state follows some time after the request, if at all.
    virtual AsyncOperationPtr<RadioAccessStatus> setStateAsync(RadioState state) = 0;
};

// Nothing: the list cannot be obtained.
using RadioList = std::optional<std::vector<std::shared_ptr<Radio>>>;

AsyncOperationPtr<RadioList> getRadiosAsync();

}  // namespace platform
