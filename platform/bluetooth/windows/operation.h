// Asynchronous operations of the Windows Runtime as the program polls them.
#pragma once

#include <asyncinfo.h>
#include <windows.foundation.collections.h>
#include <windows.foundation.h>

#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/async.h"
#include "platform/text.h"
#include "winrt.h"

namespace platform::winrt {

// What can be asked of any operation, whatever its result. Threads: any.
//
// Once the Bluetooth side has ended (endOperations) an operation that still runs is called back and reads as
// cancelled, whether or not the runtime follows at once.
AsyncStatus statusOf(const ComPtr<IAsyncInfo>& operation);
HResult errorCodeOf(const ComPtr<IAsyncInfo>& operation);
std::string typeNameOf(const ComPtr<IAsyncInfo>& operation);

// From now on nobody has to wait for an operation that the runtime does not finish.
void endOperations();

// `Logical` is the result as the runtime names it (BluetoothLEDevice*, an enum); `Convert` makes the seam's
// of it: it is given the enum, or a reference that may be null.
template <class Result, class Logical, class Convert>
class Operation final : public AsyncOperation<Result> {
  public:
    using Abi = ABI::Windows::Foundation::IAsyncOperation<Logical>;

    Operation(ComPtr<Abi> operation, Convert convert)
        : operation_(std::move(operation)),
          info_(query<IAsyncInfo>(operation_)),
          convert_(std::move(convert)) {}

    AsyncStatus status() const override { return statusOf(info_); }
    HResult errorCode() const override { return errorCodeOf(info_); }
    std::string typeName() const override { return typeNameOf(info_); }

    Result getResults() override {
        if (status() == AsyncStatus::canceled) throw PlatformError(kECancelled);
        using Raw =
            typename ABI::Windows::Foundation::Internal::GetAbiType<typename Abi::TResult_complex>::type;
        if constexpr (std::is_pointer_v<Raw>) {
            ComPtr<std::remove_pointer_t<Raw>> result;
            check(operation_->GetResults(result.GetAddressOf()));
            return convert_(result);
        } else {
            Raw result{};
            check(operation_->GetResults(&result));
            return convert_(result);
        }
    }

  private:
    const ComPtr<Abi> operation_;
    const ComPtr<IAsyncInfo> info_;
    const Convert convert_;
};

// Null stays null: no operation came back.
template <class Result, class Logical, class Convert>
AsyncOperationPtr<Result> makeOperation(ComPtr<ABI::Windows::Foundation::IAsyncOperation<Logical>> operation,
                                        Convert convert) {
    if (!operation) return nullptr;
    return std::make_shared<Operation<Result, Logical, Convert>>(std::move(operation), std::move(convert));
}

// The elements of a list, each made into the seam's object. The list must not be null.
template <class Result, class View, class Convert>
std::vector<Result> elementsOf(const ComPtr<View>& view, Convert convert) {
    using Raw = typename ABI::Windows::Foundation::Internal::GetAbiType<typename View::T_complex>::type;
    std::vector<Result> elements;
    const UINT32 size = valueOf(view, &View::get_Size);
    elements.reserve(size);
    for (UINT32 index = 0; index < size; ++index) {
        ComPtr<std::remove_pointer_t<Raw>> element;
        check(view->GetAt(index, element.GetAddressOf()));
        elements.push_back(convert(std::move(element)));
    }
    return elements;
}

}  // namespace platform::winrt
