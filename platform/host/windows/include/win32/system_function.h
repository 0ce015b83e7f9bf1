// Functions that not every Windows, nor Wine, has.
#pragma once

#include <windows.h>

namespace platform {

// Null where the system lacks it. The module stays loaded.
template <class Function>
Function* systemFunction(const wchar_t* moduleName, const char* name) {
    const HMODULE module = ::LoadLibraryExW(moduleName, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    if (!module) return nullptr;
    return reinterpret_cast<Function*>(reinterpret_cast<void*>(::GetProcAddress(module, name)));
}

}  // namespace platform
