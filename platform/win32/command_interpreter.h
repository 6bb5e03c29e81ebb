// SPDX-License-Identifier: Apache-2.0
// How the console's "cls" and "pause" start the command interpreter.
#pragma once

#include <string>

namespace platform::win32 {

struct CommandInterpreterCall {
    std::wstring application;  // the system directory's cmd.exe, by full path
    std::wstring commandLine;  // with AutoRun off, running one built-in command
    std::wstring directory;    // the system directory, as the current directory
};

// Empty when the system directory cannot be found.
CommandInterpreterCall CommandInterpreter(const wchar_t* command);

}  // namespace platform::win32
