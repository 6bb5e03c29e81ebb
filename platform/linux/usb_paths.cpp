// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/usb_paths.h"

#include <charconv>
#include <cstdio>
#include <cwctype>
#include <string_view>
#include <vector>

#include "platform/common/wide_stream.h"
#include "platform/linux/sysfs.h"

namespace platform::linux_hw {
namespace {

constexpr std::wstring_view kUsbDeviceClass = L"{a5dcbf10-6530-11d2-901f-00c04fb951ed}";
constexpr std::wstring_view kCameraClass = L"{e5323777-f976-4f5b-9b55-b94699c46e44}";

// The path lower-cased, or nothing when it is not all ASCII.
std::optional<std::string> LowerAscii(const std::wstring& text) {
    std::string out;
    out.reserve(text.size());
    for (wchar_t c : text) {
        if (c < 0 || c > 0x7F) return std::nullopt;
        out.push_back(static_cast<char>(std::towlower(static_cast<wint_t>(c))));
    }
    return out;
}

// A sysfs name of a USB device that is not a root hub: "<bus>-<port>[.<port>...]".
bool ValidSysName(std::string_view name) {
    const auto dash = name.find('-');
    if (dash == std::string_view::npos || dash == 0 || dash + 1 == name.size()) return false;
    for (std::size_t i = 0; i < name.size(); ++i) {
        const char c = name[i];
        if (i == dash) continue;
        if (c == '.') {
            // Dots only part the ports, which all come after the dash.
            if (i <= dash + 1 || i + 1 == name.size() || name[i - 1] == '.') return false;
        } else if (c < '0' || c > '9') {
            return false;
        }
    }
    return true;
}

std::vector<std::string_view> Split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    std::size_t start = 0;
    while (true) {
        const auto at = text.find(separator, start);
        parts.push_back(text.substr(start, at - start));
        if (at == std::string_view::npos) return parts;
        start = at + 1;
    }
}

// "vid_3c5e&pid_0f1c" or, with an interface, "vid_3c5e&pid_0b64&mi_00".
bool ParseHardwarePart(std::string_view part, UsbDeviceAddress* address,
                       std::optional<std::uint8_t>* interfaceNumber) {
    const auto fields = Split(part, '&');
    if (fields.size() != 2 && fields.size() != 3) return false;
    if (fields[0].size() != 8 || fields[0].substr(0, 4) != "vid_") return false;
    if (fields[1].size() != 8 || fields[1].substr(0, 4) != "pid_") return false;
    if (!ParseNumber(fields[0].substr(4), 16, &address->vendorId)) return false;
    if (!ParseNumber(fields[1].substr(4), 16, &address->productId)) return false;
    if (fields.size() == 3) {
        if (fields[2].size() != 5 || fields[2].substr(0, 3) != "mi_") return false;
        std::uint8_t number = 0;
        if (!ParseNumber(fields[2].substr(3), 16, &number)) return false;
        *interfaceNumber = number;
    }
    return true;
}

bool ParseInstance(std::string_view instance, UsbDeviceAddress* address) {
    const auto amp = instance.find('&');
    if (amp == std::string_view::npos) return false;
    const std::string_view name = instance.substr(0, amp);
    const std::string_view number = instance.substr(amp + 1);
    if (!ValidSysName(name) || number.size() != 3) return false;
    if (!ParseNumber(number, 10, &address->deviceNumber)) return false;
    address->sysName = std::string(name);
    return true;
}

// A "\\?\usb#<hardware>#<instance>#<rest>" path in any case: the device it names and the
// rest, which views `lower` (the path lower-cased).
std::optional<std::string_view> ParseUsbPath(const std::wstring& path, std::string* lower,
                                             UsbDeviceAddress* address,
                                             std::optional<std::uint8_t>* interfaceNumber) {
    constexpr std::string_view prefix = "\\\\?\\usb#";
    auto ascii = LowerAscii(path);
    if (!ascii || ascii->compare(0, prefix.size(), prefix) != 0) return std::nullopt;
    *lower = std::move(*ascii);
    const auto parts = Split(std::string_view(*lower).substr(prefix.size()), '#');
    if (parts.size() != 3 || !ParseHardwarePart(parts[0], address, interfaceNumber) ||
        !ParseInstance(parts[1], address)) {
        return std::nullopt;
    }
    return parts[2];
}

std::wstring HardwareAndInstance(const UsbDeviceAddress& address, const char* interfacePart) {
    char hardware[64];
    std::snprintf(hardware, sizeof hardware, "\\\\?\\USB#VID_%04X&PID_%04X%s#", address.vendorId,
                  address.productId, interfacePart);
    char number[16];
    std::snprintf(number, sizeof number, "&%03u", address.deviceNumber % 1000);
    return Utf8ToWide(hardware) + Utf8ToWide(address.sysName) + Utf8ToWide(number) + L"#";
}

}  // namespace

