// SPDX-License-Identifier: Apache-2.0
// Updating a camera in normal operation: file check, DFU auto mode off, restart in DFU mode,
// wait for the DFU-mode device, burn every one found.
#include <string>

#include "dfu/dfu_devices_factory.h"
#include "dfu/image_path.h"
#include "updatable/lynx_updatable_device.h"

namespace {

constexpr DWORD kDfuArrivalTimeoutMs = 10000;

std::string WithoutEnclosingQuotes(std::string path) {
    if (path.size() >= 2 && path.front() == '"' && path.back() == '"') {
        path = path.substr(1, path.size() - 2);
    }
    return path;
}

}  // namespace

HRESULT LynxUpdatableDevice::UpdateFirmware(const char* imagePath) {
    // A device made without a camera has no command channel: it can only write the setting.
    if (!commandPipe) return E_FAIL;
    burnedDfuDevices.clear();
    const std::string typedPath = imagePath ? imagePath : "";
    LogLine("Updating firmware to ", typedPath);

    const std::string path = WithoutEnclosingQuotes(typedPath);
    // Only a check: the DFU device reads the file itself when it burns it.
    if (!dfu::IsReadableImage(path)) {
        LogLine("Failed to open file ", path);
        return E_FAIL;
    }

    // A camera already on its way into DFU mode must not be switched again by the family's
    // own service while this program burns it.
    const HRESULT disabled = SetDfuAutoModeDisabled();
    if (disabled != 0) {
        LogText("Failed disable automatic DFU\n");
        return disabled;
    }

    // The camera leaves the bus as it obeys, so its answer is not looked at. The command goes
    // out here rather than through the virtual SwitchToDfu: a subclass may redefine what the
    // interface's switch does, but not what the update sends.
    commandPipe->SendCommand(kSwitchToDfuCommand, nullptr, 0, 1, 0, 0, 0);

    LynxDfuDevicesFactory discovery(log);
    const auto dfuDevices = discovery.GetDfuDevices(kDfuArrivalTimeoutMs);
    if (dfuDevices.empty()) {
        LogLine("No DFU device was connected ");
        return E_FAIL;
    }
    if (dfuDevices.size() > 1) {
        LogLine("More than one DFU device was found, updating all\n");
    }

    HRESULT status = S_OK;
    for (const auto& dfuDevice : dfuDevices) {
        burnedDfuDevices.push_back(dfuDevice->GetSymbolicLink());
        status = dfuDevice->Burn(typedPath.c_str());
        if (status != 0) LogLine("Failed to update device ", NarrowLow8(dfuDevice->GetName()));
    }
    return status;
}
