#include "platform/sim/camera_description.h"

namespace sim {
namespace {

constexpr std::uint8_t kInterface = 0x04;
constexpr std::uint8_t kEndpoint = 0x05;
constexpr std::uint8_t kClassInterface = 0x24;
constexpr std::uint8_t kClassEndpoint = 0x25;
constexpr std::uint8_t kVideo = 0x0E;

void Put16(DescriptorBytes& out, unsigned value) {
    out.push_back(static_cast<std::uint8_t>(value));
    out.push_back(static_cast<std::uint8_t>(value >> 8));
}

void Put32(DescriptorBytes& out, std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8)
        out.push_back(static_cast<std::uint8_t>(value >> shift));
}

void Append(DescriptorBytes& out, const DescriptorBytes& piece) {
    out.insert(out.end(), piece.begin(), piece.end());
}

// Sets a 16-bit total at `at` to the bytes from `from` to the end.
void PatchTotal(DescriptorBytes& out, std::size_t at, std::size_t from) {
    const std::size_t total = out.size() - from;
    out[at] = static_cast<std::uint8_t>(total);
    out[at + 1] = static_cast<std::uint8_t>(total >> 8);
}

DescriptorBytes StreamingInterface(const StreamDescription& stream) {
    DescriptorBytes out = {9, kInterface, stream.bInterfaceNumber, 0, 1, kVideo, 0x02, 0x00, 0};
    const std::size_t headerAt = out.size();
    // Input header: one format, no still capture, no triggers.
    Append(out, {14, kClassInterface, 0x01, 1, 0, 0, stream.bEndpointAddress, 0,
                 stream.bTerminalLink, 0, 0, 0, 1, 0});
    const uvc_format_uncompressed& format = stream.format;
    Append(out, {27, kClassInterface, 0x04, 1, static_cast<std::uint8_t>(format.frames.size())});
    Append(out, DescriptorBytes(format.guidFormat.begin(), format.guidFormat.end()));
    Append(out, {format.bBitsPerPixel, 1, 0, 0, 0, 0});
    std::uint8_t index = 1;
    for (const uvc_frame_uncompressed& frame : format.frames) {
        const auto intervals = static_cast<std::uint8_t>(frame.dwFrameInterval.size());
        DescriptorBytes d = {static_cast<std::uint8_t>(26 + 4 * intervals), kClassInterface, 0x05,
                             index++, 0};
        Put16(d, frame.wWidth);
        Put16(d, frame.wHeight);
        const std::uint32_t bytes = frame.wWidth * frame.wHeight * format.bBitsPerPixel / 8u;
        const std::uint32_t fastest = frame.dwFrameInterval.back();
        const std::uint32_t slowest = frame.dwFrameInterval.front();
        Put32(d, static_cast<std::uint32_t>(bytes * 8ull * 10000000 / slowest));
        Put32(d, static_cast<std::uint32_t>(bytes * 8ull * 10000000 / fastest));
        Put32(d, bytes);
        Put32(d, frame.dwFrameInterval.front());
        d.push_back(intervals);
        for (std::uint32_t interval : frame.dwFrameInterval) Put32(d, interval);
        Append(out, d);
    }
    // sRGB primaries and transfer, BT.601 matrix: what the kernel assumes for YUV anyway.
    Append(out, {6, kClassInterface, 0x0D, 1, 1, 4});
    out[headerAt + 4] = static_cast<std::uint8_t>(out.size() - headerAt);
    out[headerAt + 5] = static_cast<std::uint8_t>((out.size() - headerAt) >> 8);
    // Bulk: the whole payload travels in transfers of the negotiated size.
    Append(out, {7, kEndpoint, stream.bEndpointAddress, 0x02, 0x00, 0x02, 0});
    return out;
}

}  // namespace

