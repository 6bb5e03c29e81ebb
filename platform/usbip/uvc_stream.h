// SPDX-License-Identifier: Apache-2.0
// One video stream of the virtual camera: the probe and commit negotiation of its streaming
// interface, and the frames it sends once the host has committed a format and pulls.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "platform/sim/camera_description.h"
#include "platform/usbip/usbip_link.h"

namespace uvc {

class Stream {
  public:
    Stream(const sim::StreamDescription& description, std::uint16_t bcdUVC,
           std::uint32_t dwClockFrequency);

    // A class request to the streaming interface: `selector` 1 probe, 2 commit.
    usbip::ControlReply Control(std::uint8_t request, std::uint8_t selector, std::uint16_t length,
                                const usbip::Bytes& out);
    // The host cleared the endpoint's halt, which it does when it stops the stream.
    void Stop();
    // Answers the host's waiting transfers with what is due by now. False when the link went
    // down.
    bool Pump(usbip::Link& link, const std::string& version);

    const sim::StreamDescription& Description() const { return description_; }

  private:
    using Control34 = std::array<std::uint8_t, 34>;
    Control34 Negotiate(const usbip::Bytes& wanted) const;
    void Render(const std::string& version);
    void Restart();

    sim::StreamDescription description_;
    std::uint16_t bcdUVC_;
    std::uint32_t clock_;
    Control34 probe_{};
    Control34 commit_{};
    bool committed_ = false;
    // The frame under way: its bytes, how many are sent, and its frame id bit.
    usbip::Bytes frame_;
    std::size_t sent_ = 0;
    bool inFrame_ = false;
    std::uint8_t fid_ = 0;
    std::uint32_t frameCount_ = 0;
    std::chrono::steady_clock::time_point due_;
    // The payload under way and how much of it the host has; whether it still needs closing.
    usbip::Bytes payload_;
    std::size_t payloadSent_ = 0;
    bool closePayload_ = false;
};

// The pattern: a moving bar over a ramp, the firmware version in large digits, and the same
// text as plain bytes at the start of the last row, where a program can read it back.
// Two bytes a pixel: YUYV, or with `depth` distances in millimetres.
void DrawPattern(usbip::Bytes& frame, unsigned width, unsigned height, bool depth,
                 std::uint32_t count, const std::string& text);

}  // namespace uvc
