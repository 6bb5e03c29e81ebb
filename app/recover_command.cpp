// SPDX-License-Identifier: Apache-2.0
#include <cstdint>
#include <iostream>
#include <string>

#include "app/commands.h"
#include "app/console_ops.h"
#include "dfu/dfu_devices_factory.h"
#include "platform/console.h"
#include "platform/interrupts.h"

void RecoverDfuDevices() {
    std::cout << kSeparatorLine << g_vendorPrefix << "Recovering devices from DFU\n";
    const auto enumerator = CreateDfuDevicesFactory(&std::cout);
    // What is plugged in now is what is offered; nothing is waited for.
    const auto devices = enumerator->GetDfuDevices(0);
    if (devices.empty()) {
        std::cout << "No devices are stuck in DFU mode\n";
        return;
    }
    ListByName(devices);
    const std::int64_t index =
        AskNumber("Select a device by index (invalid index to go back to main menu): ");
    if (!NamesEntry(index, devices.size())) {
        std::cout << "Invalid index " << index << '\n';
        return;
    }
    std::cout << "Enter path and filename (e.g. c:\\Documents\\newFirmware.bin: )";
    std::cout.flush();
    const std::string path = ReadLine();
    // The device and the protocol report progress and failures themselves. Nothing may cut
    // the burn in half.
    const platform::InterruptHold hold;
    devices[static_cast<std::size_t>(index - 1)]->Burn(path.c_str());
}
