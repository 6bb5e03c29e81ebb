#include "platform/sim/camera_description.h"

namespace sim {
namespace {

using usb::AppendLe16;
using usb::AppendLe32;
using usb::USB_DT_CS_INTERFACE;

// Sets the 16-bit total at `at` to the bytes from `from` to the end.
void SetTotal(DescriptorBytes& out, std::size_t at, std::size_t from) {
    usb::StoreLe16(&out[at], static_cast<std::uint16_t>(out.size() - from));
}

void AppendBytes(DescriptorBytes& out, const std::array<std::uint8_t, 16>& guid) {
    out.insert(out.end(), guid.begin(), guid.end());
}

}  // namespace

void uvc_camera_terminal_descriptor::Append(DescriptorBytes& out) const {
    out.insert(out.end(), {18, USB_DT_CS_INTERFACE, usb::UVC_VC_INPUT_TERMINAL, bTerminalID});
    AppendLe16(out, wTerminalType);
    // No associated terminal, no name, no optics; then bControlSize 3 and bmControls.
    out.insert(out.end(), {0, 0, 0, 0, 0, 0, 0, 0, 3});
    AppendLe16(out, static_cast<std::uint16_t>(bmControls));
    out.push_back(static_cast<std::uint8_t>(bmControls >> 16));
}

void uvc_processing_unit_descriptor::Append(DescriptorBytes& out, std::uint16_t bcdUVC) const {
    // From version 1.1 on the unit ends with bmVideoStandards.
    const std::uint8_t bLength = bcdUVC >= 0x0110 ? 12 : 11;
    // wMaxMultiplier 0, bControlSize 2, then bmControls and iProcessing.
    out.insert(out.end(), {bLength, USB_DT_CS_INTERFACE, usb::UVC_VC_PROCESSING_UNIT, bUnitID,
                           bSourceID, 0, 0, 2});
    AppendLe16(out, bmControls);
    out.push_back(0);
    if (bcdUVC >= 0x0110) out.push_back(0);
}

void uvc_extension_unit_descriptor::Append(DescriptorBytes& out) const {
    out.insert(out.end(), {26, USB_DT_CS_INTERFACE, usb::UVC_VC_EXTENSION_UNIT, bUnitID});
    AppendBytes(out, guidExtensionCode);
    // bNrInPins 1, then bControlSize 1 and iExtension 0.
    out.insert(out.end(), {bNumControls, 1, baSourceID, 1, bmControls, 0});
}

void uvc_output_terminal_descriptor::Append(DescriptorBytes& out) const {
    out.insert(out.end(), {9, USB_DT_CS_INTERFACE, usb::UVC_VC_OUTPUT_TERMINAL, bTerminalID});
    AppendLe16(out, wTerminalType);
    out.insert(out.end(), {0, bSourceID, 0});
}

void uvc_frame_uncompressed::Append(DescriptorBytes& out, std::uint8_t bFrameIndex,
                                    std::uint8_t bBitsPerPixel) const {
    const auto bFrameIntervalType = static_cast<std::uint8_t>(dwFrameInterval.size());
    out.insert(out.end(), {static_cast<std::uint8_t>(26 + 4 * bFrameIntervalType),
                           USB_DT_CS_INTERFACE, usb::UVC_VS_FRAME_UNCOMPRESSED, bFrameIndex, 0});
    AppendLe16(out, wWidth);
    AppendLe16(out, wHeight);
    const std::uint32_t bytes = wWidth * wHeight * bBitsPerPixel / 8u;
    AppendLe32(out, static_cast<std::uint32_t>(bytes * 8ull * 10000000 / dwFrameInterval.front()));
    AppendLe32(out, static_cast<std::uint32_t>(bytes * 8ull * 10000000 / dwFrameInterval.back()));
    AppendLe32(out, bytes);  // dwMaxVideoFrameBufferSize
    AppendLe32(out, dwFrameInterval.front());
    out.push_back(bFrameIntervalType);
    for (std::uint32_t interval : dwFrameInterval) AppendLe32(out, interval);
}

void uvc_format_uncompressed::Append(DescriptorBytes& out) const {
    out.insert(out.end(), {27, USB_DT_CS_INTERFACE, usb::UVC_VS_FORMAT_UNCOMPRESSED, 1,
                           static_cast<std::uint8_t>(frames.size())});
    AppendBytes(out, guidFormat);
    // Default frame 1, no aspect ratio, progressive, no copy protection.
    out.insert(out.end(), {bBitsPerPixel, 1, 0, 0, 0, 0});
    std::uint8_t index = 1;
    for (const uvc_frame_uncompressed& frame : frames) frame.Append(out, index++, bBitsPerPixel);
}

void StreamDescription::Append(DescriptorBytes& out) const {
    usb::usb_interface_descriptor interface;
    interface.bInterfaceNumber = bInterfaceNumber;
    interface.bNumEndpoints = 1;
    interface.bInterfaceClass = usb::USB_CLASS_VIDEO;
    interface.bInterfaceSubClass = usb::UVC_SC_VIDEOSTREAMING;
    interface.Append(out);
    const std::size_t headerAt = out.size();
    // Input header: one format, no still capture, no triggers.
    out.insert(out.end(), {14, USB_DT_CS_INTERFACE, usb::UVC_VS_INPUT_HEADER, 1, 0, 0,
                           bEndpointAddress, 0, bTerminalLink, 0, 0, 0, 1, 0});
    format.Append(out);
    // sRGB primaries and transfer, BT.601 matrix: what the kernel assumes for YUV anyway.
    out.insert(out.end(), {6, USB_DT_CS_INTERFACE, usb::UVC_VS_COLORFORMAT, 1, 1, 4});
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
    usb::usb_config_descriptor config;
    config.bNumInterfaces = interfaces;
    config.bMaxPower = bMaxPower;
    config.Append(c);
    usb::usb_interface_assoc_descriptor{ControlInterface(),
                                        interfaces,
                                        usb::USB_CLASS_VIDEO,
                                        usb::UVC_SC_VIDEO_INTERFACE_COLLECTION,
                                        0,
                                        0}
        .Append(c);
    usb::usb_interface_descriptor control;
    control.bInterfaceNumber = ControlInterface();
    control.bNumEndpoints = 1;
    control.bInterfaceClass = usb::USB_CLASS_VIDEO;
    control.bInterfaceSubClass = usb::UVC_SC_VIDEOCONTROL;
    control.Append(c);

    const std::size_t vcAt = c.size();
    c.insert(c.end(), {static_cast<std::uint8_t>(12 + streams.size()), USB_DT_CS_INTERFACE,
                       usb::UVC_VC_HEADER});
    AppendLe16(c, bcdUVC);
    AppendLe16(c, 0);  // wTotalLength, set below
    AppendLe32(c, dwClockFrequency);
    c.push_back(static_cast<std::uint8_t>(streams.size()));
    for (const StreamDescription& stream : streams) c.push_back(stream.bInterfaceNumber);
    for (const auto& terminal : cameraTerminals) terminal.Append(c);
    for (const auto& unit : processingUnits) unit.Append(c, bcdUVC);
    for (const auto& unit : extensionUnits) unit.Append(c);
    for (const auto& terminal : outputTerminals) terminal.Append(c);
    SetTotal(c, vcAt + 5, vcAt);
    usb::usb_endpoint_descriptor{bInterruptEndpoint, 0x03, 16, 8}.Append(c);
    c.insert(c.end(), {5, usb::USB_DT_CS_ENDPOINT, usb::UVC_EP_INTERRUPT, 16, 0});

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
    for (char c : *text) AppendLe16(out, static_cast<unsigned char>(c));
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
    constexpr std::uint32_t k30 = 333333, k15 = 666666;
    StreamDescription colour;
    colour.name = "colour";
    colour.bInterfaceNumber = 1;
    colour.bEndpointAddress = 0x82;
    colour.bTerminalLink = 4;
    // YUY2
    colour.format.guidFormat = {0x59, 0x55, 0x59, 0x32, 0x00, 0x00, 0x10, 0x00,
                                0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
    colour.format.frames = {{320, 240, {k30, k15}}, {160, 120, {k30, k15}}};
    colour.dwMaxPayloadTransferSize = 32768;
    StreamDescription depth = colour;
    depth.name = "depth";
    depth.bInterfaceNumber = 2;
    depth.bEndpointAddress = 0x83;
    depth.bTerminalLink = 6;
    // 'Z16 ': 16-bit depth in millimetres, which uvcvideo offers as Z16.
    depth.format.guidFormat = {0x5A, 0x31, 0x36, 0x20, 0x00, 0x00, 0x10, 0x00,
                               0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
    depth.format.frames = {{320, 240, {k30, k15}}, {160, 120, {k30}}};
    camera.streams = {colour, depth};
    return camera;
}

}  // namespace sim
