// lynx-dfu.exe: the tool over the real Windows device stack.
#include <windows.h>

#include "app/main_loop.h"
#include "platform/interrupts.h"

int wmain() {
    // Before anything can load a DLL: every later load by name, the system's own included
    // (COM servers, the dependencies of Media Foundation), searches system32 alone.
    // SetDefaultDllDirectories, LOAD_LIBRARY_SEARCH_SYSTEM32: "If this value is used,
    // %windows%\system32 is searched for the DLL and its dependencies." The application's
    // folder and the current directory, which a user may be able to write, are left out.
    SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
    const int status = RunLynxDfu();
    platform::EndByKeptBackInterrupt();
    return status;
}
