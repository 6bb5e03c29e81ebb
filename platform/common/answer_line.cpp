// SPDX-License-Identifier: Apache-2.0
#include "platform/common/answer_line.h"

#include "platform/common/wide_stream.h"

namespace platform {

bool ReadAnswerLine(std::istream& input, std::string& line) {
    line.clear();
    if (!std::getline(input, line)) {
        line.clear();
        return false;
    }
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return true;
}

std::string AnswerFromConsoleText(std::wstring_view typed) {
    if (!typed.empty() && typed.back() == L'\n') typed.remove_suffix(1);
    if (!typed.empty() && typed.back() == L'\r') typed.remove_suffix(1);
    return WideToUtf8(typed);
}

}  // namespace platform
