// Shows asynchronous operations and lists of platform/ as those of the Windows Runtime.
#pragma once

#include <asyncinfo.h>
#include <windows.foundation.h>

#include <functional>
#include <memory>
#include <vector>

#include "bluetooth/operation.h"
#include "platform/async.h"
#include "tests/winrt_provider/object.h"

namespace provider {

namespace foundation = ABI::Windows::Foundation;

// The binary type for the type argument of a generic interface.
template <class Complex>
using AbiType = typename foundation::Internal::GetAbiType<Complex>::type;

// The class name of the operation that has this result.
template <class Result>
inline constexpr const wchar_t* kOperationName = nullptr;

template <class Result, class Seam>
class AsyncOperation final
    : public Object<AsyncOperation<Result, Seam>, foundation::IAsyncOperation<Result>, IAsyncInfo> {
  public:
    static constexpr const wchar_t* kClassName = kOperationName<Result>;
    static_assert(kClassName != nullptr);
    using Abi = AbiType<typename foundation::IAsyncOperation<Result>::TResult_complex>;
    using Handler = foundation::IAsyncOperationCompletedHandler<Result>;
    using Convert = std::function<void(const Seam& result, Abi* out)>;

    AsyncOperation(platform::AsyncOperationPtr<Seam> operation, Convert convert)
        : operation_(std::move(operation)), convert_(std::move(convert)) {}

    // The program polls and sets no handler, so one that comes too early is not supported.
    HRESULT put_Completed(Handler* handler) override {
        AsyncStatus status{};
        get_Status(&status);
        return status == AsyncStatus::Started ? E_NOTIMPL : handler->Invoke(this, status);
    }
    HRESULT get_Completed(Handler** out) override {
        *out = nullptr;
        return E_NOTIMPL;
    }
    HRESULT GetResults(Abi* out) override {
        *out = {};
        return guarded([&] { convert_(operation_->getResults(), out); });
    }

    HRESULT get_Id(UINT32* out) override {
        *out = 1;
        return S_OK;
    }
    HRESULT get_Status(AsyncStatus* out) override {
        return guarded([&] { *out = static_cast<AsyncStatus>(operation_->status()); });
    }
    HRESULT get_ErrorCode(HRESULT* out) override {
        return guarded([&] { *out = operation_->errorCode(); });
    }
    HRESULT Cancel() override {
        if (const auto pending = std::dynamic_pointer_cast<bluetooth::Cancelable>(operation_))
            pending->cancel();
        return S_OK;
    }
    HRESULT Close() override { return S_OK; }

  private:
    const platform::AsyncOperationPtr<Seam> operation_;
    const Convert convert_;
};

// A null operation stays null.
template <class Result, class Seam, class Convert>
void handOut(platform::AsyncOperationPtr<Seam> operation, const Convert& convert,
             foundation::IAsyncOperation<Result>** out) {
    *out = nullptr;
    if (operation) handOut(make<AsyncOperation<Result, Seam>>(std::move(operation), convert), out);
}

template <class Element>
class VectorView final : public Object<VectorView<Element>, foundation::Collections::IVectorView<Element>> {
  public:
    static constexpr const wchar_t* kClassName = L"IVectorView";
    using Abi = AbiType<typename foundation::Collections::IVectorView<Element>::T_complex>;
    using Elements = std::vector<ComPtr<std::remove_pointer_t<Abi>>>;

    explicit VectorView(Elements elements) : elements_(std::move(elements)) {}

    HRESULT GetAt(UINT32 index, Abi* out) override {
        *out = nullptr;
        return index < elements_.size() ? elements_[index].CopyTo(out) : kOutOfBounds;
    }
    HRESULT get_Size(UINT32* out) override {
        *out = static_cast<UINT32>(elements_.size());
        return S_OK;
    }
    HRESULT IndexOf(Abi, UINT32*, BOOLEAN*) override { return E_NOTIMPL; }
    HRESULT GetMany(UINT32, UINT32, Abi*, UINT32*) override { return E_NOTIMPL; }

  private:
    const Elements elements_;
};

// Wraps every element of the list.
template <class Element, class Seam, class Wrap>
void handOut(const std::vector<Seam>& list, const Wrap& wrap,
             foundation::Collections::IVectorView<Element>** out) {
    typename VectorView<Element>::Elements elements;
    for (const auto& item : list)
        elements.push_back(wrap(item));
    handOut(make<VectorView<Element>>(std::move(elements)), out);
}

// A missing list becomes null.
template <class Element, class Seam, class Wrap>
void handOut(const std::optional<std::vector<Seam>>& list, const Wrap& wrap,
             foundation::Collections::IVectorView<Element>** out) {
    *out = nullptr;
    if (list) handOut(*list, wrap, out);
}

}  // namespace provider
