// SPDX-License-Identifier: Apache-2.0
// The one place where the camera layer meets the layer above it: the camera enumeration is
// declared with its default family list in camera/, but the family's factory lives in
// updatable/, so the list is put together here, above both, and camera/ links alone.
#include "camera/camera_devices_factory.h"
#include "updatable/lynx_updatable_device.h"

CameraDevicesFactory::CameraDevicesFactory(std::ostream* log)
    : CameraDevicesFactory(log, {std::make_shared<LynxUpdatableDeviceFactory>()},
                           std::make_shared<CameraDeviceFactory>()) {}
