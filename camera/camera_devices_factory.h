// SPDX-License-Identifier: Apache-2.0
// The camera enumerator: every video-capture device of the two attribute sets, each made by
// the first family factory that claims it, or else by the plain fallback.
#pragma once

#include <list>
#include <memory>
#include <ostream>
#include <utility>
#include <vector>

#include "camera/camera_device_factory.h"
#include "diag/dfu_logger.h"
#include "platform/mf.h"

// One attribute set: (key, value) pairs that a device must match.
using DeviceSourceAttributeSet = std::vector<std::pair<GUID, GUID>>;

// Sensor-camera category first, then the default video-capture category.
extern const std::vector<DeviceSourceAttributeSet> DeviceSourceAttributeSets;

class CameraDevicesFactory : public DfuLogger {
  public:
    // The program's enumerator: the family factories of the updatable layer, then the plain
    // fallback. Defined in app/default_enumeration.cpp, where both layers are visible.
    explicit CameraDevicesFactory(std::ostream* log);
    CameraDevicesFactory(std::ostream* log,
                         std::list<std::shared_ptr<ICameraDeviceFactory>> familyFactories,
                         std::shared_ptr<ICameraDeviceFactory> fallbackFactory);

    // Enumerates afresh on every call. A platform failure ends the enumeration early and the
    // devices found until then are returned; nothing is printed.
    std::vector<std::shared_ptr<ICameraDevice>> GetDevices();

  private:
    std::list<std::shared_ptr<ICameraDeviceFactory>> familyFactories;
    std::shared_ptr<ICameraDeviceFactory> fallbackFactory;
};
