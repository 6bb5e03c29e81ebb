// SPDX-License-Identifier: Apache-2.0
// Log off and shut down held while a camera is being written.
#pragma once

#include <windows.h>

namespace platform::win32 {

// The class of the hidden window that answers the session's end: fixed, so that an operator's
// tools (and the tests) can find the window. The class is the process's own (registered
// without CS_GLOBALCLASS) and the program never looks a window up by this name, so another
// program's window of the same class changes nothing here.
inline constexpr wchar_t kWriteGuardClass[] = L"LynxDfuWriteGuard";

// What Windows shows on its shutdown screen beside the program while a write lasts.
inline constexpr wchar_t kWriteGuardReason[] =
    L"Writing camera firmware: do not turn off or log off";

// Called when the first hold begins (true) and when the last one ends (false). The first call
// starts the window's thread and waits, at most a few seconds, until the window exists.
void GuardSessionEnd(bool writing);

}  // namespace platform::win32