std::wstring BuildUsbInterfacePath(const UsbDeviceAddress& address) {
    return HardwareAndInstance(address, "") + std::wstring(kUsbDeviceClass);
}

std::optional<UsbDeviceAddress> ParseUsbInterfacePath(const std::wstring& path) {
    std::string lower;
    UsbDeviceAddress address;
    std::optional<std::uint8_t> interfaceNumber;
    const auto rest = ParseUsbPath(path, &lower, &address, &interfaceNumber);
    const std::string guid(kUsbDeviceClass.begin(), kUsbDeviceClass.end());
    if (!rest || interfaceNumber || *rest != guid) return std::nullopt;
    return address;
}

std::wstring BuildVideoLink(const UsbDeviceAddress& address, std::uint8_t interfaceNumber,
                            const std::string& nodeName) {
    char interfacePart[16];
    std::snprintf(interfacePart, sizeof interfacePart, "&MI_%02X", interfaceNumber);
    return HardwareAndInstance(address, interfacePart) + std::wstring(kCameraClass) + L"\\" +
           Utf8ToWide(nodeName);
}

std::optional<VideoLink> ParseVideoLink(const std::wstring& link) {
    std::string lower;
    VideoLink result;
    std::optional<std::uint8_t> interfaceNumber;
    const auto rest = ParseUsbPath(link, &lower, &result.address, &interfaceNumber);
    if (!rest || !interfaceNumber) return std::nullopt;
    result.interfaceNumber = *interfaceNumber;
    const std::string_view tail = *rest;
    const std::string guid(kCameraClass.begin(), kCameraClass.end());
    if (tail.size() <= guid.size() + 1 || tail.substr(0, guid.size()) != guid ||
        tail[guid.size()] != '\\') {
        return std::nullopt;
    }
    const std::string_view node = tail.substr(guid.size() + 1);
    // Only a node name, never a path: the link must not lead outside /dev.
    if (node.substr(0, 5) != "video") return std::nullopt;
    unsigned index = 0;
    if (!ParseNumber(node.substr(5), 10, &index)) return std::nullopt;
    result.nodeName = std::string(node);
    return result;
}

std::optional<UsbUevent> ParseUsbUevent(const char* data, std::size_t length) {
    if (data == nullptr) return std::nullopt;
    std::string_view action, devPath, subsystem, devType, product, devNum;
    std::size_t at = 0;
    bool first = true;
    while (at < length) {
        std::size_t end = at;
        while (end < length && data[end] != '\0') ++end;
        const std::string_view field(data + at, end - at);
        at = end + 1;
        if (first) {
            first = false;
            // The summary line "action@devpath"; the keys below say the same.
            if (field.find('@') != std::string_view::npos) continue;
        }
        const auto eq = field.find('=');
        if (eq == std::string_view::npos) continue;
        const std::string_view key = field.substr(0, eq);
        const std::string_view value = field.substr(eq + 1);
        if (key == "ACTION")
            action = value;
        else if (key == "DEVPATH")
            devPath = value;
        else if (key == "SUBSYSTEM")
            subsystem = value;
        else if (key == "DEVTYPE")
            devType = value;
        else if (key == "PRODUCT")
            product = value;
        else if (key == "DEVNUM")
            devNum = value;
    }
    if (subsystem != "usb" || devType != "usb_device") return std::nullopt;
    UsbUevent event;
    if (action == "add")
        event.arrival = true;
    else if (action != "remove")
        return std::nullopt;
    const auto slash = devPath.rfind('/');
    if (slash == std::string_view::npos) return std::nullopt;
    const std::string_view name = devPath.substr(slash + 1);
    // Root hubs are listed under another interface class on Windows; they are not ours.
    if (!ValidSysName(name)) return std::nullopt;
    event.address.sysName = std::string(name);
    const auto fields = Split(product, '/');
    if (fields.size() != 3) return std::nullopt;
    if (!ParseNumber(fields[0], 16, &event.address.vendorId) ||
        !ParseNumber(fields[1], 16, &event.address.productId)) {
        return std::nullopt;
    }
    if (!ParseNumber(devNum, 10, &event.address.deviceNumber)) return std::nullopt;
    return event;
}

}  // namespace platform::linux_hw
