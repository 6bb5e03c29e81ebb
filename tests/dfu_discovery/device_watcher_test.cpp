// SPDX-License-Identifier: Apache-2.0
// Finding the family's DFU-mode devices: the arrival watcher's rescans, notifications, waits,
// teardown and a stress run for the thread sanitizer.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cwctype>
#include <future>
#include <mutex>
#include <optional>
#include <sstream>
#include <thread>
#include <utility>

#include "../dfu/named_row.h"
#include "dfu/device_watcher.h"
#include "dfu/dfu_devices_factory.h"
#include "platform/posix/device_backend.h"
#include "platform/sim/sim_world.h"
#include "platform/sync.h"

namespace {

using platform::UsbEvent;

const std::wstring kClass = L"#{a5dcbf10-6530-11d2-901f-00c04fb951ed}";
// As the platform lists them: upper case in the hardware part.
const std::wstring kFirst = L"\\\\?\\USB#VID_3C5E&PID_0F1C#5&1f2e3d4c&0&1" + kClass;
const std::wstring kSecond = L"\\\\?\\USB#VID_3C5E&PID_0F1C#5&1f2e3d4c&0&2" + kClass;
const std::wstring kOtherPid = L"\\\\?\\USB#VID_3C5E&PID_0B64#5&77aa0011&0&3" + kClass;
const std::wstring kOtherVid = L"\\\\?\\USB#VID_0C45&PID_0F1C#5&77aa0011&0&4" + kClass;

std::wstring Lower(std::wstring text) {
    for (auto& c : text) c = static_cast<wchar_t>(std::towlower(c));
    return text;
}
const std::wstring kFirstLower = Lower(kFirst), kSecondLower = Lower(kSecond);

// A lab world with DFU-mode devices on its bus, installed as the platform's backend.
struct LabBus {
    explicit LabBus(std::vector<std::wstring> present, std::uint32_t speedup = 1) {
        sim::WorldSpec spec;
        for (auto& link : present) spec.dfuDevices.emplace_back().link = std::move(link);
        spec.speedup = speedup;
        world = std::make_shared<sim::SimWorld>(spec);
        platform::InstallBackend(world);
    }
    ~LabBus() { platform::InstallBackend(nullptr); }

    // A device that is not on the bus yet.
    std::shared_ptr<sim::SimDfuDevice> MakeDevice(const std::wstring& link) {
        sim::DfuDeviceSpec device;
        device.link = link;
        return std::make_shared<sim::SimDfuDevice>(*world, device, -1);
    }
    void Plug(const std::shared_ptr<sim::SimDfuDevice>& device) {
        std::lock_guard lock(world->Lock());
        world->Plug(device);
    }
    void Unplug(sim::SimDfuDevice& device) {
        std::lock_guard lock(world->Lock());
        world->Unplug(device);
    }
    // Plugs a device after a delay in world milliseconds, from the world's event thread.
    void PlugLater(std::uint32_t delayMs, const std::wstring& link) {
        auto device = MakeDevice(link);
        std::lock_guard lock(world->Lock());
        world->Schedule(delayMs, [this, device] { world->Plug(device); });
    }

