// SPDX-License-Identifier: Apache-2.0
// Console operations: clearing, pausing, the window placement and the wide output stream.
#pragma once

#include <ostream>
#include <string>

#include "platform/types.h"

#ifdef _WIN32
#include <windows.h>
#else
#define HWND_TOP (static_cast<HWND>(nullptr))
HWND GetConsoleWindow();
BOOL SetWindowPos(HWND window, HWND insertAfter, int x, int y, int cx, int cy, UINT flags);
#endif

namespace platform {

// Prepares the console for narrow and wide output in one stream (called once by main).
void InitConsole();
// Leaves the console as InitConsole found it (called once, before main returns).
void RestoreConsole();

// One answer line from standard input, as UTF-8 without its line end (LF or CR LF).
// Windows: typed text is read as Unicode from a console, bytes as UTF-8 from a pipe or a
// file. Returns false, with an empty line, once the input has ended or failed.
bool ReadConsoleLine(std::string& line);
// Whether standard input has ended or failed, so that only empty answers would follow.
bool ConsoleInputEnded();

// Windows: the command interpreter's "cls". POSIX: ANSI clear when stdout is a terminal.
void ClearConsole();

// Windows: the command interpreter's "pause". POSIX: the prompt, then one key (terminal)
// or one line (pipe) of standard input.
void PauseConsole();

// Whether standard error (or, when false, standard output) is a terminal, where a line can be
// rewritten in place.
bool StreamIsTerminal(bool standardError);

// The wide standard output. It converts to UTF-8 and writes through std::cout, so narrow and
// wide writes keep their order on every target.
std::wostream& WideOut();

}  // namespace platform
