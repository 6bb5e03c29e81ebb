// The arrival watcher over the lab's bus: rescans, notifications on the platform's thread,
// waits with their intervals, teardown while a notification is delivered, and a stress run for
// the thread sanitizer.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <optional>
#include <thread>

#include "dfu/device_watcher.h"
#include "lab_bus.h"
#include "platform/sync.h"

namespace {

using namespace discovery_test;

const wchar_t* const kName = L"DFU device watcher";

void MakeWatcher(std::optional<DeviceWatcher>& watcher) {
    CreateUsbDeviceWatcher(watcher, kName, L"VID_3C5E", L"pid_0f1c", L"");
}

std::vector<std::wstring> Links(const std::vector<DeviceInterfaceEntry>& entries) {
    std::vector<std::wstring> links;
    for (const auto& entry : entries) links.push_back(entry.symbolicLink);
    return links;
}

TEST(DeviceWatcher, ListsOnlyMatchingInterfacesLowerCasedInPlatformOrder) {
    LabBus bus({kOtherProduct, kSecond, kOtherVendor, kFirst});
    std::optional<DeviceWatcher> watcher;
    MakeWatcher(watcher);
    // Nothing is listed before the first rescan.
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(watcher->arrivalEvent, 0));

    const auto entries = watcher->GetDevices();
    EXPECT_EQ((std::vector<std::wstring>{Lower(kSecond), Lower(kFirst)}), Links(entries));
    ASSERT_EQ(2u, entries.size());
    EXPECT_EQ(L"", entries[0].parentId);
    EXPECT_EQ(4, entries[0].interfaceKind);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(watcher->arrivalEvent, 0));
}

TEST(DeviceWatcher, RescanWithNothingMatchingLeavesTheEventReset) {
    LabBus bus({kOtherProduct, kOtherVendor});
    std::optional<DeviceWatcher> watcher;
    MakeWatcher(watcher);
    SetEvent(watcher->arrivalEvent);
    EXPECT_TRUE(watcher->GetDevices().empty());
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(watcher->arrivalEvent, 0));
}

struct IntervalCase {
    std::uint32_t timeLimitMs;
    std::uint32_t intervalMs;
    bool otherPresent;  // the wait ends by the event and a sleep follows, or by time-out
};

class WaitForDeviceIntervals : public testing::TestWithParam<IntervalCase> {};

TEST_P(WaitForDeviceIntervals, TenAttemptsOfOneIntervalThenNotFound) {
    const auto& c = GetParam();
    LabBus bus(c.otherPresent ? std::vector<std::wstring>{kSecond} : std::vector<std::wstring>{},
               c.timeLimitMs >= 1000 ? 100 : 1);
    std::optional<DeviceWatcher> watcher;
    MakeWatcher(watcher);
    const ULONGLONG start = GetTickCount64();
    EXPECT_EQ(2u, watcher->WaitForDevice(c.timeLimitMs, Lower(kFirst)));
    const ULONGLONG elapsed = GetTickCount64() - start;
    EXPECT_GE(elapsed + 2, 10ull * c.intervalMs);
    EXPECT_LT(elapsed, 20ull * c.intervalMs + 50);
}

INSTANTIATE_TEST_SUITE_P(Limits, WaitForDeviceIntervals,
                         testing::Values(IntervalCase{0, 10, false}, IntervalCase{109, 10, true},
                                         IntervalCase{110, 11, false}, IntervalCase{250, 25, true},
                                         IntervalCase{10000, 1000, true},
                                         IntervalCase{10000, 1000, false}));

TEST(DeviceWatcher, PresentPathIsFoundAtOnceAndUpperCaseNever) {
    LabBus bus({kSecond, kFirst});
    std::optional<DeviceWatcher> watcher;
    MakeWatcher(watcher);
    const ULONGLONG start = GetTickCount64();
    EXPECT_EQ(0u, watcher->WaitForDevice(10000, Lower(kFirst)));
    EXPECT_LT(GetTickCount64() - start, 500u);

    // The list holds lower-cased paths and is compared exactly.
    EXPECT_EQ(2u, watcher->WaitForDevice(0, kFirst));
}

