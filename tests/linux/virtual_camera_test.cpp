// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/linux/uvc_descriptors.h"
#include "platform/sim/camera_description.h"
#include "platform/usbip/uvc_stream.h"

namespace {

constexpr GUID kFamilyUnit = {
    0x5B3E9A10, 0x7C2D, 0x4F61, {0x9E, 0x84, 0x2A, 0x6D, 0x0C, 0x1F, 0x7B, 0x39}};

// What the Linux backend reads from the virtual camera's descriptors: the two are written
// apart, so this is where a field out of place shows.
TEST(VirtualCamera, BackendFindsTheExtensionUnitInTheDescription) {
    const sim::CameraDescription camera = sim::LynxDepthCamera("Lynx");
    const sim::DescriptorBytes config = camera.ConfigurationDescriptor();
    ASSERT_EQ(config[2] | (config[3] << 8), static_cast<int>(config.size()));
    const auto parsed =
        platform::linux_hw::ParseUvcControlInterface(config.data(), config.size(), 0);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->uvcVersion, 0x0110);
    ASSERT_EQ(parsed->entities.size(), 6u);  // two camera terminals, units 2 and 3, two outputs
    const auto& unit = parsed->entities[3];
    EXPECT_EQ(unit.kind, platform::linux_hw::UvcEntityKind::kExtensionUnit);
    EXPECT_EQ(unit.id, 3);
    EXPECT_EQ(unit.extensionCode, kFamilyUnit);
    EXPECT_EQ(unit.controls, std::vector<std::uint8_t>{0x01});  // control 1 alone
}

struct Proposal {
    const char* name;
    std::size_t stream;  // 0 colour, 1 depth
    std::uint8_t frame;
    std::uint32_t interval;
    std::uint8_t frameGot;
    std::uint32_t intervalGot;
    std::uint32_t frameBytes;
};

std::uint32_t Get32(const usbip::Bytes& b, std::size_t at) {
    return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) |
           (static_cast<std::uint32_t>(b[at + 3]) << 24);
}

class Negotiation : public ::testing::TestWithParam<Proposal> {};

// The host proposes with SET_CUR on the probe control and reads back what the camera makes of
// it; the commit control keeps its own value until the host commits. Other controls stall.
TEST_P(Negotiation, CameraAnswersWithWhatItHas) {
    const Proposal& p = GetParam();
    const sim::CameraDescription camera = sim::LynxDepthCamera("Lynx");
    uvc::Stream stream(camera.streams[p.stream], camera.bcdUVC, camera.dwClockFrequency);
    usbip::Bytes proposal(34, 0);
    proposal[2] = 1;
    proposal[3] = p.frame;
    for (int i = 0; i < 4; ++i) proposal[4 + i] = static_cast<std::uint8_t>(p.interval >> (8 * i));
    ASSERT_FALSE(stream.Control(0x01, 1, 34, proposal).stall);
    const usbip::Bytes probe = stream.Control(0x81, 1, 34, {}).data;
    ASSERT_EQ(probe.size(), 34u);
    EXPECT_EQ(probe[3], p.frameGot);
    EXPECT_EQ(Get32(probe, 4), p.intervalGot);
    EXPECT_EQ(Get32(probe, 18), p.frameBytes);
    EXPECT_EQ(Get32(probe, 22), camera.streams[p.stream].dwMaxPayloadTransferSize);
    EXPECT_EQ(stream.Control(0x81, 2, 34, {}).data[3], 1);  // not committed yet
    ASSERT_FALSE(stream.Control(0x01, 2, 34, probe).stall);
    EXPECT_EQ(stream.Control(0x81, 2, 34, {}).data, probe);
    EXPECT_TRUE(stream.Control(0x81, 3, 34, {}).stall);  // still-image probe: none here
    EXPECT_EQ(stream.Control(0x85, 1, 2, {}).data, (usbip::Bytes{34, 0}));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Negotiation,
    ::testing::Values(Proposal{"nothingAskedGivesTheDefault", 0, 0, 0, 1, 333333, 153600},
                      Proposal{"smallAt15", 0, 2, 666666, 2, 666666, 38400},
                      Proposal{"nearestRate", 0, 1, 400000, 1, 333333, 153600},
                      Proposal{"slowerThanAnyGetsTheSlowest", 0, 1, 5000000, 1, 666666, 153600},
                      Proposal{"unknownFrameGetsTheFirst", 0, 9, 333333, 1, 333333, 153600},
                      Proposal{"depthSmallHasOnly30", 1, 2, 666666, 2, 333333, 38400}),
    [](const auto& info) { return std::string(info.param.name); });

// The version shows in the picture as well as in the bytes of the last row, and the bar moves.
TEST(VirtualCamera, PatternCarriesTheVersionAndMoves) {
    for (bool depth : {false, true}) {
        usbip::Bytes first, moved, other;
        uvc::DrawPattern(first, 160, 120, depth, 0, "FW 1.2.3.4");
        uvc::DrawPattern(moved, 160, 120, depth, 5, "FW 1.2.3.4");
        uvc::DrawPattern(other, 160, 120, depth, 0, "FW 1.2.3.5");
        ASSERT_EQ(first.size(), 160u * 120 * 2);
        const std::size_t lastRow = std::size_t{119} * 160 * 2;
        EXPECT_EQ(std::string(first.begin() + lastRow, first.begin() + lastRow + 15),
                  "LYNX-FW 1.2.3.4");
        EXPECT_NE(first, moved);
        // Drawn digits differ above the last row, not only the marker.
        EXPECT_FALSE(std::equal(first.begin(), first.begin() + lastRow, other.begin()));
    }
}

}  // namespace
