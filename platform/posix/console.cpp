// SPDX-License-Identifier: Apache-2.0
// The console as LAB.md's "Console on POSIX" describes it, for lynx-dfu and lynx-dfu-lab.
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <string>

#include "platform/common/answer_line.h"
#include "platform/common/real_calls.h"
#include "platform/common/wide_stream.h"
#include "platform/console.h"
#include "platform/posix/signals.h"

HWND platform::real::GetConsoleWindow() {
    return nullptr;
}
BOOL platform::real::SetWindowPos(HWND, HWND, int, int, int, int, UINT) {
    return FALSE;
}

namespace platform {

// The terminal is given back on every way out by a signal, and taken up again after a stop.
void real::InitConsole() {
    posix::InstallSignalHandlers();
}

void real::RestoreConsole() {
    posix::RemoveSignalHandlers();
}

bool real::ReadConsoleLine(std::string& line) {
    return ReadAnswerLine(std::cin, line);
}

bool real::ConsoleInputEnded() {
    return std::cin.fail();
}

void real::ClearConsole() {
    if (isatty(STDOUT_FILENO)) {
        std::cout << "\x1b[H\x1b[2J\x1b[3J";
        std::cout.flush();
    }
}

bool real::StreamIsTerminal(bool standardError) {
    return isatty(standardError ? STDERR_FILENO : STDOUT_FILENO) == 1;
}

namespace {

// The next byte of the key being read, or EOF when the terminal has sent nothing more within
// the read time-out set by the caller. That EOF is not the end of the input: the stream is
// made good again, so the next answer is read as usual.
int NextKeyByte() {
    const int byte = std::cin.get();
    if (byte == std::char_traits<char>::eof()) {
        std::cin.clear();
        std::clearerr(stdin);
    }
    return byte;
}

// Takes the next byte only when it belongs to the key (one of `low`..`high`), so that what
// the operator typed after the key stays for the next answer.
int NextKeyByteIn(int low, int high) {
    const int byte = std::cin.peek();
    if (byte == std::char_traits<char>::eof()) {
        std::cin.clear();
        std::clearerr(stdin);
        return byte;
    }
    if (byte < low || byte > high) return std::char_traits<char>::eof();
    return std::cin.get();
}

// The continuation bytes of a UTF-8 character whose first byte was `lead`.
void SkipUtf8Continuation(int lead) {
    const int more = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : lead >= 0xC0 ? 1 : 0;
    for (int i = 0; i < more && NextKeyByteIn(0x80, 0xBF) != std::char_traits<char>::eof(); ++i) {
    }
}

// The rest of one key whose first byte has been read. A terminal sends a key as one write:
// an escape sequence (ESC [ parameters final, ESC O final, ESC [ [ final on the Linux
// console, ESC O with parameters for a function key with Shift on xterm: ESC O 2 P), ESC
// before a key pressed with Alt, or a UTF-8 character of several bytes.
void SkipRestOfKey(int first, int depth = 0) {
    if (first != 0x1B) {
        SkipUtf8Continuation(first);
        return;
    }
    const int second = NextKeyByte();
    if (second == std::char_traits<char>::eof()) return;  // Esc on its own
    if (second == '[' || second == 'O') {
        // Parameter and intermediate bytes, then one final byte; bounded against a stream
        // of garbage.
        int byte = NextKeyByte();
        if (second == '[' && byte == '[') byte = NextKeyByte();
        for (int i = 0; i < 32 && byte >= 0x20 && byte <= 0x3F; ++i) byte = NextKeyByte();
    } else if (second == 0x1B && depth == 0) {
        SkipRestOfKey(second, depth + 1);
    } else {
        SkipUtf8Continuation(second);
    }
}

}  // namespace

void real::PauseConsole() {
    std::cout << "Press any key to continue . . . ";
    std::cout.flush();
    if (isatty(STDIN_FILENO)) {
        termios saved{};
        if (tcgetattr(STDIN_FILENO, &saved) == 0) {
            termios raw = saved;
            raw.c_lflag &= static_cast<tcflag_t>(~(ICANON | ECHO));
            raw.c_cc[VMIN] = 1;
            raw.c_cc[VTIME] = 0;
            posix::GuardTerminal(saved, raw);
            tcsetattr(STDIN_FILENO, TCSANOW, &raw);
            const int first = std::cin.get();
            if (first != std::char_traits<char>::eof()) {
                // The rest of a key is already on its way: wait at most a tenth of a second
                // for each further byte, so that a lone Esc does not hang the pause.
                raw.c_cc[VMIN] = 0;
                raw.c_cc[VTIME] = 1;
                posix::GuardTerminal(saved, raw);
                tcsetattr(STDIN_FILENO, TCSANOW, &raw);
                SkipRestOfKey(first);
            }
            tcsetattr(STDIN_FILENO, TCSANOW, &saved);
            posix::UnguardTerminal();
        } else {
            std::cin.get();
        }
    } else if (std::cin) {
        std::string discarded;
        std::getline(std::cin, discarded);
    }
    std::cout << "\n";
    std::cout.flush();
}

std::wostream& WideOut() {
    static Utf8WideStreamBuf buffer(std::cout);
    static std::wostream stream(&buffer);
    return stream;
}

}  // namespace platform
