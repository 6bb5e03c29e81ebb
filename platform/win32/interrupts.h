// SPDX-License-Identifier: Apache-2.0
// The console control handler that an InterruptHold adds while it lasts.
#pragma once

#include <windows.h>

namespace platform::win32 {

// A HandlerRoutine: TRUE (handled: kept back) for CTRL_C_EVENT and CTRL_BREAK_EVENT while a
// hold is alive, FALSE (passed on to the next handler) for everything else.
BOOL WINAPI KeepInterruptsBackWhileHeld(DWORD ctrlType);

}  // namespace platform::win32
