// The Windows console: the command interpreter's cls and pause, UTF-8 output.
#include <windows.h>

#include <cstdlib>
#include <iostream>

#include "platform/common/wide_stream.h"
#include "platform/console.h"

namespace platform {

void InitConsole() {
    // Wide text goes out as UTF-8 through the narrow stream, so the console must read UTF-8.
    SetConsoleOutputCP(CP_UTF8);
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
