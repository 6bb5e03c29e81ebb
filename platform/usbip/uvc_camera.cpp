#include "platform/usbip/uvc_camera.h"

#include <cstdio>
#include <cstring>
#include <mutex>

namespace uvc {
namespace {

using usbip::Bytes;
using usbip::ControlReply;

constexpr std::uint16_t kVendor = 0x3C5E;
constexpr std::uint16_t kCameraProduct = 0x0B64;
constexpr std::uint8_t kUnitId = 3;  // the family's extension unit
constexpr std::uint16_t kFrameSize = 1024;

void Put16(Bytes& out, unsigned value) {
    out.push_back(static_cast<std::uint8_t>(value));
    out.push_back(static_cast<std::uint8_t>(value >> 8));
}

void Put32(Bytes& out, std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8)
        out.push_back(static_cast<std::uint8_t>(value >> shift));
}

std::uint32_t Le32(const std::uint8_t* at) {
    return at[0] | (at[1] << 8) | (at[2] << 16) | (static_cast<std::uint32_t>(at[3]) << 24);
}

Bytes StringDescriptor(const std::string& text) {
    Bytes out = {static_cast<std::uint8_t>(2 + 2 * text.size()), 0x03};
    for (char c : text) Put16(out, static_cast<unsigned char>(c));
    return out;
}

Bytes DeviceDescriptor() {
    Bytes d = {18, 0x01};
    Put16(d, 0x0200);
    // Interface association: miscellaneous class, common class, IAD protocol.
    d.insert(d.end(), {0xEF, 0x02, 0x01, 64});
    Put16(d, kVendor);
    Put16(d, kCameraProduct);
    Put16(d, 0x0100);
    d.insert(d.end(), {1, 2, 3, 1});
    return d;
}

// Video control (interface 0) with camera terminal 1, processing unit 2, the family's
// extension unit 3 and streaming output terminal 4; video streaming (interface 1) with one
// uncompressed format, alternate setting 1 carrying the isochronous endpoint.
Bytes Configuration() {
    Bytes c = {9, 0x02, 0, 0, 2, 1, 0, 0x80, 250};
    c.insert(c.end(), {8, 0x0B, 0, 2, 0x0E, 0x03, 0x00, 0});  // association
    c.insert(c.end(), {9, 0x04, 0, 0, 1, 0x0E, 0x01, 0x00, 0});

    Bytes vc = {13, 0x24, 0x01};
    Put16(vc, 0x0100);
    const std::size_t totalAt = vc.size();
    Put16(vc, 0);
    Put32(vc, 48000000);
    vc.insert(vc.end(), {1, 1});
    vc.insert(vc.end(), {18, 0x24, 0x02, 1, 0x01, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0});
    vc.insert(vc.end(), {10, 0x24, 0x05, 2, 1, 0, 0, 2, 0, 0});
    // The family's extension unit 5b3e9a10-7c2d-4f61-9e84-2a6d0c1f7b39, control 1 only.
    vc.insert(vc.end(),
              {26,   0x24, 0x06, kUnitId, 0x10, 0x9A, 0x3E, 0x5B, 0x2D, 0x7C, 0x61, 0x4F, 0x9E,
               0x84, 0x2A, 0x6D, 0x0C,    0x1F, 0x7B, 0x39, 1,    1,    2,    1,    0x01, 0});
    vc.insert(vc.end(), {9, 0x24, 0x03, 4, 0x01, 0x01, 0, kUnitId, 0});
    vc[totalAt] = static_cast<std::uint8_t>(vc.size());
    vc[totalAt + 1] = static_cast<std::uint8_t>(vc.size() >> 8);
    c.insert(c.end(), vc.begin(), vc.end());
    c.insert(c.end(), {7, 0x05, 0x81, 0x03, 16, 0, 8});
    c.insert(c.end(), {5, 0x25, 0x03, 16, 0});

    c.insert(c.end(), {9, 0x04, 1, 0, 0, 0x0E, 0x02, 0x00, 0});
    Bytes vs = {14, 0x24, 0x01, 1, 0, 0, 0x82, 0, 4, 0, 0, 0, 1, 0};
    // Uncompressed YUY2.
    vs.insert(vs.end(),
              {27,   0x24, 0x04, 1,    1,    0x59, 0x55, 0x59, 0x32, 0x00, 0x00, 0x10, 0x00, 0x80,
               0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71, 16,   1,    0,    0,    0,    0});
    Bytes frame = {30, 0x24, 0x05, 1, 0};
    Put16(frame, 640);
    Put16(frame, 480);
    Put32(frame, 640 * 480 * 16 * 30);
    Put32(frame, 640 * 480 * 16 * 30);
    Put32(frame, 640 * 480 * 2);
    Put32(frame, 333333);
    frame.push_back(1);
    Put32(frame, 333333);
    vs.insert(vs.end(), frame.begin(), frame.end());
    vs[4] = static_cast<std::uint8_t>(vs.size());
    vs[5] = static_cast<std::uint8_t>(vs.size() >> 8);
    c.insert(c.end(), vs.begin(), vs.end());
    c.insert(c.end(), {9, 0x04, 1, 1, 1, 0x0E, 0x02, 0x00, 0});
    c.insert(c.end(), {7, 0x05, 0x82, 0x05, 0x00, 0x14, 1});
    c[2] = static_cast<std::uint8_t>(c.size());
    c[3] = static_cast<std::uint8_t>(c.size() >> 8);
    return c;
}

}  // namespace

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
    const std::uint8_t type = setup[0];
    const std::uint8_t request = setup[1];
    const std::uint16_t value = setup[2] | (setup[3] << 8);
    const std::uint16_t index = setup[4] | (setup[5] << 8);
    const std::uint16_t length = setup[6] | (setup[7] << 8);
    if ((type & 0x60) == 0x00) return Standard(type, request, value, index);
    if ((type & 0x60) == 0x20 && (type & 0x1F) == 0x01) {
        return VideoControl(request, value, index, length, out);
    }
    return {true, {}};
}

