// SPDX-License-Identifier: Apache-2.0
// Interface paths: the USB filter, and the interface kind and parent id read from a path.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "../dfu/named_row.h"
#include "dfu/device_paths.h"
#include "platform/cfgmgr.h"

namespace {

using namespace std::string_literals;

const std::wstring kGuid = L"#{a5dcbf10-6530-11d2-901f-00c04fb951ed}";
const std::wstring kDfuPath = L"\\\\?\\usb#vid_3c5e&pid_0f1c#5&1f2e3d4c&0&1" + kGuid;

// Only A to Z, and a whole interface list in one piece: nothing after a terminator is lost.
TEST(ToLower, LowersOnlyLettersAndKeepsEveryUnit) {
    EXPECT_EQ(L"@[`{az09_&#{}\\?"s, ToLower(L"@[`{AZ09_&#{}\\?"s));
    EXPECT_EQ(L"\\\\?\\usb#a\0\\\\?\\usb#b\0\0"s, ToLower(L"\\\\?\\USB#A\0\\\\?\\USB#B\0\0"s));
}

struct FilterCase {
    const char* name;
    std::wstring path;
    bool matches;
    // NOLINTNEXTLINE(readability-redundant-member-init): {} spares GCC's missing-field warning
    std::wstring vendor = L"vid_3c5e", product = L"pid_0f1c", interfaceToken{};
};

class FilterTest : public testing::TestWithParam<FilterCase> {};

TEST_P(FilterTest, MatchesPathsThatContainThePrefixAndInterfaceToken) {
    const auto& c = GetParam();
    const DeviceFilter filter = MakeUsbDeviceFilter(c.vendor, c.product, c.interfaceToken);
    ASSERT_NE(nullptr, filter.interfaceClass);
    EXPECT_TRUE(*filter.interfaceClass == kGuidDevinterfaceUsbDevice);
    EXPECT_EQ(c.matches, filter.Matches(c.path));
}

const std::wstring kMi = L"\\\\?\\usb#vid_3c5e&pid_0f1c&mi_0";

INSTANTIATE_TEST_SUITE_P(
    Paths, FilterTest,
    testing::Values(
        FilterCase{"Family", kDfuPath, true},
        FilterCase{"InterfaceOfACompositeDevice", kMi + L"0#6&1a2b3c4d&0&0000" + kGuid, true},
        FilterCase{"PathNotLowered", L"\\\\?\\USB#VID_3C5E&PID_0F1C#5&1F2E3D4C&0&1" + kGuid, false},
        FilterCase{"PrefixNotAtTheStart", L"x" + kDfuPath, true},
        FilterCase{"IdsElsewhereThanAfterThePrefix",
                   L"\\\\?\\usb#vid_1234&pid_5678#vid_3c5e&pid_0f1c" + kGuid, false},
        FilterCase{"VendorAlone", L"\\\\?\\usb#vid_3c5e&pid_0b64#5&1f2e3d4c&0&1" + kGuid, true,
                   L"vid_3c5e", L""},
        // A product alone needs "&pid" right after the prefix.
        FilterCase{"ProductAloneAfterAVendor", kDfuPath, false, L""},
        FilterCase{"ProductAlone", L"\\\\?\\usb#&pid_0f1c#x" + kGuid, true, L""},
        FilterCase{"NoTokensEveryUsbDevice", L"\\\\?\\usb#vid_8086&pid_0001#1" + kGuid, true, L"",
                   L""},
        FilterCase{"NoTokensNotAUsbDevice", L"\\\\?\\hid#vid_8086&pid_0001#1", false, L"", L""},
        FilterCase{"InterfaceTokenPresent", kMi + L"2#6&1a2b3c4d&0&0002" + kGuid, true, L"vid_3c5e",
                   L"pid_0f1c", L"MI_02"},
        FilterCase{"InterfaceTokenAbsent", kMi + L"0#6&1a2b3c4d&0&0000" + kGuid, false, L"vid_3c5e",
                   L"pid_0f1c", L"mi_02"},
        FilterCase{"InterfaceTokenWithoutThePrefix",
                   L"\\\\?\\usb#vid_3c5e&pid_0b64&mi_02#6&1a2b3c4d&0&0002" + kGuid, false,
                   L"vid_3c5e", L"pid_0f1c", L"mi_02"}),
    [](const auto& info) { return std::string(info.param.name); });

// The path, its interface kind and its parent id.
using PathParts = std::tuple<std::wstring, std::int32_t, std::wstring>;

class PathPartsTest : public testing::TestWithParam<PathParts> {};

TEST_P(PathPartsTest, KindAndParentIdFromTheInterfacePart) {
    const auto& [path, kind, parentId] = GetParam();
    EXPECT_EQ(kind, GetInterfaceKind(path));
    EXPECT_EQ(parentId, GetParentId(path));
}

const std::wstring kComposite = L"\\\\?\\usb#vid_3c5e&pid_0b64&mi_";

INSTANTIATE_TEST_SUITE_P(
    Paths, PathPartsTest,
    testing::Values(
        // Not composite: no interface part.
        PathParts{kDfuPath, 4, L""},
        PathParts{kComposite + L"00#7&aa&0&0000" + kGuid, 0, L"7&aa&0"},
        PathParts{kComposite + L"02#6&1a2b3c4d&0&0002" + kGuid, 1, L"6&1a2b3c4d&0"},
        PathParts{kComposite + L"04#6&1a2b3c4d&0&0004" + kGuid, 2, L"6&1a2b3c4d&0"},
        PathParts{kComposite + L"01#6&1a2b3c4d&0&0001" + kGuid, 4, L"6&1a2b3c4d&0"},
        PathParts{kComposite + L"03#6&1a2b3c4d&0&0003" + kGuid, 4, L"6&1a2b3c4d&0"},
        // The two characters read as decimal up to the first non-digit.
        PathParts{kComposite + L"0a#6&1a2b3c4d&0&000a" + kGuid, 0, L"6&1a2b3c4d&0"},
        PathParts{kComposite + L"10#6&1a2b3c4d&0&0010" + kGuid, 4, L"6&1a2b3c4d&0"},
        PathParts{kComposite + L" 4#6&1a2b3c4d&0&0004" + kGuid, 2, L"6&1a2b3c4d&0"},
        PathParts{kComposite + L"-0#6&1a2b3c4d&0&0000" + kGuid, 0, L"6&1a2b3c4d&0"},
        // A capture device's link: the parent id stops before the last "&nnnn#".
        PathParts{L"\\\\?\\usb#vid_3c5e&pid_0b64&mi_00#6&2c1a3b4d&0&0000#{e5323777-f976-4f5b-"
                  L"9b55-b94699c46e44}\\global",
                  0, L"6&2c1a3b4d&0"},
        // Greedy: a later "&nnnn#" moves the end of the parent id.
        PathParts{kComposite + L"02#6&1a&0&0002#x&abcd#", 1, L"6&1a&0&0002#x"},
        // No "&nnnn#" after the interface part.
        PathParts{kComposite + L"02#6-1a2b3c4d" + kGuid, 1, L""},
        // Interface part without the "#" after the two characters.
        PathParts{kComposite + L"02&6&1a2b3c4d&0&0002" + kGuid, 4, L""},
        // Upper case is never matched.
        PathParts{L"\\\\?\\USB#VID_3C5E&PID_0B64&MI_00#6&1A2B3C4D&0&0000" + kGuid, 4, L""},
        PathParts{L"", 4, L""}),
    [](const auto& info) { return "Row" + std::to_string(info.index); });

}  // namespace
