// SPDX-License-Identifier: Apache-2.0
// Ctrl+C and Ctrl+Break kept back while a camera is being written, log off and shut down held
// (session_end_guard.cpp), and the end a kept-back interrupt asks for.
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

#include "platform/common/real_calls.h"
#include "platform/console.h"
#include "platform/interrupts.h"
#include "platform/win32/session_end_guard.h"

namespace {

std::atomic<int> holds{0};
std::atomic<bool> keptBack{false};

}  // namespace

namespace platform::win32 {

bool ConsoleIsOwnAndTyped() {
    // GetConsoleProcessList: "If the function succeeds, the return value is less than or equal
    // to dwProcessCount and represents the number of process identifiers stored in the buffer.
    // If the buffer is too small to hold all the valid process identifiers, the return value is
    // the required number of array elements." With room for one, 1 is this process alone: the
    // console was made for it (started from Explorer) and closes when it ends. More is a
    // console shared with the shell it was typed in, which stays; 0, no console at all.
    DWORD processes[1];
    if (GetConsoleProcessList(processes, 1) != 1) return false;
    // The pause waits for a key from the standard input: only a console's has an operator
    // behind it (a pipe may stay open and silent for ever).
    DWORD mode = 0;
    const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
    return input != nullptr && input != INVALID_HANDLE_VALUE && GetConsoleMode(input, &mode);
}

BOOL WINAPI KeepInterruptsBackWhileHeld(DWORD ctrlType) {
    if ((ctrlType == CTRL_C_EVENT || ctrlType == CTRL_BREAK_EVENT) && holds.load() > 0) {
        keptBack.store(true);
        return TRUE;
    }
    return FALSE;
}

}  // namespace platform::win32

namespace platform::real {

void HoldInterrupts() {
    if (holds.fetch_add(1) != 0) return;
    SetConsoleCtrlHandler(win32::KeepInterruptsBackWhileHeld, TRUE);
    win32::GuardSessionEnd(true);
}

void ReleaseInterrupts() {
    if (holds.fetch_sub(1) != 1) return;
    win32::GuardSessionEnd(false);
    SetConsoleCtrlHandler(win32::KeepInterruptsBackWhileHeld, FALSE);
}

bool InterruptKeptBack() {
    return keptBack.load();
}

void EndByKeptBackInterrupt() {
    if (!keptBack.load()) return;
    // A console of the program's own closes with it, taking the last lines (was the camera
    // written?) with it before anyone has read them: the system's pause, as the menus take it,
    // keeps them on screen. By now the hold's handler is gone and the console's code page is
    // back (main gave the console back before coming here), so a second Ctrl+C at the pause
    // reaches the default handler, which ends the process with the same code as below.
    if (win32::ConsoleIsOwnAndTyped()) PauseConsole();
    // What the default handler would have done with the Ctrl+C or Ctrl+Break.
    ExitProcess(STATUS_CONTROL_C_EXIT);
}

}  // namespace platform::real
