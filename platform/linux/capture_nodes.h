// SPDX-License-Identifier: Apache-2.0
// The capture nodes of USB cameras as sysfs shows them: /sys/class/video4linux/videoN, whose
// device link leads to the USB interface uvcvideo bound, inside the USB device's directory.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/camera_functions.h"
#include "platform/linux/usb_paths.h"

namespace platform::linux_hw {

struct CaptureNode {
    std::string nodeName;  // "video0"
    UsbDeviceAddress address;
    std::uint8_t interfaceNumber = 0;
    std::string usbDeviceDir;  // sysfs directory of the USB device
    std::wstring friendlyName;
};

// What V4L2 says of a node: whether it captures video (a metadata node does not) and its
// card name. Nothing when the node cannot be opened or asked.
struct NodeCapabilities {
    bool capture = false;
    std::string card;
};
using CapabilityQuery = std::function<std::optional<NodeCapabilities>(const std::string& nodeName)>;

// The USB device `name` under `devicesDir` (sysfs's bus/usb/devices); nothing when its
// identity cannot be read.
std::optional<UsbDeviceAddress> ReadUsbDeviceAddress(const std::string& devicesDir,
                                                     const std::string& name);

// Node `nodeName` under the sysfs root `sys` when it is a capture node of a USB device;
// `capabilities` is asked only of a node that sysfs places on USB.
std::optional<CaptureNode> DescribeCaptureNode(const std::string& sys, const std::string& nodeName,
                                               const CapabilityQuery& capabilities);
// Every capture node, lowest number first.
std::vector<CaptureNode> ListCaptureNodes(const std::string& sys,
                                          const CapabilityQuery& capabilities);

// N of "videoN".
unsigned NodeNumber(const std::string& name);
std::vector<CaptureNodeRecord> NodeRecords(const std::vector<CaptureNode>& nodes);

}  // namespace platform::linux_hw
