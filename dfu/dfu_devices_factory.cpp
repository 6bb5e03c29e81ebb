// SPDX-License-Identifier: Apache-2.0
#include "dfu/dfu_devices_factory.h"

#include <optional>

#include "dfu/device_watcher.h"

DfuDevicesFactory::DfuDevicesFactory(std::ostream* log) : IDfuDevicesFactory(log) {
    factories.push_back(std::make_shared<LynxDfuDevicesFactory>(log));
}

std::vector<std::shared_ptr<IDfuDevice>> DfuDevicesFactory::GetDfuDevices(std::uint32_t timeoutMs) {
    std::vector<std::shared_ptr<IDfuDevice>> result;
    for (const auto& factory : factories) {
        const auto found = factory->GetDfuDevices(timeoutMs);
        result.insert(result.end(), found.begin(), found.end());
    }
    return result;
}

std::vector<std::shared_ptr<IDfuDevice>> LynxDfuDevicesFactory::GetDfuDevices(
    std::uint32_t timeoutMs) {
    // Registered before anything is listed, so a device arriving from now on is not missed.
    std::optional<DeviceWatcher> storage;
    DeviceWatcher& watcher = CreateUsbDeviceWatcher(storage, kDfuWatcherName, kLynxVendorToken,
                                                    kLynxDfuProductToken, L"");
    if (timeoutMs != 0) {
        watcher.Refresh();
        // Ends at once when one is present, or on the first arrival (or removal) meanwhile.
        WaitForSingleObject(watcher.arrivalEvent, timeoutMs);
    }
    std::vector<std::shared_ptr<IDfuDevice>> result;
    for (const auto& entry : watcher.GetDevices()) {
        result.push_back(std::make_shared<LynxDfuDevice>(entry.symbolicLink, log));
    }
    return result;
}

std::shared_ptr<IDfuDevicesFactory> CreateDfuDevicesFactory(std::ostream* log) {
    return std::make_shared<DfuDevicesFactory>(log);
}
