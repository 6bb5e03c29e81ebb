#include "app/console_ops.h"

#include <iostream>

#include "platform/console.h"

const std::string g_vendorPrefix = "Vantrel (TM) ";
const char* const kSeparatorLine =
    "======================================================================================="
    "================\n";

std::string ReadLine() {
    std::string line;
    if (!std::getline(std::cin, line)) line.clear();
    return line;
}

bool InputEnded() {
    return std::cin.fail();
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
