// SPDX-License-Identifier: Apache-2.0
// The operator's answers as the program keeps them: one line of UTF-8 text without its line
// end, whether it was typed into a console or came from a pipe or a file.
#pragma once

#include <istream>
#include <string>
#include <string_view>

namespace platform {

// One line of bytes (taken to be UTF-8) from a pipe or a file. A CR before the LF belongs to
// the line end, as it does when Windows reads a console or a file in text mode. Returns false,
// with an empty line, once the input has ended or failed.
bool ReadAnswerLine(std::istream& input, std::string& line);

// What a console read returned for one line (UTF-16 where wchar_t has 16 bits), as UTF-8
// without the CR LF that ends it.
std::string AnswerFromConsoleText(std::wstring_view typed);

}  // namespace platform
