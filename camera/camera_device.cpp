// SPDX-License-Identifier: Apache-2.0
#include "camera/camera_device.h"

#include <memory>

namespace {

struct TaskMemFree {
    void operator()(wchar_t* text) const { CoTaskMemFree(text); }
};
using TaskMemString = std::unique_ptr<wchar_t, TaskMemFree>;

HRESULT ReadString(IMFActivate* activation, REFGUID key, std::wstring& out) {
    wchar_t* raw = nullptr;
    UINT32 length = 0;
    const HRESULT status = activation->GetAllocatedString(key, &raw, &length);
    TaskMemString text(raw);
    if (status != S_OK) return status;
    out.assign(text ? text.get() : L"");
    return S_OK;
}

}  // namespace

CameraDevice::~CameraDevice() {
    // The source holds the device open until it is shut down; releasing it is not enough.
    if (mediaSource) mediaSource->Shutdown();
}

HRESULT CameraDevice::UpdateFirmware(const char*) {
    return E_FAIL;
}
HRESULT CameraDevice::SwitchToDfu() {
    return E_FAIL;
}
HRESULT CameraDevice::SetDfuAutoModeDisabled() {
    return E_FAIL;
}
HRESULT CameraDevice::SetDfuAutoModeAuto() {
    return E_FAIL;
}
HRESULT CameraDevice::SetDfuAutoModeServiceControlled() {
    return E_FAIL;
}

std::wstring CameraDevice::GetDetails(bool withSymbolicLink) const {
    std::wstring details = GetName();
    if (IsUpdatable()) details += L" (FW Version: " + GetFirmwareVersion() + L")";
    if (withSymbolicLink) details += L", Symbolic link: " + GetSymbolicLink();
    return details;
}

HRESULT CameraDevice::Initialize(Microsoft::WRL::ComPtr<IMFActivate> enumerated) {
    if (!enumerated) return E_POINTER;
    std::wstring link;
    HRESULT status =
        ReadString(enumerated.Get(), MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE_VIDCAP_SYMBOLIC_LINK, link);
    if (status != S_OK) return status;
    symbolicLink = std::move(link);
    std::wstring friendlyName;
    status = ReadString(enumerated.Get(), MF_DEVSOURCE_ATTRIBUTE_FRIENDLY_NAME, friendlyName);
    if (status != S_OK) return status;
    name = std::move(friendlyName);
    enumerated.Reset();

    // The enumerated object is not kept: the device gets an activation object of its own,
    // made from its symbolic link alone.
    Microsoft::WRL::ComPtr<IMFAttributes> store;
    status = MFCreateAttributes(store.GetAddressOf(), 2);
    if (status != S_OK) return status;
    if (!store) return E_FAIL;
    status = store->SetGUID(MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE,
                            MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE_VIDCAP_GUID);
    if (status != S_OK) return status;
    status = store->SetString(MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE_VIDCAP_SYMBOLIC_LINK,
                              symbolicLink.c_str());
    if (status != S_OK) return status;
    status = MFCreateDeviceSourceActivate(store.Get(), activation.ReleaseAndGetAddressOf());
    if (status != S_OK || !activation) return E_FAIL;
    return activation->ActivateObject(
        IID_IMFMediaSource, reinterpret_cast<void**>(mediaSource.ReleaseAndGetAddressOf()));
}
