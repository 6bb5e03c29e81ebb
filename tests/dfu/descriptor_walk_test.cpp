// SPDX-License-Identifier: Apache-2.0
// The configuration-descriptor walk on what a device may send, good or bad.
#include <gtest/gtest.h>

#include <optional>
#include <vector>

#include "dfu/win_usb_device.h"
#include "named_row.h"

namespace {

struct Case {
    const char* name;
    std::vector<std::uint8_t> bytes;
    std::optional<std::size_t> offset;
};
class DescriptorWalk : public testing::TestWithParam<Case> {};

TEST_P(DescriptorWalk, FindsOnlyWholeFunctionalDescriptorsWithinTheBytesRead) {
    // An exact-size copy, so that AddressSanitizer sees any read past the bytes read.
    std::vector<std::uint8_t> bytes = GetParam().bytes;
    EXPECT_EQ(dfu::FindDfuFunctionalDescriptor(bytes.data(), bytes.size()), GetParam().offset);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, DescriptorWalk,
    testing::Values(
        Case{"Empty", {}, std::nullopt}, Case{"LengthByteOnly", {9}, std::nullopt},
        Case{"AfterInterface", {9, 4, 0, 0, 0, 0xFE, 1, 2, 0, 9, 0x21, 1, 0, 0, 0, 4, 0, 1}, 9},
        Case{"FirstOfTwo", {9, 0x21, 1, 0, 0, 0, 1, 0, 1, 9, 0x21, 1, 0, 0, 0, 2, 0, 1}, 0},
        Case{"ZeroLengthEndsTheWalk", {0, 4, 9, 0x21, 1, 0, 0, 0, 4, 0, 1}, std::nullopt},
        Case{"CutShort", {9, 0x21, 1, 0, 0, 0, 4}, std::nullopt},
        Case{"LengthPastTheEnd", {200, 4, 0, 9, 0x21, 1, 0, 0, 0, 4, 0, 1}, std::nullopt},
        Case{"RightTypeWrongLength", {7, 0x21, 1, 0, 0, 0, 4, 9, 0x21, 1, 0, 0, 0, 4, 0, 1}, 7},
        Case{"TypeByteInsideAnother", {12, 4, 9, 0x21, 0, 0, 0, 0, 0, 0, 0, 0}, std::nullopt},
        Case{"AfterOneByteDescriptors", {1, 1, 1, 9, 0x21, 1, 0, 0, 0, 4, 0, 1}, 3}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
