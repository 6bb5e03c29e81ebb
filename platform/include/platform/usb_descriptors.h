// SPDX-License-Identifier: Apache-2.0
// USB descriptors as typed records, with the field names of the kernel's linux/usb/ch9.h and
// linux/usb/video.h, and the one walk over the descriptors of a configuration. Plain C++ with
// no system header, so that the WinUSB endpoint, the Linux backend and the device models all
// read and write descriptors the same way on every target.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <vector>

namespace usb {

using Bytes = std::vector<std::uint8_t>;

// Every multi-byte field of a descriptor, a request or a firmware frame is little-endian.
constexpr std::uint16_t Le16(const std::uint8_t* at) {
    return static_cast<std::uint16_t>(at[0] | (at[1] << 8));
}
constexpr std::uint32_t Le32(const std::uint8_t* at) {
    return Le16(at) | (static_cast<std::uint32_t>(Le16(at + 2)) << 16);
}
// Writes each field in turn, in as many bytes as its type has; returns the end.
template <typename Field>
std::uint8_t* StoreLe(std::uint8_t* at, Field field) {
    static_assert(std::is_unsigned_v<Field>, "a field is an unsigned fixed-size type");
    for (std::size_t i = 0; i < sizeof(Field); ++i)
        *at++ = static_cast<std::uint8_t>(field >> (8 * i));
    return at;
}
template <typename Field, typename... More>
std::uint8_t* StoreLe(std::uint8_t* at, Field field, More... more) {
    return StoreLe(StoreLe(at, field), more...);
}
template <typename... Fields>
void AppendLe(Bytes& out, Fields... fields) {
    const std::size_t at = out.size();
    out.resize(at + (sizeof(Fields) + ... + 0));
    StoreLe(out.data() + at, fields...);
}

constexpr std::uint8_t USB_DT_DEVICE = 0x01, USB_DT_CONFIG = 0x02, USB_DT_STRING = 0x03,
                       USB_DT_INTERFACE = 0x04, USB_DT_ENDPOINT = 0x05,
                       USB_DT_INTERFACE_ASSOCIATION = 0x0B, USB_DT_DFU_FUNCTIONAL = 0x21,
                       USB_DT_CS_INTERFACE = 0x24, USB_DT_CS_ENDPOINT = 0x25;
constexpr std::uint8_t USB_CLASS_VIDEO = 0x0E, USB_CLASS_APP_SPEC = 0xFE;
constexpr std::uint8_t USB_REQ_GET_DESCRIPTOR = 0x06;

// The video class: interface subclasses, descriptor subtypes, terminal types, requests.
constexpr std::uint8_t UVC_SC_VIDEOCONTROL = 0x01, UVC_SC_VIDEOSTREAMING = 0x02,
                       UVC_SC_VIDEO_INTERFACE_COLLECTION = 0x03;
constexpr std::uint8_t UVC_VC_HEADER = 0x01, UVC_VC_INPUT_TERMINAL = 0x02,
                       UVC_VC_OUTPUT_TERMINAL = 0x03, UVC_VC_SELECTOR_UNIT = 0x04,
                       UVC_VC_PROCESSING_UNIT = 0x05, UVC_VC_EXTENSION_UNIT = 0x06,
                       UVC_VC_ENCODING_UNIT = 0x07;
constexpr std::uint8_t UVC_VS_INPUT_HEADER = 0x01, UVC_VS_FORMAT_UNCOMPRESSED = 0x04,
                       UVC_VS_FRAME_UNCOMPRESSED = 0x05, UVC_VS_COLORFORMAT = 0x0D,
                       UVC_EP_INTERRUPT = 0x03;
constexpr std::uint16_t UVC_TT_STREAMING = 0x0101, UVC_ITT_CAMERA = 0x0201;
constexpr std::uint8_t UVC_SET_CUR = 0x01, UVC_GET_CUR = 0x81, UVC_GET_MIN = 0x82,
                       UVC_GET_MAX = 0x83, UVC_GET_RES = 0x84, UVC_GET_LEN = 0x85,
                       UVC_GET_INFO = 0x86, UVC_GET_DEF = 0x87;

// The eight bytes of a setup packet.
struct usb_ctrlrequest {
    std::uint8_t bRequestType = 0, bRequest = 0;
    std::uint16_t wValue = 0, wIndex = 0, wLength = 0;

    static usb_ctrlrequest Read(const std::uint8_t* at) {
        return {at[0], at[1], Le16(at + 2), Le16(at + 4), Le16(at + 6)};
    }
};

struct usb_device_descriptor {
    static constexpr std::uint8_t bLength = 18;
    std::uint16_t bcdUSB = 0x0200;
    std::uint8_t bDeviceClass = 0, bDeviceSubClass = 0, bDeviceProtocol = 0, bMaxPacketSize0 = 64;
    std::uint16_t idVendor = 0, idProduct = 0, bcdDevice = 0x0100;
    std::uint8_t iManufacturer = 0, iProduct = 0, iSerialNumber = 0, bNumConfigurations = 1;

