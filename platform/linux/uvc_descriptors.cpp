#include "platform/linux/uvc_descriptors.h"

#include "platform/ks.h"
#include "platform/usb_descriptors.h"

namespace platform::linux_hw {
namespace {

constexpr std::uint8_t kVideoControlSubclass = 0x01;

constexpr std::uint8_t kVcHeader = 0x01;
constexpr std::uint8_t kVcInputTerminal = 0x02;
constexpr std::uint8_t kVcOutputTerminal = 0x03;
constexpr std::uint8_t kVcSelectorUnit = 0x04;
constexpr std::uint8_t kVcProcessingUnit = 0x05;
constexpr std::uint8_t kVcExtensionUnit = 0x06;
constexpr std::uint8_t kVcEncodingUnit = 0x07;

constexpr std::uint16_t kCameraTerminal = 0x0201;
constexpr std::uint16_t kStreamingTerminal = 0x0101;

// GUIDs travel in USB descriptors in the same mixed-endian layout as in memory on x86.
GUID GuidFromWire(const std::uint8_t* p) {
    GUID guid{};
    guid.Data1 = usb::Le32(p);
    guid.Data2 = usb::Le16(p + 4);
    guid.Data3 = usb::Le16(p + 6);
    for (int i = 0; i < 8; ++i) guid.Data4[i] = p[8 + i];
    return guid;
}

// One class-specific video-control descriptor; false when it is too short for its kind.
bool ParseEntity(const std::uint8_t* d, std::uint8_t length, UvcEntity* entity) {
    switch (d[2]) {
        case kVcInputTerminal:
            if (length < 8) return false;
            entity->kind = UvcEntityKind::kInputTerminal;
            entity->id = d[3];
            entity->terminalType = usb::Le16(d + 4);
            return true;
        case kVcOutputTerminal:
            if (length < 9) return false;
            entity->kind = UvcEntityKind::kOutputTerminal;
            entity->id = d[3];
            entity->terminalType = usb::Le16(d + 4);
            return true;
        case kVcSelectorUnit:
            if (length < 5) return false;
            entity->kind = UvcEntityKind::kSelectorUnit;
            entity->id = d[3];
            return true;
        case kVcProcessingUnit: {
            if (length < 8) return false;
            entity->kind = UvcEntityKind::kProcessingUnit;
            entity->id = d[3];
            const std::uint8_t size = d[7];
            if (8u + size > length) return false;
            entity->controls.assign(d + 8, d + 8 + size);
            return true;
        }
        case kVcExtensionUnit: {
            // bLength, type, subtype, bUnitID, guid(16), bNumControls, bNrInPins, pins...,
            // bControlSize, bmControls..., iExtension
            if (length < 24) return false;
            entity->kind = UvcEntityKind::kExtensionUnit;
            entity->id = d[3];
            entity->extensionCode = GuidFromWire(d + 4);
            entity->controlCount = d[20];
            const std::size_t pins = d[21];
            const std::size_t sizeAt = 22 + pins;
            if (sizeAt >= length) return false;
            const std::size_t size = d[sizeAt];
            if (sizeAt + 1 + size > length) return false;
            entity->controls.assign(d + sizeAt + 1, d + sizeAt + 1 + size);
            return true;
        }
        case kVcEncodingUnit:
            if (length < 4) return false;
            entity->kind = UvcEntityKind::kEncodingUnit;
            entity->id = d[3];
            return true;
        default:
            return false;
    }
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
    usb::WalkDescriptors(config, length, [&](const usb::usb_descriptor_header& d) {
        if (d.bLength < 2) return false;
        if (d.bDescriptorType == usb::USB_DT_INTERFACE) {
            if (result) return false;  // the next interface: the video-control one is complete
            // Read only what is there: a short descriptor is no interface of ours.
            const auto interface = d.bLength >= usb::usb_interface_descriptor::bLength
                                       ? usb::usb_interface_descriptor::Read(d.bytes)
                                       : usb::usb_interface_descriptor{};
            inside = interface.bInterfaceNumber == interfaceNumber &&
                     interface.bAlternateSetting == 0 &&
                     interface.bInterfaceClass == usb::USB_CLASS_VIDEO &&
                     interface.bInterfaceSubClass == kVideoControlSubclass;
            if (inside) {
                result.emplace();
                result->interfaceNumber = interfaceNumber;
            }
        } else if (inside && d.bDescriptorType == usb::USB_DT_CS_INTERFACE && d.bLength >= 3) {
            if (d.bytes[2] == kVcHeader) {
                if (d.bLength >= 5) result->uvcVersion = usb::Le16(d.bytes + 3);
            } else {
                UvcEntity entity;
                if (!ParseEntity(d.bytes, d.bLength, &entity)) return false;
                result->entities.push_back(std::move(entity));
            }
        }
        return true;
    });
    return result;
}

GUID NodeTypeOf(const UvcEntity& entity) {
    switch (entity.kind) {
        case UvcEntityKind::kInputTerminal:
            return entity.terminalType == kCameraTerminal ? KSNODETYPE_VIDEO_CAMERA_TERMINAL
                                                          : KSNODETYPE_VIDEO_INPUT_TERMINAL;
        case UvcEntityKind::kOutputTerminal:
            return entity.terminalType == kStreamingTerminal ? KSNODETYPE_VIDEO_STREAMING
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
