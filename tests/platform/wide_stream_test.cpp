#include "platform/common/wide_stream.h"

#include <gtest/gtest.h>

#include <sstream>
#include <vector>

namespace {

TEST(WideStream, WritesUtf8InOrderWithNarrowText) {
    std::ostringstream narrow;
    platform::Utf8WideStreamBuf buffer(narrow);
    std::wostream wide(&buffer);
    narrow << "[";
    wide << 1 << L"] Caméra Ω " << L"\U0001F4F7" << std::endl;
    narrow << "end\n";
    EXPECT_EQ("[1] Cam\xC3\xA9ra \xCE\xA9 \xF0\x9F\x93\xB7\nend\n", narrow.str());
}

#define FFFD "\xEF\xBF\xBD"

// UTF-8 through the decoder and back: well-formed text comes back whole, each maximal
// ill-formed part as one U+FFFD.
TEST(TextConversion, Utf8RoundTripReplacesEachIllFormedPart) {
    const struct {
        const char* name;
        std::string utf8;
        std::string back;
    } rows[] = {
        {"ascii", "abc", "abc"},
        {"twoThreeFourBytes", "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x93\xB7",
         "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x93\xB7"},
        {"cutShortAtTheEnd", "a\xC3", "a" FFFD},
        {"cutShortBeforeAscii",
         "\xE2\x82"
         "a",
         FFFD "a"},
        {"strayContinuation",
         "\x80"
         "a",
         FFFD "a"},
        {"overlongTwoBytes", "\xC0\xAF", FFFD FFFD},
        {"overlongThreeBytes", "\xE0\x80\xAF", FFFD FFFD FFFD},
        {"surrogate", "\xED\xA0\x80", FFFD FFFD FFFD},
        {"pastU10FFFF", "\xF4\x90\x80\x80", FFFD FFFD FFFD FFFD},
        {"largestCodePoint", "\xF4\x8F\xBF\xBF", "\xF4\x8F\xBF\xBF"},
        {"notALeadByte",
         "\xFF"
         "b",
         FFFD "b"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.back, platform::WideToUtf8(platform::Utf8ToWide(row.utf8))) << row.name;
    }
}

TEST(TextConversion, Utf16PairsJoinAndLoneHalvesAreReplaced) {
    const struct {
        const char* name;
        std::vector<std::uint8_t> utf16le;
        std::string utf8;
    } rows[] = {
        {"pair",
         {0x3D, 0xD8, 0xF7, 0xDC, 'a', 0},
         "\xF0\x9F\x93\xB7"
         "a"},
        {"loneHighAtTheEnd", {'a', 0, 0x3D, 0xD8}, "a" FFFD},
        {"loneLow", {0xF7, 0xDC, 'a', 0}, FFFD "a"},
        {"oddByteIsNoUnit", {'a', 0, 'b'}, "a"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.utf8, platform::Utf16LeToUtf8(row.utf16le.data(), row.utf16le.size()))
            << row.name;
    }
    EXPECT_EQ("a" FFFD, platform::WideToUtf8(std::wstring{L'a', static_cast<wchar_t>(0xDC00)}));
    if constexpr (sizeof(wchar_t) == 4) {
        EXPECT_EQ("a" FFFD,
                  platform::WideToUtf8(std::wstring{L'a', static_cast<wchar_t>(0x110000)}));
    }
}

}  // namespace
