// SPDX-License-Identifier: Apache-2.0
// The console control handler of the interrupt hold, as the system calls it: Ctrl+C and
// Ctrl+Break kept back while a hold lasts, every event passed on otherwise. (Without a console,
// as here, GenerateConsoleCtrlEvent fails, so the routine is called as the system's thread
// would; the smoke test sends a real Ctrl+C on a console.) And the hidden window that answers
// the session's end, asked as the system asks it.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "platform/interrupts.h"
#include "platform/win32/interrupts.h"
#include "platform/win32/session_end_guard.h"

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

// What the window answers when the session is to end for this reason: FALSE refuses.
LRESULT AskToEndSession(HWND window, LPARAM why) {
    DWORD_PTR answer = 0xBAD;
    EXPECT_NE(
        SendMessageTimeoutW(window, WM_QUERYENDSESSION, 0, why, SMTO_ABORTIFHUNG, 5000, &answer), 0)
        << "the guard window did not answer within 5 s";
    return static_cast<LRESULT>(answer);
}

TEST(InterruptsOnWindows, LogOffAndShutDownAreRefusedOnlyDuringAHold) {
    // lParam of WM_QUERYENDSESSION: 0 for a shut down or restart, or these bits.
    const LPARAM reasons[] = {0, static_cast<LPARAM>(ENDSESSION_LOGOFF), ENDSESSION_CLOSEAPP};
    HWND window = nullptr;
    {
        const platform::InterruptHold hold;
        // Made by the time the hold has begun, and found as the system finds it: a top-level
        // window (a message-only one would miss the broadcast), never shown.
        window = FindWindowW(platform::win32::kWriteGuardClass, nullptr);
        ASSERT_NE(window, nullptr);
        EXPECT_EQ(GetAncestor(window, GA_PARENT), GetDesktopWindow());
        EXPECT_FALSE(IsWindowVisible(window));
        EXPECT_NE(GetWindowThreadProcessId(window, nullptr), GetCurrentThreadId())
            << "the window must pump on a thread of its own";
        {
            const platform::InterruptHold nested;
        }
        for (const LPARAM why : reasons) EXPECT_EQ(AskToEndSession(window, why), FALSE) << why;
        // Another program may send the window WM_CLOSE; it stays.
        SendMessageTimeoutW(window, WM_CLOSE, 0, 0, SMTO_ABORTIFHUNG, 5000, nullptr);
        EXPECT_TRUE(IsWindow(window));
    }
    // Kept for the next write, and letting the session end until then.
    EXPECT_EQ(FindWindowW(platform::win32::kWriteGuardClass, nullptr), window);
    for (const LPARAM why : reasons) EXPECT_EQ(AskToEndSession(window, why), TRUE) << why;
    {
        const platform::InterruptHold again;
        EXPECT_EQ(FindWindowW(platform::win32::kWriteGuardClass, nullptr), window);
        EXPECT_EQ(AskToEndSession(window, 0), FALSE);
    }
}

TEST(InterruptsOnWindows, WithoutAConsoleNothingWaitsForAKey) {
    // The unit tests run with standard input from nowhere and no console (wine-run.sh), as a
    // deployment tool starts the program: a pause there would wait for ever.
    EXPECT_FALSE(platform::win32::ConsoleIsOwnAndTyped());
}

}  // namespace
