// What all objects of the provider have in common: reference counting, interfaces, and the counts of live
// objects that the provider reports when the process ends.
//
// Threads: any. On x86-64 there is only one calling convention, so none is named here.
#pragma once

#include <windows.h>

#include <activation.h>
#include <inspectable.h>
#include <winstring.h>
#include <wrl/client.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <concepts>
#include <new>
#include <string>
#include <type_traits>
#include <utility>

#include "platform/error.h"

namespace provider {

using Microsoft::WRL::ComPtr;

inline constexpr platform::HResult kOutOfBounds = platform::hresult(0x8000000B);

// Counts the live objects of one class. The counts form a list of static objects, so that the report at the
// end of the process needs no lock and no memory that may be freed already.
class ObjectCount {
  public:
    explicit ObjectCount(const wchar_t* className) noexcept;

    const wchar_t* const className;
    std::atomic<long> live = 0;
    ObjectCount* next = nullptr;

    static const ObjectCount* first() noexcept;
};

// Runs the body of a method and turns an exception into the method's result.
template <class Body>
HRESULT guarded(const Body& body) noexcept {
    try {
        body();
        return S_OK;
    } catch (const platform::PlatformError& error) {
        return error.code();
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_FAIL;
    }
}

// Throws when a call of another object's method has failed; for use inside guarded().
inline void check(HRESULT result) {
    if (FAILED(result)) throw platform::PlatformError(result);
}

inline HRESULT handOut(const std::wstring& text, HSTRING* out) noexcept {
    return ::WindowsCreateString(text.data(), static_cast<UINT32>(text.size()), out);
}

inline std::wstring textOf(HSTRING text) {
    UINT32 length = 0;
    const wchar_t* const units = ::WindowsGetStringRawBuffer(text, &length);
    return {units, length};
}

// True when the version that the system reports is older than the newer GATT calls.
bool olderWindows();

// The interface that a base class implements: its member type Interface if it has one, otherwise the base
// class itself.
template <class Base>
struct InterfaceOf {
    using Type = Base;
};
template <class Base>
requires requires {
    typename Base::Interface;
}
struct InterfaceOf<Base> {
    using Type = typename Base::Interface;
};

// Implements the interfaces of `Bases`; the first one is the default interface. `Self` has a static
// kClassName.
template <class Self, class... Bases>
class Object : public Bases... {
  public:
    Object() { ++count_.live; }
    virtual ~Object() { --count_.live; }
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;

    HRESULT QueryInterface(REFIID iid, void** out) override {
        *out = nullptr;
        if (iid == __uuidof(IUnknown) || iid == __uuidof(IInspectable) || iid == __uuidof(IAgileObject)) {
            *out = asDefault();
        }
        const auto offer = [&]<class Interface>() {
            if (iid == __uuidof(Interface)) *out = static_cast<Interface*>(this);
        };
        (offer.template operator()<InterfaceType<Bases>>(), ...);
        if (!*out) return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }
    ULONG AddRef() override { return ++references_; }
    ULONG Release() override {
        const ULONG left = --references_;
        if (left == 0) delete static_cast<Self*>(this);
        return left;
    }

    HRESULT GetIids(ULONG* count, IID** out) {
        const std::array iids{__uuidof(InterfaceType<Bases>)...};
        *count = 0;
        *out = static_cast<IID*>(::CoTaskMemAlloc(sizeof iids));
        if (!*out) return E_OUTOFMEMORY;
        std::copy(iids.begin(), iids.end(), *out);
        *count = static_cast<ULONG>(iids.size());
        return S_OK;
    }
    HRESULT GetRuntimeClassName(HSTRING* out) { return handOut(Self::kClassName, out); }
    HRESULT GetTrustLevel(TrustLevel* out) {
        *out = BaseTrust;
        return S_OK;
    }

  protected:
    // A reference for a callback, which holds none itself. Null when the last reference has just been
    // released.
    ComPtr<Self> self() {
        ComPtr<Self> reference;
        for (ULONG now = references_; now != 0;) {
            if (!references_.compare_exchange_weak(now, now + 1)) continue;
            *reference.GetAddressOf() = static_cast<Self*>(this);
            break;
        }
        return reference;
    }

  private:
    template <class Base>
    using InterfaceType = typename InterfaceOf<Base>::Type;

    void* asDefault() {
        void* first = nullptr;
        ((first = first ? first : static_cast<InterfaceType<Bases>*>(this)), ...);
        return first;
    }

    inline static ObjectCount count_{Self::kClassName};
    std::atomic<ULONG> references_ = 0;
};

// A new object with its first reference.
template <class Type, class... Arguments>
ComPtr<Type> make(Arguments&&... arguments) {
    return ComPtr<Type>(new Type(std::forward<Arguments>(arguments)...));
}

// Hands over a reference to the caller, as the interface that it asked for.
template <class Type, class Interface>
void handOut(ComPtr<Type> object, Interface** out) {
    *out = object.Detach();
}

}  // namespace provider
