// Notifications that land while the watcher rescans: what a rescan and an arrival both report
// stands twice, one removal takes out every copy, paths outside the filter change nothing and
// signal nothing. And a watcher whose registration the platform refuses (as Wine does) still
// sees what its rescans find.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "dfu/device_watcher.h"
#include "platform/posix/device_backend.h"
#include "platform/sim/sim_world.h"
#include "platform/sync.h"

namespace {

using platform::UsbEvent;

const std::wstring kClass = L"#{a5dcbf10-6530-11d2-901f-00c04fb951ed}";
const std::wstring kFirst = L"\\\\?\\USB#VID_3C5E&PID_0F1C#5&1F2E3D4C&0&1" + kClass;
const std::wstring kSecond = L"\\\\?\\USB#VID_3C5E&PID_0F1C#5&1F2E3D4C&0&2" + kClass;
const std::wstring kOtherProduct = L"\\\\?\\USB#VID_3C5E&PID_0B64#6&2C1A3B4D&0&3" + kClass;
const std::wstring kOtherVendor = L"\\\\?\\USB#VID_8086&PID_0F1C#7&11AA22BB&0&4" + kClass;

std::wstring Lower(std::wstring text) {
    for (auto& unit : text) {
        if (unit >= L'A' && unit <= L'Z') unit = static_cast<wchar_t>(unit - L'A' + L'a');
    }
    return text;
}

// The lab world behind the seam; the next interface list is taken only after the given
// notifications have been delivered on the world's event thread.
class RescanRaceBackend final : public platform::DeviceBackend {
  public:
    explicit RescanRaceBackend(std::shared_ptr<sim::SimWorld> world) : world_(std::move(world)) {}

    void DeliverDuringNextList(std::vector<std::pair<UsbEvent, std::wstring>> events) {
        std::lock_guard lock(mutex_);
        pending_ = std::move(events);
    }
    bool Drain() {
        auto done = std::make_shared<std::promise<void>>();
        auto future = done->get_future();
        world_->Schedule(0, [done] { done->set_value(); });
        return future.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    }

    std::vector<std::wstring> ListUsbDeviceInterfaces() override {
        std::vector<std::pair<UsbEvent, std::wstring>> events;
        {
            std::lock_guard lock(mutex_);
            events.swap(pending_);
        }
        if (!events.empty()) {
            for (const auto& [event, path] : events) world_->PostUsbEvent(event, path);
            EXPECT_TRUE(Drain()) << "notifications not delivered";
        }
        return world_->ListUsbDeviceInterfaces();
    }
    std::uint64_t SubscribeUsbEvents(platform::UsbEventCallback callback) override {
        if (refuseSubscriptions) return 0;
        return world_->SubscribeUsbEvents(std::move(callback));
    }
    void UnsubscribeUsbEvents(std::uint64_t subscription) override {
        ++unsubscriptions;
        world_->UnsubscribeUsbEvents(subscription);
    }

    unsigned TimeScale() const override { return world_->TimeScale(); }
    platform::ErrorCode OpenUsbDevice(
        const std::wstring& path,
        std::unique_ptr<platform::UsbDeviceConnection>* connection) override {
        return world_->OpenUsbDevice(path, connection);
    }
    std::vector<platform::VideoCaptureDeviceInfo> ListVideoCaptureDevices(
        platform::VideoCategory category) override {
        return world_->ListVideoCaptureDevices(category);
    }
    HRESULT OpenVideoDevice(const std::wstring& link,
                            std::unique_ptr<platform::VideoDeviceConnection>* connection) override {
        return world_->OpenVideoDevice(link, connection);
    }
    platform::ErrorCode CreateSettingsKey(const std::wstring& key) override {
        return world_->CreateSettingsKey(key);
    }
    platform::ErrorCode SetSettingsValue(const std::wstring& key, const std::wstring& name,
                                         std::uint32_t type, const std::uint8_t* data,
                                         std::uint32_t size) override {
        return world_->SetSettingsValue(key, name, type, data, size);
    }

    bool refuseSubscriptions = false;
    int unsubscriptions = 0;

