// The Windows console: the command interpreter's cls and pause, UTF-8 output, Unicode answers.
#include <windows.h>

#include <cstdlib>
#include <iostream>
#include <iterator>
#include <string>

#include "platform/common/answer_line.h"
#include "platform/common/wide_stream.h"
#include "platform/console.h"

namespace {

// The console's output code page before InitConsole changed it; 0 when there was none.
UINT savedOutputCodePage = 0;
bool inputEnded = false;

// Ctrl+C, Ctrl+Break and closing the window end the process without a return from main; the
// operator's window gets its code page back all the same. The handler runs on a thread of
// its own, so it touches nothing but the code page.
BOOL WINAPI PutBackCodePage(DWORD) {
    SetConsoleOutputCP(savedOutputCodePage);
    return FALSE;  // the next handler, the system's, ends the process as usual
}

// "ReadConsole and WriteConsole can only be used with console handles; ReadFile and WriteFile
// can be used with other handles (such as files or pipes). ReadConsole and WriteConsole fail
// if used with a standard handle that has been redirected and is no longer a console
// handle." GetConsoleMode succeeds only for a console handle.
bool IsConsole(HANDLE input) {
    DWORD mode = 0;
    return input != nullptr && input != INVALID_HANDLE_VALUE && GetConsoleMode(input, &mode);
}

}  // namespace

namespace platform {

void InitConsole() {
    // Wide text goes out as UTF-8 through the narrow stream, so the console must show UTF-8.
    // The code page belongs to the console window, which outlives this program: it is put
    // back at the end. GetConsoleOutputCP gives 0 when it fails (no console).
    savedOutputCodePage = GetConsoleOutputCP();
    if (savedOutputCodePage == 0) return;
    SetConsoleOutputCP(CP_UTF8);
    SetConsoleCtrlHandler(PutBackCodePage, TRUE);
}

void RestoreConsole() {
    std::cout.flush();
    if (savedOutputCodePage == 0) return;
    SetConsoleCtrlHandler(PutBackCodePage, FALSE);
    SetConsoleOutputCP(savedOutputCodePage);
}

bool ReadConsoleLine(std::string& line) {
    line.clear();
    if (inputEnded) return false;
    const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
    if (!IsConsole(input)) {
        // Redirected input is taken as UTF-8 bytes, as the lab and the Linux program take it.
        if (ReadAnswerLine(std::cin, line)) return true;
        inputEnded = true;
        return false;
    }
    // Typed text as Unicode: the console's input code page (OEM) cannot hold every path.
    // With line input on (the default), ReadConsoleW returns once Enter is pressed; a line
    // longer than the buffer comes in several reads, the rest being kept for the next one.
    std::wstring typed;
    wchar_t chunk[256];
    while (typed.empty() || typed.back() != L'\n') {
        DWORD count = 0;
        if (!ReadConsoleW(input, chunk, static_cast<DWORD>(std::size(chunk)), &count, nullptr) ||
            count == 0) {
            break;
        }
        typed.append(chunk, count);
    }
    // Ctrl+Z at the start of a line is the end of the input, as the C runtime reads it.
    if (typed.empty() || typed.front() == L'\x1A') {
        inputEnded = true;
        return false;
    }
    line = AnswerFromConsoleText(typed);
    return true;
}

bool ConsoleInputEnded() {
    return inputEnded;
}

void ClearConsole() {
    std::cout.flush();
    std::system("cls");
}

void PauseConsole() {
    std::cout.flush();
    std::system("pause");
}

std::wostream& WideOut() {
    static Utf8WideStreamBuf buffer(std::cout);
    static std::wostream stream(&buffer);
    return stream;
}

}  // namespace platform
