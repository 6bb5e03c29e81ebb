// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/uvc_descriptors.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace platform::linux_hw {
namespace {

constexpr GUID kFamilyUnit = {
    0x5B3E9A10, 0x7C2D, 0x4F61, {0x9E, 0x84, 0x2A, 0x6D, 0x0C, 0x1F, 0x7B, 0x39}};
constexpr GUID kDevSpecific = {
    0x941C7AC0, 0xC559, 0x11D0, {0x8A, 0x2B, 0x00, 0xA0, 0xC9, 0x25, 0x5A, 0xC1}};

using Bytes = std::vector<std::uint8_t>;

void Append(Bytes& out, const Bytes& piece) {
    out.insert(out.end(), piece.begin(), piece.end());
}

// The family GUID as a device sends it: Data1..3 little-endian, Data4 as bytes.
const Bytes kFamilyGuidWire = {0x10, 0x9A, 0x3E, 0x5B, 0x2D, 0x7C, 0x61, 0x4F,
                               0x9E, 0x84, 0x2A, 0x6D, 0x0C, 0x1F, 0x7B, 0x39};

Bytes ExtensionUnit(std::uint8_t id, std::uint8_t controls, const Bytes& pins,
                    const Bytes& bitmap) {
    Bytes unit = {0, 0x24, 0x06, id};
    Append(unit, kFamilyGuidWire);
    unit.push_back(controls);
    unit.push_back(static_cast<std::uint8_t>(pins.size()));
    Append(unit, pins);
    unit.push_back(static_cast<std::uint8_t>(bitmap.size()));
    Append(unit, bitmap);
    unit.push_back(0);  // iExtension
    unit[0] = static_cast<std::uint8_t>(unit.size());
    return unit;
}

// A camera of the family as it enumerates: video control on interface 0 with a camera
// terminal, a processing unit, the extension unit and a streaming output terminal, then the
// streaming interface.
Bytes CameraConfiguration(const Bytes& extensionUnit, const Bytes& beforeUnit = {}) {
    Bytes config = {9, 0x02, 0, 0, 2, 1, 0, 0x80, 0xFA};
    Append(config, {8, 0x0B, 0, 2, 0x0E, 0x03, 0, 0});                     // association
    Append(config, {9, 0x04, 0, 0, 1, 0x0E, 0x01, 0, 0});                  // VC interface
    Append(config, {13, 0x24, 0x01, 0x00, 0x01, 0, 0, 0, 0, 0, 0, 1, 1});  // VC header 1.00
    Append(config, {18, 0x24, 0x02, 1, 0x01, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0});
    Append(config, {11, 0x24, 0x05, 2, 1, 0, 0, 2, 0x01, 0x00, 0});  // processing unit
    Append(config, beforeUnit);
    Append(config, extensionUnit);
    Append(config, {9, 0x24, 0x03, 4, 0x01, 0x01, 0, 3, 0});  // streaming output terminal
    Append(config, {7, 0x05, 0x81, 0x03, 16, 0, 8});          // interrupt endpoint
    Append(config, {5, 0x25, 0x03, 16, 0});
    Append(config, {9, 0x04, 1, 0, 0, 0x0E, 0x02, 0, 0});  // VS interface
    Append(config, {14, 0x24, 0x01, 1, 0, 0, 0x82, 0, 4, 0, 0, 0, 1, 0});
    config[2] = static_cast<std::uint8_t>(config.size());
    config[3] = static_cast<std::uint8_t>(config.size() >> 8);
    return config;
}

TEST(UvcDescriptors, UnitsInDescriptorOrderOnlyUnderTheControlInterfaceAndWideBitmaps) {
    const Bytes config = CameraConfiguration(ExtensionUnit(3, 1, {2}, {0x01}));
    const auto parsed = ParseUvcControlInterface(config.data(), config.size(), 0);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->uvcVersion, 0x0100);
    ASSERT_EQ(parsed->entities.size(), 4u);
    EXPECT_EQ(parsed->entities[0].kind, UvcEntityKind::kInputTerminal);
    EXPECT_EQ(parsed->entities[0].terminalType, 0x0201);
    EXPECT_EQ(parsed->entities[1].kind, UvcEntityKind::kProcessingUnit);
    EXPECT_EQ(parsed->entities[1].id, 2);
    const UvcEntity& unit = parsed->entities[2];
    EXPECT_EQ(unit.kind, UvcEntityKind::kExtensionUnit);
    EXPECT_EQ(unit.id, 3);
    EXPECT_EQ(unit.extensionCode, kFamilyUnit);
    EXPECT_TRUE(unit.HasControl(1));
    EXPECT_FALSE(unit.HasControl(2));
    EXPECT_FALSE(unit.HasControl(0));
    EXPECT_EQ(parsed->entities[3].kind, UvcEntityKind::kOutputTerminal);
    EXPECT_EQ(parsed->entities[3].terminalType, 0x0101);

