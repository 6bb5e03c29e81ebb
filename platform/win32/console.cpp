// SPDX-License-Identifier: Apache-2.0
// The Windows console: the command interpreter's cls and pause, UTF-8 output, Unicode answers.
#include <windows.h>

#include <algorithm>
#include <iostream>
#include <iterator>
#include <string>

#include "platform/common/answer_line.h"
#include "platform/common/real_calls.h"
#include "platform/common/wide_stream.h"
#include "platform/console.h"
#include "platform/win32/command_interpreter.h"

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

// An inheritable copy of one of this process's handles for a child's standard handle
// (STARTF_USESTDHANDLES: "the handles must be inheritable"); null for none.
HANDLE InheritableCopy(HANDLE handle) {
    HANDLE copy = nullptr;
    if (handle == nullptr || handle == INVALID_HANDLE_VALUE ||
        !DuplicateHandle(GetCurrentProcess(), handle, GetCurrentProcess(), &copy, 0, TRUE,
                         DUPLICATE_SAME_ACCESS)) {
        return nullptr;
    }
    return copy;
}

// What the interpreter writes to a standard output that is not a console, passed on through
// the program's own stream: in its place among the program's lines, and seen by a recording
// as the output of the clear or the pause that wrote it. Line ends go in as the stream's
// own ('\n'); the C runtime's text mode writes them out as CR LF again.
class InterpreterOutput {
  public:
    // Whether the pipe was made; the write end goes to the interpreter.
    bool Open() {
        SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
        if (!CreatePipe(&read_, &write_, &inherited, 0)) return false;
        // Only the write end is the child's.
        SetHandleInformation(read_, HANDLE_FLAG_INHERIT, 0);
        return true;
    }
    HANDLE WriteEnd() const { return write_; }
    // Once the child has its copy.
    void CloseWriteEnd() {
        platform::real::CloseHandle(write_);
        write_ = nullptr;
    }
    // Passes on what has arrived, without waiting for more.
    void PassOn() {
        DWORD available = 0;
        while (PeekNamedPipe(read_, nullptr, 0, nullptr, &available, nullptr) && available > 0) {
            char chunk[512];
            DWORD count = 0;
            if (!platform::real::ReadFile(read_, chunk, std::min<DWORD>(available, sizeof chunk),
                                          &count, nullptr) ||
                count == 0) {
                break;
            }
            pending_.append(chunk, count);
        }
        std::string text;
        for (std::size_t i = 0; i < pending_.size(); ++i) {
            if (pending_[i] == '\r' && i + 1 == pending_.size()) break;  // LF may follow
            if (pending_[i] == '\r' && pending_[i + 1] == '\n') continue;
            text += pending_[i];
        }
        pending_.erase(0, pending_.size() - (pending_.ends_with('\r') ? 1 : 0));
        if (!text.empty()) std::cout.write(text.data(), static_cast<std::streamsize>(text.size()));
        std::cout.flush();
    }
    ~InterpreterOutput() {
        if (!pending_.empty()) std::cout.write(pending_.data(), 1);
        if (write_ != nullptr) platform::real::CloseHandle(write_);
        if (read_ != nullptr) platform::real::CloseHandle(read_);
    }

  private:
    HANDLE read_ = nullptr;
    HANDLE write_ = nullptr;
    std::string pending_;
};

// How often the interpreter's output is passed on while it runs: the pause's prompt shows
// before the key it waits for.
constexpr DWORD kOutputPollMs = 50;

