// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/capture_nodes.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "platform/common/wide_stream.h"
#include "platform/linux/sysfs.h"

namespace platform::linux_hw {

std::optional<UsbDeviceAddress> ReadUsbDeviceAddress(const std::string& devicesDir,
                                                     const std::string& name) {
    const std::string dir = devicesDir + "/" + name;
    const auto vendor = ReadNumberAttribute(dir + "/idVendor", 16);
    const auto product = ReadNumberAttribute(dir + "/idProduct", 16);
    const auto number = ReadNumberAttribute(dir + "/devnum", 10);
    if (!vendor || !product || !number) return std::nullopt;
    UsbDeviceAddress address;
    address.sysName = name;
    address.vendorId = static_cast<std::uint16_t>(*vendor);
    address.productId = static_cast<std::uint16_t>(*product);
    address.deviceNumber = *number;
    return address;
}

std::optional<CaptureNode> DescribeCaptureNode(const std::string& sys, const std::string& nodeName,
                                               const CapabilityQuery& capabilities) {
    const std::string classDir = sys + "/class/video4linux/" + nodeName;
    char resolved[PATH_MAX];
    if (::realpath((classDir + "/device").c_str(), resolved) == nullptr) return std::nullopt;
    const std::string interfaceDir = resolved;
    const auto slash = interfaceDir.rfind('/');
    if (slash == std::string::npos) return std::nullopt;
    const std::string usbDir = interfaceDir.substr(0, slash);
    const std::string usbName = usbDir.substr(usbDir.rfind('/') + 1);
    const auto interfaceNumber = ReadNumberAttribute(interfaceDir + "/bInterfaceNumber", 16);
    const auto address = ReadUsbDeviceAddress(sys + "/bus/usb/devices", usbName);
    if (!interfaceNumber || !address || *interfaceNumber > 0xFF) return std::nullopt;

    const auto caps = capabilities(nodeName);
    if (!caps || !caps->capture) return std::nullopt;
    CaptureNode node;
    node.nodeName = nodeName;
    node.address = *address;
    node.interfaceNumber = static_cast<std::uint8_t>(*interfaceNumber);
    node.usbDeviceDir = usbDir;
    // The V4L2 card name is cut at 31 characters; the product string is whole.
    const auto product = ReadAttribute(usbDir + "/product");
    node.friendlyName = Utf8ToWide(product && !product->empty() ? *product : caps->card);
    return node;
}

std::vector<CaptureNode> ListCaptureNodes(const std::string& sys,
                                          const CapabilityQuery& capabilities) {
    std::vector<CaptureNode> nodes;
    for (const std::string& name : ListDirectory(sys + "/class/video4linux")) {
        unsigned index = 0;
        if (std::sscanf(name.c_str(), "video%u", &index) != 1) continue;
        if (auto node = DescribeCaptureNode(sys, name, capabilities)) {
            nodes.push_back(std::move(*node));
        }
    }
    std::sort(nodes.begin(), nodes.end(), [](const auto& a, const auto& b) {
        return NodeNumber(a.nodeName) < NodeNumber(b.nodeName);
    });
    return nodes;
}

unsigned NodeNumber(const std::string& name) {
    unsigned index = 0;
    std::sscanf(name.c_str(), "video%u", &index);
    return index;
}

std::vector<CaptureNodeRecord> NodeRecords(const std::vector<CaptureNode>& nodes) {
    std::vector<CaptureNodeRecord> records;
    records.reserve(nodes.size());
    for (const CaptureNode& node : nodes) {
        records.push_back({NodeNumber(node.nodeName), node.address.sysName, node.interfaceNumber});
    }
    return records;
}

}  // namespace platform::linux_hw
