// SPDX-License-Identifier: Apache-2.0
#include "camera/camera_device_factory.h"

std::shared_ptr<ICameraDevice> CameraDeviceFactory::CreateDevice(
    Microsoft::WRL::ComPtr<IMFActivate> activation) {
    auto device = std::make_shared<CameraDevice>();
    if (device->Initialize(std::move(activation)) != S_OK) return nullptr;
    return device;
}
