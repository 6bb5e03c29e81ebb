// SPDX-License-Identifier: Apache-2.0
#include "camera/camera_devices_factory.h"

#include "platform/ks.h"

const std::vector<DeviceSourceAttributeSet> DeviceSourceAttributeSets = {
    {{MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE, MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE_VIDCAP_GUID},
     {MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE_VIDCAP_CATEGORY, KSCATEGORY_SENSOR_CAMERA}},
    {{MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE, MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE_VIDCAP_GUID}},
};

namespace {

// The array MFEnumDeviceSources hands out: every entry still in it is released, and the
// array freed, however the enumeration is left.
class ActivationArray {
  public:
    ActivationArray() = default;
    ActivationArray(const ActivationArray&) = delete;
    ActivationArray& operator=(const ActivationArray&) = delete;
    ~ActivationArray() {
        if (items == nullptr) return;
        for (UINT32 i = 0; i < count; ++i) {
            if (items[i] != nullptr) items[i]->Release();
        }
        CoTaskMemFree(static_cast<void*>(items));
    }

    // Takes over the array's reference to one entry.
    Microsoft::WRL::ComPtr<IMFActivate> Take(UINT32 index) {
        Microsoft::WRL::ComPtr<IMFActivate> item;
        item.Attach(items[index]);
        items[index] = nullptr;
        return item;
    }

    IMFActivate** items = nullptr;
    UINT32 count = 0;
};

}  // namespace

CameraDevicesFactory::CameraDevicesFactory(
    std::ostream* log, std::list<std::shared_ptr<ICameraDeviceFactory>> familyFactories,
    std::shared_ptr<ICameraDeviceFactory> fallbackFactory)
    : DfuLogger(log),
      familyFactories(std::move(familyFactories)),
      fallbackFactory(std::move(fallbackFactory)) {}

std::vector<std::shared_ptr<ICameraDevice>> CameraDevicesFactory::GetDevices() {
    std::vector<std::shared_ptr<ICameraDevice>> devices;
    for (const auto& attributeSet : DeviceSourceAttributeSets) {
        Microsoft::WRL::ComPtr<IMFAttributes> store;
        if (MFCreateAttributes(store.GetAddressOf(), 1) != S_OK || !store) break;
        for (const auto& [key, value] : attributeSet) store->SetGUID(key, value);

        ActivationArray found;
        if (MFEnumDeviceSources(store.Get(), &found.items, &found.count) != S_OK) break;
        for (UINT32 i = 0; i < found.count; ++i) {
            Microsoft::WRL::ComPtr<IMFActivate> activation = found.Take(i);
            if (!activation) continue;
            std::shared_ptr<ICameraDevice> device;
            for (const auto& factory : familyFactories) {
                device = factory->CreateDevice(activation);
                if (device) break;
            }
            if (!device && fallbackFactory) device = fallbackFactory->CreateDevice(activation);
            if (!device) continue;
            device->SetLog(log);
            devices.push_back(std::move(device));
        }
    }
    return devices;
}
