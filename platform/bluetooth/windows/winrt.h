// How this side talks to the Windows Runtime: results, references, texts, activation.
//
// Threads: any; the process has a multithreaded apartment, which every thread of it shares. What the runtime
// refuses is thrown as PlatformError, by check() alone.
#pragma once

#include <windows.h>

#include <hstring.h>
#include <inspectable.h>
#include <wrl/client.h>

#include <bit>
#include <string>

#include "platform/error.h"
#include "platform/guid.h"

namespace platform::winrt {

// Attach() is not to be used: MinGW's adds a reference, the Windows SDK's does not. And `->` is for the
// runtime's interfaces only: the SDK's hands out a class derived from what it points to.
using Microsoft::WRL::ComPtr;

// Throws PlatformError with the system's text for the code when it is a failure.
void check(HRESULT result);

// Throws where the object does not offer the interface, as an old Windows does with newer ones.
template <class Interface, class Object>
ComPtr<Interface> query(const ComPtr<Object>& object) {
    ComPtr<Interface> found;
    check(object.Get()->QueryInterface(__uuidof(Interface), reinterpret_cast<void**>(found.GetAddressOf())));
    return found;
}

// The activation factory of a class, asked for one of its interfaces.
void activationFactory(const wchar_t* className, REFIID interfaceId, void** factory);

template <class Interface>
ComPtr<Interface> activationFactory(const wchar_t* className) {
    ComPtr<Interface> factory;
    activationFactory(className, __uuidof(Interface), reinterpret_cast<void**>(factory.GetAddressOf()));
    return factory;
}

// A text of the runtime's.
class RuntimeString {
  public:
    RuntimeString() = default;
    explicit RuntimeString(const std::wstring& text);
    ~RuntimeString();
    RuntimeString(const RuntimeString&) = delete;
    RuntimeString& operator=(const RuntimeString&) = delete;

    HSTRING get() const { return handle_; }
    // For a call that hands out a text, once.
    HSTRING* put() { return &handle_; }
    std::wstring text() const;

  private:
    HSTRING handle_ = nullptr;
};

// The text that a property hands out: textOf(radio, &IRadio::get_Name).
template <class Interface, class Base>
std::wstring textOf(const ComPtr<Interface>& object, HRESULT (STDMETHODCALLTYPE Base::*property)(HSTRING*)) {
    RuntimeString text;
    check((object.Get()->*property)(text.put()));
    return text.text();
}

// Any other property: valueOf(radio, &IRadio::get_Kind).
template <class Interface, class Base, class Value>
Value valueOf(const ComPtr<Interface>& object, HRESULT (STDMETHODCALLTYPE Base::*property)(Value*)) {
    Value value{};
    check((object.Get()->*property)(&value));
    return value;
}

// A property that is an object; null where the runtime has none.
template <class Interface, class Base, class Value>
ComPtr<Value> objectOf(const ComPtr<Interface>& object,
                       HRESULT (STDMETHODCALLTYPE Base::*property)(Value**)) {
    ComPtr<Value> value;
    check((object.Get()->*property)(value.GetAddressOf()));
    return value;
}

// Both types have the same members in the same order.
inline Guid fromRuntime(const GUID& guid) {
    return std::bit_cast<Guid>(guid);
}
inline GUID toRuntime(const Guid& guid) {
    return std::bit_cast<GUID>(guid);
}

}  // namespace platform::winrt
