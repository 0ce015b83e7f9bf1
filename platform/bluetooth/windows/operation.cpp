#include "operation.h"

#include <atomic>

namespace platform::winrt {

namespace {

std::atomic<bool> ended = false;

// Named by deduction: the headers of different tool chains put the runtime's own status into different
// namespaces.
template <class Status>
AsyncStatus statusOf(IAsyncInfo& info, HRESULT (STDMETHODCALLTYPE IAsyncInfo::*getStatus)(Status*)) {
    Status status{};
    check((info.*getStatus)(&status));
    return static_cast<AsyncStatus>(status);
}

}  // namespace

AsyncStatus OperationInfo::status() const {
    const AsyncStatus status = statusOf(*info_.Get(), &IAsyncInfo::get_Status);
    if (status != AsyncStatus::started || !ended) return status;
    info_->Cancel();
    return AsyncStatus::canceled;
}

HResult OperationInfo::errorCode() const {
    if (status() != AsyncStatus::error) return 0;
    return valueOf(info_, &IAsyncInfo::get_ErrorCode);
}

std::string OperationInfo::typeName() const {
    RuntimeString name;
    if (FAILED(info_->GetRuntimeClassName(name.put()))) return "IAsyncOperation";
    return toUtf8(name.text());
}

void endOperations() {
    ended = true;
}

}  // namespace platform::winrt
