// SPDX-License-Identifier: Apache-2.0
#include "platform/usbip/uvc_camera.h"

#include <cstdio>
#include <cstring>
#include <mutex>

namespace uvc {
namespace {

using usbip::Bytes;
using usbip::ControlReply;

constexpr std::uint16_t kFrameSize = 1024;

using usb::Le32;

}  // namespace

Camera::Camera(sim::SimWorld& world, std::size_t index) : world_(world), index_(index) {
    {
        std::lock_guard lock(world_.Lock());
        description_ = sim::LynxDepthCamera(sim::WideToUtf8(world_.Cameras()[index_]->Spec().name));
    }
    for (const sim::StreamDescription& stream : description_.streams) {
        streams_.emplace_back(stream, description_.bcdUVC, description_.dwClockFrequency);
    }
}

bool Camera::Pump(usbip::Link& link) {
    const std::string version = Version();
    for (Stream& stream : streams_) {
        if (!stream.Pump(link, version)) return false;
    }
    return true;
}

std::string Camera::Version() {
    std::lock_guard lock(world_.Lock());
    return sim::FormatVersion(world_.Cameras()[index_]->firmware);
}

bool Camera::Leaving() {
    std::lock_guard lock(world_.Lock());
    return !world_.Cameras()[index_]->present;
}

ControlReply Camera::Control(const std::uint8_t* setup, const Bytes& out) {
    lastCommand_[0] = '\0';
    const auto s = usb::usb_ctrlrequest::Read(setup);
    if ((s.bRequestType & 0x60) == 0x00)
        return Standard(s.bRequestType, s.bRequest, s.wValue, s.wIndex);
    if ((s.bRequestType & 0x60) == 0x20 && (s.bRequestType & 0x1F) == 0x01) {
        return VideoControl(s.bRequest, s.wValue, s.wIndex, s.wLength, out);
    }
    return {true, {}};
}

ControlReply Camera::Standard(std::uint8_t type, std::uint8_t request, std::uint16_t value,
                              std::uint16_t index) {
    switch (request) {
        case 0x00:  // GET_STATUS
            return {false, {0, 0}};
        case usb::USB_REQ_GET_DESCRIPTOR: {
            const std::uint8_t kind = value >> 8;
            const std::uint8_t which = value & 0xFF;
            if (kind == usb::USB_DT_DEVICE) return {false, description_.DeviceDescriptor()};
            if (kind == usb::USB_DT_CONFIG && which == 0) {
                return {false, description_.ConfigurationDescriptor()};
            }
            Bytes text =
                kind == usb::USB_DT_STRING ? description_.StringDescriptor(which) : Bytes{};
            return {text.empty(), text};
        }
        case 0x08:  // GET_CONFIGURATION
            return {false, {1}};
        case 0x01:  // CLEAR_FEATURE
            // The host clears a streaming endpoint's halt when it stops that stream.
            if ((type & 0x1F) == 0x02 && value == 0) {
                for (Stream& stream : streams_) {
                    if (stream.Description().bEndpointAddress == (index & 0xFF)) stream.Stop();
                }
            }
            return {false, {}};
        case 0x09:  // SET_CONFIGURATION
        case 0x03:  // SET_FEATURE
            return {false, {}};
        case 0x0A:  // GET_INTERFACE
            return {false, {alternate_[index & 0xFF]}};
        case 0x0B:  // SET_INTERFACE
            if ((type & 0x1F) != 0x01) return {true, {}};
            alternate_[index & 0xFF] = static_cast<std::uint8_t>(value);
            return {false, {}};
        default:
            return {true, {}};
    }
}

ControlReply Camera::VideoControl(std::uint8_t request, std::uint16_t value, std::uint16_t index,
                                  std::uint16_t length, const Bytes& out) {
    const std::uint8_t entity = index >> 8;
    const std::uint8_t interfaceNumber = index & 0xFF;
    const std::uint8_t selector = value >> 8;
    for (Stream& stream : streams_) {
        if (stream.Description().bInterfaceNumber == interfaceNumber) {
            return stream.Control(request, selector, length, out);
        }
    }
    if (interfaceNumber != description_.ControlInterface()) return {true, {}};
    // VC_REQUEST_ERROR_CODE_CONTROL of the interface: what went wrong with the last request.
    if (entity == 0 && selector == 2 && request == usb::UVC_GET_CUR) return {false, {lastError_}};
    if (entity != description_.extensionUnits.front().bUnitID) {
        lastError_ = 0x06;  // invalid control
        return {true, {}};
    }
    if (request == usb::UVC_SET_CUR && out.size() == kFrameSize) {
        const unsigned frameLength = usb::Le16(out.data());
        if (out[2] == 0xAB && out[3] == 0xCD && frameLength >= 20 && frameLength <= 1020) {
            std::snprintf(lastCommand_, sizeof lastCommand_,
                          "command 0x%02x length %u parameters %u %u %u %u", Le32(&out[4]),
                          frameLength, Le32(&out[8]), Le32(&out[12]), Le32(&out[16]),
                          Le32(&out[20]));
        } else {
            std::snprintf(lastCommand_, sizeof lastCommand_,
                          "command rejected: header %02x %02x %02x %02x", out[0], out[1], out[2],
                          out[3]);
        }
    }
    Bytes data = out;
    data.resize(std::max<std::size_t>(length, data.size()));
    std::uint32_t returned = 0;
    bool taken = false;
    {
        std::lock_guard lock(world_.Lock());
        sim::SimCamera& camera = *world_.Cameras()[index_];
        taken =
            camera.present && camera.UnitRequest(request, selector, data.data(), length, &returned);
    }
    if (!taken) {
        lastError_ = 0x01;  // not ready
        return {true, {}};
    }
    lastError_ = 0;
    data.resize((request & 0x80) ? returned : 0);
    return {false, data};
}

}  // namespace uvc
