// SPDX-License-Identifier: Apache-2.0
#include "app/main_loop.h"

#include <iostream>
#include <string>

#include "app/commands.h"
#include "app/console_ops.h"
#include "platform/com.h"
#include "platform/console.h"
#include "platform/interrupts.h"
#include "platform/mf.h"

void ShowMainMenu() {
    PlaceConsoleWindow();
    ClearScreen();
    std::cout
        << kSeparatorLine << g_vendorPrefix
        << "Lynx Windows Device Firmware Update Tool for Vantrel Optyra Technology Main Menu\n"
        << "1: Update Camera Device.\n"
        << "2: Show camera devices that can be upgraded.\n"
        << "3: Recover devices stuck in Upgrade Mode.\n"
        << "4: Show connected camera device details.\n"
        << "5: Configure Lynx Series Windows Device Firmware Update Tool Settings (Can run "
           "with or without camera device connected).\n"
        << "Q: Quit\n"
        << "? ";
    std::cout.flush();
}

namespace {

// After a command that writes a camera: an interrupt kept back during the write ends the
// program now, without the pause and without another menu (false); otherwise the pause.
bool PauseUnlessInterrupted() {
    if (platform::InterruptKeptBack()) return false;
    Pause();
    return true;
}

}  // namespace

int RunLynxDfu() {
    platform::InitConsole();
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    // "An application must call this function before using Media Foundation. Before your
    // application quits, call MFShutdown once for every previous call to MFStartup." Where
    // Media Foundation is missing it fails, no camera is found, and nothing else changes.
    const HRESULT mediaFoundation = MFStartup(MF_VERSION, MFSTARTUP_LITE);
    ClearScreen();

    bool running = true;
    while (running) {
        ShowMainMenu();
        const std::string line = ReadLine();
        ClearScreen();
        if (line.empty()) {
            // With the input gone every answer would be empty: leave as Q would.
            if (InputEnded()) running = false;
            continue;
        }
        switch (line[0]) {
            case '1':
                UpdateCameraDevice();
                running = PauseUnlessInterrupted();
                break;
            case '2':
                ShowDevicesList(false, true, "Updatable Devices List");
                Pause();
                break;
            case '3':
                RecoverDfuDevices();
                running = PauseUnlessInterrupted();
                break;
            case '4':
                ShowSettingsMenu();
                break;
            case '5':
                ConfigureDfuMode();
                Pause();
                break;
            case 'Q':
            case 'q':
                running = false;
                break;
            default:
                break;
        }
    }
    std::cout.flush();
    if (SUCCEEDED(mediaFoundation)) MFShutdown();
    platform::RestoreConsole();
    return 0;
}
