// SPDX-License-Identifier: Apache-2.0
// The Linux hardware backend: USB devices through usbfs, cameras through V4L2 and uvcvideo,
// arrivals and removals from the kernel's uevents, settings in a root-only directory.
#pragma once

#include <memory>
#include <string>

#include "platform/posix/device_backend.h"

namespace platform::linux_hw {

// Where the backend looks. Only tests point these elsewhere.
struct LinuxPaths {
    std::string sys = "/sys";
    std::string dev = "/dev";
    std::string settings = "/var/lib/lynx-dfu";
};

std::shared_ptr<DeviceBackend> CreateLinuxBackend(LinuxPaths paths = {});

}  // namespace platform::linux_hw
