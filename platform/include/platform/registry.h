// SPDX-License-Identifier: Apache-2.0
// The registry: create or open a key, set a value, close the key.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/types.h"

#ifdef _WIN32
#include <winreg.h>
#else
struct RegistryKeyObject;
using HKEY = RegistryKeyObject*;
using PHKEY = HKEY*;
using LSTATUS = LONG;
using REGSAM = DWORD;
using LPDWORD = DWORD*;

#define HKEY_LOCAL_MACHINE (reinterpret_cast<HKEY>(static_cast<std::uintptr_t>(0x80000002u)))

constexpr DWORD REG_SZ = 1;
constexpr DWORD REG_OPTION_NON_VOLATILE = 0;
constexpr REGSAM KEY_WRITE = 0x20006;

LSTATUS RegCreateKeyExW(HKEY key, LPCWSTR subKey, DWORD reserved, LPWSTR keyClass, DWORD options,
                        REGSAM desired, LPSECURITY_ATTRIBUTES security, PHKEY result,
                        LPDWORD disposition);
LSTATUS RegSetValueExW(HKEY key, LPCWSTR valueName, DWORD reserved, DWORD type, const BYTE* data,
                       DWORD size);
LSTATUS RegCloseKey(HKEY key);
#endif

namespace platform {
// Wide text as the registry holds REG_SZ data: each unit's low 16 bits, little-endian, with
// no terminator (the caller adds one where the call wants it).
std::vector<std::uint8_t> WideToUtf16Le(std::wstring_view text);
}  // namespace platform
