// SPDX-License-Identifier: Apache-2.0
// Arrival and removal of USB devices from the kernel's uevents, read from a netlink socket
// on a thread of the monitor's, with no udev daemon needed.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <thread>

#include "platform/posix/device_backend.h"

namespace platform::linux_hw {

class UeventMonitor {
  public:
    UeventMonitor() = default;
    ~UeventMonitor();
    UeventMonitor(const UeventMonitor&) = delete;
    UeventMonitor& operator=(const UeventMonitor&) = delete;

    // 0 when the kernel's events cannot be received (no netlink socket).
    std::uint64_t Subscribe(UsbEventCallback callback);
    // Returns once no callback of the subscription runs any more. Not from a callback.
    void Unsubscribe(std::uint64_t subscription);

  private:
    void Run(int socket, int wake);
    void Stop();

    std::mutex mutex_;          // subscribers_, the thread and its descriptors
    std::mutex deliveryMutex_;  // held while callbacks run
    std::map<std::uint64_t, std::shared_ptr<UsbEventCallback>> subscribers_;
    std::uint64_t nextId_ = 1;
    std::thread thread_;
    int socket_ = -1;
    int wake_[2] = {-1, -1};
};

}  // namespace platform::linux_hw
