// SPDX-License-Identifier: Apache-2.0
// Registry keys under HKEY_LOCAL_MACHINE, kept by the backend's settings store.
#include <string>

#include "platform/common/real_calls.h"
#include "platform/posix/device_backend.h"
#include "platform/registry.h"

struct RegistryKeyObject {
    std::wstring path;
};

LSTATUS platform::real::RegCreateKeyExW(HKEY key, LPCWSTR subKey, DWORD, LPWSTR, DWORD, REGSAM,
                                        LPSECURITY_ATTRIBUTES, PHKEY result, LPDWORD) {
    if (result == nullptr) return static_cast<LSTATUS>(ERROR_INVALID_PARAMETER);
    *result = nullptr;
    std::wstring path;
    if (key == HKEY_LOCAL_MACHINE) {
        path = subKey ? subKey : L"";
    } else if (key != nullptr) {
        path = key->path + L"\\" + (subKey ? subKey : L"");
    } else {
        return static_cast<LSTATUS>(ERROR_INVALID_HANDLE);
    }
    const platform::ErrorCode error = platform::Backend().CreateSettingsKey(path);
    if (error != ERROR_SUCCESS) return static_cast<LSTATUS>(error);
    *result = new RegistryKeyObject{path};
    return ERROR_SUCCESS;
}

LSTATUS platform::real::RegSetValueExW(HKEY key, LPCWSTR valueName, DWORD, DWORD type,
                                       const BYTE* data, DWORD size) {
    if (key == nullptr || key == HKEY_LOCAL_MACHINE)
        return static_cast<LSTATUS>(ERROR_INVALID_HANDLE);
    if (type == REG_SZ) {
        // cbData: "If the data is of type REG_SZ, REG_EXPAND_SZ, or REG_MULTI_SZ, cbData must
        // include the size of the terminating null character or characters." Windows takes
        // a text without it all the same (and reads past it); this stand-in refuses it, so
        // that the lab catches the breach. The stores keep the text without its null, as
        // the family's service is given it.
        const bool terminated = data != nullptr && size >= 2 && size % 2 == 0 &&
                                data[size - 2] == 0 && data[size - 1] == 0;
        if (!terminated) return static_cast<LSTATUS>(ERROR_INVALID_PARAMETER);
        size -= 2;
    }
    return static_cast<LSTATUS>(platform::Backend().SetSettingsValue(
        key->path, valueName ? valueName : L"", type, data, size));
}

LSTATUS platform::real::RegCloseKey(HKEY key) {
    if (key == nullptr || key == HKEY_LOCAL_MACHINE)
        return static_cast<LSTATUS>(ERROR_INVALID_HANDLE);
    delete key;
    return ERROR_SUCCESS;
}
