// SPDX-License-Identifier: Apache-2.0
// Interface paths come from the system's device lists and notifications. Whatever they hold,
// the kind is one of the four, and the parent id is a piece of the path itself.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "dfu/device_paths.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::wstring path = ToLower(std::wstring(data, data + size));
    const std::int32_t kind = GetInterfaceKind(path);
    if (kind != kInterfaceKindFirst && kind != kInterfaceKindSecond &&
        kind != kInterfaceKindThird && kind != kInterfaceKindOther) {
        std::abort();
    }
    const std::wstring parent = GetParentId(path);
    if (!parent.empty() && path.find(parent) == std::wstring::npos) std::abort();
    MakeUsbDeviceFilter(L"VID_3C5E", L"PID_0F1C", L"").Matches(path);
    return 0;
}
