// SPDX-License-Identifier: Apache-2.0
// Capture nodes read from a made-up sysfs tree laid out as the kernel lays it out: the USB
// device's directory under devices/, its bus/usb/devices link, and each videoN's device link
// to the interface uvcvideo bound.
#include "platform/linux/capture_nodes.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace platform::linux_hw {
namespace {

namespace fs = std::filesystem;

constexpr int kNoNumber = -1;  // the interface directory lacks bInterfaceNumber
constexpr int kNotOnUsb = -2;  // the node has no device link (a virtual device)

struct Node {
    const char* name;
    const char* device;  // "3-1" has no product string, "4-1" no devnum
    int interface;
    bool capture;
};

struct Tree {
    const char* name;
    std::vector<Node> nodes;
    std::vector<std::string> records;  // "videoN device:interface name"
};

class SysfsTree : public ::testing::TestWithParam<Tree> {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/lynx-sysfs-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        sys_ = pattern;
    }
    void TearDown() override { fs::remove_all(sys_); }

    void Build(const Node& node) {
        const auto Write = [](const fs::path& file, const std::string& text) {
            fs::create_directories(file.parent_path());
            std::ofstream(file) << text << "\n";
        };
        const std::string device = node.device;
        const fs::path dir = sys_ + "/devices/usb1/" + device;
        const fs::path link = sys_ + "/bus/usb/devices/" + device;
        if (!fs::exists(link)) {
            Write(dir / "idVendor", "3c5e");
            Write(dir / "idProduct", "0b64");
            if (device != "4-1") Write(dir / "devnum", "5");
            if (device != "3-1") Write(dir / "product", "Camera " + device);
            fs::create_directories(link.parent_path());
            fs::create_directory_symlink("../../../devices/usb1/" + device, link);
        }
        const std::string number = std::to_string(node.interface);
        const fs::path interface = dir / (device + ":1." + number);
        fs::create_directories(interface);
        if (node.interface >= 0) Write(interface / "bInterfaceNumber", "0" + number);
        const fs::path classDir = sys_ + "/class/video4linux/" + node.name;
        fs::create_directories(classDir);
        if (node.interface != kNotOnUsb)
            fs::create_directory_symlink(interface, classDir / "device");
    }

    std::string sys_;
};

TEST_P(SysfsTree, CaptureNodesOfUsbCamerasOnly) {
    std::map<std::string, bool> capture;
    for (const Node& node : GetParam().nodes) {
        Build(node);
        capture[node.name] = node.capture;
    }
    const auto nodes = ListCaptureNodes(sys_, [&](const std::string& name) {
        return std::optional<NodeCapabilities>({capture.at(name), "card " + name});
    });
    std::vector<std::string> records;
    for (const CaptureNode& node : nodes) {
        records.push_back(node.nodeName + " " + node.address.sysName + ":" +
                          std::to_string(node.interfaceNumber) + " " +
                          std::string(node.friendlyName.begin(), node.friendlyName.end()));
        EXPECT_EQ(node.address.deviceNumber, 5u);
        EXPECT_EQ(node.usbDeviceDir,
                  fs::canonical(sys_ + "/bus/usb/devices/" + node.address.sysName));
    }
    EXPECT_EQ(records, GetParam().records);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Cases, SysfsTree,
    ::testing::Values(
        // Colour and depth: a capture node per stream and a metadata node each, all bound to
        // the one video-control interface.
        Tree{"twoStreamCamera",
             {{"video0", "1-1", 0, true}, {"video1", "1-1", 0, false}, {"video2", "1-1", 0, true},
              {"video3", "1-1", 0, false}},
             {"video0 1-1:0 Camera 1-1", "video2 1-1:0 Camera 1-1"}},
        // A composite device: each video function its own interface, each a camera.
        Tree{"twoFunctionsOfOneDevice",
             {{"video0", "1-1", 0, true}, {"video1", "1-1", 2, true}},
             {"video0 1-1:0 Camera 1-1", "video1 1-1:2 Camera 1-1"}},
        // Renumbered after a replug: metadata nodes got the lower numbers, and video10 is
        // listed before video9.
        Tree{"metadataNodesFirst",
             {{"video8", "1-1", 0, false}, {"video10", "1-1", 0, true}, {"video9", "1-1", 0, true},
              {"video7", "2-1", 0, false}, {"video11", "2-1", 0, true}},
             {"video9 1-1:0 Camera 1-1", "video10 1-1:0 Camera 1-1", "video11 2-1:0 Camera 2-1"}},
        Tree{"missingInterfaceNumber",
             {{"video0", "1-1", kNoNumber, true}, {"video2", "2-1", 0, true}},
             {"video2 2-1:0 Camera 2-1"}},
        Tree{"virtualNodeDeviceWithoutNumberAndOneWithoutName",
             {{"video0", "1-1", kNotOnUsb, true}, {"video1", "4-1", 0, true},
              {"video2", "3-1", 1, true}},
             {"video2 3-1:1 card video2"}}),
    [](const auto& info) { return std::string(info.param.name); });
// clang-format on

}  // namespace
}  // namespace platform::linux_hw