    std::shared_ptr<sim::SimWorld> world;
};

void MakeWatcher(std::optional<DeviceWatcher>& watcher) {
    CreateUsbDeviceWatcher(watcher, L"DFU device watcher", L"VID_3C5E", L"pid_0f1c", L"");
}

// The links of the watcher's entries, in their order.
template <class Entry>
std::vector<std::wstring> Links(const std::vector<Entry>& entries) {
    std::vector<std::wstring> links(entries.size());
    std::transform(entries.begin(), entries.end(), links.begin(),
                   [](const Entry& entry) { return entry.symbolicLink; });
    return links;
}

struct WaitCase {
    const char* name;
    std::uint32_t timeLimitMs;
    std::vector<std::wstring> present;
    std::uint32_t plugFirstAtMs;  // 0: never
    std::wstring awaited;
    DWORD result;
    ULONGLONG minMs, maxMs;  // world milliseconds the wait takes
    std::uint32_t speedup = 1;
};

class WaitForDevice : public testing::TestWithParam<WaitCase> {};

// Ten attempts of a tenth of the limit (at least 10 ms); an attempt that the arrival event ends
// without the awaited path sleeps out its interval.
TEST_P(WaitForDevice, TenAttemptsOfOneIntervalUnlessFound) {
    const auto& c = GetParam();
    LabBus bus(c.present, c.speedup);
    std::optional<DeviceWatcher> watcher;
    MakeWatcher(watcher);
    if (c.plugFirstAtMs != 0) bus.PlugLater(c.plugFirstAtMs, kFirst);
    const ULONGLONG start = GetTickCount64();
    EXPECT_EQ(c.result, watcher->WaitForDevice(c.timeLimitMs, c.awaited));
    const ULONGLONG elapsed = GetTickCount64() - start;
    EXPECT_GE(elapsed + 2, c.minMs);
    EXPECT_LT(elapsed, c.maxMs);
}

INSTANTIATE_TEST_SUITE_P(
    Limits, WaitForDevice,
    testing::Values(
        WaitCase{"NoLimit", 0, {}, 0, kFirstLower, 2, 100, 250},
        WaitCase{"JustBelow110OtherPresent", 109, {kSecond}, 0, kFirstLower, 2, 100, 250},
        WaitCase{"From110ATenth", 110, {}, 0, kFirstLower, 2, 110, 270},
        WaitCase{"OtherPresent", 250, {kSecond}, 0, kFirstLower, 2, 250, 550},
        WaitCase{"TenSecondsOtherPresent", 10000, {kSecond}, 0, kFirstLower, 2, 10000, 20050, 100},
        WaitCase{"PresentAtOnce", 10000, {kSecond, kFirst}, 0, kFirstLower, 0, 0, 500},
        // The list holds lower-cased paths and is compared exactly.
        WaitCase{"UpperCaseNever", 0, {kFirst}, 0, kFirst, 2, 100, 250},
        // Found by the notification within the first one-second attempt, not by a rescan.
        WaitCase{"ArrivalEndsTheAttempt", 10000, {}, 300, kFirstLower, 0, 290, 1000}),
    [](const auto& info) { return std::string(info.param.name); });

// Teardown waits for a delivery in progress: the watcher's own callback runs after the
// blocking subscriber, in the same delivery, and must still find the watcher alive.
TEST(DeviceWatcher, TeardownDuringANotificationEndsAfterTheCallback) {
    LabBus bus({});
    std::promise<void> entered, release;
    const std::shared_future<void> released = release.get_future().share();
    std::once_flag first;
    const auto blocker =
        bus.world->SubscribeUsbEvents([&](platform::UsbEvent, const std::wstring&) {
            std::call_once(first, [&] { entered.set_value(); });
            released.wait_for(std::chrono::seconds(10));
        });

    auto watcher = std::make_unique<std::optional<DeviceWatcher>>();
    MakeWatcher(*watcher);
    bus.Plug(bus.MakeDevice(kFirst));
    ASSERT_EQ(std::future_status::ready, entered.get_future().wait_for(std::chrono::seconds(10)));

    auto teardown = std::async(std::launch::async, [&] { watcher->reset(); });
    EXPECT_EQ(std::future_status::timeout, teardown.wait_for(std::chrono::milliseconds(100)));
    release.set_value();
    EXPECT_EQ(std::future_status::ready, teardown.wait_for(std::chrono::seconds(10)));
    bus.world->UnsubscribeUsbEvents(blocker);
}

// A notification thread adds and removes devices as fast as it can while watchers are built,
// rescanned, waited on and torn down. Run under the thread sanitizer in CI.
TEST(DeviceWatcher, StressNotificationsAgainstRefreshWaitAndTeardown) {
    LabBus bus({kSecond}, 50);
    const std::wstring seventh = L"\\\\?\\USB#VID_3C5E&PID_0F1C#5&1f2e3d4c&0&7" + kClass;
    std::vector<std::shared_ptr<sim::SimDfuDevice>> devices = {
        bus.MakeDevice(kFirst), bus.MakeDevice(kOtherPid), bus.MakeDevice(seventh)};
    std::atomic<bool> stop{false};
    std::atomic<int> toggles{0};
    std::thread plugger([&] {
        while (!stop) {
            for (auto& device : devices) bus.Plug(device);
            for (auto& device : devices) bus.Unplug(*device);
            ++toggles;
        }
    });

    const std::vector<std::wstring> allowed = {kSecondLower, kFirstLower, Lower(seventh)};
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
        EXPECT_EQ(0u, watcher->WaitForDevice(0, kSecondLower));
        WaitForSingleObject(watcher->arrivalEvent, 1);
        ++rounds;
    }
    stop = true;
    plugger.join();
    EXPECT_GT(rounds, 5);
    EXPECT_GT(toggles.load(), 5);
}

// A bus without the lab behind it, for what a world cannot arrange: notifications delivered
// while a rescan takes the list, a registration refused, and a family device arriving between
// the size call and the list call of the first `growths` rescans (the stand-in then answers
// CR_BUFFER_SMALL, as Windows does, and the watcher must ask again, but not forever).
struct RaceBus final : platform::EmptyDeviceBackend {
    std::vector<std::wstring> present;
    std::vector<std::pair<UsbEvent, std::wstring>> duringList;
    bool refuseSubscriptions = false;
    int growths = 0, lists = 0, unsubscriptions = 0;
    platform::UsbEventCallback callback;

