// SPDX-License-Identifier: Apache-2.0
#include <cstdint>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "app/commands.h"
#include "app/console_ops.h"
#include "camera/camera_devices_factory.h"
#include "platform/console.h"
#include "platform/interrupts.h"

void UpdateCameraDevice() {
    std::cout << kSeparatorLine << g_vendorPrefix << "Firmware Update:\n";
    CameraDevicesFactory enumerator(&std::cout);
    const auto devices = enumerator.GetDevices();

    std::vector<std::shared_ptr<ICameraDevice>> updatable;
    std::wostream& out = platform::WideOut();
    for (const auto& device : devices) {
        if (!device->IsUpdatable()) continue;
        out << L"[" << (updatable.size() + 1) << L"] " << device->GetDetails(false) << L'\n';
        updatable.push_back(device);
    }
    if (updatable.empty()) {
        std::cout << "There are no updatable devices\n";
        return;
    }

    const std::int64_t number = AskNumber(
        "\nEnter camera number to update: (any out of bounds index to go back to main menu)");
    if (!NamesEntry(number, updatable.size())) {
        std::cout << "Aborting FW update\n";
        return;
    }

    std::cout << "Enter path and filename (e.g. c:\\Documents\\newFirmware.bin: )";
    std::cout.flush();
    const std::string path = ReadLine();
    HRESULT status = S_OK;
    {
        // From the switch into DFU mode to the end of the last burn, nothing may cut the
        // camera's update in half.
        const platform::InterruptHold hold;
        status = updatable[static_cast<std::size_t>(number - 1)]->UpdateFirmware(path.c_str());
    }
    if (status != 0) std::cout << "Failed to burn firmware\n";
}
