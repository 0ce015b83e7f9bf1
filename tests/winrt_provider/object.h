// What all objects of the provider have in common: reference counting, interfaces, results, and the counts of
// live objects that the provider reports when the process ends.
//
// Threads: any. On x86-64 there is only one calling convention, so none is named here.
#pragma once

#include <windows.h>

#include <activation.h>
#include <inspectable.h>
#include <winstring.h>
#include <wrl/client.h>

#include <atomic>
#include <bit>
#include <new>
#include <string>
#include <tuple>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "platform/error.h"
#include "platform/guid.h"

namespace provider {

using Microsoft::WRL::ComPtr;

inline constexpr platform::HResult kOutOfBounds = platform::hresult(0x8000000B);

// The runtime's name of an asynchronous operation with this result.
std::wstring operationName(const std::type_info& result);

// Counts the live objects of one class. The counts form a list of static objects, so that the report at the
// end of the process needs no lock and no memory that may be freed already.
class ObjectCount {
  public:
    explicit ObjectCount(const std::type_info& type) noexcept;

    const char* const className;
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

// Hand a value out in the form that the binary interface has for it.
inline void handOut(const std::wstring& text, HSTRING* out) {
    check(::WindowsCreateString(text.data(), static_cast<UINT32>(text.size()), out));
}
inline void handOut(const platform::Guid& guid, GUID* out) {
    *out = std::bit_cast<GUID>(guid);
}
template <class Class, class Interface>
void handOut(ComPtr<Class> object, Interface** out) {
    *out = object.Detach();
}
template <class Value, class Out>
requires std::is_enum_v<Value> || std::is_arithmetic_v<Value>
void handOut(Value value, Out* out) {
    *out = static_cast<Out>(value);
}

inline std::wstring textOf(HSTRING text) {
    UINT32 length = 0;
    const wchar_t* const units = ::WindowsGetStringRawBuffer(text, &length);
    return {units, length};
}

// True when the version that the system reports is older than the newer GATT calls.
bool olderWindows();

// Implements the interfaces; the first one is the default interface. `Self` may hide some of them with a
// function offers() of its own.
template <class Self, class... Interfaces>
class Object : public Interfaces... {
  public:
    Object() { ++count_.live; }
    virtual ~Object() { --count_.live; }
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;

    static long live() { return count_.live; }
    bool offers(REFIID) const { return true; }

    HRESULT QueryInterface(REFIID iid, void** out) override {
        *out = nullptr;
        if (!static_cast<Self*>(this)->offers(iid)) return E_NOINTERFACE;
        if (iid == __uuidof(IUnknown) || iid == __uuidof(IInspectable) || iid == __uuidof(IAgileObject))
            *out = static_cast<Default*>(this);
        const auto offer = [&]<class Interface>() {
            if (iid == __uuidof(Interface)) *out = static_cast<Interface*>(this);
        };
        (offer.template operator()<Interfaces>(), ...);
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

    HRESULT GetIids(ULONG*, IID**) override { return E_NOTIMPL; }
    HRESULT GetRuntimeClassName(HSTRING*) override { return E_NOTIMPL; }
    HRESULT GetTrustLevel(TrustLevel*) override { return E_NOTIMPL; }

  protected:
    using Default = std::tuple_element_t<0, std::tuple<Interfaces...>>;

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
    inline static ObjectCount count_{typeid(Self)};
    std::atomic<ULONG> references_ = 0;
};

// A new object with its first reference.
template <class Class, class... Arguments>
ComPtr<Class> make(Arguments&&... arguments) {
    return ComPtr<Class>(new Class(std::forward<Arguments>(arguments)...));
}

// The factory of a class that has static methods only.
template <class Self, class... Statics>
struct FactoryOf : Object<Self, IActivationFactory, Statics...> {
    HRESULT ActivateInstance(IInspectable**) override { return E_NOTIMPL; }
};

}  // namespace provider
