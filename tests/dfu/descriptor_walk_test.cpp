// The walk over a configuration descriptor as the device sent it, good or bad.
#include <gtest/gtest.h>

#include <optional>
#include <vector>

#include "dfu/win_usb_device.h"

namespace {

struct WalkCase {
    const char* name;
    std::vector<std::uint8_t> bytes;
    std::optional<std::size_t> found;
};

class DescriptorWalk : public testing::TestWithParam<WalkCase> {};

TEST_P(DescriptorWalk, FindsOnlyWholeFunctionalDescriptorsWithinTheBytesRead) {
    const auto& c = GetParam();
    // A copy of exactly the bytes read, so that AddressSanitizer sees any read beyond them.
    std::vector<std::uint8_t> bytes(c.bytes);
    EXPECT_EQ(dfu::FindDfuFunctionalDescriptor(bytes.data(), bytes.size()), c.found);
}

const std::vector<std::uint8_t> kHeader = {9, 2, 27, 0, 1, 1, 0, 0x80, 50};

std::vector<std::uint8_t> Join(std::initializer_list<std::vector<std::uint8_t>> parts) {
    std::vector<std::uint8_t> bytes;
    for (const auto& part : parts) bytes.insert(bytes.end(), part.begin(), part.end());
    return bytes;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, DescriptorWalk,
    testing::Values(
        WalkCase{"Empty", {}, std::nullopt}, WalkCase{"LengthByteOnly", {9}, std::nullopt},
        WalkCase{"Typical",
                 Join({kHeader, {9, 4, 0, 0, 0, 0xFE, 1, 2, 0}, {9, 0x21, 1, 0, 0, 0, 4, 0, 1}}),
                 18},
        WalkCase{"FirstOfTwo",
                 Join({kHeader, {9, 0x21, 1, 0, 0, 0, 1, 0, 1}, {9, 0x21, 1, 0, 0, 0, 2, 0, 1}}),
                 9},
        WalkCase{"ZeroLengthStopsTheWalk", Join({kHeader, {0, 4}, {9, 0x21, 1, 0, 0, 0, 4, 0, 1}}),
                 std::nullopt},
        WalkCase{"CutShortAtTheEnd", Join({kHeader, {9, 0x21, 1, 0, 0, 0, 4}}), std::nullopt},
        WalkCase{"LengthPastTheEnd", Join({kHeader, {200, 4, 0}}), std::nullopt},
        WalkCase{"WrongLengthWithTheRightType",
                 Join({kHeader, {7, 0x21, 1, 0, 0, 0, 4}, {9, 0x21, 1, 0, 0, 0, 4, 0, 1}}), 16},
        WalkCase{"TypeInsideAnotherDescriptorIsNotADescriptor",
                 Join({{12, 4, 9, 0x21, 0, 0, 0, 0, 0, 0, 0, 0}}), std::nullopt},
        WalkCase{"OneByteDescriptorsStillAdvance", Join({{1, 1, 1, 9, 0x21, 1, 0, 0, 0, 4, 0, 1}}),
                 3}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
