// SPDX-License-Identifier: Apache-2.0
#include "platform/sim/sim_world.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <thread>

#include "platform/registry.h"

namespace sim {
namespace {

// The settings store keeps whatever keys and values the program writes. The lab knows one
// value by name, the one a world presets and the dump reports; the key that holds it is the
// program's business, and the lab learns it only from the program's writes.
const std::wstring kAutoModeValue = L"dfuautomode";

}  // namespace

std::uint32_t Crc32(std::uint32_t crc, const std::uint8_t* data, std::size_t length) {
    static const auto table = [] {
        std::array<std::uint32_t, 256> t{};
        for (std::uint32_t i = 0; i < 256; ++i) {
            std::uint32_t c = i;
            for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            t[i] = c;
        }
        return t;
    }();
    crc = ~crc;
    for (std::size_t i = 0; i < length; ++i) crc = table[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
    return ~crc;
}

SimWorld::SimWorld(WorldSpec spec) : spec_(std::move(spec)) {
    for (std::size_t i = 0; i < spec_.cameras.size(); ++i) {
        cameras_.push_back(
            std::make_unique<SimCamera>(*this, spec_.cameras[i], static_cast<int>(i)));
    }
    if (spec_.registry.dfuAutoMode) {
        presetAutoMode_ = {REG_SZ, platform::WideToUtf16Le(*spec_.registry.dfuAutoMode)};
    }
    eventThread_ = std::thread([this] { RunEvents(); });
    std::lock_guard lock(mutex_);
    for (const auto& camera : cameras_) {
        if (!camera->Spec().inDfuMode) continue;
        camera->present = false;
        dfuDevices_.push_back(
            std::make_shared<SimDfuDevice>(*this, camera->Spec().DfuSide(), camera->Index()));
        OnBus(dfuDevices_.back());
    }
    for (const auto& dfu : spec_.dfuDevices) {
        dfuDevices_.push_back(std::make_shared<SimDfuDevice>(*this, dfu, -1));
        OnBus(dfuDevices_.back());
    }
}

SimWorld::~SimWorld() {
    {
        std::lock_guard lock(eventMutex_);
        stopping_ = true;
    }
    eventCv_.notify_all();
    idleCv_.notify_all();
    eventThread_.join();
}

std::int64_t SimWorld::NowLocked() const {
    if (spec_.speedup > 1) return worldMs_;
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 start_)
        .count();
}

std::uint64_t SimWorld::NowMs() {
    std::lock_guard lock(eventMutex_);
    return static_cast<std::uint64_t>(NowLocked());
}

bool SimWorld::DueLocked(std::thread::id thread) const {
    return atOnce_.contains(std::thread::id()) || atOnce_.contains(thread) ||
           (!timedDue_.empty() && *timedDue_.begin() <= NowLocked());
}

void SimWorld::Push(std::int64_t due, std::function<void()> action) {
    // What a task causes takes that task's place in the order and its cause, so that a
    // Drain waiting for the task also waits for its consequences (an arrival's
    // notification).
    const bool caused = std::this_thread::get_id() == eventThread_.get_id();
    const std::thread::id cause = caused           ? runningCause_
                                  : due == kAtOnce ? std::this_thread::get_id()
                                                   : std::thread::id();
    if (due == kAtOnce) {
        ++atOnce_[cause];
    } else {
        timedDue_.insert(due);
    }
    tasks_.push_back(
        Task{due, caused ? runningSequence_ : nextSequence_++, std::move(action), cause});
    std::push_heap(tasks_.begin(), tasks_.end(), std::greater<>());
}

void SimWorld::Schedule(std::uint32_t delayMs, std::function<void()> action) {
    {
        std::lock_guard lock(eventMutex_);
        Push(NowLocked() + delayMs, std::move(action));
    }
    eventCv_.notify_all();
}

void SimWorld::Drain() {
    std::unique_lock lock(eventMutex_);
    // Another thread's notifications are not waited for: the caller cannot make the world
    // wait on them, and a thread that keeps plugging would keep this one waiting.
    const std::thread::id self = std::this_thread::get_id();
    idleCv_.wait(lock, [&] {
        const bool runningOurs =
            running_ && (runningCause_ == std::thread::id() || runningCause_ == self);
        return stopping_ || (!runningOurs && !DueLocked(self));
    });
}

bool SimWorld::Pass(std::uint32_t ms, const std::function<bool()>& done) {
    using RealClock = std::chrono::steady_clock;
    std::int64_t target = 0;
    {
        std::lock_guard lock(eventMutex_);
        target = worldMs_ + ms;
    }
    Drain();
    while (true) {
        if (done && done()) return true;
        std::int64_t from = 0;
        std::int64_t to = target;
        {
            std::lock_guard lock(eventMutex_);
            from = worldMs_;
            if (!timedDue_.empty()) to = std::min(to, std::max(from, *timedDue_.begin()));
        }
        // The span is paced in real time, but what the machine oversleeps is not world time.
        const auto realStart = RealClock::now();
        const auto realSpan = std::chrono::nanoseconds(std::chrono::milliseconds(to - from)) /
                              static_cast<long>(spec_.speedup);
        bool early = false;
        while (!early && RealClock::now() - realStart < realSpan) {
            const auto left = realSpan - (RealClock::now() - realStart);
            std::this_thread::sleep_for(
                done ? std::min<std::chrono::nanoseconds>(left, std::chrono::milliseconds(1))
                     : left);
            early = done && done();
        }
        {
            std::lock_guard lock(eventMutex_);
            if (early) {
                // Something outside the world (another thread) ended the wait: the world
                // has moved on by the real time that took.
                const auto real = std::chrono::duration_cast<std::chrono::milliseconds>(
                    RealClock::now() - realStart);
                to = std::min(to, from + static_cast<std::int64_t>(real.count()) *
                                             static_cast<std::int64_t>(spec_.speedup));
            }
            worldMs_ = std::max(worldMs_, to);
        }
        if (early) return true;
        eventCv_.notify_all();
        Drain();
        if (to >= target) return done && done();
    }
}

bool SimWorld::Wait(std::uint32_t ms, platform::Signal& signal) {
    const auto signalled = [&signal] { return signal.Signalled(); };
    do {
        Pass(ms == INFINITE ? 3600000 : ms, signalled);
    } while (ms == INFINITE && !signal.Signalled());
    return signal.Consume();
}

void SimWorld::PostUsbEvent(platform::UsbEvent event, std::wstring interfacePath) {
    // An event reaches those registered when it happened, as on a real bus: a registration made
    // after a device arrived learns of it by listing, not by a late notification.
    std::vector<std::uint64_t> recipients;
    {
        std::lock_guard subscribersLock(subscribersMutex_);
        for (const auto& [id, callback] : subscribers_) recipients.push_back(id);
    }
    {
        std::lock_guard lock(eventMutex_);
        Push(kAtOnce, [this, event, path = std::move(interfacePath), recipients] {
            std::lock_guard callbackLock(callbackMutex_);
            std::vector<platform::UsbEventCallback> callbacks;
            {
                std::lock_guard subscribersLock(subscribersMutex_);
                for (std::uint64_t id : recipients) {
                    if (auto it = subscribers_.find(id); it != subscribers_.end()) {
                        callbacks.push_back(it->second);
                    }
                }
            }
            for (const auto& callback : callbacks) callback(event, path);
        });
    }
    eventCv_.notify_all();
}

void SimWorld::RunEvents() {
    std::unique_lock lock(eventMutex_);
    while (true) {
        if (stopping_) return;
        if (tasks_.empty() || tasks_.front().due > NowLocked()) {
            idleCv_.notify_all();
            if (tasks_.empty() || spec_.speedup > 1) {
                // The world's own time moves only in Pass, which wakes this thread.
                eventCv_.wait(lock);
            } else {
                eventCv_.wait_until(lock, start_ + std::chrono::milliseconds(tasks_.front().due));
            }
            continue;
        }
        std::pop_heap(tasks_.begin(), tasks_.end(), std::greater<>());
        Task task = std::move(tasks_.back());
        tasks_.pop_back();
        running_ = true;
        runningSequence_ = task.sequence;
        runningCause_ = task.cause;
        if (task.due == kAtOnce) {
            if (--atOnce_[task.cause] == 0) atOnce_.erase(task.cause);
        } else {
            timedDue_.erase(timedDue_.find(task.due));
        }
        lock.unlock();
        // Notifications run outside the world's lock, as a platform thread would deliver
        // them; world changes take it.
        if (task.due == kAtOnce) {
            task.action();
        } else {
            std::lock_guard worldLock(mutex_);
            task.action();
        }
        lock.lock();
        running_ = false;
        idleCv_.notify_all();
    }
}

std::uint64_t SimWorld::SubscribeUsbEvents(platform::UsbEventCallback callback) {
    std::lock_guard lock(subscribersMutex_);
    const std::uint64_t id = nextSubscription_++;
    subscribers_[id] = std::move(callback);
    return id;
}

void SimWorld::UnsubscribeUsbEvents(std::uint64_t subscription) {
    {
        std::lock_guard lock(subscribersMutex_);
        subscribers_.erase(subscription);
    }
    // A callback of this subscription may be running on the event thread right now; the
    // platform's unregistration returns only after it has, so wait for the delivery to end.
    if (std::this_thread::get_id() != eventThread_.get_id()) {
        std::lock_guard wait(callbackMutex_);
    }
}

void SimWorld::Plug(const std::shared_ptr<SimDfuDevice>& device) {
    if (!device->Current()) return;  // its camera was pulled out before it started
    device->present = true;
    if (std::find(dfuDevices_.begin(), dfuDevices_.end(), device) == dfuDevices_.end()) {
        dfuDevices_.push_back(device);
    }
    PostUsbEvent(platform::UsbEvent::kArrival, device->Link());
    OnBus(device);
}

void SimWorld::PlugAt(std::uint32_t delayMs, std::shared_ptr<SimDfuDevice> device) {
    Schedule(delayMs, [this, device = std::move(device)] { Plug(device); });
}

void SimWorld::OnBus(const std::shared_ptr<SimDfuDevice>& device) {
    const auto& unplug = device->Spec().unplug;
    if (unplug && unplug->atMs) Schedule(*unplug->atMs, [this, device] { Unplug(*device); });
}

void SimWorld::Unplug(SimDfuDevice& device) {
    if (!device.present) return;
    device.present = false;
    PostUsbEvent(platform::UsbEvent::kRemoval, device.Link());
}

void SimWorld::Replug(std::size_t index, std::uint32_t afterMs) {
    std::lock_guard lock(mutex_);
    SimCamera& camera = *cameras_[index];
    camera.LeaveBus();
    for (const auto& device : dfuDevices_) {
        if (device->CameraIndex() == static_cast<int>(index)) Unplug(*device);
    }
    // The boot loader starts the firmware in flash when the image there is whole: never
    // touched, or put in place by a manifestation. A download cut off before that leaves
    // half an image, and the boot loader stays in DFU mode, in dfuIDLE.
    const std::optional<DfuDeviceSpec>& dfu = camera.Spec().dfu;
    const DownloadRecord* last = nullptr;
    for (const auto& download : downloads_) {
        if (dfu && download.link == dfu->link) last = &download;
    }
    if (last ? !last->manifested : camera.Spec().inDfuMode) {
        PlugAt(afterMs, std::make_shared<SimDfuDevice>(*this, camera.Spec().DfuSide(),
                                                       static_cast<int>(index)));
        return;
    }
    if (last) camera.firmware = camera.Spec().firmwareAfterUpdate;
    const std::uint32_t generation = camera.Generation();
    Schedule(afterMs, [&camera, generation] {
        if (camera.Generation() == generation) camera.present = true;
    });
}

// A device that leaves after a listing is gone the next time the host looks at the bus (the
// next listing or open), not while the listing is still being taken in: otherwise whether the
// host keeps the path would hang on when its removal notification happens to be delivered.
void SimWorld::LeaveAfterListing() {
    for (SimDfuDevice* device : leavingAfterListing_) Unplug(*device);
    leavingAfterListing_.clear();
}

std::vector<std::wstring> SimWorld::ListUsbDeviceInterfaces() {
    std::lock_guard lock(mutex_);
    LeaveAfterListing();
    std::vector<std::wstring> paths;
    for (const auto& device : dfuDevices_) {
        if (!device->present) continue;
        paths.push_back(device->Link());
        if (device->Listed()) leavingAfterListing_.push_back(device.get());
    }
    return paths;
}

std::vector<platform::VideoCaptureDeviceInfo> SimWorld::ListVideoCaptureDevices(
    platform::VideoCategory category) {
    const int wanted = category == platform::VideoCategory::kSensorCamera ? 1 : 2;
    std::lock_guard lock(mutex_);
    std::vector<platform::VideoCaptureDeviceInfo> devices;
    for (const auto& camera : cameras_) {
        if (!camera->present) continue;
        const auto& sets = camera->Spec().enumerations;
        if (std::find(sets.begin(), sets.end(), wanted) == sets.end()) continue;
        devices.push_back({camera->Spec().name, camera->Spec().link});
    }
    return devices;
}

platform::ErrorCode SimWorld::CreateSettingsKey(const std::wstring& keyPath) {
    std::lock_guard lock(mutex_);
    if (!spec_.registry.writable) return ERROR_ACCESS_DENIED;
    if (spec_.registry.openError) return *spec_.registry.openError;
    registry_[Lower(keyPath)];
    return ERROR_SUCCESS;
}

platform::ErrorCode SimWorld::SetSettingsValue(const std::wstring& keyPath,
                                               const std::wstring& valueName, std::uint32_t type,
                                               const std::uint8_t* data, std::uint32_t size) {
    std::lock_guard lock(mutex_);
    if (!spec_.registry.writable) return ERROR_ACCESS_DENIED;
    if (spec_.registry.setError) return *spec_.registry.setError;
    auto key = registry_.find(Lower(keyPath));
    if (key == registry_.end()) return ERROR_FILE_NOT_FOUND;
    if (size > 0 && data == nullptr) return ERROR_INVALID_PARAMETER;
    key->second[Lower(valueName)] = {type, std::vector<std::uint8_t>(data, data + size)};
    return ERROR_SUCCESS;
}

nlohmann::json SimWorld::DumpState() const {
    std::lock_guard lock(mutex_);
    nlohmann::json state;
    state["registry"] = nlohmann::json::object();
    const RegistryValue* autoMode = presetAutoMode_ ? &*presetAutoMode_ : nullptr;
    for (const auto& [keyPath, values] : registry_) {
        if (auto value = values.find(kAutoModeValue); value != values.end())
            autoMode = &value->second;
    }
    if (autoMode) {
        state["registry"]["DFUAutoMode"] = {
            {"type", autoMode->type},
            {"bytes", autoMode->bytes.size()},
            {"text", platform::Utf16LeToUtf8(autoMode->bytes.data(), autoMode->bytes.size())}};
    }
    state["cameras"] = nlohmann::json::array();
    for (const auto& camera : cameras_) {
        state["cameras"].push_back(camera->Dump());
    }
    state["dfuDevices"] = nlohmann::json::array();
    for (const auto& device : dfuDevices_) {
        state["dfuDevices"].push_back(device->Dump());
    }
    state["downloads"] = nlohmann::json::array();
    for (const auto& download : downloads_) {
        char crc[9];
        std::snprintf(crc, sizeof crc, "%08x", download.crc32);
        state["downloads"].push_back({{"link", WideToUtf8(download.link)},
                                      {"blocks", download.blocks},
                                      {"bytes", download.bytes},
                                      {"crc32", crc},
                                      {"manifested", download.manifested}});
    }
    // Above speedup 1 the world's own time, so a host that polls too long shows in it.
    state["clockMs"] = NowLocked();
    return state;
}

}  // namespace sim
