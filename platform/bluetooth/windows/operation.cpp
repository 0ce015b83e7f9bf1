#include "operation.h"

#include <atomic>

namespace platform::winrt {

namespace {

std::atomic<bool> ended = false;

// Named by deduction: the headers of different tool chains put the runtime's own status into different
// namespaces.
template <class Status>
AsyncStatus runtimeStatus(IAsyncInfo& info, HRESULT (STDMETHODCALLTYPE IAsyncInfo::*getStatus)(Status*)) {
    Status status{};
    check((info.*getStatus)(&status));
    return static_cast<AsyncStatus>(status);
}

}  // namespace

AsyncStatus statusOf(const ComPtr<IAsyncInfo>& operation) {
    const AsyncStatus status = runtimeStatus(*operation.Get(), &IAsyncInfo::get_Status);
    if (status != AsyncStatus::started || !ended) return status;
    operation->Cancel();
    return AsyncStatus::canceled;
}

HResult errorCodeOf(const ComPtr<IAsyncInfo>& operation) {
    if (statusOf(operation) != AsyncStatus::error) return 0;
    return valueOf(operation, &IAsyncInfo::get_ErrorCode);
}

std::string typeNameOf(const ComPtr<IAsyncInfo>& operation) {
    RuntimeString name;
    if (FAILED(operation->GetRuntimeClassName(name.put()))) return "IAsyncOperation";
    return toUtf8(name.text());
}

void endOperations() {
    ended = true;
}

}  // namespace platform::winrt
