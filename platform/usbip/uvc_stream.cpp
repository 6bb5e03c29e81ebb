// SPDX-License-Identifier: Apache-2.0
#include "platform/usbip/uvc_stream.h"

#include <algorithm>
#include <cstring>

#include "platform/usb_descriptors.h"

namespace uvc {
namespace {

using usbip::Bytes;
using usbip::ControlReply;

constexpr std::size_t kPayloadHeader = 2;

// 5x7 glyphs, one row a byte, bit 4 leftmost.
const std::uint8_t* Glyph(char c) {
    static const std::uint8_t digits[10][7] = {
        {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}, {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E},
        {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}, {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E},
        {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}, {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E},
        {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}, {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},
        {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}, {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C}};
    static const std::uint8_t dot[7] = {0, 0, 0, 0, 0, 0x0C, 0x0C};
    static const std::uint8_t f[7] = {0x1F, 0x10, 0x10, 0x1E, 0x10, 0x10, 0x10};
    static const std::uint8_t w[7] = {0x11, 0x11, 0x11, 0x15, 0x15, 0x15, 0x0A};
    static const std::uint8_t blank[7] = {};
    if (c >= '0' && c <= '9') return digits[c - '0'];
    if (c == '.') return dot;
    if (c == 'F') return f;
    if (c == 'W') return w;
    return blank;
}

}  // namespace

void DrawPattern(Bytes& frame, unsigned width, unsigned height, bool depth, std::uint32_t count,
                 const std::string& text) {
    frame.assign(std::size_t{width} * height * 2, 0);
    const unsigned scale = std::max(1u, width / 80);
    const unsigned textWidth = static_cast<unsigned>(text.size()) * 6 * scale;
    const unsigned left = width > textWidth ? (width - textWidth) / 2 : 0;
    const unsigned top = height > 7 * scale ? (height - 7 * scale) / 2 : 0;
    const unsigned barWidth = std::max(2u, width / 10);
    const unsigned bar = (count * 4) % width;
    for (unsigned y = 0; y < height; ++y) {
        for (unsigned x = 0; x < width; ++x) {
            enum { kRamp, kBar, kBox, kInk } what = kRamp;
            if ((x + width - bar) % width < barWidth) what = kBar;
            if (x + scale >= left && x < left + textWidth + scale && y + scale >= top &&
                y < top + 8 * scale) {
                what = kBox;
                if (x >= left && y >= top && y < top + 7 * scale && x < left + textWidth) {
                    const unsigned column = (x - left) / scale;
                    const unsigned gx = column % 6;
                    const std::uint8_t* glyph = Glyph(text[column / 6]);
                    if (gx < 5 && (glyph[(y - top) / scale] >> (4 - gx)) & 1) what = kInk;
                }
            }
            std::uint8_t* p = &frame[(std::size_t{y} * width + x) * 2];
            if (depth) {
                // Millimetres: the ramp recedes down the picture, text and bar stand close.
                const unsigned mm = what == kInk   ? 400
                                    : what == kBox ? 3000
                                    : what == kBar ? 700
                                                   : 1000 + y * 2000 / height;
                usb::StoreLe(p, static_cast<std::uint16_t>(mm));
            } else {
                // YUYV: luma per pixel, the pair's chroma on even (U) and odd (V) pixels.
                const std::uint8_t luma = what == kInk   ? 235
                                          : what == kBox ? 16
                                          : what == kBar ? 150
                                                         : 16 + (x * 219) / width;
                const std::uint8_t chroma = what == kBar ? ((x & 1) ? 200 : 60) : 128;
                p[0] = luma;
                p[1] = chroma;
            }
        }
    }
    const std::string marker = "LYNX-" + text;
    const std::size_t lastRow = std::size_t{height - 1} * width * 2;
    std::memcpy(&frame[lastRow], marker.data(),
                std::min<std::size_t>(marker.size(), std::size_t{width} * 2));
}

Stream::Stream(const sim::StreamDescription& description, std::uint16_t bcdUVC,
               std::uint32_t dwClockFrequency)
    : description_(description), bcdUVC_(bcdUVC), clock_(dwClockFrequency) {
    probe_ = Negotiate({});
    commit_ = probe_;
}

// What the camera makes of what the host asks for: the nearest format, frame size and rate
// it has, and the sizes that follow from them.
Stream::Control34 Stream::Negotiate(const Bytes& wanted) const {
    Control34 c{};
    std::copy_n(wanted.begin(), std::min<std::size_t>(wanted.size(), c.size()), c.begin());
    const auto& frames = description_.format.frames;
    c[2] = 1;  // the one format
    if (c[3] == 0 || c[3] > frames.size()) c[3] = 1;
    const sim::uvc_frame_uncompressed& frame = frames[c[3] - 1];
    const std::uint32_t asked = usb::Le32(&c[4]);
    std::uint32_t interval = frame.dwFrameInterval.front();
    for (std::uint32_t offered : frame.dwFrameInterval) {
        const auto distance = [&](std::uint32_t v) { return v > asked ? v - asked : asked - v; };
        if (asked != 0 && distance(offered) < distance(interval)) interval = offered;
    }
    usb::StoreLe(&c[4], interval);
    std::fill(c.begin() + 8, c.begin() + 18, 0);  // key frames, quality, window, delay
    usb::StoreLe(&c[18], frame.wWidth * frame.wHeight * description_.format.bBitsPerPixel / 8u);
    usb::StoreLe(&c[22], description_.dwMaxPayloadTransferSize);
    usb::StoreLe(&c[26], clock_);
    c[30] = 0x03;  // frame id and end of frame in every payload header
    c[31] = c[32] = c[33] = 1;
    return c;
}

ControlReply Stream::Control(std::uint8_t request, std::uint8_t selector, std::uint16_t length,
                             const Bytes& out) {
    if (selector != 1 && selector != 2) return {true, {}};
    const std::size_t size = bcdUVC_ >= 0x0110 ? 34 : 26;
    const bool commit = selector == 2;
    Control34 answer{};
    switch (request) {
        case usb::UVC_SET_CUR:
            if (!commit) {
                probe_ = Negotiate(out);
            } else {
                commit_ = Negotiate(out);
                committed_ = true;
                inFrame_ = false;
                due_ = std::chrono::steady_clock::now();
            }
            return {false, {}};
        case usb::UVC_GET_CUR:
            answer = commit ? commit_ : probe_;
            break;
        case usb::UVC_GET_MIN:
        case usb::UVC_GET_MAX:
        case usb::UVC_GET_RES:
            answer = probe_;
            break;
        case usb::UVC_GET_DEF:
            answer = Negotiate({});
            break;
        case usb::UVC_GET_LEN:
            return {false, {static_cast<std::uint8_t>(size), 0}};
        case usb::UVC_GET_INFO:
            return {false, {0x03}};  // get and set
        default:
            return {true, {}};
    }
    Bytes data(answer.begin(), answer.begin() + size);
    data.resize(length, 0);
    return {false, data};
}

void Stream::Restart() {
    inFrame_ = false;
    payload_.clear();
    payloadSent_ = 0;
    closePayload_ = false;
}

void Stream::Stop() {
    committed_ = false;
    Restart();
}

void Stream::Render(const std::string& version) {
    const sim::uvc_frame_uncompressed& frame = description_.format.frames[commit_[3] - 1];
    DrawPattern(frame_, frame.wWidth, frame.wHeight, description_.name == "depth", frameCount_++,
                "FW " + version);
}

// A payload is a header and up to dwMaxPayloadTransferSize bytes in all, carried by as many
// of the host's transfers as it takes; the host takes a transfer shorter than it asked for,
// or a payload of the whole size, as the payload's end. A payload that ends exactly at the
// end of a transfer is closed with an empty one, as a device closes it with a zero-length
// packet.
bool Stream::Pump(usbip::Link& link, const std::string& version) {
    if (!committed_) return true;
    const auto endpoint = static_cast<std::uint8_t>(description_.bEndpointAddress & 0x0F);
    const std::size_t maxPayload = usb::Le32(&commit_[22]);
    while (const std::uint32_t room = link.HeldLength(endpoint)) {
        if (closePayload_) {
            if (!link.Answer(endpoint, {})) return false;
            closePayload_ = false;
            continue;
        }
        if (payloadSent_ == payload_.size()) {
            if (!inFrame_) {
                const auto now = std::chrono::steady_clock::now();
                if (now < due_) return true;
                Render(version);
                inFrame_ = true;
                sent_ = 0;
                fid_ ^= 1;
                const std::chrono::nanoseconds interval(std::uint64_t{usb::Le32(&commit_[4])} *
                                                        100);
                // A host that fell behind gets the next frame on time, not a burst to catch up.
                due_ = std::max(due_ + interval, now - interval);
            }
            const std::size_t chunk = std::min(frame_.size() - sent_, maxPayload - kPayloadHeader);
            const bool last = sent_ + chunk == frame_.size();
            payload_.resize(kPayloadHeader + chunk);
            // Header length, then end of header, end of frame and the frame id bit.
            payload_[0] = static_cast<std::uint8_t>(kPayloadHeader);
            payload_[1] = static_cast<std::uint8_t>(0x80 | (last ? 0x02 : 0) | fid_);
            std::memcpy(payload_.data() + kPayloadHeader, frame_.data() + sent_, chunk);
            payloadSent_ = 0;
            sent_ += chunk;
            if (last) inFrame_ = false;
        }
        const std::size_t part = std::min<std::size_t>(room, payload_.size() - payloadSent_);
        const auto from = payload_.begin() + static_cast<std::ptrdiff_t>(payloadSent_);
        if (!link.Answer(endpoint, Bytes(from, from + static_cast<std::ptrdiff_t>(part)))) {
            return false;
        }
        payloadSent_ += part;
        closePayload_ =
            payloadSent_ == payload_.size() && part == room && payload_.size() < maxPayload;
    }
    return true;
}

}  // namespace uvc
