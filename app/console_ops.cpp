#include "app/console_ops.h"

#include <iostream>

#include "platform/console.h"

const std::string g_vendorPrefix = "Vantrel (TM) ";
const char* const kSeparatorLine =
    "======================================================================================="
    "================\n";

std::string ReadLine() {
    std::string line;
    platform::ReadConsoleLine(line);
    return line;
}

bool InputEnded() {
    return platform::ConsoleInputEnded();
}

void ClearScreen() {
    platform::ClearConsole();
}

void Pause() {
    platform::PauseConsole();
}

void PlaceConsoleWindow() {
    SetWindowPos(GetConsoleWindow(), HWND_TOP, 10, 10, 1200, 480, 0);
}
