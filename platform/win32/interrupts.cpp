// SPDX-License-Identifier: Apache-2.0
// Ctrl+C and Ctrl+Break kept back while a camera is being written.
//
// The rules of the console that drive this file, from SetConsoleCtrlHandler and
// HandlerRoutine:
// - "When the signal is received, the system creates a new thread in the process to execute
//   the function": the handler touches nothing but two atomics.
// - "Initially, the handler list for each process contains only a default handler function
//   that calls ExitProcess." Handlers are called "on a last-registered, first-called basis
//   until one of the handlers returns TRUE. If none of the handlers returns TRUE, the
//   default handler is called." So the handler is added when the first hold begins, after
//   every handler the program had already (the console's, which puts the code page back),
//   and called before them; returning FALSE passes an event on to them and to the default.
// - For a closed console window (CTRL_CLOSE_EVENT), "Return TRUE. In this case, no other
//   handler functions are called and the process terminates": the system ends the process
//   a few seconds later whatever the handler returns, so a closing window cannot be held
//   back and is passed on like any event other than Ctrl+C and Ctrl+Break.
#include <windows.h>

#include <atomic>

#include "platform/win32/interrupts.h"

#include "platform/interrupts.h"

namespace {

std::atomic<int> holds{0};
std::atomic<bool> keptBack{false};

}  // namespace

namespace platform::win32 {

BOOL WINAPI KeepInterruptsBackWhileHeld(DWORD ctrlType) {
    if ((ctrlType == CTRL_C_EVENT || ctrlType == CTRL_BREAK_EVENT) && holds.load() > 0) {
        keptBack.store(true);
        return TRUE;
    }
    return FALSE;
}

}  // namespace platform::win32

namespace platform {

InterruptHold::InterruptHold() {
    if (holds.fetch_add(1) == 0) SetConsoleCtrlHandler(win32::KeepInterruptsBackWhileHeld, TRUE);
}

InterruptHold::~InterruptHold() {
    if (holds.fetch_sub(1) == 1) SetConsoleCtrlHandler(win32::KeepInterruptsBackWhileHeld, FALSE);
}

bool InterruptKeptBack() {
    return keptBack.load();
}

void EndByKeptBackInterrupt() {
    // What the default handler would have done with the Ctrl+C or Ctrl+Break.
    if (keptBack.load()) ExitProcess(STATUS_CONTROL_C_EXIT);
}

}  // namespace platform
