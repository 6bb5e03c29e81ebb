// SPDX-License-Identifier: Apache-2.0
// How the Linux backend names USB devices and capture nodes.
//
// USB devices get interface paths of the form the Windows configuration manager lists
// (\\?\USB#VID_3C5E&PID_0F1C#<instance>#{a5dcbf10-6530-11d2-901f-00c04fb951ed}), so the
// filters and path parsing above the seam work unchanged. The instance is the device's
// sysfs name (its bus and port chain) and its device number, e.g. "1-1.2&005": stable while
// the device stays plugged in, different after a replug, and computable from a removal
// uevent, when sysfs has already forgotten the device.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace platform::linux_hw {

struct UsbDeviceAddress {
    std::string sysName;  // e.g. "1-1.2"
    unsigned deviceNumber = 0;
    std::uint16_t vendorId = 0;
    std::uint16_t productId = 0;
};

std::wstring BuildUsbInterfacePath(const UsbDeviceAddress& address);
// Any case is accepted, as Windows does; nothing for a path not built by this backend.
std::optional<UsbDeviceAddress> ParseUsbInterfacePath(const std::wstring& path);

// The symbolic link of a capture node: the USB device's interface path with the UVC
// interface and the node name, e.g.
// \\?\USB#VID_3C5E&PID_0B64&MI_00#1-1&002#{e5323777-f976-4f5b-9b55-b94699c46e44}\video0
std::wstring BuildVideoLink(const UsbDeviceAddress& address, std::uint8_t interfaceNumber,
                            const std::string& nodeName);
struct VideoLink {
    UsbDeviceAddress address;
    std::uint8_t interfaceNumber = 0;
    std::string nodeName;
};
std::optional<VideoLink> ParseVideoLink(const std::wstring& link);

// A kernel uevent of a USB device (subsystem usb, devtype usb_device), as one netlink
// datagram: "action@devpath\0KEY=value\0...".
struct UsbUevent {
    bool arrival = false;
    UsbDeviceAddress address;
};
std::optional<UsbUevent> ParseUsbUevent(const char* data, std::size_t length);

}  // namespace platform::linux_hw
