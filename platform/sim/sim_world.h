// A simulated world of cameras and DFU-mode devices behind the platform seam.
#pragma once

#include <nlohmann/json.hpp>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <queue>
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

    // Called with the world's lock held.
    platform::ErrorCode GetDescriptor(std::uint8_t type, std::uint8_t index, std::uint8_t* buffer,
                                      std::uint32_t length, std::uint32_t* transferred);
    platform::ErrorCode SetAlternateSetting(std::uint8_t interfaceNumber, std::uint8_t alternate);
    platform::ErrorCode ControlTransfer(const platform::UsbSetupPacket& setup, std::uint8_t* buffer,
                                        std::uint32_t length, std::uint32_t* transferred);

    std::uint8_t State() const { return state_; }
    bool present = true;

  private:
    platform::ErrorCode Stall();
    platform::ErrorCode Download(const platform::UsbSetupPacket& setup, const std::uint8_t* data);
    void AnswerStatus(std::uint8_t* buffer, std::uint32_t length, std::uint32_t* transferred);
    void ResetAfterManifest();

    SimWorld& world_;
    DfuDeviceSpec spec_;
    int cameraIndex_;
    std::uint8_t state_ = 2;   // dfuIDLE
    std::uint8_t status_ = 0;  // bStatus of the next GETSTATUS
    std::vector<std::uint8_t> deviceDescriptor_;
    std::vector<std::uint8_t> configuration_;
    int dfuInterface_ = -1;     // number of the first class-254 interface
    std::uint32_t blocks_ = 0;  // data blocks accepted in this download
    std::uint32_t busyLeft_ = 0;
    std::uint32_t manifestLeft_ = 0;
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
    std::uint32_t NodeCount() const;
    GUID NodeType(std::uint32_t node) const;
    HRESULT NodeProperty(std::uint32_t node, const GUID& propertySet, std::uint32_t id,
                         std::uint32_t flags, std::uint8_t* data, std::uint32_t length,
                         std::uint32_t* returned);
    // Changes each time the camera leaves the bus; handles opened before then are dead.
    std::uint32_t Generation() const { return generation_; }

  private:
    void RunCommand(const std::uint8_t* frame);

    SimWorld& world_;
    CameraSpec spec_;
    int index_;
    std::vector<std::uint8_t> reply_;  // what the next GET reads; empty: nothing to read
    std::uint32_t failedInfoExchanges_ = 0;
    std::uint32_t generation_ = 0;
};

class SimWorld final : public platform::DeviceBackend {
  public:
    explicit SimWorld(WorldSpec spec);
    ~SimWorld() override;
    SimWorld(const SimWorld&) = delete;
    SimWorld& operator=(const SimWorld&) = delete;

    // The final state as the lab's --dump-state writes it.
    nlohmann::json DumpState() const;

    unsigned TimeScale() const override { return spec_.speedup; }

    std::vector<std::wstring> ListUsbDeviceInterfaces() override;
    platform::ErrorCode OpenUsbDevice(
        const std::wstring& interfacePath,
        std::unique_ptr<platform::UsbDeviceConnection>* connection) override;
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
    void Unplug(SimDfuDevice& device);
    std::vector<DownloadRecord>& Downloads() { return downloads_; }
    std::vector<std::unique_ptr<SimCamera>>& Cameras() { return cameras_; }
    std::recursive_mutex& Lock() const { return mutex_; }

  private:
    struct Task {
        std::chrono::steady_clock::time_point due;
        std::uint64_t sequence;
        std::function<void()> action;
        bool operator>(const Task& other) const {
            return due != other.due ? due > other.due : sequence > other.sequence;
        }
    };

    void RunEvents();

    WorldSpec spec_;
    mutable std::recursive_mutex mutex_;
    std::vector<std::unique_ptr<SimCamera>> cameras_;
    std::vector<std::shared_ptr<SimDfuDevice>> dfuDevices_;  // every one ever seen, in order
    std::vector<DownloadRecord> downloads_;
    struct RegistryValue {
        std::uint32_t type = 0;
        std::vector<std::uint8_t> bytes;
    };
    std::map<std::wstring, std::map<std::wstring, RegistryValue>> registry_;

    // Event thread: timed actions and notifications.
    std::mutex eventMutex_;
    std::condition_variable eventCv_;
    std::priority_queue<Task, std::vector<Task>, std::greater<>> tasks_;
    std::uint64_t nextSequence_ = 0;
    bool stopping_ = false;
    std::thread eventThread_;

    std::mutex subscribersMutex_;
    std::mutex callbackMutex_;  // held while a callback runs
    std::map<std::uint64_t, platform::UsbEventCallback> subscribers_;
    std::uint64_t nextSubscription_ = 1;
};

// CRC-32 as zlib computes it.
std::uint32_t Crc32(std::uint32_t crc, const std::uint8_t* data, std::size_t length);

}  // namespace sim
