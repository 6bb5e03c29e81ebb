// What the world file leaves out takes the built-in defaults; every other field and every
// refusal shows in the lab's own transcripts (tests/e2e/cases/lab_*).
#include "platform/sim/world_spec.h"

#include <gtest/gtest.h>

namespace {

TEST(WorldFile, FirmwareAfterUpdateDefaultsToFirmware) {
    const auto world = sim::ParseWorld(R"({"cameras": [{"name": "A", "firmware": "1.2.3.4"}]})");
    EXPECT_EQ((sim::FirmwareVersion{1, 2, 3, 4}), world.cameras[0].firmwareAfterUpdate);
}

TEST(WorldFile, SampleDefaultWorldIsTheBuiltInOne) {
    const auto file = sim::LoadWorldFile(LYNX_SOURCE_DIR "/lab/default-world.json");
    const auto builtIn = sim::DefaultWorld();
    ASSERT_EQ(builtIn.cameras.size(), file.cameras.size());
    for (std::size_t i = 0; i < file.cameras.size(); ++i) {
        const auto& [a, b] = std::tie(builtIn.cameras[i], file.cameras[i]);
        EXPECT_EQ(std::tie(a.name, a.link, a.lynx, a.firmware, a.firmwareAfterUpdate),
                  std::tie(b.name, b.link, b.lynx, b.firmware, b.firmwareAfterUpdate));
        EXPECT_EQ(a.dfu.has_value() ? a.dfu->link : L"", b.dfu.has_value() ? b.dfu->link : L"");
    }
}

}  // namespace
