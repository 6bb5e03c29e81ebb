// SPDX-License-Identifier: Apache-2.0
#include "app/console_ops.h"

#include <iostream>

#include "diag/answer.h"
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

std::int64_t AskNumber(const char* question) {
    std::cout << question;
    std::cout.flush();
    return ParseAnswerNumber(ReadLine());
}

bool NamesEntry(std::int64_t number, std::size_t count) {
    return number >= 1 && number <= static_cast<std::int64_t>(count);
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
