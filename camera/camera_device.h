// SPDX-License-Identifier: Apache-2.0
// A video-capture device as the console sees it, and the plain camera that any device is.
#pragma once

#include <cstdint>
#include <string>

#include "diag/dfu_logger.h"
#include "platform/com.h"
#include "platform/mf.h"

class ICameraDevice : public DfuLogger {
  public:
    ~ICameraDevice() override = default;

    virtual bool IsUpdatable() const = 0;
    virtual HRESULT UpdateFirmware(const char* imagePath) = 0;
    virtual HRESULT SwitchToDfu() = 0;
    // The DFU service's setting belongs to a camera type, not to a camera, yet it is written
    // through the device: the DFU-mode menu picks a device of the type and asks it, so a
    // family with a setting of its own per device fits the same menu. "Auto" has no caller;
    // the interface carries all three values the setting takes.
    virtual HRESULT SetDfuAutoModeDisabled() = 0;
    virtual HRESULT SetDfuAutoModeAuto() = 0;
    virtual HRESULT SetDfuAutoModeServiceControlled() = 0;
    virtual std::wstring GetName() const = 0;
    virtual std::wstring GetSymbolicLink() const = 0;
    virtual std::wstring GetFirmwareVersion() const = 0;
    virtual std::wstring GetDetails(bool withSymbolicLink) const = 0;
    // Devices of one type share one DFU auto-mode setting.
    virtual std::int32_t GetDeviceType() const = 0;
    // Whether each device of its type has a DFU auto-mode setting of its own.
    virtual bool IsDfuModePerDevice() const = 0;
    // Takes its own reference to the enumerated activation object and drops it on return.
    virtual HRESULT Initialize(Microsoft::WRL::ComPtr<IMFActivate> activation) = 0;
};

// Any video-capture device: a name, a symbolic link and a media source. It refuses every
// firmware operation.
class CameraDevice : public ICameraDevice {
  public:
    CameraDevice() = default;
    ~CameraDevice() override;
    CameraDevice(const CameraDevice&) = delete;
    CameraDevice& operator=(const CameraDevice&) = delete;

    bool IsUpdatable() const override { return false; }
    HRESULT UpdateFirmware(const char* imagePath) override;
    HRESULT SwitchToDfu() override;
    HRESULT SetDfuAutoModeDisabled() override;
    HRESULT SetDfuAutoModeAuto() override;
    HRESULT SetDfuAutoModeServiceControlled() override;
    std::wstring GetName() const override { return name; }
    std::wstring GetSymbolicLink() const override { return symbolicLink; }
    std::wstring GetFirmwareVersion() const override { return L"No FW version"; }
    std::wstring GetDetails(bool withSymbolicLink) const override;
    std::int32_t GetDeviceType() const override { return 1; }
    bool IsDfuModePerDevice() const override { return false; }
    HRESULT Initialize(Microsoft::WRL::ComPtr<IMFActivate> enumerated) override;

  protected:
    // The device's own activation object, made from its symbolic link (not the enumerated one).
    Microsoft::WRL::ComPtr<IMFActivate> activation;
    Microsoft::WRL::ComPtr<IMFMediaSource> mediaSource;
    std::wstring name = L"Unknown";
    std::wstring symbolicLink = L"Unknown";
};
