#include "platform/common/wide_stream.h"

#include <gtest/gtest.h>

#include <sstream>

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

TEST(WideStream, InvalidCodePointsBecomeReplacementCharacters) {
    EXPECT_EQ("\xEF\xBF\xBD", platform::WideToUtf8(std::wstring(1, static_cast<wchar_t>(0xD800))));
    EXPECT_EQ("a\xEF\xBF\xBD",
              platform::WideToUtf8(std::wstring{L'a', static_cast<wchar_t>(0xDC00)}));
    if constexpr (sizeof(wchar_t) == 4) {
        EXPECT_EQ("a\xEF\xBF\xBD",
                  platform::WideToUtf8(std::wstring{L'a', static_cast<wchar_t>(0x110000)}));
    }
}

}  // namespace
