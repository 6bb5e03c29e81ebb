// SPDX-License-Identifier: Apache-2.0
#include "platform/common/wide_stream.h"

#include <gtest/gtest.h>

#include <sstream>
#include <utility>
#include <vector>

namespace {

TEST(WideStream, WritesUtf8InOrderWithNarrowText) {
    std::ostringstream narrow;
    platform::Utf8WideStreamBuf buffer(narrow);
    std::wostream wide(&buffer);
    narrow << "[";
    wide << 1 << L"] Caméra Ω " << L"\U0001F4F7" << L'\n';
    narrow << "end\n";
    EXPECT_EQ("[1] Cam\xC3\xA9ra \xCE\xA9 \xF0\x9F\x93\xB7\nend\n", narrow.str());
}

#define FFFD "\xEF\xBF\xBD"

// Through the decoders and back to UTF-8: well-formed text comes back whole; each maximal
// ill-formed part of UTF-8, each lone UTF-16 half, each wide value past U+10FFFF as one U+FFFD.
TEST(TextConversion, IllFormedPartsBecomeOneReplacementEach) {
    const std::pair<std::string, std::string> utf8[] = {
        {"z\xC3\xA9\xE2\x82\xAC\xF0\x9F\x93\xB7", "z\xC3\xA9\xE2\x82\xAC\xF0\x9F\x93\xB7"},
        {"\xF4\x8F\xBF\xBF", "\xF4\x8F\xBF\xBF"},   // the largest code point
        {"z\xC3", "z" FFFD},                        // cut short at the end
        {"\xE2\x82z", FFFD "z"},                    // cut short before the next character
        {"\x80z", FFFD "z"},                        // stray continuation byte
        {"\xFFz", FFFD "z"},                        // no lead byte
        {"\xC0\xAF", FFFD FFFD},                    // overlong
        {"\xE0\x80\xAF", FFFD FFFD FFFD},           // overlong
        {"\xED\xA0\x80", FFFD FFFD FFFD},           // a surrogate
        {"\xF4\x90\x80\x80", FFFD FFFD FFFD FFFD},  // past U+10FFFF
    };
    for (const auto& [in, out] : utf8) {
        EXPECT_EQ(out, platform::WideToUtf8(platform::Utf8ToWide(in)))
            << testing::PrintToString(in);
    }
    const std::pair<std::vector<std::uint8_t>, std::string> utf16le[] = {
        {{0x3D, 0xD8, 0xF7, 0xDC, 'z', 0}, "\xF0\x9F\x93\xB7z"},  // a pair
        {{'z', 0, 0x3D, 0xD8}, "z" FFFD},                         // a lone high half at the end
        {{0xF7, 0xDC, 'z', 0}, FFFD "z"},                         // a lone low half
        {{'z', 0, 'y'}, "z"},                                     // an odd byte is no unit
    };
    for (const auto& [in, out] : utf16le)
        EXPECT_EQ(out, platform::Utf16LeToUtf8(in.data(), in.size()));
    const auto past = static_cast<wchar_t>(sizeof(wchar_t) == 4 ? 0x110000 : 0xDC00);
    EXPECT_EQ("a" FFFD FFFD,
              platform::WideToUtf8(std::wstring{L'a', static_cast<wchar_t>(0xDC00), past}));
}

}  // namespace