    // Only the extension unit is a device-specific node; the search for it relies on that.
    EXPECT_EQ(NodeTypeOf(unit), kDevSpecific);
    for (std::size_t i : {0u, 1u, 3u}) EXPECT_NE(NodeTypeOf(parsed->entities[i]), kDevSpecific);

    EXPECT_FALSE(ParseUvcControlInterface(config.data(), config.size(), 1));  // streaming
    EXPECT_FALSE(ParseUvcControlInterface(config.data(), config.size(), 7));  // absent
    EXPECT_FALSE(ParseUvcControlInterface(nullptr, 0, 0));

    // Two source pins move bControlSize; control 10 lives in the second bitmap byte.
    const Bytes wide = CameraConfiguration(ExtensionUnit(5, 10, {1, 2}, {0x00, 0x02}));
    const auto widened = ParseUvcControlInterface(wide.data(), wide.size(), 0);
    ASSERT_TRUE(widened && widened->entities.size() == 4u);
    const UvcEntity& wideUnit = widened->entities[2];
    EXPECT_EQ(wideUnit.id, 5);
    EXPECT_EQ(wideUnit.controlCount, 10);
    EXPECT_TRUE(wideUnit.HasControl(10));
    EXPECT_FALSE(wideUnit.HasControl(1));
    EXPECT_FALSE(wideUnit.HasControl(17));  // beyond the bitmap
}

constexpr int kRefused = -1;

struct Inserted {
    const char* name;
    Bytes beforeUnit;  // class-specific descriptors put between the processing and extension units
    int entities;      // kRefused: the interface is refused
    bool unitFound;
    std::size_t keep = 0;    // bytes of the configuration kept; 0 keeps all
    std::size_t zeroAt = 0;  // a length byte set to 0; 0 leaves all
};

class ControlInterfaceWalk : public ::testing::TestWithParam<Inserted> {};

// Whatever the device sends, the walk ends: unknown subtypes are stepped over, entities
// shorter than their kind refuse the interface, and damage keeps the whole entities before it.
TEST_P(ControlInterfaceWalk, StepsOverUnknownSubtypesRefusesShortEntitiesStopsAtDamage) {
    const Inserted& row = GetParam();
    Bytes config = CameraConfiguration(ExtensionUnit(3, 1, {2}, {0x01}), row.beforeUnit);
    if (row.keep != 0) config.resize(row.keep);
    if (row.zeroAt != 0) config[row.zeroAt] = 0;
    const auto parsed = ParseUvcControlInterface(config.data(), config.size(), 0);
    ASSERT_EQ(parsed.has_value(), row.entities != kRefused);
    if (!parsed) return;
    EXPECT_EQ(parsed->entities.size(), static_cast<std::size_t>(row.entities));
    const bool found = std::any_of(parsed->entities.begin(), parsed->entities.end(), [](auto& e) {
        return e.kind == UvcEntityKind::kExtensionUnit && e.extensionCode == kFamilyUnit;
    });
    EXPECT_EQ(found, row.unitFound);
}

// Offsets in CameraConfiguration: VC interface at 17, header at 26, camera terminal at 39 (18
// bytes), processing unit at 57, extension unit at 68 (26 bytes), output terminal at 94.
// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Cases, ControlInterfaceWalk,
    ::testing::Values(
        Inserted{"vendorSubtype", {7, 0x24, 0x41, 9, 0xAA, 0xBB, 0xCC}, 4, true},
        Inserted{"twoVendorSubtypes", {4, 0x24, 0x41, 9, 5, 0x24, 0x42, 8, 0}, 4, true},
        Inserted{"wholeSelectorUnit", {6, 0x24, 0x04, 9, 1, 2}, 5, true},
        Inserted{"selectorUnitShorterThanItsKind", {4, 0x24, 0x04, 9}, kRefused, false},
        Inserted{"selectorUnitShorterThanItsPins", {6, 0x24, 0x04, 9, 2, 2}, kRefused, false},
        Inserted{"processingUnitShorterThanItsKind", {7, 0x24, 0x05, 9, 1, 0, 0}, kRefused, false},
        Inserted{"processingUnitControlsPastItsLength", {9, 0x24, 0x05, 9, 1, 0, 0, 2, 1}, kRefused,
                 false},
        Inserted{"extensionUnitPinsPastItsLength",
                 {24, 0x24, 0x06, 9, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 2, 1, 1},
                 kRefused, false},
        // Lengths that cannot be walked end the walk; it must end, and keep what came before.
        Inserted{"zeroLength", {0, 0x24, 0x41, 9}, 2, false},
        Inserted{"lengthPastTheEnd", {250, 0x24, 0x41, 9}, 2, false},
        Inserted{"cutInsideExtensionUnit", {}, 2, false, 80},
        Inserted{"cutAfterExtensionUnit", {}, 3, true, 94},
        Inserted{"zeroLengthProcessingUnit", {}, 1, false, 0, 57},
        Inserted{"zeroLengthHeader", {}, 0, false, 0, 26}),
    [](const auto& info) { return std::string(info.param.name); });
// clang-format on

}  // namespace
}  // namespace platform::linux_hw
