// SPDX-License-Identifier: Apache-2.0
// A camera of the Lynx Series: a camera device with a firmware-command channel through the
// family's extension unit, its firmware version, and the switch into DFU mode.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "camera/camera_device.h"
#include "camera/camera_device_factory.h"
#include "camera/extension_unit_ks_control.h"
#include "camera/firmware_command_pipe.h"

// Reading the device information block: attempts, and the pause after each failed one.
constexpr int kPipeOpenAttempts = 5;
constexpr DWORD kPipeRetryDelayMs = 500;

class LynxUpdatableDevice : public CameraDevice {
  public:
    LynxUpdatableDevice();
    ~LynxUpdatableDevice() override;

    bool IsUpdatable() const override { return true; }
    HRESULT UpdateFirmware(const char* imagePath) override;
    HRESULT SwitchToDfu() override;
    HRESULT SetDfuAutoModeDisabled() override;
    HRESULT SetDfuAutoModeAuto() override;
    HRESULT SetDfuAutoModeServiceControlled() override;
    // "a.b.c.d" from bytes 15, 14, 13 and 12 of the device information block.
    std::wstring GetFirmwareVersion() const override;
    std::int32_t GetDeviceType() const override { return 0; }
    // The DFU-mode devices the last UpdateFirmware burned, by symbolic link, in order.
    const std::vector<std::wstring>& BurnedDfuDevices() const { return burnedDfuDevices; }
    // Succeeds for any camera that carries the family's extension unit, even when its
    // information block cannot be read; fails for every other camera.
    HRESULT Initialize(Microsoft::WRL::ComPtr<IMFActivate> activation) override;

  protected:
    // Writes the DFU service's auto-mode value ("Disabled", "Auto", "Service Controlled"):
    // 0 when stored, E_FAIL on any failure (the platform's code shows only in the message).
    virtual HRESULT WriteDfuAutoMode(const std::wstring& mode);

    Microsoft::WRL::ComPtr<ExtensionUnitKsControl> extensionUnit;
    std::shared_ptr<IFirmwareCommandPipe> commandPipe;
    std::array<std::uint8_t, kDeviceInfoSize> deviceInfo{};
    std::vector<std::wstring> burnedDfuDevices;
};

// The family's factory for the camera enumeration: a device exactly when the camera has the
// family's extension unit.
class LynxUpdatableDeviceFactory final : public ICameraDeviceFactory {
  public:
    std::shared_ptr<ICameraDevice> CreateDevice(
        Microsoft::WRL::ComPtr<IMFActivate> activation) override;
};

// An unconnected device of the family (name "Lynx", version 0.0.0.0, no logger stream), so
// that the family's DFU auto mode can be set with no camera attached.
std::shared_ptr<ICameraDevice> CreateLynxUpdatableDevice();
