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

namespace sim {

using DescriptorBytes = std::vector<std::uint8_t>;

struct usb_device_descriptor {
    std::uint16_t bcdUSB = 0x0200;
    // Miscellaneous class, common class, interface association: a video function.
    std::uint8_t bDeviceClass = 0xEF;
    std::uint8_t bDeviceSubClass = 0x02;
    std::uint8_t bDeviceProtocol = 0x01;
    std::uint8_t bMaxPacketSize0 = 64;
    std::uint16_t idVendor = 0;
    std::uint16_t idProduct = 0;
    std::uint16_t bcdDevice = 0x0100;
    std::uint8_t iManufacturer = 1;
    std::uint8_t iProduct = 2;
    std::uint8_t iSerialNumber = 3;
};

struct uvc_camera_terminal_descriptor {
    std::uint8_t bTerminalID = 0;
    std::uint16_t wTerminalType = 0x0201;  // camera sensor
    std::uint32_t bmControls = 0;
};

struct uvc_processing_unit_descriptor {
    std::uint8_t bUnitID = 0;
    std::uint8_t bSourceID = 0;
    std::uint16_t bmControls = 0;
};

struct uvc_extension_unit_descriptor {
    std::uint8_t bUnitID = 0;
    std::array<std::uint8_t, 16> guidExtensionCode{};  // as on the wire
    std::uint8_t bNumControls = 0;
    std::uint8_t baSourceID = 0;  // one input pin
    std::uint8_t bmControls = 0;  // selectors 1..8
};

struct uvc_output_terminal_descriptor {
    std::uint8_t bTerminalID = 0;
    std::uint16_t wTerminalType = 0x0101;  // streaming
    std::uint8_t bSourceID = 0;
};

struct uvc_frame_uncompressed {
    std::uint16_t wWidth = 0;
    std::uint16_t wHeight = 0;
    std::vector<std::uint32_t> dwFrameInterval;  // 100 ns units, the first is the default
};

struct uvc_format_uncompressed {
    std::array<std::uint8_t, 16> guidFormat{};
    std::uint8_t bBitsPerPixel = 16;
    std::vector<uvc_frame_uncompressed> frames;
};

// One streaming interface with its bulk endpoint and the output terminal it feeds.
struct StreamDescription {
    std::string name;  // "colour", "depth"
    std::uint8_t bInterfaceNumber = 0;
    std::uint8_t bEndpointAddress = 0;
    std::uint8_t bTerminalLink = 0;
    uvc_format_uncompressed format;
    std::uint32_t dwMaxPayloadTransferSize = 0;
};

struct CameraDescription {
    usb_device_descriptor device;
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
