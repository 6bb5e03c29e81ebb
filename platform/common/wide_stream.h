// SPDX-License-Identifier: Apache-2.0
// The program's one set of text conversions between UTF-8, UTF-16 and wide strings, and a
// wide output stream that writes UTF-8 through a narrow stream. Malformed input of any kind
// becomes U+FFFD, as the Unicode standard recommends. (The narrowing of device names for a
// log line keeps the low 8 bits of each unit; that is the system's own rule, not a
// conversion, and lives with the logger.)
#pragma once

#include <cstdint>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

// Appends the UTF-8 form of one code point; lone surrogates and invalid values become U+FFFD.
void AppendUtf8(std::string& out, char32_t cp);
// UTF-16 code units as UTF-8; a surrogate without its partner becomes U+FFFD.
std::string Utf16ToUtf8(std::u16string_view units);
// The UTF-8 form of wide text (UTF-16 where wchar_t has 16 bits, UTF-32 elsewhere).
std::string WideToUtf8(std::wstring_view text);
// UTF-8 as wide text. Each maximal ill-formed part (a stray or cut-short sequence, an
// overlong form, a surrogate, a value past U+10FFFF) becomes one U+FFFD.
std::wstring Utf8ToWide(std::string_view text);
// UTF-16LE bytes, as the registry holds text, to UTF-8; an odd last byte is not a unit.
std::string Utf16LeToUtf8(const std::uint8_t* data, std::size_t size);

class Utf8WideStreamBuf final : public std::wstreambuf {
  public:
    explicit Utf8WideStreamBuf(std::ostream& target) : target_(target) {}

  protected:
    int_type overflow(int_type ch) override;
    std::streamsize xsputn(const wchar_t* text, std::streamsize count) override;
    int sync() override;

  private:
    void Put(wchar_t ch);

    std::ostream& target_;
    wchar_t pendingHighSurrogate_ = 0;
};

}  // namespace platform
