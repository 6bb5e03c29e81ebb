// SPDX-License-Identifier: Apache-2.0
// A simulated world of cameras and DFU-mode devices behind the platform seam.
#pragma once

#include <nlohmann/json.hpp>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <queue>
#include <set>
#include <thread>
#include <vector>

#include "platform/posix/device_backend.h"
#include "platform/sim/world_spec.h"

namespace sim {

class SimWorld;

// One download as the device received it, from its first DNLOAD on.
struct DownloadRecord {
    std::wstring link;
    std::uint32_t blocks = 0;
    std::uint64_t bytes = 0;
    std::uint32_t crc32 = 0;
    bool manifested = false;
};

// A USB device in DFU mode: its descriptors and the DFU 1.1 state machine.
class SimDfuDevice {
  public:
    SimDfuDevice(SimWorld& world, DfuDeviceSpec spec, int cameraIndex);

    const DfuDeviceSpec& Spec() const { return spec_; }
    const std::wstring& Link() const { return spec_.link; }
    // The camera it came from, or -1 when it was in DFU mode from the start.
    int CameraIndex() const { return cameraIndex_; }
    // False once its camera has been unplugged since this boot loader started: what it had
    // scheduled (its arrival, its reset) no longer happens.
    bool Current() const;

    // Called with the world's lock held.
    platform::ErrorCode GetDescriptor(std::uint8_t type, std::uint8_t index, std::uint8_t* buffer,
                                      std::uint32_t length, std::uint32_t* transferred);
    platform::ErrorCode SetAlternateSetting(std::uint8_t interfaceNumber, std::uint8_t alternate);
    platform::ErrorCode ControlTransfer(const platform::UsbSetupPacket& setup, std::uint8_t* buffer,
                                        std::uint32_t length, std::uint32_t* transferred);

    bool present = true;
    // Its entry of the state dump: state, the class requests it saw by kind, and whether the
    // host asked for its status once more before it reset after manifestation.
    nlohmann::json Dump() const;
    // Counts a listing of the bus that showed the device; true when it is to leave next.
    bool Listed();

  private:
    platform::ErrorCode Stall();
    platform::ErrorCode StandardRequest(const platform::UsbSetupPacket& setup, std::uint8_t* buffer,
                                        std::uint32_t* transferred);
    // What the device does by itself `ms` world milliseconds from now, if it is still in the
    // state it is in now.
    void After(std::uint32_t ms, std::function<void()> step);
    void TakeDueStep();
    void EndManifest();
    platform::ErrorCode Request(const platform::UsbSetupPacket& setup, std::uint8_t* buffer,
                                std::uint32_t* transferred);
    platform::ErrorCode Download(const platform::UsbSetupPacket& setup, const std::uint8_t* data);
    void AnswerStatus(std::uint8_t* buffer, std::uint32_t* transferred);
    void ResetAfterManifest();

    SimWorld& world_;
    DfuDeviceSpec spec_;
    int cameraIndex_;
    std::uint32_t boot_;  // its camera's generation when it started
    std::uint8_t state_;
    std::uint8_t status_ = 0;             // bStatus of the next GETSTATUS
    std::uint32_t requestsSeen_[7] = {};  // by bRequest
    std::uint32_t listings_ = 0;
    struct TimedStep {
        std::uint64_t dueMs;  // world time
        std::uint8_t from;    // the state it leaves
        std::function<void()> step;
    };
    std::optional<TimedStep> next_;  // what the device does next by itself
    bool statusAfterBlockDue_ = false;
    std::optional<std::uint16_t> detachTimeout_;
    std::vector<std::uint8_t> deviceDescriptor_;
    std::vector<std::uint8_t> configuration_;
    int dfuInterface_ = -1;     // number of the first class-254 interface
    std::uint32_t blocks_ = 0;  // data blocks accepted in this download
    std::uint32_t busyLeft_ = 0;
    bool manifested_ = false;           // this download's manifestation is over
    std::uint32_t waitResetPolls_ = 0;  // GETSTATUS answered in dfuMANIFEST_WAIT_RESET
    bool lastStatusBeforeReset_ = false;
    bool errorPending_ = false;  // the "error" fault: the next GETSTATUS reports dfuERROR
    bool resetting_ = false;
    int download_ = -1;  // index into SimWorld::Downloads()
};

// A video-capture device, with the family's extension unit when the spec says so.
class SimCamera {
  public:
    SimCamera(SimWorld& world, CameraSpec spec, int index);

