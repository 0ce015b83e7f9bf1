// Asynchronous operations: polled, never called back.
#pragma once

#include <memory>
#include <string>

#include "platform/error.h"

namespace platform {

// The platform's values.
enum class AsyncStatus { started = 0, completed = 1, canceled = 2, error = 3 };

// What can be asked of any operation, from any thread, at any time. Calls throw PlatformError when the
// platform refuses them.
class AsyncInfo {
  public:
    virtual ~AsyncInfo() = default;
    virtual AsyncStatus status() const = 0;
    // Meaningful in state error, 0 otherwise.
    virtual HResult errorCode() const = 0;
    // The operation's type as the platform names it, for the log.
    virtual std::string typeName() const = 0;
};

template <class Result>
class AsyncOperation : public AsyncInfo {
  public:
    // After the operation has completed, as often as wanted. Throws PlatformError when it failed (with its
    // error code), was cancelled or still runs.
    virtual Result getResults() = 0;
};

// Null: no operation came back.
template <class Result>
using AsyncOperationPtr = std::shared_ptr<AsyncOperation<Result>>;

}  // namespace platform
