// SPDX-License-Identifier: Apache-2.0
// Device interface paths of USB devices: lower-casing, the filter a watcher keeps paths by,
// and the record it keeps of each.
#pragma once

#include <cstdint>
#include <string>

#include "platform/types.h"

// Each UTF-16 unit through the C library's wide lower-casing; the length never changes.
std::wstring ToLower(const std::wstring& text);

// Which interfaces a watcher lists and keeps.
struct DeviceFilter {
    const GUID* interfaceClass = nullptr;
    std::wstring vendorToken;
    std::wstring productToken;
    std::wstring pathPrefix;
    std::wstring interfaceToken;

    // The path (already lower-cased) contains the prefix and, if one is set, the interface token.
    bool Matches(const std::wstring& path) const;
};

// The filter for USB device interfaces with the given vendor, product and interface tokens.
DeviceFilter MakeUsbDeviceFilter(const std::wstring& vendorToken, const std::wstring& productToken,
                                 const std::wstring& interfaceToken);

// The interfaces 0, 2 and 4 of a composite device of the family, and everything else.
enum InterfaceKind : std::int32_t {
    kInterfaceKindFirst = 0,
    kInterfaceKindSecond = 1,
    kInterfaceKindThird = 2,
    kInterfaceKindOther = 4,
};

struct DeviceInterfaceEntry {
    std::wstring symbolicLink;
    std::wstring parentId;
    std::int32_t interfaceKind = kInterfaceKindOther;
};

std::int32_t GetInterfaceKind(const std::wstring& path);
std::wstring GetParentId(const std::wstring& path);
