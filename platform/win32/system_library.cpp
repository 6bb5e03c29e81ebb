// SPDX-License-Identifier: Apache-2.0
// The program runs elevated from wherever the operator unpacked it. A DLL that is not a
// KnownDLL, imported or loaded by its bare name, is searched for first in "the folder from
// which the application loaded" (the dynamic-link library search order page), which any
// user who can write there can fill with a DLL of the same name. So the program imports
// only KnownDLLs ("If the DLL is on the list of known DLLs for the version of Windows on
// which the application is running, then the system uses its copy of the known DLL") and
// loads every other DLL here, from system32 alone.
#include "platform/win32/system_library.h"

#include <map>
#include <mutex>
#include <string>

namespace platform::win32 {
namespace {

std::mutex loadedLock;
std::map<std::wstring, HMODULE>& LoadedLibraries() {
    static std::map<std::wstring, HMODULE> loaded;
    return loaded;
}

}  // namespace

HMODULE SystemLibrary(const wchar_t* name) {
    std::lock_guard lock(loadedLock);
    auto [entry, added] = LoadedLibraries().try_emplace(name, nullptr);
    // LOAD_LIBRARY_SEARCH_SYSTEM32: "If this value is used, %windows%\system32 is searched
    // for the DLL and its dependencies. Directories in the standard search path are not
    // searched." The module stays loaded until the process ends.
    if (added) entry->second = LoadLibraryExW(name, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    return entry->second;
}

DWORD MissingError(const wchar_t* library) {
    return SystemLibrary(library) == nullptr ? ERROR_MOD_NOT_FOUND : ERROR_PROC_NOT_FOUND;
}

}  // namespace platform::win32
