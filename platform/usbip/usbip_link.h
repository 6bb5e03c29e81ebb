// SPDX-License-Identifier: Apache-2.0
// One USB device served to the kernel's vhci-hcd over USB/IP, through a socket pair: the
// device's side of the wire. What the device answers is not this link's business.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace usbip {

using Bytes = std::vector<std::uint8_t>;

struct ControlReply {
    bool stall = false;
    Bytes data;  // what an IN request returns
    // The device left the bus during the request: no answer comes, the link goes down.
    bool unplugged = false;
};

// Answers one control request on endpoint 0: the 8-byte setup packet and, for an OUT
// request, its data stage.
using ControlHandler = std::function<ControlReply(const std::uint8_t* setup, const Bytes& out)>;

class Link {
  public:
    Link() = default;
    ~Link();
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    // Plugs a device in at a free high-speed port of vhci-hcd; false with `error` set when
    // that cannot be done.
    bool Attach(std::string* error);
    // Pulls the device out: the kernel sees it leave.
    void Detach();
    bool Attached() const { return socket_ >= 0; }
    int Socket() const { return socket_; }

    // Serves one request that is waiting on the socket. Returns false when the kernel has
    // gone (the device is then detached). Requests to other endpoints than 0 are held until
    // the device answers them (Answer) or the kernel takes them back.
    bool ServeOne(const ControlHandler& handler);

    // The length of the oldest request held on an IN endpoint, 0 when none is held.
    std::uint32_t HeldLength(std::uint8_t endpoint) const;
    // Completes that request with `data` (at most its length). False when the kernel has
    // gone.
    bool Answer(std::uint8_t endpoint, const Bytes& data);

  private:
    bool ReadExact(std::uint8_t* buffer, std::size_t length);
    bool WriteAll(const Bytes& data);
    int FreePort() const;

    int socket_ = -1;
    int port_ = -1;
    unsigned devnum_ = 0;
    struct Held {
        std::uint32_t seqnum;
        std::uint32_t length;
    };
    std::map<std::uint8_t, std::deque<Held>> held_;  // by endpoint number, oldest first
};

}  // namespace usbip
