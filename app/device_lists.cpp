// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstdint>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "app/commands.h"
#include "app/console_ops.h"
#include "camera/camera_devices_factory.h"
#include "platform/console.h"
#include "updatable/lynx_updatable_device.h"

void ShowDevicesList(bool detailed, bool updatableOnly, const std::string& title) {
    std::cout << kSeparatorLine << g_vendorPrefix << title << '\n';
    CameraDevicesFactory enumerator(&std::cout);
    const auto devices = enumerator.GetDevices();
    std::wostream& out = platform::WideOut();
    int number = 1;
    for (const auto& device : devices) {
        if (updatableOnly && !device->IsUpdatable()) continue;
        out << L"[" << number << L"]" << device->GetDetails(detailed) << L'\n';
        ++number;
    }
    std::cout << '\n';
}

void ShowSettingsMenu() {
    while (true) {
        ClearScreen();
        std::cout << kSeparatorLine << g_vendorPrefix
                  << "Configure Lynx Series Windows Device Firmware Update Tool Settings (Can run "
                     "with or without camera device connected).\n"
                  << "1: Show all camera devices.\n"
                  << "2: Show all camera devices details.\n"
                  << "B: Back to main menu.\n"
                  << "? ";
        std::cout.flush();
        const std::string line = ReadLine();
        ClearScreen();
        if (line.empty()) {
            // With the input gone every answer would be empty: go back as B would.
            if (InputEnded()) return;
            continue;
        }
        switch (line[0]) {
            case '1':
                ShowDevicesList(false, false, "All Cameras List (including non Vantrel)");
                Pause();
                break;
            case '2':
                ShowDevicesList(true, false, "Detailed All Cameras List (including non Vantrel)");
                Pause();
                break;
            case 'B':
            case 'b':
                return;
            default:
                break;
        }
    }
}

void ConfigureDfuMode() {
    std::cout << kSeparatorLine << g_vendorPrefix << "Configure DFU mode:\n";
    CameraDevicesFactory enumerator(&std::cout);
    auto devices = enumerator.GetDevices();
    // The family is always offered, so the setting can be changed with no camera attached.
    devices.push_back(CreateLynxUpdatableDevice());

    // One entry per device type, unless a type keeps a setting per device.
    std::vector<std::shared_ptr<ICameraDevice>> entries;
    for (const auto& device : devices) {
        if (!device->IsUpdatable()) continue;
        const bool typeListed = std::any_of(entries.begin(), entries.end(), [&](const auto& entry) {
            return entry->GetDeviceType() == device->GetDeviceType();
        });
        if (device->IsDfuModePerDevice() || !typeListed) entries.push_back(device);
    }
    if (entries.empty()) {
        std::cout << "No cameras to config\n";
        return;
    }

    ListByName(entries);
    const std::int64_t number = AskNumber(
        "\nEnter camera number to config: (any out of bounds index to go back to main menu)");
    if (!NamesEntry(number, entries.size())) {
        std::cout << "Invalid camera number\n";
        return;
    }
    const auto& chosen = entries[static_cast<std::size_t>(number - 1)];

    const std::int64_t choice = AskNumber(
        "Enter 1 to enable service control, 2 to disable auto (any other key to return to main "
        "menu): ");
    // The outcome is reported, if at all, by the device itself through its logger stream.
    switch (choice) {
        case 1:
            chosen->SetDfuAutoModeServiceControlled();
            break;
        case 2:
            chosen->SetDfuAutoModeDisabled();
            break;
        default:
            break;
    }
}
