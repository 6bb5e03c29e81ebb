// The configuration-descriptor walk on what a device may send, good or bad.
#include <gtest/gtest.h>

#include <optional>
#include <vector>

#include "dfu/win_usb_device.h"

namespace {

using Case = std::pair<std::vector<std::uint8_t>, std::optional<std::size_t>>;
class DescriptorWalk : public testing::TestWithParam<Case> {};

TEST_P(DescriptorWalk, FindsOnlyWholeFunctionalDescriptorsWithinTheBytesRead) {
    // An exact-size copy, so that AddressSanitizer sees any read past the bytes read.
    std::vector<std::uint8_t> bytes = GetParam().first;
    EXPECT_EQ(dfu::FindDfuFunctionalDescriptor(bytes.data(), bytes.size()), GetParam().second);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, DescriptorWalk,
    testing::Values(Case{{}, std::nullopt}, Case{{9}, std::nullopt},
                    Case{{9, 4, 0, 0, 0, 0xFE, 1, 2, 0, 9, 0x21, 1, 0, 0, 0, 4, 0, 1}, 9},
                    // first of two; a zero length ends the walk; cut short; length past the end
                    Case{{9, 0x21, 1, 0, 0, 0, 1, 0, 1, 9, 0x21, 1, 0, 0, 0, 2, 0, 1}, 0},
                    Case{{0, 4, 9, 0x21, 1, 0, 0, 0, 4, 0, 1}, std::nullopt},
                    Case{{9, 0x21, 1, 0, 0, 0, 4}, std::nullopt},
                    Case{{200, 4, 0, 9, 0x21, 1, 0, 0, 0, 4, 0, 1}, std::nullopt},
                    // the right type with the wrong length; a 0x21 byte inside another one
                    Case{{7, 0x21, 1, 0, 0, 0, 4, 9, 0x21, 1, 0, 0, 0, 4, 0, 1}, 7},
                    Case{{12, 4, 9, 0x21, 0, 0, 0, 0, 0, 0, 0, 0}, std::nullopt},
                    Case{{1, 1, 1, 9, 0x21, 1, 0, 0, 0, 4, 0, 1}, 3}));

}  // namespace
