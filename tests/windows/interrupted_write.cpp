// SPDX-License-Identifier: Apache-2.0
// A write that a Ctrl+C interrupts, gone through as the program goes through one: the console
// taken, a hold, the Ctrl+C, the last line, the console given back, the end by the kept-back
// interrupt. The Ctrl+C is a real one, sent to every process of the console; with --handler the
// hold's handler is called as the system's thread calls it, which leaves the console's other
// processes alone (Wine's cmd.exe, unlike Windows', ends on a Ctrl+C while it waits for a
// program). The smoke test runs it on a console of its own and on one shared with cmd.exe, and
// watches the guard window's calls.
#include <windows.h>

#include <iostream>
#include <string>

#include "platform/console.h"
#include "platform/interrupts.h"
#include "platform/win32/interrupts.h"

int wmain(int argc, wchar_t** argv) {
    const bool byHandler = argc > 1 && std::wstring(argv[1]) == L"--handler";
    platform::InitConsole();
    {
        const platform::InterruptHold hold;
        if (byHandler) {
            platform::win32::KeepInterruptsBackWhileHeld(CTRL_C_EVENT);
        } else if (GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0)) {
            // Fails without a console (standard input from a pipe): then nothing is kept back.
            // The handler runs on a thread the system makes; give it up to five seconds.
            for (int i = 0; i < 100 && !platform::InterruptKeptBack(); ++i) Sleep(50);
        }
        std::cout << (platform::InterruptKeptBack() ? "Ctrl+C kept back" : "no Ctrl+C") << '\n'
                  << "Downloaded 4096 bytes, bytes remaining 0\n";
    }
    platform::RestoreConsole();
    platform::EndByKeptBackInterrupt();
    std::cout << "ended without an interrupt\n";
    return 0;
}
