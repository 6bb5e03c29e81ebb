// SPDX-License-Identifier: Apache-2.0
// The family's depth camera, described once: its USB identity, its video function (the
// units and terminals of the video-control interface and the two streams behind it) and the
// formats and frame sizes each stream offers. The virtual camera's USB descriptors are made
// from it; the fields carry the names the USB and video class descriptors give them.
//
// The topology: camera terminal 1 (colour sensor) -> processing unit 2 -> the family's
// extension unit 3 -> streaming output terminal 4 -> streaming interface 1 (colour);
// camera terminal 5 (depth sensor) -> streaming output terminal 6 -> streaming interface 2
// (depth). The extension unit is in the chain of the first stream only, as on the product.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/usb_descriptors.h"

namespace sim {

using DescriptorBytes = usb::Bytes;
using usb::usb_device_descriptor;

// The records below are the class-specific descriptors of the kernel's linux/usb/video.h,
// holding what varies; Append writes each in its wire layout, fixed fields included.
struct uvc_camera_terminal_descriptor {
    std::uint8_t bTerminalID = 0;
    std::uint16_t wTerminalType = usb::UVC_ITT_CAMERA;
    std::uint32_t bmControls = 0;
    void Append(DescriptorBytes& out) const;
};

struct uvc_processing_unit_descriptor {
    std::uint8_t bUnitID = 0;
    std::uint8_t bSourceID = 0;
    std::uint16_t bmControls = 0;
    void Append(DescriptorBytes& out, std::uint16_t bcdUVC) const;
};

struct uvc_extension_unit_descriptor {
    std::uint8_t bUnitID = 0;
    std::array<std::uint8_t, 16> guidExtensionCode{};  // as on the wire
    std::uint8_t bNumControls = 0;
    std::uint8_t baSourceID = 0;  // one input pin
    std::uint8_t bmControls = 0;  // selectors 1..8
    void Append(DescriptorBytes& out) const;
};

struct uvc_output_terminal_descriptor {
    std::uint8_t bTerminalID = 0;
    std::uint16_t wTerminalType = usb::UVC_TT_STREAMING;
    std::uint8_t bSourceID = 0;
    void Append(DescriptorBytes& out) const;
};

struct uvc_frame_uncompressed {
    std::uint16_t wWidth = 0;
    std::uint16_t wHeight = 0;
    std::vector<std::uint32_t> dwFrameInterval;  // 100 ns units, the first is the default
    void Append(DescriptorBytes& out, std::uint8_t bFrameIndex, std::uint8_t bBitsPerPixel) const;
};

struct uvc_format_uncompressed {
    std::array<std::uint8_t, 16> guidFormat{};
    std::uint8_t bBitsPerPixel = 16;
    std::vector<uvc_frame_uncompressed> frames;
    void Append(DescriptorBytes& out) const;  // with its frames
};

// One streaming interface with its bulk endpoint and the output terminal it feeds.
struct StreamDescription {
    std::string name;  // "colour", "depth"
    std::uint8_t bInterfaceNumber = 0;
    std::uint8_t bEndpointAddress = 0;
    std::uint8_t bTerminalLink = 0;
    uvc_format_uncompressed format;
    std::uint32_t dwMaxPayloadTransferSize = 0;
    void Append(DescriptorBytes& out) const;  // the whole streaming interface
};

struct CameraDescription {
    // Miscellaneous class, common class, interface association: a video function.
    usb_device_descriptor device{0x0200, 0xEF, 0x02, 0x01, 64, 0, 0, 0x0100, 1, 2, 3, 1};
    std::string manufacturer;
    std::string product;
    std::string serialNumber;
    std::uint16_t bcdUVC = 0x0110;
    std::uint32_t dwClockFrequency = 48000000;
    std::uint8_t bInterruptEndpoint = 0x81;
    std::vector<uvc_camera_terminal_descriptor> cameraTerminals;
    std::vector<uvc_processing_unit_descriptor> processingUnits;
    std::vector<uvc_extension_unit_descriptor> extensionUnits;
    std::vector<uvc_output_terminal_descriptor> outputTerminals;
    std::vector<StreamDescription> streams;
    std::uint8_t bMaxPower = 250;  // 2 mA units

    // The video-control interface comes first; the streams follow in order.
    std::uint8_t ControlInterface() const { return 0; }
    DescriptorBytes DeviceDescriptor() const;
    DescriptorBytes ConfigurationDescriptor() const;
    DescriptorBytes StringDescriptor(std::uint8_t index) const;  // empty when there is none
};

// The family's camera in normal operation (vendor 3c5e, product 0b64), named `product`.
CameraDescription LynxDepthCamera(const std::string& product);

}  // namespace sim
