// SPDX-License-Identifier: Apache-2.0
// The configuration descriptor of a camera, as the Linux backend reads it from the device.
// Input: the video-control interface number, then the descriptor bytes. Every entity found
// lies within the bytes, and every question asked of it stays within what was parsed.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "platform/linux/uvc_descriptors.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    // An exact-size copy, so that AddressSanitizer flags a read one byte past the end.
    const std::vector<std::uint8_t> config(data + 1, data + size);
    const auto parsed =
        platform::linux_hw::ParseUvcControlInterface(config.data(), config.size(), data[0]);
    if (!parsed) return 0;
    if (parsed->interfaceNumber != data[0] || parsed->entities.size() > config.size() / 3) {
        std::abort();
    }
    for (const auto& entity : parsed->entities) {
        if (entity.controls.size() > config.size()) std::abort();
        platform::linux_hw::NodeTypeOf(entity);
        for (unsigned selector = 0; selector < 256; ++selector)
            entity.HasControl(static_cast<std::uint8_t>(selector));
    }
    return 0;
}
