// SPDX-License-Identifier: Apache-2.0
// The video-control part of a UVC camera's configuration descriptor, parsed once into plain
// records so that nothing later has to walk raw descriptor bytes.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "platform/types.h"

namespace platform::linux_hw {

enum class UvcEntityKind {
    kInputTerminal,
    kOutputTerminal,
    kSelectorUnit,
    kProcessingUnit,
    kExtensionUnit,
    kEncodingUnit,
};

struct UvcEntity {
    UvcEntityKind kind = UvcEntityKind::kInputTerminal;
    std::uint8_t id = 0;
    std::uint16_t terminalType = 0;  // terminals only
    GUID extensionCode{};            // extension units only
    std::uint8_t controlCount = 0;   // extension units only (bNumControls)
    // One bit per control selector, selector 1 in bit 0 (extension and processing units).
    std::vector<std::uint8_t> controls;

    bool HasControl(std::uint8_t selector) const;
};

struct UvcControlInterface {
    std::uint8_t interfaceNumber = 0;
    std::uint16_t uvcVersion = 0;     // bcdUVC of the class-specific header
    std::vector<UvcEntity> entities;  // in descriptor order
};

// Finds the video-control interface with the given number in a configuration descriptor
// (as read from the device, wTotalLength bytes) and collects its units and terminals.
// Returns nothing when the interface is absent or is not a UVC video-control interface, and
// when one of its units or terminals is shorter than its kind (uvcvideo refuses such a
// camera). A class-specific descriptor of a subtype it does not know is stepped over. A length
// that cannot be walked (zero, or past the end) ends the walk; entities seen up to there are
// kept.
std::optional<UvcControlInterface> ParseUvcControlInterface(const std::uint8_t* config,
                                                            std::size_t length,
                                                            std::uint8_t interfaceNumber);

// The kernel-streaming node type Windows reports for an entity of this kind.
GUID NodeTypeOf(const UvcEntity& entity);

}  // namespace platform::linux_hw
