// SPDX-License-Identifier: Apache-2.0
// Console conventions shared by every screen of the front end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>

#include "platform/console.h"

// Printed before every screen title, with nothing in between.
extern const std::string g_vendorPrefix;
// Every menu and command screen begins with it.
extern const char* const kSeparatorLine;

// One answer line from standard input as UTF-8, without its line end (LF or CR LF). At the
// end of the input (or once the input has failed) it yields an empty line at once.
std::string ReadLine();
// Whether standard input has ended or failed, so that empty answers will keep coming.
bool InputEnded();
// Shows a question and reads its answer as a whole number (0 when it is none).
std::int64_t AskNumber(const char* question);
// Whether a number typed at a numbered list names one of its `count` entries.
bool NamesEntry(std::int64_t number, std::size_t count);
// A numbered list of devices by name, from 1, as the questions above count them.
template <typename Devices>
void ListByName(const Devices& devices) {
    std::wostream& out = platform::WideOut();
    for (std::size_t i = 0; i < devices.size(); ++i) {
        out << L"[" << (i + 1) << L"] " << devices[i]->GetName() << L'\n';
    }
}

void ClearScreen();
void Pause();
void PlaceConsoleWindow();
