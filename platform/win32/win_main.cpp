// lynx-dfu.exe: the tool over the real Windows device stack.
#include "app/main_loop.h"
#include "platform/interrupts.h"

int wmain() {
    const int status = RunLynxDfu();
    platform::EndByKeptBackInterrupt();
    return status;
}
