// SPDX-License-Identifier: Apache-2.0
// The narrow interface between the POSIX platform layer and the machine's devices.
//
// platform/posix implements the Windows calls the device logic makes (files and WinUSB,
// the configuration manager, Media Foundation and kernel streaming, the registry, time)
// over exactly one installed DeviceBackend: the Linux hardware backend, or a simulated
// world. A backend answers questions about devices; it knows nothing of DFU states or
// firmware commands. Failures are reported as the Windows call would report them.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/types.h"
#include "platform/usb_descriptors.h"

namespace platform {

// A Windows error number (ERROR_*); 0 is success.
using ErrorCode = std::uint32_t;

// The eight bytes of a setup packet, with the names of the kernel's ch9.h.
using UsbSetupPacket = usb::usb_ctrlrequest;

// One opened USB device: its default control pipe and its interfaces.
class UsbDeviceConnection {
  public:
    virtual ~UsbDeviceConnection() = default;

    // Standard GET_DESCRIPTOR. On success *transferred holds the count of bytes read,
    // which may be less than asked.
    virtual ErrorCode GetDescriptor(std::uint8_t type, std::uint8_t index, std::uint16_t language,
                                    std::uint8_t* buffer, std::uint32_t length,
                                    std::uint32_t* transferred) = 0;

    // Takes an interface for this program (WinUSB does it when it hands out an interface
    // handle); needed before an alternate setting is selected on it.
    virtual ErrorCode ClaimInterface(std::uint8_t interfaceNumber) = 0;
    virtual ErrorCode ReleaseInterface(std::uint8_t interfaceNumber) = 0;
    virtual ErrorCode SetAlternateSetting(std::uint8_t interfaceNumber,
                                          std::uint8_t alternateSetting) = 0;

    // One control transfer on the default pipe; the direction follows setup.bRequestType.
    virtual ErrorCode ControlTransfer(const UsbSetupPacket& setup, std::uint8_t* buffer,
                                      std::uint32_t length, std::uint32_t* transferred) = 0;
};

enum class UsbEvent { kArrival, kRemoval };

// Called on a thread of the backend's, never on the thread that subscribed.
using UsbEventCallback = std::function<void(UsbEvent event, const std::wstring& interfacePath)>;

enum class VideoCategory {
    kSensorCamera,  // registered in the sensor-camera category
    kVideoCapture,  // the default video-capture category
};

struct VideoCaptureDeviceInfo {
    std::wstring friendlyName;
    std::wstring symbolicLink;
};

// The kernel-streaming view of one activated capture device.
class VideoDeviceConnection {
  public:
    virtual ~VideoDeviceConnection() = default;

    virtual HRESULT GetNodeCount(std::uint32_t* count) = 0;
    virtual HRESULT GetNodeType(std::uint32_t node, GUID* type) = 0;
    // Whether an instance of the node can be created (CreateNodeInstance).
    virtual HRESULT OpenNode(std::uint32_t node) = 0;
    // A property request addressed to a node, flags as in KSPROPERTY (KSPROPERTY_TYPE_* of
    // platform/ks.h). *returned gets the bytes delivered.
    virtual HRESULT NodeProperty(std::uint32_t node, const GUID& propertySet, std::uint32_t id,
                                 std::uint32_t flags, std::uint8_t* data, std::uint32_t length,
                                 std::uint32_t* returned) = 0;
};

// An event as a clock waits on it.
class Signal {
  public:
    virtual bool Signalled() = 0;
    // Takes the signal, as a wait that it ends would; false when it is not set.
    virtual bool Consume() = 0;
    // Blocks on the machine's time until the signal is set (then takes it), for at most
    // `limit` when given. Returns whether it was set.
    virtual bool Await(std::optional<std::chrono::nanoseconds> limit) = 0;

  protected:
    ~Signal() = default;
};

// The time the platform's sleeps, waits and tick count run on.
class Clock {
  public:
    virtual ~Clock() = default;

    virtual std::uint64_t NowMs() = 0;
    virtual void Sleep(std::uint32_t ms) = 0;
    // Waits up to `ms` (INFINITE: without end) for the signal; true when it ended the wait.
    virtual bool Wait(std::uint32_t ms, Signal& signal) = 0;
};

// The machine's steady clock, which a backend's devices run on unless it has a clock of its
// own.
Clock& MachineClock();

class DeviceBackend {
  public:
    virtual ~DeviceBackend() = default;

    // What sleeps, waits and the tick count run on while this backend is installed: the
    // machine's clock, unless the backend's devices keep a time of their own.
    virtual Clock& Time() { return MachineClock(); }

    // USB device interfaces present now, in the form the Windows configuration manager
    // lists them (\\?\USB#VID_xxxx&PID_xxxx#instance#{a5dcbf10-...}).
    virtual std::vector<std::wstring> ListUsbDeviceInterfaces() = 0;
    virtual ErrorCode OpenUsbDevice(const std::wstring& interfacePath,
                                    std::unique_ptr<UsbDeviceConnection>* connection) = 0;
    // Arrival and removal of USB device interfaces. Returns 0 when it cannot subscribe.
    virtual std::uint64_t SubscribeUsbEvents(UsbEventCallback callback) = 0;
    // Returns only when no callback of that subscription is running any more.
    virtual void UnsubscribeUsbEvents(std::uint64_t subscription) = 0;

    virtual std::vector<VideoCaptureDeviceInfo> ListVideoCaptureDevices(VideoCategory category) = 0;
    virtual HRESULT OpenVideoDevice(const std::wstring& symbolicLink,
                                    std::unique_ptr<VideoDeviceConnection>* connection) = 0;

    // The registry's stand-in, for keys under HKEY_LOCAL_MACHINE.
    virtual ErrorCode CreateSettingsKey(const std::wstring& keyPath) = 0;
    virtual ErrorCode SetSettingsValue(const std::wstring& keyPath, const std::wstring& valueName,
                                       std::uint32_t type, const std::uint8_t* data,
                                       std::uint32_t size) = 0;
};

// No devices and a settings store that refuses every write: what a machine without the
// hardware looks like. Fakes derive from it and override what they need.
class EmptyDeviceBackend : public DeviceBackend {
  public:
    std::vector<std::wstring> ListUsbDeviceInterfaces() override { return {}; }
    ErrorCode OpenUsbDevice(const std::wstring&, std::unique_ptr<UsbDeviceConnection>*) override {
        return ERROR_FILE_NOT_FOUND;
    }
    std::uint64_t SubscribeUsbEvents(UsbEventCallback) override { return 0; }
    void UnsubscribeUsbEvents(std::uint64_t) override {}
    std::vector<VideoCaptureDeviceInfo> ListVideoCaptureDevices(VideoCategory) override {
        return {};
    }
    HRESULT OpenVideoDevice(const std::wstring&, std::unique_ptr<VideoDeviceConnection>*) override {
        return HResultFromError(ERROR_FILE_NOT_FOUND);
    }
    ErrorCode CreateSettingsKey(const std::wstring&) override { return ERROR_ACCESS_DENIED; }
    ErrorCode SetSettingsValue(const std::wstring&, const std::wstring&, std::uint32_t,
                               const std::uint8_t*, std::uint32_t) override {
        return ERROR_ACCESS_DENIED;
    }
};

// The backend that every platform call goes to. Before any is installed, an empty one
// (no devices, a read-only settings store) answers.
void InstallBackend(std::shared_ptr<DeviceBackend> backend);
DeviceBackend& Backend();
std::shared_ptr<DeviceBackend> CurrentBackend();

}  // namespace platform
