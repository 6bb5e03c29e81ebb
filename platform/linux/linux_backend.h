// The Linux hardware backend.
#pragma once

#include <memory>

#include "platform/posix/device_backend.h"

namespace platform::linux_hw {

// The machine's real devices. Until the hardware support lands it finds none.
std::shared_ptr<DeviceBackend> CreateLinuxBackend();

}  // namespace platform::linux_hw
