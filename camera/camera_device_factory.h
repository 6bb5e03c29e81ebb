// SPDX-License-Identifier: Apache-2.0
// Factories that turn one enumerated capture device into a camera device object.
#pragma once

#include <memory>

#include "camera/camera_device.h"

class ICameraDeviceFactory {
  public:
    virtual ~ICameraDeviceFactory() = default;
    // An empty pointer when this factory makes no device of that activation object. Takes its
    // own reference to the activation object and drops it on return.
    virtual std::shared_ptr<ICameraDevice> CreateDevice(
        Microsoft::WRL::ComPtr<IMFActivate> activation) = 0;
};

// The fallback: every device that initialises becomes a plain camera.
class CameraDeviceFactory final : public ICameraDeviceFactory {
  public:
    std::shared_ptr<ICameraDevice> CreateDevice(
        Microsoft::WRL::ComPtr<IMFActivate> activation) override;
};
