// SPDX-License-Identifier: Apache-2.0
#include "platform/sim/camera_description.h"

#include <algorithm>

namespace sim {
namespace {

using usb::AppendLe;
using usb::USB_DT_CS_INTERFACE;
using U8 = std::uint8_t;
using U16 = std::uint16_t;
using U32 = std::uint32_t;

// Sets the 16-bit total at `at` to the bytes from `from` to the end.
void SetTotal(DescriptorBytes& out, std::size_t at, std::size_t from) {
    usb::StoreLe(&out[at], static_cast<U16>(out.size() - from));
}

void AppendGuid(DescriptorBytes& out, const std::array<U8, 16>& guid) {
    out.insert(out.end(), guid.begin(), guid.end());
}

}  // namespace

void uvc_camera_terminal_descriptor::Append(DescriptorBytes& out) const {
    // No associated terminal, no name, no optics; bControlSize 3, then bmControls.
    AppendLe(out, U8{18}, USB_DT_CS_INTERFACE, usb::UVC_VC_INPUT_TERMINAL, bTerminalID,
             wTerminalType, U8{0}, U8{0}, U16{0}, U16{0}, U16{0}, U8{3},
             static_cast<U16>(bmControls), static_cast<U8>(bmControls >> 16));
}

void uvc_processing_unit_descriptor::Append(DescriptorBytes& out, U16 bcdUVC) const {
    // From version 1.1 on the unit ends with bmVideoStandards.
    const bool standards = bcdUVC >= 0x0110;
    // wMaxMultiplier 0, bControlSize 2, bmControls, iProcessing 0.
    AppendLe(out, static_cast<U8>(standards ? 12 : 11), USB_DT_CS_INTERFACE,
             usb::UVC_VC_PROCESSING_UNIT, bUnitID, bSourceID, U16{0}, U8{2}, bmControls, U8{0});
    if (standards) out.push_back(0);
}

void uvc_extension_unit_descriptor::Append(DescriptorBytes& out) const {
    AppendLe(out, U8{26}, USB_DT_CS_INTERFACE, usb::UVC_VC_EXTENSION_UNIT, bUnitID);
    AppendGuid(out, guidExtensionCode);
    // One input pin; bControlSize 1, bmControls, iExtension 0.
    AppendLe(out, bNumControls, U8{1}, baSourceID, U8{1}, bmControls, U8{0});
}

void uvc_output_terminal_descriptor::Append(DescriptorBytes& out) const {
    AppendLe(out, U8{9}, USB_DT_CS_INTERFACE, usb::UVC_VC_OUTPUT_TERMINAL, bTerminalID,
             wTerminalType, U8{0}, bSourceID, U8{0});
}

void uvc_frame_uncompressed::Append(DescriptorBytes& out, U8 bFrameIndex, U8 bBitsPerPixel) const {
    const auto bFrameIntervalType = static_cast<U8>(dwFrameInterval.size());
    const U32 bytes = wWidth * wHeight * bBitsPerPixel / 8u;
    const auto bitRate = [&](U32 interval) {
        return static_cast<U32>(bytes * 8ull * 10000000 / interval);
    };
    // bmCapabilities 0; dwMinBitRate, dwMaxBitRate, dwMaxVideoFrameBufferSize,
    // dwDefaultFrameInterval; then the intervals.
    AppendLe(out, static_cast<U8>(26 + 4 * bFrameIntervalType), USB_DT_CS_INTERFACE,
             usb::UVC_VS_FRAME_UNCOMPRESSED, bFrameIndex, U8{0}, wWidth, wHeight,
             bitRate(dwFrameInterval.front()), bitRate(dwFrameInterval.back()), bytes,
             dwFrameInterval.front(), bFrameIntervalType);
    for (U32 interval : dwFrameInterval) AppendLe(out, interval);
}

void uvc_format_uncompressed::Append(DescriptorBytes& out) const {
    AppendLe(out, U8{27}, USB_DT_CS_INTERFACE, usb::UVC_VS_FORMAT_UNCOMPRESSED, U8{1},
             static_cast<U8>(frames.size()));
    AppendGuid(out, guidFormat);
    // Default frame 1, no aspect ratio, progressive, no copy protection.
    AppendLe(out, bBitsPerPixel, U8{1}, U8{0}, U8{0}, U8{0}, U8{0});
    U8 index = 1;
    for (const uvc_frame_uncompressed& frame : frames) frame.Append(out, index++, bBitsPerPixel);
}

void StreamDescription::Append(DescriptorBytes& out) const {
    usb::usb_interface_descriptor{.bInterfaceNumber = bInterfaceNumber,
                                  .bNumEndpoints = 1,
                                  .bInterfaceClass = usb::USB_CLASS_VIDEO,
                                  .bInterfaceSubClass = usb::UVC_SC_VIDEOSTREAMING}
        .Append(out);
    const std::size_t headerAt = out.size();
    // Input header: one format, no still capture, no triggers.
    AppendLe(out, U8{14}, USB_DT_CS_INTERFACE, usb::UVC_VS_INPUT_HEADER, U8{1}, U16{0},
             bEndpointAddress, U8{0}, bTerminalLink, U8{0}, U8{0}, U8{0}, U8{1}, U8{0});
    format.Append(out);
    // sRGB primaries and transfer, BT.601 matrix: what the kernel assumes for YUV anyway.
    AppendLe(out, U8{6}, USB_DT_CS_INTERFACE, usb::UVC_VS_COLORFORMAT, U8{1}, U8{1}, U8{4});
    SetTotal(out, headerAt + 4, headerAt);
    // Bulk: the whole payload travels in transfers of the negotiated size.
    usb::usb_endpoint_descriptor{bEndpointAddress, 0x02, 512, 0}.Append(out);
}

DescriptorBytes CameraDescription::DeviceDescriptor() const {
    DescriptorBytes d;
    device.Append(d);
    return d;
}

DescriptorBytes CameraDescription::ConfigurationDescriptor() const {
    const auto interfaces = static_cast<std::uint8_t>(1 + streams.size());
    DescriptorBytes c;
    usb::usb_config_descriptor{.bNumInterfaces = interfaces, .bMaxPower = bMaxPower}.Append(c);
    usb::usb_interface_assoc_descriptor{ControlInterface(),
                                        interfaces,
                                        usb::USB_CLASS_VIDEO,
                                        usb::UVC_SC_VIDEO_INTERFACE_COLLECTION,
                                        0,
                                        0}
        .Append(c);
    usb::usb_interface_descriptor{.bInterfaceNumber = ControlInterface(),
                                  .bNumEndpoints = 1,
                                  .bInterfaceClass = usb::USB_CLASS_VIDEO,
                                  .bInterfaceSubClass = usb::UVC_SC_VIDEOCONTROL}
        .Append(c);

    const std::size_t vcAt = c.size();
    // wTotalLength is set once the units are in.
    AppendLe(c, static_cast<U8>(12 + streams.size()), USB_DT_CS_INTERFACE, usb::UVC_VC_HEADER,
             bcdUVC, U16{0}, dwClockFrequency, static_cast<U8>(streams.size()));
    for (const StreamDescription& stream : streams) c.push_back(stream.bInterfaceNumber);
    for (const auto& terminal : cameraTerminals) terminal.Append(c);
    for (const auto& unit : processingUnits) unit.Append(c, bcdUVC);
    for (const auto& unit : extensionUnits) unit.Append(c);
    for (const auto& terminal : outputTerminals) terminal.Append(c);
    SetTotal(c, vcAt + 5, vcAt);
    usb::usb_endpoint_descriptor{bInterruptEndpoint, 0x03, 16, 8}.Append(c);
    AppendLe(c, U8{5}, usb::USB_DT_CS_ENDPOINT, usb::UVC_EP_INTERRUPT, U16{16});

    for (const StreamDescription& stream : streams) stream.Append(c);
    usb::usb_config_descriptor::SetTotalLength(c);
    return c;
}

DescriptorBytes CameraDescription::StringDescriptor(std::uint8_t index) const {
    if (index == 0) return {4, usb::USB_DT_STRING, 0x09, 0x04};  // English (United States)
    const std::string* text = index == device.iManufacturer   ? &manufacturer
                              : index == device.iProduct      ? &product
                              : index == device.iSerialNumber ? &serialNumber
                                                              : nullptr;
    if (text == nullptr) return {};
    DescriptorBytes out = {static_cast<std::uint8_t>(2 + 2 * text->size()), usb::USB_DT_STRING};
    for (char c : *text) AppendLe(out, U16{static_cast<unsigned char>(c)});
    return out;
}

CameraDescription LynxDepthCamera(const std::string& product) {
    CameraDescription camera;
    camera.device.idVendor = 0x3C5E;
    camera.device.idProduct = 0x0B64;
    camera.manufacturer = "Vantrel";
    camera.product = product;
    camera.serialNumber = "LX20A0001";
    camera.cameraTerminals = {{1, 0x0201, 0}, {5, 0x0201, 0}};
    camera.processingUnits = {{2, 1, 0}};
    // The family's unit 5b3e9a10-7c2d-4f61-9e84-2a6d0c1f7b39 with its command control 1.
    camera.extensionUnits = {{3,
                              {0x10, 0x9A, 0x3E, 0x5B, 0x2D, 0x7C, 0x61, 0x4F, 0x9E, 0x84, 0x2A,
                               0x6D, 0x0C, 0x1F, 0x7B, 0x39},
                              1,
                              2,
                              0x01}};
    camera.outputTerminals = {{4, 0x0101, 3}, {6, 0x0101, 5}};
    // Uncompressed formats are named by their four characters in the video class's GUID.
    const auto stream = [](const char* name, std::uint8_t number, const char fourcc[5],
                           std::vector<uvc_frame_uncompressed> frames) {
        StreamDescription s;
        s.name = name;
        s.bInterfaceNumber = number;
        s.bEndpointAddress = static_cast<std::uint8_t>(0x81 + number);
        s.bTerminalLink = static_cast<std::uint8_t>(2 + 2 * number);  // output terminals 4, 6
        s.format.guidFormat = {0,    0,    0,    0,    0x00, 0x00, 0x10, 0x00,
                               0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
        std::copy_n(fourcc, 4, s.format.guidFormat.begin());
        s.format.frames = std::move(frames);
        s.dwMaxPayloadTransferSize = 32768;
        return s;
    };
    constexpr std::uint32_t k30 = 333333, k15 = 666666;
    // 'Z16 ': 16-bit depth in millimetres, which uvcvideo offers as Z16.
    camera.streams = {stream("colour", 1, "YUY2", {{320, 240, {k30, k15}}, {160, 120, {k30, k15}}}),
                      stream("depth", 2, "Z16 ", {{320, 240, {k30, k15}}, {160, 120, {k30}}})};
    return camera;
}

}  // namespace sim
