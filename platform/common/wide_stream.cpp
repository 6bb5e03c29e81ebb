#include "platform/common/wide_stream.h"

namespace platform {

void AppendUtf8(std::string& out, char32_t cp) {
    if ((cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) cp = 0xFFFD;
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

std::string WideToUtf8(std::wstring_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        char32_t cp = static_cast<char32_t>(text[i]);
        if constexpr (sizeof(wchar_t) == 2) {
            cp &= 0xFFFF;
            if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < text.size()) {
                const char32_t low = static_cast<char32_t>(text[i + 1]) & 0xFFFF;
                if (low >= 0xDC00 && low <= 0xDFFF) {
                    cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                    ++i;
                }
            }
        }
        AppendUtf8(out, cp);
    }
    return out;
}

void Utf8WideStreamBuf::Put(wchar_t ch) {
    std::string bytes;
    char32_t cp = static_cast<char32_t>(ch);
    if constexpr (sizeof(wchar_t) == 2) {
        cp &= 0xFFFF;
        if (pendingHighSurrogate_ != 0) {
            const char32_t high = static_cast<char32_t>(pendingHighSurrogate_) & 0xFFFF;
            pendingHighSurrogate_ = 0;
            if (cp >= 0xDC00 && cp <= 0xDFFF) {
                AppendUtf8(bytes, 0x10000 + ((high - 0xD800) << 10) + (cp - 0xDC00));
                target_.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
                return;
            }
            AppendUtf8(bytes, high);
        }
        if (cp >= 0xD800 && cp <= 0xDBFF) {
            pendingHighSurrogate_ = ch;
            if (!bytes.empty())
                target_.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
            return;
        }
    }
    AppendUtf8(bytes, cp);
    target_.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

Utf8WideStreamBuf::int_type Utf8WideStreamBuf::overflow(int_type ch) {
    if (traits_type::eq_int_type(ch, traits_type::eof())) return traits_type::not_eof(ch);
    Put(traits_type::to_char_type(ch));
    return ch;
}

std::streamsize Utf8WideStreamBuf::xsputn(const wchar_t* text, std::streamsize count) {
    for (std::streamsize i = 0; i < count; ++i) Put(text[i]);
    return count;
}

int Utf8WideStreamBuf::sync() {
    target_.flush();
    return 0;
}

}  // namespace platform