// Runs the system's cmd.exe with one built-in command and waits for it, at most `limit`.
// Its calls are the system's own (platform::real): they are no calls of the program's.
// Not the C runtime's system: "system uses the COMSPEC and PATH environment variables to
// locate the command-interpreter file CMD.exe", and any user may set COMSPEC for the
// session (HKCU\Environment), which this elevated process inherits. Nor cmd.exe as system
// starts it, "cmd /c": cmd first runs the command in HKCU\Software\Microsoft\Command
// Processor\AutoRun, which any user may set too; "/D Disable execution of AutoRun commands
// from registry" (cmd /?). The interpreter gets the console and the standard handles as
// system would give them, so the clear, the prompt and the key are those the operator knows;
// only a standard output that is no console reaches it through the program (InterpreterOutput).
void RunCommandInterpreter(const wchar_t* command, DWORD limit) {
    std::cout.flush();
    platform::win32::CommandInterpreterCall call = platform::win32::CommandInterpreter(command);
    if (call.application.empty()) return;
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    InterpreterOutput output;
    const bool passOn = !IsConsole(GetStdHandle(STD_OUTPUT_HANDLE)) && output.Open();
    if (passOn) {
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdInput = InheritableCopy(GetStdHandle(STD_INPUT_HANDLE));
        startup.hStdOutput = output.WriteEnd();
        startup.hStdError = InheritableCopy(GetStdHandle(STD_ERROR_HANDLE));
    }
    PROCESS_INFORMATION process{};
    // CreateProcessW, lpApplicationName: "The string can specify the full path and file name
    // of the module to execute"; given, nothing is searched for. The command line must be
    // writable: "The Unicode version of this function, CreateProcessW, can modify the
    // contents of this string."
    const bool started =
        CreateProcessW(call.application.c_str(), call.commandLine.data(), nullptr, nullptr, TRUE, 0,
                       nullptr, call.directory.c_str(), &startup, &process);
    if (passOn) {
        output.CloseWriteEnd();
        if (startup.hStdInput != nullptr) platform::real::CloseHandle(startup.hStdInput);
        if (startup.hStdError != nullptr) platform::real::CloseHandle(startup.hStdError);
    }
    if (!started) return;
    platform::real::CloseHandle(process.hThread);
    if (!passOn) {
        platform::real::WaitForSingleObject(process.hProcess, limit);
    } else {
        // In steps, so that the output shows as it comes; as long as `limit` in all.
        const ULONGLONG start = platform::real::GetTickCount64();
        for (;;) {
            const ULONGLONG spent = platform::real::GetTickCount64() - start;
            const DWORD step = limit == INFINITE
                                   ? kOutputPollMs
                                   : static_cast<DWORD>(std::min<ULONGLONG>(
                                         kOutputPollMs, limit - std::min<ULONGLONG>(spent, limit)));
            const DWORD waited = platform::real::WaitForSingleObject(process.hProcess, step);
            output.PassOn();
            if (waited != WAIT_TIMEOUT) break;
            if (limit != INFINITE && platform::real::GetTickCount64() - start >= limit) break;
        }
    }
    platform::real::CloseHandle(process.hProcess);
}

// A clear that has not ended by then is left to itself; the pause waits for the operator's
// key as long as the operator takes, as system("pause") did.
constexpr DWORD kClearLimitMs = 10000;

}  // namespace

namespace platform::win32 {

CommandInterpreterCall CommandInterpreter(const wchar_t* command) {
    // GetSystemDirectoryW: "If the function succeeds, the return value is the length, in
    // TCHARs, of the string copied to the buffer, not including the terminating null
    // character. If the length is greater than the size of the buffer, the return value is
    // the size of the buffer required to hold the path".
    wchar_t directory[MAX_PATH];
    const UINT length = GetSystemDirectoryW(directory, MAX_PATH);
    if (length == 0 || length >= MAX_PATH) return {};
    CommandInterpreterCall call;
    call.directory.assign(directory, length);
    call.application = call.directory + L"\\cmd.exe";
    call.commandLine = L"\"" + call.application + L"\" /d /c " + command;
    return call;
}

}  // namespace platform::win32

namespace platform::real {

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

bool StreamIsTerminal(bool standardError) {
    return IsConsole(GetStdHandle(standardError ? STD_ERROR_HANDLE : STD_OUTPUT_HANDLE));
}

void ClearConsole() {
    RunCommandInterpreter(L"cls", kClearLimitMs);
}

void PauseConsole() {
    RunCommandInterpreter(L"pause", INFINITE);
}

}  // namespace platform::real

namespace platform {

std::wostream& WideOut() {
    static Utf8WideStreamBuf buffer(std::cout);
    static std::wostream stream(&buffer);
    return stream;
}

}  // namespace platform
