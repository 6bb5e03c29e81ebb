// SPDX-License-Identifier: Apache-2.0
#include "platform/usbip/usbip_link.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "platform/linux/sysfs.h"

namespace usbip {
namespace {

// The kernel's USB/IP protocol (Documentation/usb/usbip_protocol.rst): 48-byte headers,
// every field big-endian.
constexpr std::uint32_t kCmdSubmit = 1;
constexpr std::uint32_t kCmdUnlink = 2;
constexpr std::uint32_t kRetSubmit = 3;
constexpr std::uint32_t kRetUnlink = 4;
constexpr std::uint32_t kDirIn = 1;
constexpr std::size_t kHeaderSize = 48;
constexpr unsigned kHighSpeed = 3;

const char* const kVhciDir = "/sys/devices/platform/vhci_hcd.0";

std::uint32_t Be32(const std::uint8_t* at) {
    std::uint32_t be;
    std::memcpy(&be, at, 4);
    return ntohl(be);
}

// What the kernel sends: a submitted transfer or the unlink of one (usbip_header_basic and
// usbip_header_cmd_submit / usbip_header_cmd_unlink, which share the words after the basic
// part).
struct usbip_header_cmd {
    std::uint32_t command, seqnum, devid, direction, ep;
    std::uint32_t transfer_flags;  // the same word is unlink_seqnum in an unlink
    std::uint32_t transfer_buffer_length, start_frame, number_of_packets, interval;
    const std::uint8_t* setup;

    static usbip_header_cmd Read(const std::uint8_t* at) {
        return {Be32(at),      Be32(at + 4),  Be32(at + 8),  Be32(at + 12),
                Be32(at + 16), Be32(at + 20), Be32(at + 24), Be32(at + 28),
                Be32(at + 32), Be32(at + 36), at + 40};
    }
    std::uint32_t unlink_seqnum() const { return transfer_flags; }
};

// What the device answers (usbip_header_ret_submit / usbip_header_ret_unlink); the fields
// not named here are zero.
struct usbip_header_ret {
    std::uint32_t command, seqnum, status, actual_length;

    Bytes Write() const {
        Bytes out(kHeaderSize, 0);
        const std::uint32_t words[] = {htonl(command), htonl(seqnum)};
        std::memcpy(out.data(), words, sizeof words);
        const std::uint32_t result[] = {htonl(status), htonl(actual_length)};
        std::memcpy(out.data() + 20, result, sizeof result);
        return out;
    }
};

}  // namespace

Link::~Link() {
    Detach();
}

int Link::FreePort() const {
    std::ifstream status(std::string(kVhciDir) + "/status");
    std::string line;
    std::getline(status, line);  // header
    while (std::getline(status, line)) {
        std::istringstream fields(line);
        std::string hub;
        int port = -1, state = -1;
        fields >> hub >> port >> state;
        if (hub == "hs" && state == 4) return port;  // VDEV_ST_NULL: nothing attached
    }
    return -1;
}

bool Link::Attach(std::string* error) {
    if (socket_ >= 0) return true;
    port_ = FreePort();
    if (port_ < 0) {
        *error = std::string("no free high-speed port on vhci-hcd (is vhci-hcd loaded? ") +
                 kVhciDir + "/status)";
        return false;
    }
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) < 0) {
        *error = std::string("socketpair: ") + std::strerror(errno);
        return false;
    }
    ++devnum_;
    const std::string command = std::to_string(port_) + " " + std::to_string(pair[1]) + " " +
                                std::to_string((1u << 16) | devnum_) + " " +
                                std::to_string(kHighSpeed);
    std::ofstream attach(std::string(kVhciDir) + "/attach");
    attach << command;
    attach.close();
    // The kernel holds its own reference to its end now.
    close(pair[1]);
    if (!attach) {
        *error = std::string("cannot write \"") + command + "\" to " + kVhciDir +
                 "/attach (are you root?)";
        close(pair[0]);
        return false;
    }
    socket_ = pair[0];
    held_.clear();
    return true;
}

