// SPDX-License-Identifier: Apache-2.0
// The console control handler that an InterruptHold adds while it lasts, and what decides the
// pause before a kept-back interrupt ends the program.
#pragma once

#include <windows.h>

namespace platform::win32 {

// A HandlerRoutine: TRUE (handled: kept back) for CTRL_C_EVENT and CTRL_BREAK_EVENT while a
// hold is alive, FALSE (passed on to the next handler) for everything else.
BOOL WINAPI KeepInterruptsBackWhileHeld(DWORD ctrlType);

// Whether the console is this program's alone and its input is typed there: then nobody else
// keeps the window open once the program ends.
bool ConsoleIsOwnAndTyped();

}  // namespace platform::win32
