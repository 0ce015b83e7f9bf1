// Shows objects, asynchronous operations and lists of platform/ as those of the Windows Runtime.
#pragma once

#include <asyncinfo.h>
#include <windows.foundation.h>

#include <functional>
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

// A value of the runtime as an argument of platform/.
template <class Abi>
struct FromAbi {
    Abi value;

    template <class Value>
    operator Value() const {
        return std::bit_cast<Value>(value);
    }
};

// Hand out a value, an operation or a list of platform/. `Wrapper` shows what is no plain value; what is
// missing stays missing.
template <class Wrapper, class Seam, class Out>
void put(const Seam& seam, Out* out) {
    if constexpr (std::is_void_v<Wrapper>) {
        handOut(seam, out);
    } else {
        if constexpr (requires { !seam; }) {
            if (!seam) return;
        }
        handOut(make<Wrapper>(seam), out);
    }
}
template <class Wrapper, class Seam, class Element>
void put(const std::vector<Seam>& list, IVectorView<Element>** out);
template <class Wrapper, class Seam, class Element>
void put(const std::optional<std::vector<Seam>>& list, IVectorView<Element>** out) {
    if (list) put<Wrapper>(*list, out);
}
template <class Wrapper, class Seam, class Result>
void put(const platform::AsyncOperationPtr<Seam>& operation, IAsyncOperation<Result>** out);

// A method that hands out what the body returns.
template <class Wrapper = void, class Out, class Body>
HRESULT give(Out* out, const Body& body) noexcept {
    *out = {};
    return guarded([&] { put<Wrapper>(body(), out); });
}

// What shows a value or an object of platform/.
template <class Self, class Shown, class... Interfaces>
class View : public Object<Self, Interfaces...> {
  public:
    explicit View(Shown shown) : shown_(std::move(shown)) {}

  protected:
    // A method that hands out what a member of it gives.
    template <class Wrapper = void, class Out, class Member, class... Arguments>
    HRESULT show(Out* out, Member member, const Arguments&... arguments) const noexcept {
        return give<Wrapper>(out,
                             [&]() -> decltype(auto) { return std::invoke(member, shown_, arguments...); });
    }
    // A method that hands out nothing.
    template <class Member, class... Arguments>
    HRESULT call(Member member, const Arguments&... arguments) const noexcept {
        return guarded([&] { std::invoke(member, shown_, arguments...); });
    }

    const Shown shown_;
};

template <class Wrapper, class Element>
class VectorView final : public Object<VectorView<Wrapper, Element>, IVectorView<Element>> {
  public:
    using Abi = AbiType<typename IVectorView<Element>::T_complex>;

    template <class Seam>
    explicit VectorView(const std::vector<Seam>& list) {
        for (const auto& item : list)
            elements_.push_back(make<Wrapper>(item));
    }
    HRESULT GetAt(UINT32 index, Abi* out) override {
        *out = nullptr;
        return index < elements_.size() ? elements_[index].CopyTo(out) : kOutOfBounds;
    }
    HRESULT get_Size(UINT32* out) override {
        return give(out, [&] { return elements_.size(); });
    }

  private:
    std::vector<ComPtr<std::remove_pointer_t<Abi>>> elements_;
};

template <class Wrapper, class Seam, class Element>
void put(const std::vector<Seam>& list, IVectorView<Element>** out) {
    *out = make<VectorView<Wrapper, Element>>(list).Detach();
}

template <class Wrapper, class Seam, class Result>
class AsyncOperation final
    : public View<AsyncOperation<Wrapper, Seam, Result>, platform::AsyncOperationPtr<Seam>,
                  IAsyncOperation<Result>, IAsyncInfo> {
  public:
    using AsyncOperation::View::View;
    using Abi = AbiType<typename IAsyncOperation<Result>::TResult_complex>;

    HRESULT GetRuntimeClassName(HSTRING* out) override {
        return give(out, [] { return operationName(typeid(Result)); });
    }
    HRESULT GetResults(Abi* out) override {
        return this->template show<Wrapper>(out, &platform::AsyncOperation<Seam>::getResults);
    }
    HRESULT get_Status(AsyncStatus* out) override { return this->show(out, &platform::AsyncInfo::status); }
    HRESULT get_ErrorCode(HRESULT* out) override { return this->show(out, &platform::AsyncInfo::errorCode); }
    HRESULT Cancel() override {
        if (const auto pending = std::dynamic_pointer_cast<bluetooth::Cancelable>(this->shown_))
            pending->cancel();
        return S_OK;
    }
    HRESULT get_Id(UINT32*) override { return E_NOTIMPL; }
    HRESULT Close() override { return E_NOTIMPL; }
};

template <class Wrapper, class Seam, class Result>
void put(const platform::AsyncOperationPtr<Seam>& operation, IAsyncOperation<Result>** out) {
    if (operation) *out = make<AsyncOperation<Wrapper, Seam, Result>>(operation).Detach();
}

// The factory of a class that can be activated.
template <class Class>
struct Activator final : FactoryOf<Activator<Class>> {
    HRESULT ActivateInstance(IInspectable** out) override { return give(out, make<Class>); }
};

}  // namespace provider