ControlReply Camera::Standard(std::uint8_t type, std::uint8_t request, std::uint16_t value,
                              std::uint16_t index) {
    switch (request) {
        case 0x00:  // GET_STATUS
            return {false, {0, 0}};
        case 0x06: {  // GET_DESCRIPTOR
            const std::uint8_t kind = value >> 8;
            const std::uint8_t which = value & 0xFF;
            if (kind == 0x01) return {false, DeviceDescriptor()};
            if (kind == 0x02 && which == 0) return {false, Configuration()};
            if (kind != 0x03) return {true, {}};
            switch (which) {
                case 0:
                    return {false, {4, 0x03, 0x09, 0x04}};
                case 1:
                    return {false, StringDescriptor("Vantrel")};
                case 2: {
                    std::lock_guard lock(world_.Lock());
                    return {false,
                            StringDescriptor(sim::Narrow(world_.Cameras()[index_]->Spec().name))};
                }
                case 3:
                    return {false, StringDescriptor("LX20A0001")};
                default:
                    return {true, {}};
            }
        }
        case 0x08:  // GET_CONFIGURATION
            return {false, {1}};
        case 0x09:  // SET_CONFIGURATION
        case 0x01:  // CLEAR_FEATURE
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
    if (interfaceNumber == 1) return Streaming(request, selector, length, out);
    if (interfaceNumber != 0) return {true, {}};
    // VC_REQUEST_ERROR_CODE_CONTROL of the interface: what went wrong with the last request.
    if (entity == 0 && selector == 2 && request == 0x81) return {false, {lastError_}};
    if (entity != kUnitId) {
        lastError_ = 0x06;  // invalid control
        return {true, {}};
    }
    if (request == 0x01 && out.size() == kFrameSize) {
        const unsigned frameLength = out[0] | (out[1] << 8);
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

ControlReply Camera::Streaming(std::uint8_t request, std::uint8_t selector, std::uint16_t length,
                               const Bytes& out) {
    // The probe and commit controls uvcvideo reads when it binds; nothing here streams.
    if (selector != 1 && selector != 2) return {true, {}};
    if (probe_.empty()) {
        probe_.assign(26, 0);
        probe_[2] = 1;  // format 1
        probe_[3] = 1;  // frame 1
        const std::uint32_t interval = 333333, frame = 640 * 480 * 2, payload = 3072;
        std::memcpy(&probe_[4], &interval, 4);
        std::memcpy(&probe_[18], &frame, 4);
        std::memcpy(&probe_[22], &payload, 4);
    }
    if (request == 0x01) {
        if (out.size() >= 26) std::copy(out.begin(), out.begin() + 26, probe_.begin());
        return {false, {}};
    }
    if (request == 0x81 || request == 0x82 || request == 0x83 || request == 0x87) {
        Bytes answer = probe_;
        answer.resize(length, 0);
        return {false, answer};
    }
    if (request == 0x86) return {false, {0x03}};
    if (request == 0x85) return {false, {26, 0}};
    return {true, {}};
}

}  // namespace uvc
