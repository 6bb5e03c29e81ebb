// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/uevent_monitor.h"

#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace platform::linux_hw {
namespace {

// Watchers come and go on several threads; the monitor's thread is stopped with the last
// subscription and started again with the next, and must never read a closed socket.
TEST(UeventMonitor, SubscriptionsComeAndGoFromSeveralThreads) {
    UeventMonitor monitor;
    const std::uint64_t probe = monitor.Subscribe([](UsbEvent, const std::wstring&) {});
    if (probe == 0) GTEST_SKIP() << "no kernel uevent socket here";
    monitor.Unsubscribe(probe);
    std::atomic<int> refused{0};
    std::vector<std::thread> threads;
    threads.reserve(3);
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 100; ++i) {
                const std::uint64_t id = monitor.Subscribe([](UsbEvent, const std::wstring&) {});
                if (id == 0) ++refused;
                monitor.Unsubscribe(id);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(refused.load(), 0);
    // After all that, a new subscription still gets a working monitor.
    const std::uint64_t last = monitor.Subscribe([](UsbEvent, const std::wstring&) {});
    EXPECT_NE(last, 0u);
    monitor.Unsubscribe(last);
}

// Any local process may send to the uevent group where it is allowed to; only the kernel's
// messages are events.
TEST(UeventMonitor, ArrivalsSentByAProcessAreIgnored) {
    std::atomic<int> events{0};
    UeventMonitor monitor;
    const std::uint64_t id = monitor.Subscribe([&](UsbEvent, const std::wstring&) { ++events; });
    const int forger = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    sockaddr_nl group{.nl_family = AF_NETLINK, .nl_pad = 0, .nl_pid = 0, .nl_groups = 1};
    const char arrival[] =
        "add@/x/usb1/1-1\0ACTION=add\0DEVPATH=/x/usb1/1-1\0SUBSYSTEM=usb\0DEVTYPE=usb_device\0"
        "PRODUCT=3c5e/f1c/100\0BUSNUM=001\0DEVNUM=003\0";
    if (id == 0 || forger < 0 ||
        sendto(forger, arrival, sizeof arrival - 1, 0, reinterpret_cast<sockaddr*>(&group),
               sizeof group) < 0) {
        if (forger >= 0) close(forger);
        GTEST_SKIP() << "no uevent socket, or sending to its group is not allowed here";
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    close(forger);
    monitor.Unsubscribe(id);
    EXPECT_EQ(events.load(), 0);
}

}  // namespace
}  // namespace platform::linux_hw