    std::vector<std::wstring> ListUsbDeviceInterfaces() override {
        for (const auto& [event, path] : std::exchange(duringList, {})) {
            if (callback) callback(event, path);
        }
        if (lists++ % 2 == 1 && growths > 0) {
            --growths;
            present.push_back(present.front() + std::to_wstring(present.size()));
        }
        return present;
    }
    std::uint64_t SubscribeUsbEvents(platform::UsbEventCallback subscriber) override {
        if (refuseSubscriptions) return 0;
        callback = std::move(subscriber);
        return 1;
    }
    void UnsubscribeUsbEvents(std::uint64_t) override {
        ++unsubscriptions;
        callback = nullptr;
    }
};

struct RaceCase {
    const char* name;
    std::vector<std::wstring> present;
    std::vector<std::pair<UsbEvent, std::wstring>> duringRescan;
    std::vector<std::wstring> listed;
    bool signalled;
    bool registrationRefused = false;  // as Wine refuses it
    int growths = 0;
};

class RescanRace : public testing::TestWithParam<RaceCase> {};

TEST_P(RescanRace, ListAndEventAfterTheRescan) {
    const auto& c = GetParam();
    const auto bus = std::make_shared<RaceBus>();
    bus->present = c.present;
    bus->refuseSubscriptions = c.registrationRefused;
    bus->growths = c.growths;
    platform::InstallBackend(bus);
    {
        std::optional<DeviceWatcher> watcher;
        MakeWatcher(watcher);
        // Nothing is listed before the first rescan, and each rescan starts from a reset event.
        EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(watcher->arrivalEvent, 0));
        SetEvent(watcher->arrivalEvent);
        bus->duringList = c.duringRescan;

        EXPECT_EQ(c.listed, Links(watcher->GetDevices()));
        // One event for both: a removal ends a wait on the arrival event as well.
        EXPECT_EQ(c.signalled ? WAIT_OBJECT_0 : WAIT_TIMEOUT,
                  WaitForSingleObject(watcher->arrivalEvent, 0));
    }
    // What was never registered is not unregistered.
    EXPECT_EQ(c.registrationRefused ? 0 : 1, bus->unsubscriptions);
    EXPECT_LE(bus->lists, 20);
    platform::InstallBackend(nullptr);
}

const auto kArrival = UsbEvent::kArrival;
const auto kRemoval = UsbEvent::kRemoval;

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Watcher, RescanRace,
    testing::Values(
        RaceCase{"FamilyOnlyLowerCasedInPlatformOrder", {kOtherPid, kSecond, kOtherVid, kFirst},
                 {}, {kSecondLower, kFirstLower}, true},
        RaceCase{"NothingMatching", {kOtherPid, kOtherVid}, {}, {}, false},
        RaceCase{"RescanAndArrivalBothReportIt", {kFirst}, {{kArrival, kFirst}},
                 {kFirstLower, kFirstLower}, true},
        RaceCase{"OneRemovalTakesOutEveryCopy", {}, {{kArrival, kFirst}, {kArrival, kFirstLower},
                 {kArrival, kSecond}, {kRemoval, kFirst}}, {kSecondLower}, true},
        // Another device makes the rescan go on to the list itself.
        RaceCase{"RemovalOfAPathNotListedStillSignals", {kOtherPid}, {{kRemoval, kSecond}}, {},
                 true},
        RaceCase{"PathsOutsideTheFilterChangeNothing", {},
                 {{kArrival, kOtherPid}, {kArrival, kOtherVid}, {kRemoval, kOtherVid}}, {}, false},
        // Without a registration an arrival reaches nobody; the rescan's own finding stands.
        RaceCase{"RegistrationRefused", {kOtherPid, kFirst}, {{kArrival, kSecond}}, {kFirstLower},
                 true, true},
        // A list that grows while it is taken is asked for again, a bounded number of times.
        RaceCase{"ListGrowsOnce", {kFirst}, {}, {kFirstLower, kFirstLower + L"1"}, true, false, 1},
        RaceCase{"ListNeverSettles", {kFirst}, {}, {}, false, false, 1000}),
    [](const testing::TestParamInfo<RaceCase>& info) { return std::string(info.param.name); });
// clang-format on

// A family device already present ends the discovery's wait at once, in the platform's order.
TEST(Discovery, APresentDeviceEndsTheWaitAtOnce) {
    LabBus bus({kOtherPid, kSecond, kOtherVid, kFirst}, 10);
    std::ostringstream log;
    const ULONGLONG start = GetTickCount64();
    const auto devices = CreateDfuDevicesFactory(&log)->GetDfuDevices(10000);
    EXPECT_LT(GetTickCount64() - start, 5000u);
    ASSERT_EQ(devices.size(), 2u);
    EXPECT_EQ(devices[0]->GetSymbolicLink(), kSecondLower);
    EXPECT_EQ(devices[1]->GetSymbolicLink(), kFirstLower);
    EXPECT_EQ(log.str(), "");
}

}  // namespace
