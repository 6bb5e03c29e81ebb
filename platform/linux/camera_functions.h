// SPDX-License-Identifier: Apache-2.0
// uvcvideo gives one video function (one video-control interface of one USB device) a
// capture node per streaming interface, and a metadata node each; a depth camera with colour
// and depth streams has two capture nodes. The program wants one camera per function, and
// the extension unit answers only through a node whose chain holds it.
#pragma once

#include <cerrno>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace platform::linux_hw {

// A capture node and the function it belongs to.
struct CaptureNodeRecord {
    unsigned number = 0;                // N of /dev/videoN
    std::string usbDevice;              // sysfs name of the USB device, e.g. "1-1"
    std::uint8_t controlInterface = 0;  // the video-control interface uvcvideo bound
};

struct CameraFunction {
    std::string usbDevice;
    std::uint8_t controlInterface = 0;
    std::vector<unsigned> nodes;  // ascending
};

// One entry per function, each with its capture nodes ascending, functions ordered by their
// lowest node: the order the kernel made them in, stable while they stay plugged in.
std::vector<CameraFunction> GroupCameraFunctions(const std::vector<CaptureNodeRecord>& nodes);

// Runs `query` on the nodes of one function from `*node` upward until one takes it, and
// leaves in *node the one that did. A node whose chain does not hold the unit refuses with
// ENOENT; any other answer (success or an error of the unit itself) is the unit's. Returns 0
// or that errno; ENOENT when no node's chain holds the unit.
int QueryThroughChains(std::size_t nodeCount, std::size_t* node,
                       const std::function<int(std::size_t node)>& query);

}  // namespace platform::linux_hw
