// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/camera_functions.h"

#include <algorithm>

namespace platform::linux_hw {

std::vector<CameraFunction> GroupCameraFunctions(const std::vector<CaptureNodeRecord>& nodes) {
    std::vector<CaptureNodeRecord> sorted = nodes;
    std::sort(sorted.begin(), sorted.end(),
              [](const auto& a, const auto& b) { return a.number < b.number; });
    std::vector<CameraFunction> functions;
    for (const CaptureNodeRecord& node : sorted) {
        auto same = std::find_if(functions.begin(), functions.end(), [&](const auto& f) {
            return f.usbDevice == node.usbDevice && f.controlInterface == node.controlInterface;
        });
        if (same == functions.end()) {
            functions.push_back({node.usbDevice, node.controlInterface, {}});
            same = functions.end() - 1;
        }
        same->nodes.push_back(node.number);
    }
    return functions;
}

int QueryThroughChains(std::size_t nodeCount, std::size_t* node,
                       const std::function<int(std::size_t node)>& query) {
    for (std::size_t at = *node; at < nodeCount; ++at) {
        const int error = query(at);
        if (error != ENOENT) {
            *node = at;
            return error;
        }
    }
    return ENOENT;
}

}  // namespace platform::linux_hw
