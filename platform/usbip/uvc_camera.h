// SPDX-License-Identifier: Apache-2.0
// The camera of the lab's world as a UVC device on the wire: the family's depth camera's
// descriptors, its two streams, and the extension unit's requests handed to the camera's
// model.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/sim/camera_description.h"
#include "platform/sim/sim_world.h"
#include "platform/usbip/usbip_link.h"
#include "platform/usbip/uvc_stream.h"

namespace uvc {

class Camera {
  public:
    Camera(sim::SimWorld& world, std::size_t index);

    usbip::ControlReply Control(const std::uint8_t* setup, const usbip::Bytes& out);
    std::string Version();
    // What the last request told the firmware, as a log line; empty when it was no command.
    const char* LastCommand() const { return lastCommand_; }
    // Whether the camera has left the world's bus (restarting into DFU mode).
    bool Leaving();
    // Sends the streams' frames that are due. False when the link went down.
    bool Pump(usbip::Link& link);
    const sim::CameraDescription& Description() const { return description_; }

  private:
    usbip::ControlReply Standard(std::uint8_t type, std::uint8_t request, std::uint16_t value,
                                 std::uint16_t index);
    usbip::ControlReply VideoControl(std::uint8_t request, std::uint16_t value, std::uint16_t index,
                                     std::uint16_t length, const usbip::Bytes& out);

    sim::SimWorld& world_;
    std::size_t index_;
    sim::CameraDescription description_;
    std::vector<Stream> streams_;
    std::map<std::uint8_t, std::uint8_t> alternate_;
    std::uint8_t lastError_ = 0;  // the request error code control uvcvideo reads after a stall
    char lastCommand_[128] = {};
};

}  // namespace uvc
