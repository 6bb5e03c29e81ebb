// The console as LAB.md's "Console on POSIX" describes it, for lynx-dfu and lynx-dfu-lab.
#include <termios.h>
#include <unistd.h>

#include <iostream>
#include <string>

#include "platform/common/answer_line.h"
#include "platform/common/wide_stream.h"
#include "platform/console.h"

HWND GetConsoleWindow() {
    return nullptr;
}
BOOL SetWindowPos(HWND, HWND, int, int, int, int, UINT) {
    return FALSE;
}

namespace platform {

void InitConsole() {}

void RestoreConsole() {}

bool ReadConsoleLine(std::string& line) {
    return ReadAnswerLine(std::cin, line);
}

bool ConsoleInputEnded() {
    return std::cin.fail();
}

void ClearConsole() {
    if (isatty(STDOUT_FILENO)) {
        std::cout << "\x1b[H\x1b[2J\x1b[3J";
        std::cout.flush();
    }
}

void PauseConsole() {
    std::cout << "Press any key to continue . . . ";
    std::cout.flush();
    if (isatty(STDIN_FILENO)) {
        termios saved{};
        if (tcgetattr(STDIN_FILENO, &saved) == 0) {
            termios raw = saved;
            raw.c_lflag &= static_cast<tcflag_t>(~(ICANON | ECHO));
            raw.c_cc[VMIN] = 1;
            raw.c_cc[VTIME] = 0;
            tcsetattr(STDIN_FILENO, TCSANOW, &raw);
            std::cin.get();
            tcsetattr(STDIN_FILENO, TCSANOW, &saved);
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
