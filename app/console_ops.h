// Console conventions shared by every screen of the front end.
#pragma once

#include <string>

// Printed before every screen title, with nothing in between.
extern const std::string g_vendorPrefix;
// Every menu and command screen begins with it.
extern const char* const kSeparatorLine;

// One answer line from standard input as UTF-8, without its line end (LF or CR LF). At the
// end of the input (or once the input has failed) it yields an empty line at once.
std::string ReadLine();
// Whether standard input has ended or failed, so that empty answers will keep coming.
bool InputEnded();

void ClearScreen();
void Pause();
void PlaceConsoleWindow();
