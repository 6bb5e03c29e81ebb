// lynx-dfu.exe: the tool over the real Windows device stack.
#include "app/main_loop.h"

int wmain() {
    return RunLynxDfu();
}
