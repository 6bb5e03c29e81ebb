// SPDX-License-Identifier: Apache-2.0
// lynx-dfu.exe: the tool over the real Windows device stack.
#include <windows.h>

#include <string>
#include <vector>

#include "app/command_line.h"
#include "platform/common/wide_stream.h"
#include "platform/interrupts.h"

int wmain(int argc, wchar_t** argv) {
    // Before anything can load a DLL: every later load by name, the system's own included
    // (COM servers, the dependencies of Media Foundation), searches system32 alone.
    // SetDefaultDllDirectories, LOAD_LIBRARY_SEARCH_SYSTEM32: "If this value is used,
    // %windows%\system32 is searched for the DLL and its dependencies." The application's
    // folder and the current directory, which a user may be able to write, are left out.
    SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
    // The arguments arrive as UTF-16 and are handled as UTF-8, as typed answers are.
    std::vector<std::string> args;
    for (int i = 1; i < argc; ++i) args.push_back(platform::WideToUtf8(argv[i]));
    const int status = RunProgram("lynx-dfu.exe", args);
    platform::EndByKeptBackInterrupt();
    return status;
}