void Link::Detach() {
    if (socket_ < 0) return;
    std::ofstream detach(std::string(kVhciDir) + "/detach");
    detach << port_;
    detach.close();
    close(socket_);
    socket_ = -1;
}

bool Link::ReadExact(std::uint8_t* buffer, std::size_t length) {
    return platform::linux_hw::WholeTransfer(socket_, buffer, length, ::read);
}

bool Link::WriteAll(const Bytes& data) {
    return platform::linux_hw::WholeTransfer(socket_, data.data(), data.size(), ::write);
}

bool Link::ServeOne(const ControlHandler& handler) {
    std::uint8_t header[kHeaderSize];
    if (!ReadExact(header, kHeaderSize)) {
        Detach();
        return false;
    }
    const auto cmd = usbip_header_cmd::Read(header);
    if (cmd.command == kCmdUnlink) {
        // Only requests held back can still be unlinked; control requests are answered at
        // once.
        bool held = false;
        for (auto& [endpoint, queue] : held_) {
            const auto found = std::find_if(queue.begin(), queue.end(), [&](const Held& h) {
                return h.seqnum == cmd.unlink_seqnum();
            });
            if (found != queue.end()) {
                queue.erase(found);
                held = true;
                break;
            }
        }
        const auto status = held ? static_cast<std::uint32_t>(-ECONNRESET) : 0;
        return WriteAll(usbip_header_ret{kRetUnlink, cmd.seqnum, status, 0}.Write());
    }
    if (cmd.command != kCmdSubmit) {
        Detach();
        return false;
    }
    const std::uint32_t length = cmd.transfer_buffer_length;
    Bytes out;
    if (cmd.direction != kDirIn && length > 0) {
        out.resize(length);
        if (!ReadExact(out.data(), length)) return false;
    }
    if (cmd.number_of_packets != 0 && cmd.number_of_packets != 0xFFFFFFFFu) {
        // Isochronous descriptors follow; the streams are bulk, so none is ever answered.
        Bytes skip(std::size_t{16} * cmd.number_of_packets);
        if (!ReadExact(skip.data(), skip.size())) return false;
    }
    if (cmd.ep != 0) {
        // Interrupt and streaming endpoints: answered when the device has something to say.
        held_[static_cast<std::uint8_t>(cmd.ep)].push_back({cmd.seqnum, length});
        return true;
    }
    const ControlReply reply = handler(cmd.setup, out);
    if (reply.unplugged) {
        Detach();
        return true;
    }
    usbip_header_ret ret{kRetSubmit, cmd.seqnum, 0, 0};
    const bool in = cmd.setup[0] & 0x80;
    if (reply.stall) {
        ret.status = static_cast<std::uint32_t>(-EPIPE);
    } else {
        ret.actual_length =
            in ? static_cast<std::uint32_t>(std::min<std::size_t>(reply.data.size(), length))
               : length;
    }
    Bytes answer = ret.Write();
    if (!reply.stall && in) {
        answer.insert(answer.end(), reply.data.begin(), reply.data.begin() + ret.actual_length);
    }
    return WriteAll(answer) || socket_ < 0;
}

std::uint32_t Link::HeldLength(std::uint8_t endpoint) const {
    const auto queue = held_.find(endpoint);
    return queue == held_.end() || queue->second.empty() ? 0 : queue->second.front().length;
}

bool Link::Answer(std::uint8_t endpoint, const Bytes& data) {
    auto& queue = held_[endpoint];
    if (queue.empty() || socket_ < 0) return socket_ >= 0;
    const Held request = queue.front();
    queue.pop_front();
    const std::uint32_t actual =
        static_cast<std::uint32_t>(std::min<std::size_t>(data.size(), request.length));
    Bytes answer = usbip_header_ret{kRetSubmit, request.seqnum, 0, actual}.Write();
    answer.insert(answer.end(), data.begin(), data.begin() + actual);
    return WriteAll(answer);
}

}  // namespace usbip
