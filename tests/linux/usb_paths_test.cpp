// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/usb_paths.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cwctype>
#include <string>
#include <tuple>

namespace platform::linux_hw {
namespace {

TEST(UsbPaths, DfuDeviceGetsTheWindowsFormAndParsesBack) {
    const UsbDeviceAddress address{"1-1.2", 5, 0x3C5E, 0x0F1C};
    const std::wstring path = BuildUsbInterfacePath(address);
    EXPECT_EQ(path,
              L"\\\\?\\USB#VID_3C5E&PID_0F1C#1-1.2&005#{a5dcbf10-6530-11d2-901f-00c04fb951ed}");
    // The watcher keeps paths lower-cased and opens them so.
    std::wstring lower;
    for (wchar_t c : path) lower.push_back(static_cast<wchar_t>(std::towlower(c)));
    for (const std::wstring& form : {path, lower}) {
        const auto parsed = ParseUsbInterfacePath(form);
        ASSERT_TRUE(parsed);
        EXPECT_EQ(
            std::tie(parsed->sysName, parsed->deviceNumber, parsed->vendorId, parsed->productId),
            std::tie(address.sysName, address.deviceNumber, address.vendorId, address.productId));
    }
    // The family's filter prefix is found in it, as on Windows.
    EXPECT_NE(lower.find(L"\\\\?\\usb#vid_3c5e&pid_0f1c"), std::wstring::npos);
}

TEST(UsbPaths, CaptureLinkNamesTheInterfaceAndNode) {
    const UsbDeviceAddress address{"3-2", 17, 0x3C5E, 0x0B64};
    const std::wstring link = BuildVideoLink(address, 0, "video0");
    EXPECT_EQ(link,
              L"\\\\?\\USB#VID_3C5E&PID_0B64&MI_00#3-2&017#"
              L"{e5323777-f976-4f5b-9b55-b94699c46e44}\\video0");
    const auto parsed = ParseVideoLink(link);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->address.sysName, "3-2");
    EXPECT_EQ(parsed->address.deviceNumber, 17u);
    EXPECT_EQ(parsed->interfaceNumber, 0);
    EXPECT_EQ(parsed->nodeName, "video0");
    // A capture link is not a USB device path, and the other way round.
    EXPECT_FALSE(ParseUsbInterfacePath(link));
    EXPECT_FALSE(ParseVideoLink(BuildUsbInterfacePath(address)));
}

TEST(UsbPaths, OthersAreNotOpened) {
    for (const wchar_t* path :
         {L"", L"\\\\?\\USB#VID_3C5E&PID_0F1C#1-1&005#{00000000-0000-0000-0000-000000000000}",
          L"\\\\?\\USB#VID_3C5E&PID_0F1C#1-1#{a5dcbf10-6530-11d2-901f-00c04fb951ed}",
          L"\\\\?\\USB#VID_3C5E&PID_0F1C#usb1&001#{a5dcbf10-6530-11d2-901f-00c04fb951ed}",
          L"\\\\?\\USB#VID_3C5E&PID_0F1C#1-1&5#{a5dcbf10-6530-11d2-901f-00c04fb951ed}",
          L"\\\\?\\USB#VID_3C5E&PID_0F1C#1-1..2&005#{a5dcbf10-6530-11d2-901f-00c04fb951ed}",
          L"\\\\?\\USB#VID_3C5Z&PID_0F1C#1-1&005#{a5dcbf10-6530-11d2-901f-00c04fb951ed}",
          L"\\\\?\\USB#VID_3C5E&PID_0F1C#1-1&005#{a5dcbf10-6530-11d2-901f-00c04fb951ed}#x",
          L"\\\\?\\USB#VID_3C5E&PID_0F1C#1-\u00e91&005#{a5dcbf10-6530-11d2-901f-00c04fb951ed}",
          // Node names that would lead elsewhere under /dev, each one path over two lines.
          // NOLINTNEXTLINE(bugprone-suspicious-missing-comma)
          L"\\\\?\\USB#VID_3C5E&PID_0B64&MI_00#3-2&017#{e5323777-f976-4f5b-9b55-b94699c46e44}"
          L"\\video0/../sda",
          L"\\\\?\\USB#VID_3C5E&PID_0B64&MI_00#3-2&017#{e5323777-f976-4f5b-9b55-b94699c46e44}"
          L"\\sda"}) {
        SCOPED_TRACE(testing::PrintToString(std::wstring(path)));
        EXPECT_FALSE(ParseUsbInterfacePath(path));
        EXPECT_FALSE(ParseVideoLink(path));
    }
}

std::string Datagram(std::string fields) {
    std::replace(fields.begin(), fields.end(), '|', '\0');
    return fields;
}

struct UeventCase {
    const char* name;
    const char* datagram;  // fields separated by |
    const wchar_t* path;   // nullptr: not an event of a USB device
    bool arrival = false;
};

class Uevents : public ::testing::TestWithParam<UeventCase> {};

TEST_P(Uevents, BecomeTheSamePathAsTheListing) {
    const UeventCase& c = GetParam();
    const std::string data = Datagram(c.datagram);
    const auto event = ParseUsbUevent(data.data(), data.size());
    ASSERT_EQ(event.has_value(), c.path != nullptr);
    if (!event) return;
    EXPECT_EQ(event->arrival, c.arrival);
    EXPECT_EQ(BuildUsbInterfacePath(event->address), c.path);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Cases, Uevents,
    ::testing::Values(
        UeventCase{"arrival", "add@/devices/platform/vhci_hcd.0/usb1/1-1|ACTION=add|"
            "DEVPATH=/devices/platform/vhci_hcd.0/usb1/1-1|SUBSYSTEM=usb|DEVNAME=bus/usb/001/003|"
            "DEVTYPE=usb_device|PRODUCT=3c5e/f1c/100|TYPE=0/0/0|BUSNUM=001|DEVNUM=003|SEQNUM=1234|",
            L"\\\\?\\USB#VID_3C5E&PID_0F1C#1-1&003#{a5dcbf10-6530-11d2-901f-00c04fb951ed}", true},
        // Removal has the same keys; sysfs is already gone, the path must still match.
        UeventCase{"removal", "remove@/devices/pci0000:00/0000:00:01.2/usb2/2-1/2-1.4|"
            "ACTION=remove|DEVPATH=/devices/pci0000:00/0000:00:01.2/usb2/2-1/2-1.4|SUBSYSTEM=usb|"
            "DEVTYPE=usb_device|PRODUCT=3c5e/b64/510|BUSNUM=002|DEVNUM=012|",
            L"\\\\?\\USB#VID_3C5E&PID_0B64#2-1.4&012#{a5dcbf10-6530-11d2-901f-00c04fb951ed}"},
        UeventCase{"interfaceOfTheDevice", "add@/x/usb1/1-1/1-1:1.0|ACTION=add|"
            "DEVPATH=/x/usb1/1-1/1-1:1.0|SUBSYSTEM=usb|DEVTYPE=usb_interface|DEVNUM=003|", nullptr},
        UeventCase{"rootHub", "add@/x/usb1|ACTION=add|DEVPATH=/x/usb1|SUBSYSTEM=usb|"
            "DEVTYPE=usb_device|PRODUCT=1d6b/2/601|DEVNUM=001|", nullptr},
        UeventCase{"bindIsNoArrival", "bind@/x/usb1/1-1|ACTION=bind|DEVPATH=/x/usb1/1-1|"
            "SUBSYSTEM=usb|DEVTYPE=usb_device|PRODUCT=3c5e/f1c/100|DEVNUM=003|", nullptr},
        UeventCase{"videoNode", "add@/x/video4linux/video0|ACTION=add|"
            "DEVPATH=/x/video4linux/video0|SUBSYSTEM=video4linux|", nullptr},
        UeventCase{"noDeviceNumber", "add@/x/usb1/1-1|ACTION=add|DEVPATH=/x/usb1/1-1|"
            "SUBSYSTEM=usb|DEVTYPE=usb_device|PRODUCT=3c5e/f1c/100|", nullptr}),
    [](const auto& info) { return std::string(info.param.name); });
// clang-format on

}  // namespace
}  // namespace platform::linux_hw
