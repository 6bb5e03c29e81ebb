// SPDX-License-Identifier: Apache-2.0
// The DFU auto-mode value written through the real registry API and read back with it: the
// type and the UTF-16 bytes that the family's service reads.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "updatable/lynx_updatable_device.h"

namespace {

TEST(RegistryOnWindows, EachModeIsStoredAsItsUtf16TextWithItsNull) {
    const auto device = CreateLynxUpdatableDevice();
    const struct {
        HRESULT (ICameraDevice::*set)();
        std::wstring text;
    } rows[] = {{&ICameraDevice::SetDfuAutoModeServiceControlled, L"Service Controlled"},
                {&ICameraDevice::SetDfuAutoModeAuto, L"Auto"},
                {&ICameraDevice::SetDfuAutoModeDisabled, L"Disabled"}};
    for (const auto& row : rows) {
        ASSERT_EQ(S_OK, ((*device).*row.set)());
        HKEY key = nullptr;
        ASSERT_EQ(ERROR_SUCCESS,
                  RegOpenKeyExW(HKEY_LOCAL_MACHINE,
                                L"SYSTEM\\CurrentControlSet\\Services\\OptyraCameraDFU", 0,
                                KEY_QUERY_VALUE, &key));
        std::vector<BYTE> bytes(256);
        DWORD type = 0, size = static_cast<DWORD>(bytes.size());
        EXPECT_EQ(ERROR_SUCCESS,
                  RegQueryValueExW(key, L"DFUAutoMode", nullptr, &type, bytes.data(), &size));
        RegCloseKey(key);
        EXPECT_EQ(static_cast<DWORD>(REG_SZ), type);
        // The text's UTF-16 units and its null, always: 38, 10 and 18 bytes. Given without
        // the null, the system stores a null that happens to follow the buffer, or not.
        const std::size_t stored = (row.text.size() + 1) * sizeof(wchar_t);
        ASSERT_EQ(stored, size);
        const auto* text = reinterpret_cast<const BYTE*>(row.text.c_str());
        EXPECT_EQ(std::vector<BYTE>(text, text + stored),
                  std::vector<BYTE>(bytes.data(), bytes.data() + size));
    }
}

}  // namespace
