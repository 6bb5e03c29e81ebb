// SPDX-License-Identifier: Apache-2.0
// The console control handler of the interrupt hold, as the system calls it: Ctrl+C and
// Ctrl+Break kept back while a hold lasts, every event passed on otherwise. (Wine 8 refuses
// GenerateConsoleCtrlEvent here, so the routine is called as the system's thread would.)
#include <windows.h>

#include <gtest/gtest.h>

#include "platform/interrupts.h"
#include "platform/win32/interrupts.h"

namespace {

using platform::win32::KeepInterruptsBackWhileHeld;

TEST(InterruptsOnWindows, CtrlCAndCtrlBreakAreKeptBackOnlyDuringAHold) {
    // TRUE: handled, no other handler runs; FALSE: the next handler (in the end the default,
    // which ends the process) gets the event.
    for (const DWORD event : {CTRL_C_EVENT, CTRL_BREAK_EVENT, CTRL_CLOSE_EVENT}) {
        EXPECT_FALSE(KeepInterruptsBackWhileHeld(event)) << "event " << event;
    }
    EXPECT_FALSE(platform::InterruptKeptBack());
    {
        const platform::InterruptHold hold;
        {
            const platform::InterruptHold nested;
        }
        // The hold added the routine to the console's list (removing it succeeds) and the
        // end of the nested hold did not take it away.
        EXPECT_TRUE(SetConsoleCtrlHandler(KeepInterruptsBackWhileHeld, FALSE));
        SetConsoleCtrlHandler(KeepInterruptsBackWhileHeld, TRUE);
        // A closing window cannot be held: it is passed on.
        EXPECT_FALSE(KeepInterruptsBackWhileHeld(CTRL_CLOSE_EVENT));
        EXPECT_FALSE(platform::InterruptKeptBack());
        EXPECT_TRUE(KeepInterruptsBackWhileHeld(CTRL_BREAK_EVENT));
        EXPECT_TRUE(KeepInterruptsBackWhileHeld(CTRL_C_EVENT));
        EXPECT_TRUE(platform::InterruptKeptBack());
    }
    // The end of the last hold took the routine off the list, and events pass on again.
    EXPECT_FALSE(SetConsoleCtrlHandler(KeepInterruptsBackWhileHeld, FALSE));
    EXPECT_FALSE(KeepInterruptsBackWhileHeld(CTRL_C_EVENT));
}

}  // namespace