DescriptorBytes CameraDescription::DeviceDescriptor() const {
    DescriptorBytes d = {18, 0x01};
    Put16(d, device.bcdUSB);
    Append(d, {device.bDeviceClass, device.bDeviceSubClass, device.bDeviceProtocol,
               device.bMaxPacketSize0});
    Put16(d, device.idVendor);
    Put16(d, device.idProduct);
    Put16(d, device.bcdDevice);
    Append(d, {device.iManufacturer, device.iProduct, device.iSerialNumber, 1});
    return d;
}

DescriptorBytes CameraDescription::ConfigurationDescriptor() const {
    const auto interfaces = static_cast<std::uint8_t>(1 + streams.size());
    DescriptorBytes c = {9, 0x02, 0, 0, interfaces, 1, 0, 0x80, bMaxPower};
    Append(c, {8, 0x0B, ControlInterface(), interfaces, kVideo, 0x03, 0x00, 0});
    Append(c, {9, kInterface, ControlInterface(), 0, 1, kVideo, 0x01, 0x00, 0});

    const std::size_t vcAt = c.size();
    Append(c, {static_cast<std::uint8_t>(12 + streams.size()), kClassInterface, 0x01});
    Put16(c, bcdUVC);
    Put16(c, 0);
    Put32(c, dwClockFrequency);
    c.push_back(static_cast<std::uint8_t>(streams.size()));
    for (const StreamDescription& stream : streams) c.push_back(stream.bInterfaceNumber);
    for (const uvc_camera_terminal_descriptor& t : cameraTerminals) {
        DescriptorBytes d = {18, kClassInterface, 0x02, t.bTerminalID};
        Put16(d, t.wTerminalType);
        Append(d, {0, 0, 0, 0, 0, 0, 0, 0, 3});
        Append(d, {static_cast<std::uint8_t>(t.bmControls),
                   static_cast<std::uint8_t>(t.bmControls >> 8),
                   static_cast<std::uint8_t>(t.bmControls >> 16)});
        Append(c, d);
    }
    for (const uvc_processing_unit_descriptor& u : processingUnits) {
        // From version 1.1 on the unit ends with bmVideoStandards.
        DescriptorBytes d = {0, kClassInterface, 0x05, u.bUnitID, u.bSourceID, 0, 0, 2};
        Put16(d, u.bmControls);
        d.push_back(0);  // iProcessing
        if (bcdUVC >= 0x0110) d.push_back(0);
        d[0] = static_cast<std::uint8_t>(d.size());
        Append(c, d);
    }
    for (const uvc_extension_unit_descriptor& u : extensionUnits) {
        DescriptorBytes d = {26, kClassInterface, 0x06, u.bUnitID};
        Append(d, DescriptorBytes(u.guidExtensionCode.begin(), u.guidExtensionCode.end()));
        Append(d, {u.bNumControls, 1, u.baSourceID, 1, u.bmControls, 0});
        Append(c, d);
    }
    for (const uvc_output_terminal_descriptor& t : outputTerminals) {
        DescriptorBytes d = {9, kClassInterface, 0x03, t.bTerminalID};
        Put16(d, t.wTerminalType);
        Append(d, {0, t.bSourceID, 0});
        Append(c, d);
    }
    PatchTotal(c, vcAt + 5, vcAt);
    Append(c, {7, kEndpoint, bInterruptEndpoint, 0x03, 16, 0, 8});
    Append(c, {5, kClassEndpoint, 0x03, 16, 0});

    for (const StreamDescription& stream : streams) Append(c, StreamingInterface(stream));
    PatchTotal(c, 2, 0);
    return c;
}

DescriptorBytes CameraDescription::StringDescriptor(std::uint8_t index) const {
    if (index == 0) return {4, 0x03, 0x09, 0x04};  // English (United States)
    const std::string* text = index == device.iManufacturer   ? &manufacturer
                              : index == device.iProduct      ? &product
                              : index == device.iSerialNumber ? &serialNumber
                                                              : nullptr;
    if (text == nullptr) return {};
    DescriptorBytes out = {static_cast<std::uint8_t>(2 + 2 * text->size()), 0x03};
    for (char c : *text) Put16(out, static_cast<unsigned char>(c));
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
