// SPDX-License-Identifier: Apache-2.0
// The family's DFU auto mode: a machine-wide registry value that the family's own DFU
// service reads. This program only ever writes it.
#include <vector>

#include "platform/registry.h"
#include "updatable/lynx_updatable_device.h"

namespace {

const wchar_t* const kDfuServiceKey = L"SYSTEM\\CurrentControlSet\\Services\\OptyraCameraDFU";
const wchar_t* const kDfuAutoModeValue = L"DFUAutoMode";

// The value as UTF-16 text, whatever the width of wchar_t here, with its terminating null:
// RegSetValueExW, cbData: "If the data is of type REG_SZ, REG_EXPAND_SZ, or REG_MULTI_SZ,
// cbData must include the size of the terminating null character or characters." Given only
// the text, Windows reads the unit after it and stores it too when it is 0: two bytes past
// the buffer, and a stored size that depends on what the heap holds there.
std::vector<BYTE> Utf16BytesWithNull(const std::wstring& text) {
    std::vector<BYTE> bytes = platform::WideToUtf16Le(text);
    bytes.insert(bytes.end(), {0, 0});
    return bytes;
}

}  // namespace

HRESULT LynxUpdatableDevice::WriteDfuAutoMode(const std::wstring& mode) {
    HKEY key = nullptr;
    const LSTATUS opened =
        RegCreateKeyExW(HKEY_LOCAL_MACHINE, kDfuServiceKey, 0, nullptr, REG_OPTION_NON_VOLATILE,
                        KEY_WRITE, nullptr, &key, nullptr);
    if (opened == static_cast<LSTATUS>(ERROR_ACCESS_DENIED)) {
        LogText("Failed open registry key with status ACCESS_DENIED\n");
        return E_FAIL;
    }
    if (opened != ERROR_SUCCESS) {
        LogLine("Failed to open / create registry key with status ", static_cast<long>(opened));
        return E_FAIL;
    }
    const std::vector<BYTE> data = Utf16BytesWithNull(mode);
    const LSTATUS written = RegSetValueExW(key, kDfuAutoModeValue, 0, REG_SZ, data.data(),
                                           static_cast<DWORD>(data.size()));
    if (written != ERROR_SUCCESS) {
        LogLine("Failed write registry value with status ", static_cast<long>(written));
    }
    RegCloseKey(key);
    return written == ERROR_SUCCESS ? S_OK : E_FAIL;
}
