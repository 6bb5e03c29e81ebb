// SPDX-License-Identifier: Apache-2.0
// Answers as the program keeps them: UTF-8 without the line end, from a pipe or a file (bytes)
// and from a console (wide text).
#include "platform/common/answer_line.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace {

TEST(AnswerLine, PipedBytesLoseOnlyTheirLineEnd) {
    const struct {
        const char* input;
        std::vector<std::string> lines;
    } rows[] = {
        {"q\n", {"q"}},
        {"q\r\n1\r\n", {"q", "1"}},
        {"\r\n\n", {"", ""}},
        {"a\r\r\n", {"a\r"}},  // only the CR of the line end goes
        {"a\rb\n", {"a\rb"}},  // a CR inside stays
        {"last", {"last"}},    // no line end at the end of the input
        {"C:\\Users\\J\xc3\xb6rg\\fw.bin\r\n", {"C:\\Users\\J\xc3\xb6rg\\fw.bin"}},
        {"", {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.input);
        std::istringstream input(row.input);
        std::vector<std::string> lines;
        std::string line = "stale";
        while (platform::ReadAnswerLine(input, line)) lines.push_back(line);
        EXPECT_EQ(lines, row.lines);
        EXPECT_EQ(line, "");
        EXPECT_FALSE(platform::ReadAnswerLine(input, line)) << "the end stays the end";
    }
}

TEST(AnswerLine, ConsoleTextBecomesUtf8) {
    const struct {
        const wchar_t* typed;
        const char* answer;
    } rows[] = {
        {L"1\r\n", "1"},
        {L"\r\n", ""},
        {L"C:\\Users\\J\u00f6rg\\fw.bin\r\n", "C:\\Users\\J\xc3\xb6rg\\fw.bin"},
        {L"\u65e5\u672c\U0001F600\r\n", "\xe6\x97\xa5\xe6\x9c\xac\xf0\x9f\x98\x80"},
        {L"no line end", "no line end"},
        {L"a\r\r\n", "a\r"},
    };
    for (const auto& row : rows) EXPECT_EQ(platform::AnswerFromConsoleText(row.typed), row.answer);
}

}  // namespace
