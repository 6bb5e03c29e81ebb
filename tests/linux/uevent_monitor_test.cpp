#include "platform/linux/uevent_monitor.h"

#include <gtest/gtest.h>

#include <atomic>
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

}  // namespace
}  // namespace platform::linux_hw
