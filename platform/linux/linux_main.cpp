// SPDX-License-Identifier: Apache-2.0
// lynx-dfu on Linux: the tool over the machine's real devices.
#include <csignal>
#include <string>
#include <vector>

#include "app/command_line.h"
#include "platform/interrupts.h"
#include "platform/linux/linux_backend.h"

int main(int argc, char** argv) {
    // A reader that goes away (a pager, `head`) must not kill the program in the middle of a
    // firmware download: failed writes are simply lost, as on a closed console.
    std::signal(SIGPIPE, SIG_IGN);
    platform::InstallBackend(platform::linux_hw::CreateLinuxBackend());
    const int status = RunProgram("lynx-dfu", std::vector<std::string>(argv + 1, argv + argc));
    platform::InstallBackend(nullptr);
    platform::EndByKeptBackInterrupt();
    return status;
}