    const CameraSpec& Spec() const { return spec_; }
    int Index() const { return index_; }
    FirmwareVersion firmware;
    bool present = true;

    // The camera's kernel-streaming topology and, behind its extension unit, the firmware's
    // command channel (camera_model.cpp). Called with the world's lock held.
    std::uint32_t NodeCount() const { return static_cast<std::uint32_t>(spec_.topology.size()); }
    GUID NodeType(std::uint32_t node) const;
    // Its entry of the state dump, with the firmware commands it took by opcode (decimal).
    nlohmann::json Dump() const;
    HRESULT NodeProperty(std::uint32_t node, const GUID& propertySet, std::uint32_t id,
                         std::uint32_t flags, std::uint8_t* data, std::uint32_t length,
                         std::uint32_t* returned);
    // The family's extension unit as UVC addresses it: control 1 takes SET_CUR (0x01),
    // GET_CUR (0x81), GET_LEN (0x85) and GET_INFO (0x86). Returns false where the device
    // stalls; *returned is how much a GET delivers. Called with the world's lock held.
    bool UnitRequest(std::uint8_t request, std::uint8_t selector, std::uint8_t* data,
                     std::uint32_t length, std::uint32_t* returned);
    // Changes each time the camera leaves the bus; handles opened before then are dead.
    std::uint32_t Generation() const { return generation_; }
    // Off the bus, and whatever it was about to do is forgotten.
    void LeaveBus();

  private:
    // Returns false when the command never reaches the firmware (its SET fails).
    bool RunCommand(const std::uint8_t* frame);
    bool ReadReply(std::uint8_t* data, std::uint32_t* returned);
    void LeaveForDfu();

    SimWorld& world_;
    CameraSpec spec_;
    int index_;
    std::vector<std::uint8_t> reply_;  // what the next GET reads; empty: nothing to read
    std::uint64_t replyReadyMs_ = 0;   // the firmware's pause before its answer is ready
    std::optional<CommandFaultKind> replyFault_;
    bool leaveAfterReply_ = false;  // the answer to 0x1E goes out, then the camera restarts
    std::map<std::uint32_t, std::uint32_t> exchanges_;  // by opcode
    std::uint32_t failedInfoExchanges_ = 0;
    std::uint32_t generation_ = 0;
};

// Above speedup 1 the world keeps its own time (its Clock): it passes only in the program's
// sleeps and waits, by exactly what they ask, and every timed event of the world happens at
// its world time before time moves past it. So a run ends as it would at speedup 1, however
// late the machine wakes the program. At speedup 1 the world runs on the machine's clock.
class SimWorld final : public platform::DeviceBackend, public platform::Clock {
  public:
    explicit SimWorld(WorldSpec spec);
    ~SimWorld() override;
    SimWorld(const SimWorld&) = delete;
    SimWorld& operator=(const SimWorld&) = delete;

    // The final state as the lab's --dump-state writes it.
    nlohmann::json DumpState() const;

    platform::Clock& Time() override {
        return spec_.speedup > 1 ? *this : platform::MachineClock();
    }
    // The world's time in milliseconds, on whichever clock it runs.
    std::uint64_t NowMs() override;
    void Sleep(std::uint32_t ms) override { Pass(ms, nullptr); }
    bool Wait(std::uint32_t ms, platform::Signal& signal) override;

    std::vector<std::wstring> ListUsbDeviceInterfaces() override;
    platform::ErrorCode OpenUsbDevice(
        const std::wstring& interfacePath,
        std::unique_ptr<platform::UsbDeviceConnection>* connection) override;
    // An operator pulls camera `index` out and plugs it back in; `afterMs` later its boot
    // loader starts afresh.
    void Replug(std::size_t index, std::uint32_t afterMs);
    std::uint64_t SubscribeUsbEvents(platform::UsbEventCallback callback) override;
    void UnsubscribeUsbEvents(std::uint64_t subscription) override;

    std::vector<platform::VideoCaptureDeviceInfo> ListVideoCaptureDevices(
        platform::VideoCategory category) override;
    HRESULT OpenVideoDevice(const std::wstring& symbolicLink,
                            std::unique_ptr<platform::VideoDeviceConnection>* connection) override;

