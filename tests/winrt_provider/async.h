// Shows asynchronous operations and lists of platform/ as those of the Windows Runtime.
#pragma once

#include <asyncinfo.h>
#include <windows.foundation.h>

#include <optional>
#include <vector>

#include "bluetooth/operation.h"
#include "platform/async.h"
#include "tests/winrt_provider/object.h"

namespace provider {

namespace foundation = ABI::Windows::Foundation;
using foundation::IAsyncOperation;
using foundation::Collections::IVectorView;

// The binary type for the type argument of a generic interface.
template <class Complex>
using AbiType = typename foundation::Internal::GetAbiType<Complex>::type;

// `Convert` makes the runtime's result of the seam's.
template <class Result, class Seam, class Convert>
class AsyncOperation final
    : public Object<AsyncOperation<Result, Seam, Convert>, IAsyncOperation<Result>, IAsyncInfo> {
  public:
    using Abi = AbiType<typename IAsyncOperation<Result>::TResult_complex>;

    AsyncOperation(platform::AsyncOperationPtr<Seam> operation, Convert convert)
        : operation_(std::move(operation)), convert_(std::move(convert)) {}

    HRESULT GetRuntimeClassName(HSTRING* out) override {
        return give(out, [] { return operationName(typeid(Result)); });
    }
    HRESULT GetResults(Abi* out) override {
        return give(out, [&] { return convert_(operation_->getResults()); });
    }
    HRESULT get_Status(AsyncStatus* out) override {
        return give(out, [&] { return operation_->status(); });
    }
    HRESULT get_ErrorCode(HRESULT* out) override {
        return give(out, [&] { return operation_->errorCode(); });
    }
    HRESULT Cancel() override {
        if (const auto pending = std::dynamic_pointer_cast<bluetooth::Cancelable>(operation_))
            pending->cancel();
        return S_OK;
    }
    HRESULT get_Id(UINT32*) override { return E_NOTIMPL; }
    HRESULT Close() override { return E_NOTIMPL; }

  private:
    const platform::AsyncOperationPtr<Seam> operation_;
    const Convert convert_;
};

// A null operation stays null.
template <class Result, class Seam, class Convert>
ComPtr<IAsyncOperation<Result>> wrap(platform::AsyncOperationPtr<Seam> operation, Convert convert) {
    if (!operation) return nullptr;
    return make<AsyncOperation<Result, Seam, Convert>>(std::move(operation), std::move(convert));
}
// For results that need no conversion.
template <class Result, class Seam>
ComPtr<IAsyncOperation<Result>> wrap(platform::AsyncOperationPtr<Seam> operation) {
    return wrap<Result>(std::move(operation), [](Seam result) { return result; });
}

template <class Element>
class VectorView final : public Object<VectorView<Element>, IVectorView<Element>> {
  public:
    using Abi = AbiType<typename IVectorView<Element>::T_complex>;
    using Elements = std::vector<ComPtr<std::remove_pointer_t<Abi>>>;

    explicit VectorView(Elements elements) : elements_(std::move(elements)) {}

    HRESULT GetAt(UINT32 index, Abi* out) override {
        *out = nullptr;
        return index < elements_.size() ? elements_[index].CopyTo(out) : kOutOfBounds;
    }
    HRESULT get_Size(UINT32* out) override {
        return give(out, [&] { return elements_.size(); });
    }

  private:
    const Elements elements_;
};

// A list of `Wrapper` objects. A missing list becomes null.
template <class Element, class Wrapper, class Seam>
ComPtr<IVectorView<Element>> viewOf(const std::optional<std::vector<Seam>>& list) {
    if (!list) return nullptr;
    typename VectorView<Element>::Elements elements;
    for (const auto& item : *list)
        elements.push_back(make<Wrapper>(item));
    return make<VectorView<Element>>(std::move(elements));
}

}  // namespace provider
