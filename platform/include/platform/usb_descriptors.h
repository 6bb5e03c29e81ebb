// USB descriptors as typed records, with the field names of the kernel's linux/usb/ch9.h, and
// the one walk over the descriptors of a configuration. Plain C++ with no system header, so
// that the WinUSB endpoint, the Linux backend and the device models all read and write
// descriptors the same way on every target.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace usb {

using Bytes = std::vector<std::uint8_t>;

// Every multi-byte field of a descriptor, a request or a firmware frame is little-endian.
constexpr std::uint16_t Le16(const std::uint8_t* at) {
    return static_cast<std::uint16_t>(at[0] | (at[1] << 8));
}
constexpr std::uint32_t Le32(const std::uint8_t* at) {
    return static_cast<std::uint32_t>(Le16(at)) | (static_cast<std::uint32_t>(Le16(at + 2)) << 16);
}
inline void StoreLe16(std::uint8_t* at, std::uint16_t value) {
    at[0] = static_cast<std::uint8_t>(value);
    at[1] = static_cast<std::uint8_t>(value >> 8);
}
inline void StoreLe32(std::uint8_t* at, std::uint32_t value) {
    StoreLe16(at, static_cast<std::uint16_t>(value));
    StoreLe16(at + 2, static_cast<std::uint16_t>(value >> 16));
}
inline void AppendLe16(Bytes& out, std::uint16_t value) {
    out.push_back(static_cast<std::uint8_t>(value));
    out.push_back(static_cast<std::uint8_t>(value >> 8));
}
inline void AppendLe32(Bytes& out, std::uint32_t value) {
    AppendLe16(out, static_cast<std::uint16_t>(value));
    AppendLe16(out, static_cast<std::uint16_t>(value >> 16));
}

constexpr std::uint8_t USB_DT_DEVICE = 0x01;
constexpr std::uint8_t USB_DT_CONFIG = 0x02;
constexpr std::uint8_t USB_DT_STRING = 0x03;
constexpr std::uint8_t USB_DT_INTERFACE = 0x04;
constexpr std::uint8_t USB_DT_ENDPOINT = 0x05;
constexpr std::uint8_t USB_DT_INTERFACE_ASSOCIATION = 0x0B;
constexpr std::uint8_t USB_DT_DFU_FUNCTIONAL = 0x21;
constexpr std::uint8_t USB_DT_CS_INTERFACE = 0x24;
constexpr std::uint8_t USB_DT_CS_ENDPOINT = 0x25;

constexpr std::uint8_t USB_CLASS_VIDEO = 0x0E;
constexpr std::uint8_t USB_CLASS_APP_SPEC = 0xFE;

constexpr std::uint8_t USB_REQ_GET_STATUS = 0x00;
constexpr std::uint8_t USB_REQ_GET_DESCRIPTOR = 0x06;

// The video class (the kernel's linux/usb/video.h): interface subclasses, descriptor
// subtypes, terminal types and class requests.
constexpr std::uint8_t UVC_SC_VIDEOCONTROL = 0x01;
constexpr std::uint8_t UVC_SC_VIDEOSTREAMING = 0x02;
constexpr std::uint8_t UVC_SC_VIDEO_INTERFACE_COLLECTION = 0x03;
constexpr std::uint8_t UVC_VC_HEADER = 0x01;
constexpr std::uint8_t UVC_VC_INPUT_TERMINAL = 0x02;
constexpr std::uint8_t UVC_VC_OUTPUT_TERMINAL = 0x03;
constexpr std::uint8_t UVC_VC_SELECTOR_UNIT = 0x04;
constexpr std::uint8_t UVC_VC_PROCESSING_UNIT = 0x05;
constexpr std::uint8_t UVC_VC_EXTENSION_UNIT = 0x06;
constexpr std::uint8_t UVC_VC_ENCODING_UNIT = 0x07;
constexpr std::uint8_t UVC_VS_INPUT_HEADER = 0x01;
constexpr std::uint8_t UVC_VS_FORMAT_UNCOMPRESSED = 0x04;
constexpr std::uint8_t UVC_VS_FRAME_UNCOMPRESSED = 0x05;
constexpr std::uint8_t UVC_VS_COLORFORMAT = 0x0D;
constexpr std::uint8_t UVC_EP_INTERRUPT = 0x03;
constexpr std::uint16_t UVC_TT_STREAMING = 0x0101;
constexpr std::uint16_t UVC_ITT_CAMERA = 0x0201;
constexpr std::uint8_t UVC_SET_CUR = 0x01;
constexpr std::uint8_t UVC_GET_CUR = 0x81;
constexpr std::uint8_t UVC_GET_MIN = 0x82;
constexpr std::uint8_t UVC_GET_MAX = 0x83;
constexpr std::uint8_t UVC_GET_RES = 0x84;
constexpr std::uint8_t UVC_GET_LEN = 0x85;
constexpr std::uint8_t UVC_GET_INFO = 0x86;
constexpr std::uint8_t UVC_GET_DEF = 0x87;