    platform::ErrorCode CreateSettingsKey(const std::wstring& keyPath) override;
    platform::ErrorCode SetSettingsValue(const std::wstring& keyPath, const std::wstring& valueName,
                                         std::uint32_t type, const std::uint8_t* data,
                                         std::uint32_t size) override;

    // For the device models (called with the world's lock held) ---------------------------

    // Runs an action on the world's event thread after a delay in world milliseconds; the
    // action runs with the world's lock held.
    void Schedule(std::uint32_t delayMs, std::function<void()> action);
    // Announces an arrival or removal to every subscriber, on the event thread.
    void PostUsbEvent(platform::UsbEvent event, std::wstring interfacePath);
    // Puts a DFU device on the bus (announced) or takes it off.
    void Plug(const std::shared_ptr<SimDfuDevice>& device);
    void PlugAt(std::uint32_t delayMs, std::shared_ptr<SimDfuDevice> device);
    void Unplug(SimDfuDevice& device);
    std::vector<DownloadRecord>& Downloads() { return downloads_; }
    std::vector<std::unique_ptr<SimCamera>>& Cameras() { return cameras_; }
    std::recursive_mutex& Lock() const { return mutex_; }

  private:
    // A notification is due at once (-1) and runs outside the world's lock.
    static constexpr std::int64_t kAtOnce = -1;
    struct Task {
        std::int64_t due;  // world milliseconds
        std::uint64_t sequence;
        std::function<void()> action;
        // Who made it happen: a thread of the program, or the world itself (an empty id:
        // timed events and what they cause).
        std::thread::id cause;
        bool operator>(const Task& other) const {
            return due != other.due ? due > other.due : sequence > other.sequence;
        }
    };

    // Lets up to `ms` of world time pass, and ends early once `done` (when given) holds; it is
    // asked at once, after whatever the world had due meanwhile has happened, and while the
    // real time that paces the span goes by. Returns whether `done` held.
    bool Pass(std::uint32_t ms, const std::function<bool()>& done);
    void RunEvents();
    void Push(std::int64_t due, std::function<void()> action);
    std::int64_t NowLocked() const;
    // Whether a task of the world's, or one caused by `thread`, is due by the world's present
    // time.
    bool DueLocked(std::thread::id thread) const;
    // Returns once nothing that was due when it was called is waiting or running, nor
    // anything those tasks caused in turn: the world's own events, and what the calling
    // thread made happen. What other threads do meanwhile is not waited for.
    void Drain();
    void OnBus(const std::shared_ptr<SimDfuDevice>& device);
    // Takes off the bus the devices whose last listing has been given.
    void LeaveAfterListing();

    WorldSpec spec_;
    mutable std::recursive_mutex mutex_;
    std::vector<std::unique_ptr<SimCamera>> cameras_;
    std::vector<std::shared_ptr<SimDfuDevice>> dfuDevices_;  // every one ever seen, in order
    std::vector<SimDfuDevice*> leavingAfterListing_;
    std::vector<DownloadRecord> downloads_;
    struct RegistryValue {
        std::uint32_t type = 0;
        std::vector<std::uint8_t> bytes;
    };
    std::map<std::wstring, std::map<std::wstring, RegistryValue>> registry_;
    std::optional<RegistryValue> presetAutoMode_;  // the world's value before the run

    // Event thread: timed actions and notifications.
    std::mutex eventMutex_;
    std::condition_variable eventCv_;
    std::condition_variable idleCv_;
    std::vector<Task> tasks_;  // a heap, earliest first
    std::uint64_t nextSequence_ = 0;
    bool stopping_ = false;
    bool running_ = false;  // a task is running on the event thread
    std::uint64_t runningSequence_ = 0;
    std::thread::id runningCause_;
    std::map<std::thread::id, std::size_t> atOnce_;  // notifications waiting, by cause
    std::multiset<std::int64_t> timedDue_;           // when the timed events waiting are due
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    std::int64_t worldMs_ = 0;  // the world's own time, above speedup 1
    std::thread eventThread_;

    std::mutex subscribersMutex_;
    std::mutex callbackMutex_;  // held while a callback runs
    std::map<std::uint64_t, platform::UsbEventCallback> subscribers_;
    std::uint64_t nextSubscription_ = 1;
};

// CRC-32 as zlib computes it.
std::uint32_t Crc32(std::uint32_t crc, const std::uint8_t* data, std::size_t length);

}  // namespace sim
