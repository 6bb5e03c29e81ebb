// SPDX-License-Identifier: Apache-2.0
#include "updatable/lynx_updatable_device.h"

#include <string>

#include "platform/sync.h"

LynxUpdatableDevice::LynxUpdatableDevice() {
    name = L"Lynx";
}

// The pipe goes before the extension unit it talks through.
LynxUpdatableDevice::~LynxUpdatableDevice() {
    commandPipe.reset();
    extensionUnit.Reset();
}

HRESULT LynxUpdatableDevice::Initialize(Microsoft::WRL::ComPtr<IMFActivate> activation) {
    HRESULT status = CameraDevice::Initialize(std::move(activation));
    if (status != S_OK) return status;

    extensionUnit.Attach(ExtensionUnitKsControl::Create());
    if (!extensionUnit) return E_FAIL;
    status = extensionUnit->FindExtensionUnitNode(mediaSource);
    if (status != S_OK) return status;

    // A camera that does not answer yet is still a camera of the family; it shows 0.0.0.0.
    for (int attempt = 0; attempt < kPipeOpenAttempts; ++attempt) {
        commandPipe = std::make_shared<FirmwareCommandPipe>(
            Microsoft::WRL::ComPtr<IKsControl>(extensionUnit), kExtensionUnitGuid, 1);
        if (commandPipe->ReadResponse(deviceInfo.data(), kDeviceInfoCommand, kDeviceInfoSize, 0, 0,
                                      0, 0) == S_OK) {
            break;
        }
        Sleep(kPipeRetryDelayMs);
    }
    return S_OK;
}

std::wstring LynxUpdatableDevice::GetFirmwareVersion() const {
    return std::to_wstring(deviceInfo[15]) + L"." + std::to_wstring(deviceInfo[14]) + L"." +
           std::to_wstring(deviceInfo[13]) + L"." + std::to_wstring(deviceInfo[12]);
}

HRESULT LynxUpdatableDevice::SwitchToDfu() {
    if (!commandPipe) return E_FAIL;
    // The camera leaves the bus as it obeys, so its answer may never come.
    commandPipe->SendCommand(kSwitchToDfuCommand, nullptr, 0, 1, 0, 0, 0);
    return S_OK;
}

HRESULT LynxUpdatableDevice::SetDfuAutoModeDisabled() {
    return WriteDfuAutoMode(L"Disabled");
}
HRESULT LynxUpdatableDevice::SetDfuAutoModeAuto() {
    return WriteDfuAutoMode(L"Auto");
}
HRESULT LynxUpdatableDevice::SetDfuAutoModeServiceControlled() {
    return WriteDfuAutoMode(L"Service Controlled");
}

std::shared_ptr<ICameraDevice> LynxUpdatableDeviceFactory::CreateDevice(
    Microsoft::WRL::ComPtr<IMFActivate> activation) {
    auto device = std::make_shared<LynxUpdatableDevice>();
    if (device->Initialize(std::move(activation)) != S_OK) return nullptr;
    return device;
}

std::shared_ptr<ICameraDevice> CreateLynxUpdatableDevice() {
    return std::make_shared<LynxUpdatableDevice>();
}