  private:
    std::mutex mutex_;
    std::vector<std::pair<UsbEvent, std::wstring>> pending_;
    // Last, so that the world's event thread has stopped before the members above go.
    std::shared_ptr<sim::SimWorld> world_;
};

struct RaceLab {
    explicit RaceLab(const std::vector<std::wstring>& present) {
        sim::WorldSpec spec;
        for (const auto& link : present) {
            sim::DfuDeviceSpec device;
            device.link = link;
            spec.dfuDevices.push_back(device);
        }
        backend = std::make_shared<RescanRaceBackend>(std::make_shared<sim::SimWorld>(spec));
        platform::InstallBackend(backend);
    }
    ~RaceLab() { platform::InstallBackend(nullptr); }
    std::shared_ptr<RescanRaceBackend> backend;
};

std::vector<std::wstring> Links(const std::vector<DeviceInterfaceEntry>& entries) {
    std::vector<std::wstring> links;
    for (const auto& entry : entries) links.push_back(entry.symbolicLink);
    return links;
}

struct RaceCase {
    const char* name;
    std::vector<std::wstring> present;
    std::vector<std::pair<UsbEvent, std::wstring>> duringRescan;
    std::vector<std::wstring> listed;
    bool signalled;
};

class RescanRace : public testing::TestWithParam<RaceCase> {};

TEST_P(RescanRace, ListAndEventAfterTheRescan) {
    const auto& c = GetParam();
    RaceLab lab(c.present);
    std::optional<DeviceWatcher> watcher;
    CreateUsbDeviceWatcher(watcher, L"DFU device watcher", L"vid_3c5e", L"pid_0f1c", L"");
    lab.backend->DeliverDuringNextList(c.duringRescan);

    EXPECT_EQ(c.listed, Links(watcher->GetDevices()));
    // One name, one event object: a removal ends a wait on the arrival event as well.
    EXPECT_EQ(c.signalled ? WAIT_OBJECT_0 : WAIT_TIMEOUT,
              WaitForSingleObject(watcher->arrivalEvent, 0));
}

INSTANTIATE_TEST_SUITE_P(
    Watcher, RescanRace,
    testing::Values(RaceCase{"rescan_and_arrival_both_report_it",
                             {kFirst},
                             {{UsbEvent::kArrival, kFirst}},
                             {Lower(kFirst), Lower(kFirst)},
                             true},
                    RaceCase{"one_removal_takes_out_every_copy",
                             {},
                             {{UsbEvent::kArrival, kFirst},
                              {UsbEvent::kArrival, Lower(kFirst)},
                              {UsbEvent::kArrival, kSecond},
                              {UsbEvent::kRemoval, kFirst}},
                             {Lower(kSecond)},
                             true},
                    // Another device makes the rescan go on to the list itself.
                    RaceCase{"removal_of_a_path_not_listed_still_signals",
                             {kOtherProduct},
                             {{UsbEvent::kRemoval, kSecond}},
                             {},
                             true},
                    RaceCase{"paths_outside_the_filter_change_nothing",
                             {},
                             {{UsbEvent::kArrival, kOtherProduct},
                              {UsbEvent::kArrival, kOtherVendor},
                              {UsbEvent::kRemoval, kOtherVendor}},
                             {},
                             false}),
    [](const testing::TestParamInfo<RaceCase>& info) { return std::string(info.param.name); });

TEST(RefusedRegistration, RescansStillFindWhatIsPresent) {
    RaceLab lab({kOtherProduct, kFirst});
    lab.backend->refuseSubscriptions = true;
    {
        std::optional<DeviceWatcher> watcher;
        CreateUsbDeviceWatcher(watcher, L"DFU device watcher", L"vid_3c5e", L"pid_0f1c", L"");
        // Without a registration an arrival reaches nobody; the rescan's own finding stands.
        lab.backend->DeliverDuringNextList({{UsbEvent::kArrival, kSecond}});
        EXPECT_EQ(std::vector<std::wstring>{Lower(kFirst)}, Links(watcher->GetDevices()));
        EXPECT_EQ(0u, watcher->WaitForDevice(0, Lower(kFirst)));
        EXPECT_EQ(2u, watcher->WaitForDevice(0, Lower(kSecond)));
    }
    // Nothing was registered, so nothing is unregistered.
    EXPECT_EQ(0, lab.backend->unsubscriptions);
}

// A bus on which a family device arrives between the size call and the list call of the
// first `growths` rescans: the stand-in answers CR_BUFFER_SMALL, as Windows does, and the
// watcher must ask again, but not forever.
struct GrowingBus final : platform::EmptyDeviceBackend {
    std::vector<std::wstring> present;
    int growths = 0;
    int lists = 0;
    std::vector<std::wstring> ListUsbDeviceInterfaces() override {
        if (lists++ % 2 == 1 && growths > 0) {
            --growths;
            present.push_back(L"\\\\?\\USB#VID_3C5E&PID_0F1C#5&1F2E3D4C&0&" +
                              std::to_wstring(10 + present.size()) + kClass);
        }
        return present;
    }
};

TEST(GrowingList, IsAskedForAgainABoundedNumberOfTimes) {
    const struct {
        int growths;
        std::size_t listed;  // 0: the rescan gave up
    } rows[] = {{0, 1}, {1, 2}, {3, 4}, {1000, 0}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.growths);
        auto bus = std::make_shared<GrowingBus>();
        bus->present = {kFirst};
        bus->growths = row.growths;
        platform::InstallBackend(bus);
        {
            std::optional<DeviceWatcher> watcher;
            CreateUsbDeviceWatcher(watcher, L"", L"vid_3c5e", L"pid_0f1c", L"");
            bus->lists = 0;
            EXPECT_EQ(row.listed, watcher->GetDevices().size());
            EXPECT_LE(bus->lists, 20);
        }
        platform::InstallBackend(nullptr);
    }
}

}  // namespace
