// lynx-dfu on Linux: the tool over the machine's real devices.
#include "app/main_loop.h"
#include "platform/linux/linux_backend.h"

int main() {
    platform::InstallBackend(platform::linux_hw::CreateLinuxBackend());
    const int status = RunLynxDfu();
    platform::InstallBackend(nullptr);
    return status;
}
