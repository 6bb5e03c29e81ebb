// A wide output stream that writes UTF-8 through a narrow stream.
#pragma once

#include <ostream>
#include <streambuf>
#include <string>

namespace platform {

// Appends the UTF-8 form of one code point; lone surrogates and invalid values become U+FFFD.
void AppendUtf8(std::string& out, char32_t cp);
// The UTF-8 form of wide text (UTF-16 where wchar_t has 16 bits, UTF-32 elsewhere).
std::string WideToUtf8(std::wstring_view text);

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