TEST(DeviceWatcher, ArrivalDuringAWaitEndsThatAttempt) {
    LabBus bus({});
    std::optional<DeviceWatcher> watcher;
    MakeWatcher(watcher);
    bus.PlugLater(300, bus.MakeDevice(kFirst));
    const ULONGLONG start = GetTickCount64();
    EXPECT_EQ(0u, watcher->WaitForDevice(10000, Lower(kFirst)));
    const ULONGLONG elapsed = GetTickCount64() - start;
    // Found by the notification within the first one-second attempt, not by a later rescan.
    EXPECT_GE(elapsed, 290u);
    EXPECT_LT(elapsed, 1000u);
}

// Teardown waits for a delivery in progress: the watcher's own callback runs after the
// blocking subscriber, in the same delivery, and must still find the watcher alive.
TEST(DeviceWatcher, TeardownDuringANotificationEndsAfterTheCallback) {
    LabBus bus({});
    std::mutex mutex;
    std::condition_variable changed;
    bool entered = false;
    bool release = false;
    const auto blocker =
        bus.world->SubscribeUsbEvents([&](platform::UsbEvent, const std::wstring&) {
            std::unique_lock lock(mutex);
            entered = true;
            changed.notify_all();
            changed.wait_for(lock, std::chrono::seconds(10), [&] { return release; });
        });

    auto watcher = std::make_unique<std::optional<DeviceWatcher>>();
    MakeWatcher(*watcher);
    bus.Plug(bus.MakeDevice(kFirst));
    {
        std::unique_lock lock(mutex);
        ASSERT_TRUE(changed.wait_for(lock, std::chrono::seconds(10), [&] { return entered; }));
    }

    std::atomic<bool> tornDown{false};
    std::thread teardown([&] {
        watcher->reset();
        tornDown = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(tornDown);
    {
        std::lock_guard lock(mutex);
        release = true;
    }
    changed.notify_all();
    teardown.join();
    EXPECT_TRUE(tornDown);
    bus.world->UnsubscribeUsbEvents(blocker);
}

// A notification thread adds and removes devices as fast as it can while watchers are built,
// rescanned, waited on and torn down. Run under the thread sanitizer in CI.
TEST(DeviceWatcher, StressNotificationsAgainstRefreshWaitAndTeardown) {
    LabBus bus({kSecond}, 50);
    std::vector<std::shared_ptr<sim::SimDfuDevice>> devices = {
        bus.MakeDevice(kFirst), bus.MakeDevice(kOtherProduct),
        bus.MakeDevice(L"\\\\?\\USB#VID_3C5E&PID_0F1C#5&1f2e3d4c&0&7" + kClass)};
    std::atomic<bool> stop{false};
    std::atomic<int> toggles{0};
    std::thread plugger([&] {
        while (!stop) {
            for (auto& device : devices) bus.Plug(device);
            for (auto& device : devices) bus.Unplug(*device);
            ++toggles;
        }
    });

    const std::vector<std::wstring> allowed = {
        Lower(kSecond), Lower(kFirst),
        Lower(L"\\\\?\\USB#VID_3C5E&PID_0F1C#5&1f2e3d4c&0&7" + kClass)};
    int rounds = 0;
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
    while (std::chrono::steady_clock::now() < until) {
        std::optional<DeviceWatcher> watcher;
        MakeWatcher(watcher);
        for (int i = 0; i < 5; ++i) {
            for (const auto& link : Links(watcher->GetDevices())) {
                EXPECT_NE(allowed.end(), std::find(allowed.begin(), allowed.end(), link));
            }
        }
        // The device that never leaves is found whatever else comes and goes.
        EXPECT_EQ(0u, watcher->WaitForDevice(0, Lower(kSecond)));
        WaitForSingleObject(watcher->arrivalEvent, 1);
        ++rounds;
    }
    stop = true;
    plugger.join();
    EXPECT_GT(rounds, 5);
    EXPECT_GT(toggles.load(), 5);
}

}  // namespace
