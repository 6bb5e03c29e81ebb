// SPDX-License-Identifier: Apache-2.0
#include "dfu/device_paths.h"

#include <cwctype>
#include <regex>

#include "diag/answer.h"
#include "platform/cfgmgr.h"

std::wstring ToLower(const std::wstring& text) {
    std::wstring lower = text;
    for (auto& unit : lower) unit = static_cast<wchar_t>(std::towlower(static_cast<wint_t>(unit)));
    return lower;
}

bool DeviceFilter::Matches(const std::wstring& path) const {
    if (path.find(pathPrefix) == std::wstring::npos) return false;
    return interfaceToken.empty() || path.find(interfaceToken) != std::wstring::npos;
}

DeviceFilter MakeUsbDeviceFilter(const std::wstring& vendorToken, const std::wstring& productToken,
                                 const std::wstring& interfaceToken) {
    DeviceFilter filter;
    filter.interfaceClass = &kGuidDevinterfaceUsbDevice;
    filter.vendorToken = ToLower(vendorToken);
    filter.productToken = ToLower(productToken);
    filter.interfaceToken = ToLower(interfaceToken);
    filter.pathPrefix = L"\\\\?\\usb#";
    if (!filter.vendorToken.empty()) filter.pathPrefix += filter.vendorToken;
    if (!filter.productToken.empty()) filter.pathPrefix += L"&" + filter.productToken;
    return filter;
}

std::int32_t GetInterfaceKind(const std::wstring& path) {
    const std::wregex expression(L"mi_(..)#.*", std::regex::ECMAScript);
    std::wsmatch match;
    if (!std::regex_search(path, match, expression)) return kInterfaceKindOther;
    switch (ParseLeadingNumber(match[1].str())) {
        case 0:
            return kInterfaceKindFirst;
        case 2:
            return kInterfaceKindSecond;
        case 4:
            return kInterfaceKindThird;
        default:
            return kInterfaceKindOther;
    }
}

std::wstring GetParentId(const std::wstring& path) {
    const std::wregex expression(L"mi_..#(.*)&....#", std::regex::ECMAScript);
    std::wsmatch match;
    if (!std::regex_search(path, match, expression)) return {};
    return match[1].str();
}