    void Append(Bytes& out) const {
        AppendLe(out, bLength, USB_DT_DEVICE, bcdUSB, bDeviceClass, bDeviceSubClass,
                 bDeviceProtocol, bMaxPacketSize0, idVendor, idProduct, bcdDevice, iManufacturer,
                 iProduct, iSerialNumber, bNumConfigurations);
    }
};

struct usb_config_descriptor {
    static constexpr std::uint8_t bLength = 9;
    std::uint16_t wTotalLength = 0;
    std::uint8_t bNumInterfaces = 0, bConfigurationValue = 1, iConfiguration = 0;
    std::uint8_t bmAttributes = 0x80;  // bus powered
    std::uint8_t bMaxPower = 0;        // 2 mA units

    static usb_config_descriptor Read(const std::uint8_t* at) {
        return {Le16(at + 2), at[4], at[5], at[6], at[7], at[8]};
    }
    void Append(Bytes& out) const {
        AppendLe(out, bLength, USB_DT_CONFIG, wTotalLength, bNumInterfaces, bConfigurationValue,
                 iConfiguration, bmAttributes, bMaxPower);
    }
    // Sets wTotalLength of the configuration that starts `out` to the bytes written so far.
    static void SetTotalLength(Bytes& out) {
        StoreLe(out.data() + 2, static_cast<std::uint16_t>(out.size()));
    }
};

struct usb_interface_assoc_descriptor {
    static constexpr std::uint8_t bLength = 8;
    std::uint8_t bFirstInterface = 0, bInterfaceCount = 0, bFunctionClass = 0,
                 bFunctionSubClass = 0, bFunctionProtocol = 0, iFunction = 0;

    void Append(Bytes& out) const {
        AppendLe(out, bLength, USB_DT_INTERFACE_ASSOCIATION, bFirstInterface, bInterfaceCount,
                 bFunctionClass, bFunctionSubClass, bFunctionProtocol, iFunction);
    }
};

struct usb_interface_descriptor {
    static constexpr std::uint8_t bLength = 9;
    std::uint8_t bInterfaceNumber = 0, bAlternateSetting = 0, bNumEndpoints = 0,
                 bInterfaceClass = 0, bInterfaceSubClass = 0, bInterfaceProtocol = 0,
                 iInterface = 0;

    static usb_interface_descriptor Read(const std::uint8_t* at) {
        return {at[2], at[3], at[4], at[5], at[6], at[7], at[8]};
    }
    void Append(Bytes& out) const {
        AppendLe(out, bLength, USB_DT_INTERFACE, bInterfaceNumber, bAlternateSetting, bNumEndpoints,
                 bInterfaceClass, bInterfaceSubClass, bInterfaceProtocol, iInterface);
    }
};

struct usb_endpoint_descriptor {
    static constexpr std::uint8_t bLength = 7;
    std::uint8_t bEndpointAddress = 0, bmAttributes = 0;
    std::uint16_t wMaxPacketSize = 0;
    std::uint8_t bInterval = 0;

    void Append(Bytes& out) const {
        AppendLe(out, bLength, USB_DT_ENDPOINT, bEndpointAddress, bmAttributes, wMaxPacketSize,
                 bInterval);
    }
};

// The functional descriptor of a DFU interface (DFU 1.1, table 4.2).
struct usb_dfu_functional_descriptor {
    static constexpr std::uint8_t bLength = 9;
    std::uint8_t bmAttributes = 0;
    std::uint16_t wDetachTimeOut = 0, wTransferSize = 0, bcdDFUVersion = 0x0110;

    static usb_dfu_functional_descriptor Read(const std::uint8_t* at) {
        return {at[2], Le16(at + 3), Le16(at + 5), Le16(at + 7)};
    }
    void Append(Bytes& out) const {
        AppendLe(out, bLength, USB_DT_DFU_FUNCTIONAL, bmAttributes, wDetachTimeOut, wTransferSize,
                 bcdDFUVersion);
    }
};

// One descriptor met on a walk: its first two fields and all its bytes.
struct usb_descriptor_header {
    std::uint8_t bLength = 0, bDescriptorType = 0;
    const std::uint8_t* bytes = nullptr;  // bLength bytes, all within what was read
};

// Visits the descriptors in `length` bytes in order, each one whole, while `visit` returns
// true. The walk ends at a zero bLength (it would never move on), at a descriptor that runs
// past the bytes read, and where fewer than two bytes are left. A one-byte descriptor is
// stepped over like any other; the visitor decides what it makes of one.
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
