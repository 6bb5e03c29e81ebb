#include <iostream>
#include <memory>
#include <string>

#include "app/commands.h"
#include "app/console_ops.h"
#include "camera/camera_devices_factory.h"
#include "platform/console.h"

void ShowDevicesList(bool detailed, bool updatableOnly, const std::string& title) {
    std::cout << kSeparatorLine << g_vendorPrefix << title << std::endl;
    CameraDevicesFactory enumerator(&std::cout);
    const auto devices = enumerator.GetDevices();
    std::wostream& out = platform::WideOut();
    int number = 1;
    for (const auto& device : devices) {
        if (updatableOnly && !device->IsUpdatable()) continue;
        out << L"[" << number << L"]" << device->GetDetails(detailed) << std::endl;
        ++number;
    }
    std::cout << std::endl;
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

// Key 5 comes with the DFU auto-mode setting.
void ConfigureDfuMode() {}
