// SPDX-License-Identifier: Apache-2.0
// Log off and shut down held while a camera is being written: a hidden window of the
// program's own answers the session's end.
//
// Why a window: the console does not tell this program that the session ends. From
// SetConsoleCtrlHandler: "If a console application loads the gdi32.dll or user32.dll library,
// the HandlerRoutine function that you specify when you call SetConsoleCtrlHandler does not get
// called for the CTRL_LOGOFF_EVENT and CTRL_SHUTDOWN_EVENT events", and the program imports
// user32. The system asks the top-level windows instead, with WM_QUERYENDSESSION. A top-level
// window, not a message-only one (HWND_MESSAGE): a message-only window "does not receive
// broadcast messages", and the end of the session is one.
//
// Why a thread of its own: a window's messages reach it only while the thread that created it
// asks for them, and the main thread is busy writing the camera. ShutdownBlockReasonCreate and
// ShutdownBlockReasonDestroy: "This function can only be called from the thread that created
// the window specified by the hWnd parameter. Otherwise, the function fails and the last error
// code is ERROR_ACCESS_DENIED." So the holds post a message to that thread and the thread sets
// or clears the reason. The message carries nothing: the thread reads the state it should show,
// so a message that some other program sends changes nothing.
//
// Made at the first write, not at start: most runs (lists, settings, --help) write nothing and
// need neither a thread nor a window. Made once and kept: a later write finds it ready. Never
// ended: it holds nothing that outlives the process, ExitProcess ends it with every other
// thread, and so the program's end never waits for it.
#include "platform/win32/session_end_guard.h"

#include <windows.h>

#include <atomic>

namespace {

// From WM_APP up to 0xBFFF the messages are the application's own: none of the system's.
constexpr UINT kShowWritingState = WM_APP + 1;
// The window is made in a few milliseconds; a write does not wait longer than this for it.
constexpr DWORD kStartLimitMs = 5000;

std::atomic<bool> writing{false};
std::atomic<HWND> guardWindow{nullptr};
// What was last asked of the system; touched only by the window's thread.
bool reasonSet = false;

// Sets or clears the reason the shutdown screen shows, so that it matches the state. Each is
// asked once: a reason the system refuses leaves the refusal (WM_QUERYENDSESSION) in force,
// only without its text, and ShutdownBlockReasonDestroy without a reason "is a no-op".
void ShowWritingState(HWND window) {
    const bool wanted = writing.load();
    if (wanted == reasonSet) return;
    reasonSet = wanted;
    if (wanted) {
        ShutdownBlockReasonCreate(window, platform::win32::kWriteGuardReason);
    } else {
        ShutdownBlockReasonDestroy(window);
    }
}

LRESULT CALLBACK AnswerSessionEnd(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    switch (message) {
        case kShowWritingState:
            ShowWritingState(window);
            return 0;
        case WM_QUERYENDSESSION:
            // "Applications should respect the user's intentions and return TRUE. ... If shutting
            // down would corrupt the system or media that is being burned, the application can
            // return FALSE." A camera cut off in the middle of a write is such a medium.
            return writing.load() ? FALSE : TRUE;
        case WM_ENDSESSION:
            // wParam TRUE: "the session can end any time after all applications have returned
            // from processing this message". It ends even during a write when the user forces
            // it; nothing here can save the camera (it stays in DFU mode, ready for recovery),
            // and the console is left to the main thread. "If an application processes this
            // message, it should return zero."
        case WM_CLOSE:
            // Nobody closes the guard: DefWindowProc would destroy it on any program's request.
            return 0;
        default:
            return DefWindowProcW(window, message, wParam, lParam);
    }
}

DWORD WINAPI RunGuardWindow(void* started) {
    const HINSTANCE instance = GetModuleHandleW(nullptr);
    WNDCLASSEXW windowClass{};
    windowClass.cbSize = sizeof windowClass;
    windowClass.lpfnWndProc = AnswerSessionEnd;
    windowClass.hInstance = instance;
    windowClass.lpszClassName = platform::win32::kWriteGuardClass;
    HWND window = nullptr;
    if (RegisterClassExW(&windowClass) != 0) {
        // No WS_VISIBLE: it is never shown. No parent: top-level.
        window = CreateWindowExW(0, platform::win32::kWriteGuardClass, L"lynx-dfu", WS_OVERLAPPED,
                                 0, 0, 0, 0, nullptr, nullptr, instance, nullptr);
    }
    guardWindow.store(window);
    SetEvent(static_cast<HANDLE>(started));
    if (window == nullptr) return 0;
    // A hold that began while the window was being made posted nothing: catch up.
    ShowWritingState(window);
    MSG message;
    // GetMessageW gives -1 on an error, 0 for WM_QUIT.
    while (GetMessageW(&message, nullptr, 0, 0) > 0) DispatchMessageW(&message);
    return 0;
}

bool StartGuardWindow() {
    // Unnamed: no other program can open or signal it. Kept for the process's life, since the
    // thread may still set it after a wait that gave up.
    const HANDLE started = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (started == nullptr) return false;
    const HANDLE thread = CreateThread(nullptr, 0, RunGuardWindow, started, 0, nullptr);
    if (thread == nullptr) {
        CloseHandle(started);
        return false;
    }
    CloseHandle(thread);
    WaitForSingleObject(started, kStartLimitMs);
    return true;
}

}  // namespace

namespace platform::win32 {

void GuardSessionEnd(bool nowWriting) {
    // Stored before the window is looked at, and the thread stores the window before it reads
    // this: a hold never goes unseen by both.
    writing.store(nowWriting);
    static const bool started = StartGuardWindow();
    (void)started;
    if (const HWND window = guardWindow.load()) PostMessageW(window, kShowWritingState, 0, 0);
}

}  // namespace platform::win32