// The eight bytes of a setup packet.
struct usb_ctrlrequest {
    std::uint8_t bRequestType = 0;
    std::uint8_t bRequest = 0;
    std::uint16_t wValue = 0;
    std::uint16_t wIndex = 0;
    std::uint16_t wLength = 0;

    static usb_ctrlrequest Read(const std::uint8_t* at) {
        return {at[0], at[1], Le16(at + 2), Le16(at + 4), Le16(at + 6)};
    }
};

struct usb_device_descriptor {
    static constexpr std::uint8_t bLength = 18;
    std::uint16_t bcdUSB = 0x0200;
    std::uint8_t bDeviceClass = 0;
    std::uint8_t bDeviceSubClass = 0;
    std::uint8_t bDeviceProtocol = 0;
    std::uint8_t bMaxPacketSize0 = 64;
    std::uint16_t idVendor = 0;
    std::uint16_t idProduct = 0;
    std::uint16_t bcdDevice = 0x0100;
    std::uint8_t iManufacturer = 0;
    std::uint8_t iProduct = 0;
    std::uint8_t iSerialNumber = 0;
    std::uint8_t bNumConfigurations = 1;

    void Append(Bytes& out) const {
        out.insert(out.end(), {bLength, USB_DT_DEVICE});
        AppendLe16(out, bcdUSB);
        out.insert(out.end(), {bDeviceClass, bDeviceSubClass, bDeviceProtocol, bMaxPacketSize0});
        AppendLe16(out, idVendor);
        AppendLe16(out, idProduct);
        AppendLe16(out, bcdDevice);
        out.insert(out.end(), {iManufacturer, iProduct, iSerialNumber, bNumConfigurations});
    }
};

struct usb_config_descriptor {
    static constexpr std::uint8_t bLength = 9;
    std::uint16_t wTotalLength = 0;
    std::uint8_t bNumInterfaces = 0;
    std::uint8_t bConfigurationValue = 1;
    std::uint8_t iConfiguration = 0;
    std::uint8_t bmAttributes = 0x80;  // bus powered
    std::uint8_t bMaxPower = 0;        // 2 mA units

    static usb_config_descriptor Read(const std::uint8_t* at) {
        return {Le16(at + 2), at[4], at[5], at[6], at[7], at[8]};
    }
    void Append(Bytes& out) const {
        out.insert(out.end(), {bLength, USB_DT_CONFIG});
        AppendLe16(out, wTotalLength);
        out.insert(out.end(),
                   {bNumInterfaces, bConfigurationValue, iConfiguration, bmAttributes, bMaxPower});
    }
    // Sets wTotalLength of the configuration that starts `out` to the bytes written so far.
    static void SetTotalLength(Bytes& out) {
        StoreLe16(out.data() + 2, static_cast<std::uint16_t>(out.size()));
    }
};

