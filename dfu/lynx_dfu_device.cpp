// SPDX-License-Identifier: Apache-2.0
#include "dfu/lynx_dfu_device.h"

#include <optional>

#include "dfu/device_watcher.h"
#include "dfu/dfu_command.h"
#include "dfu/win_usb_device.h"

const wchar_t* const kDfuWatcherName = L"DFU device watcher";
const wchar_t* const kLynxVendorToken = L"vid_3c5e";
const wchar_t* const kLynxDfuProductToken = L"pid_0f1c";

namespace {
constexpr std::uint32_t kConnectionTimeLimitMs = 10000;
constexpr std::uint64_t kFwStatusSize = 0;
}  // namespace

LynxDfuDevice::LynxDfuDevice(std::wstring link, std::ostream* log)
    : DfuLogger(log), symbolicLink(std::move(link)) {}

HRESULT LynxDfuDevice::WaitForConnection(std::uint32_t timeLimitMs) {
    std::optional<DeviceWatcher> storage;
    DeviceWatcher& watcher = CreateUsbDeviceWatcher(storage, kDfuWatcherName, kLynxVendorToken,
                                                    kLynxDfuProductToken, L"");
    const DWORD found = watcher.WaitForDevice(timeLimitMs, symbolicLink);
    storage.reset();
    return found == 0 ? S_OK : E_FAIL;
}

HRESULT LynxDfuDevice::Burn(const char* imagePath) {
    const HRESULT connected = WaitForConnection(kConnectionTimeLimitMs);
    if (connected != S_OK) {
        LogLine("DFU device", NarrowLow8(symbolicLink), " is not connected");
        return connected;
    }

    HRESULT status = E_FAIL;
    dfu::WinUsbDevice device(symbolicLink);
    if (!device.IsOpen()) {
        LogLine("Failed to connect to DFU interface with symbolic link", NarrowLow8(symbolicLink));
    } else if (auto endpoint = device.AcquireControlEndpoint(); endpoint == nullptr) {
        LogText("Failed to acquire endpoint\n");
    } else {
        dfu::DfuCommand command(log, std::move(endpoint), kFwStatusSize);
        status = command.ExecuteFile(imagePath);
    }
    device.Close();
    return status;
}
