#include "winrt.h"

#include <roapi.h>
#include <winstring.h>

#include <cwchar>

namespace platform::winrt {

void check(HRESULT result) {
    if (FAILED(result)) throw PlatformError(result);
}

void activationFactory(const wchar_t* className, REFIID interfaceId, void** factory) {
    HSTRING_HEADER header;
    HSTRING name = nullptr;
    check(::WindowsCreateStringReference(className, static_cast<UINT32>(std::wcslen(className)), &header,
                                         &name));
    check(::RoGetActivationFactory(name, interfaceId, factory));
}

RuntimeString::RuntimeString(const std::wstring& text) {
    check(::WindowsCreateString(text.data(), static_cast<UINT32>(text.size()), &handle_));
}

RuntimeString::~RuntimeString() {
    ::WindowsDeleteString(handle_);
}

std::wstring RuntimeString::text() const {
    UINT32 length = 0;
    const wchar_t* const units = ::WindowsGetStringRawBuffer(handle_, &length);
    return {units, length};
}

}  // namespace platform::winrt
