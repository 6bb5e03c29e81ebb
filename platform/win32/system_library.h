// SPDX-License-Identifier: Apache-2.0
// DLLs that are not KnownDLLs, loaded at run time from the system directory only.
#pragma once

#include <windows.h>

namespace platform::win32 {

// The module of a system DLL, loaded once from system32; null when it is missing there.
HMODULE SystemLibrary(const wchar_t* name);
// The error a call gives for a function that SystemFunction did not find: the loader's
// ERROR_MOD_NOT_FOUND without the DLL, ERROR_PROC_NOT_FOUND without the function.
DWORD MissingError(const wchar_t* library);

// A function of a system DLL, or null when the DLL or the function is missing.
template <typename Function>
Function SystemFunction(const wchar_t* library, const char* name) {
    const HMODULE module = SystemLibrary(library);
    if (module == nullptr) return nullptr;
    // By way of void (*)(), which any function pointer becomes and comes back from without
    // GCC's cast-function-type warning.
    return reinterpret_cast<Function>(reinterpret_cast<void (*)()>(GetProcAddress(module, name)));
}

}  // namespace platform::win32