struct usb_interface_assoc_descriptor {
    static constexpr std::uint8_t bLength = 8;
    std::uint8_t bFirstInterface = 0;
    std::uint8_t bInterfaceCount = 0;
    std::uint8_t bFunctionClass = 0;
    std::uint8_t bFunctionSubClass = 0;
    std::uint8_t bFunctionProtocol = 0;
    std::uint8_t iFunction = 0;

    void Append(Bytes& out) const {
        out.insert(out.end(), {bLength, USB_DT_INTERFACE_ASSOCIATION, bFirstInterface,
                               bInterfaceCount, bFunctionClass, bFunctionSubClass,
                               bFunctionProtocol, iFunction});
    }
};

struct usb_interface_descriptor {
    static constexpr std::uint8_t bLength = 9;
    std::uint8_t bInterfaceNumber = 0;
    std::uint8_t bAlternateSetting = 0;
    std::uint8_t bNumEndpoints = 0;
    std::uint8_t bInterfaceClass = 0;
    std::uint8_t bInterfaceSubClass = 0;
    std::uint8_t bInterfaceProtocol = 0;
    std::uint8_t iInterface = 0;

    static usb_interface_descriptor Read(const std::uint8_t* at) {
        return {at[2], at[3], at[4], at[5], at[6], at[7], at[8]};
    }
    void Append(Bytes& out) const {
        out.insert(out.end(), {bLength, USB_DT_INTERFACE, bInterfaceNumber, bAlternateSetting,
                               bNumEndpoints, bInterfaceClass, bInterfaceSubClass,
                               bInterfaceProtocol, iInterface});
    }
};

struct usb_endpoint_descriptor {
    static constexpr std::uint8_t bLength = 7;
    std::uint8_t bEndpointAddress = 0;
    std::uint8_t bmAttributes = 0;
    std::uint16_t wMaxPacketSize = 0;
    std::uint8_t bInterval = 0;

    void Append(Bytes& out) const {
        out.insert(out.end(), {bLength, USB_DT_ENDPOINT, bEndpointAddress, bmAttributes});
        AppendLe16(out, wMaxPacketSize);
        out.push_back(bInterval);
    }
};

// The functional descriptor of a DFU interface (DFU 1.1, table 4.2).
struct usb_dfu_functional_descriptor {
    static constexpr std::uint8_t bLength = 9;
    std::uint8_t bmAttributes = 0;
    std::uint16_t wDetachTimeOut = 0;
    std::uint16_t wTransferSize = 0;
    std::uint16_t bcdDFUVersion = 0x0110;

    static usb_dfu_functional_descriptor Read(const std::uint8_t* at) {
        return {at[2], Le16(at + 3), Le16(at + 5), Le16(at + 7)};
    }
    void Append(Bytes& out) const {
        out.insert(out.end(), {bLength, USB_DT_DFU_FUNCTIONAL, bmAttributes});
        AppendLe16(out, wDetachTimeOut);
        AppendLe16(out, wTransferSize);
        AppendLe16(out, bcdDFUVersion);
    }
};

// One descriptor met on a walk: its first two fields and all its bytes.
struct usb_descriptor_header {
    std::uint8_t bLength = 0;
    std::uint8_t bDescriptorType = 0;
    const std::uint8_t* bytes = nullptr;  // bLength bytes, all within what was read
};

// Visits the descriptors in `length` bytes in order, each one whole, while `visit` returns
// true. The walk ends at a zero bLength (it would never move on), at a descriptor that runs
// past the bytes read, and where fewer than two bytes are left. A one-byte descriptor is
// stepped over like any other, as hosts do; the visitor decides what it makes of one.
template <typename Visit>
void WalkDescriptors(const std::uint8_t* bytes, std::size_t length, Visit visit) {
    for (std::size_t at = 0; at + 2 <= length;) {
        const std::uint8_t bLength = bytes[at];
        if (bLength == 0 || bLength > length - at) return;
        if (!visit(usb_descriptor_header{bLength, bytes[at + 1], bytes + at})) return;
        at += bLength;
    }
}

}  // namespace usb
