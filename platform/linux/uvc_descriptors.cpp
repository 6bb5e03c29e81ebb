// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/uvc_descriptors.h"

#include <algorithm>
#include <iterator>

#include "platform/ks.h"
#include "platform/usb_descriptors.h"

namespace platform::linux_hw {
namespace {

using namespace usb;  // the class's own names, as in the kernel's linux/usb/video.h

// GUIDs travel in USB descriptors in the same mixed-endian layout as in memory on x86.
GUID GuidFromWire(const std::uint8_t* p) {
    GUID guid{};
    guid.Data1 = Le32(p);
    guid.Data2 = Le16(p + 4);
    guid.Data3 = Le16(p + 6);
    for (int i = 0; i < 8; ++i) guid.Data4[i] = p[8 + i];
    return guid;
}

enum class Parsed { kEntity, kUnknown, kTooShort };

// One class-specific video-control descriptor of `length` bytes.
Parsed ParseEntity(const std::uint8_t* d, std::uint8_t length, UvcEntity* entity) {
    static const struct {
        std::uint8_t subtype;
        std::uint8_t shortest;
        UvcEntityKind kind;
    } kinds[] = {
        {UVC_VC_INPUT_TERMINAL, 8, UvcEntityKind::kInputTerminal},
        {UVC_VC_OUTPUT_TERMINAL, 9, UvcEntityKind::kOutputTerminal},
        {UVC_VC_SELECTOR_UNIT, 5, UvcEntityKind::kSelectorUnit},
        {UVC_VC_PROCESSING_UNIT, 8, UvcEntityKind::kProcessingUnit},
        {UVC_VC_EXTENSION_UNIT, 24, UvcEntityKind::kExtensionUnit},
        {UVC_VC_ENCODING_UNIT, 4, UvcEntityKind::kEncodingUnit},
    };
    const auto* kind = std::find_if(std::begin(kinds), std::end(kinds),
                                    [&](const auto& k) { return k.subtype == d[2]; });
    if (kind == std::end(kinds)) return Parsed::kUnknown;
    if (length < kind->shortest) return Parsed::kTooShort;
    entity->kind = kind->kind;
    entity->id = d[3];       // bTerminalID or bUnitID
    std::size_t sizeAt = 0;  // where bControlSize is; bmControls follows
    switch (entity->kind) {
        case UvcEntityKind::kInputTerminal:
        case UvcEntityKind::kOutputTerminal:
            entity->terminalType = Le16(d + 4);
            return Parsed::kEntity;
        case UvcEntityKind::kSelectorUnit:
            // bNrInPins, then one baSourceID each
            return length < 5u + d[4] ? Parsed::kTooShort : Parsed::kEntity;
        case UvcEntityKind::kProcessingUnit:
            sizeAt = 7;
            break;
        case UvcEntityKind::kExtensionUnit:
            // bUnitID, guidExtensionCode, bNumControls, bNrInPins, baSourceID..., bControlSize
            entity->extensionCode = GuidFromWire(d + 4);
            entity->controlCount = d[20];
            sizeAt = 22 + std::size_t{d[21]};
            if (sizeAt >= length) return Parsed::kTooShort;
            break;
        case UvcEntityKind::kEncodingUnit:
            return Parsed::kEntity;
    }
    const std::size_t size = d[sizeAt];
    if (sizeAt + 1 + size > length) return Parsed::kTooShort;
    entity->controls.assign(d + sizeAt + 1, d + sizeAt + 1 + size);
    return Parsed::kEntity;
}

}  // namespace

bool UvcEntity::HasControl(std::uint8_t selector) const {
    if (selector == 0) return false;
    const std::size_t bit = selector - 1u;
    if (bit / 8 >= controls.size()) return false;
    return (controls[bit / 8] >> (bit % 8)) & 1u;
}

std::optional<UvcControlInterface> ParseUvcControlInterface(const std::uint8_t* config,
                                                            std::size_t length,
                                                            std::uint8_t interfaceNumber) {
    if (config == nullptr) return std::nullopt;
    std::optional<UvcControlInterface> result;
    bool inside = false;
    bool refused = false;
    WalkDescriptors(config, length, [&](const usb_descriptor_header& d) {
        if (d.bLength < 2) return false;
        if (d.bDescriptorType == USB_DT_INTERFACE) {
            if (result) return false;  // the next interface: the video-control one is complete
            // Read only what is there: a short descriptor is no interface of ours.
            const auto interface = d.bLength >= usb_interface_descriptor::bLength
                                       ? usb_interface_descriptor::Read(d.bytes)
                                       : usb_interface_descriptor{};
            inside = interface.bInterfaceNumber == interfaceNumber &&
                     interface.bAlternateSetting == 0 &&
                     interface.bInterfaceClass == USB_CLASS_VIDEO &&
                     interface.bInterfaceSubClass == UVC_SC_VIDEOCONTROL;
            if (inside) {
                result.emplace();
                result->interfaceNumber = interfaceNumber;
            }
        } else if (inside && d.bDescriptorType == USB_DT_CS_INTERFACE && d.bLength >= 3) {
            if (d.bytes[2] == UVC_VC_HEADER) {
                if (d.bLength >= 5) result->uvcVersion = Le16(d.bytes + 3);
            } else {
                // A vendor's own subtype is stepped over by its length, as uvcvideo does, so
                // the units after it (the family's among them) are still found. A unit or
                // terminal too short for its kind is where uvcvideo gives up the whole
                // interface: such a camera has no units to offer.
                UvcEntity entity;
                switch (ParseEntity(d.bytes, d.bLength, &entity)) {
                    case Parsed::kEntity:
                        result->entities.push_back(std::move(entity));
                        break;
                    case Parsed::kUnknown:
                        break;
                    case Parsed::kTooShort:
                        refused = true;
                        return false;
                }
            }
        }
        return true;
    });
    if (refused) return std::nullopt;
    return result;
}

GUID NodeTypeOf(const UvcEntity& entity) {
    switch (entity.kind) {
        case UvcEntityKind::kInputTerminal:
            return entity.terminalType == UVC_ITT_CAMERA ? KSNODETYPE_VIDEO_CAMERA_TERMINAL
                                                         : KSNODETYPE_VIDEO_INPUT_TERMINAL;
        case UvcEntityKind::kOutputTerminal:
            return entity.terminalType == UVC_TT_STREAMING ? KSNODETYPE_VIDEO_STREAMING
                                                           : KSNODETYPE_VIDEO_OUTPUT_TERMINAL;
        case UvcEntityKind::kSelectorUnit:
            return KSNODETYPE_VIDEO_SELECTOR;
        case UvcEntityKind::kProcessingUnit:
            return KSNODETYPE_VIDEO_PROCESSING;
        case UvcEntityKind::kExtensionUnit:
            return KSNODETYPE_DEV_SPECIFIC;
        case UvcEntityKind::kEncodingUnit:
            break;
    }
    return GUID{};
}

}  // namespace platform::linux_hw
