// SPDX-License-Identifier: Apache-2.0
#include "platform/common/wide_stream.h"

#include <utility>

#include "platform/registry.h"

namespace platform {
namespace {

bool IsHighSurrogate(char32_t unit) {
    return unit >= 0xD800 && unit <= 0xDBFF;
}
bool IsLowSurrogate(char32_t unit) {
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

void AppendWide(std::wstring& out, char32_t cp) {
    if (sizeof(wchar_t) == 2 && cp > 0xFFFF) {
        out.push_back(static_cast<wchar_t>(0xD800 + ((cp - 0x10000) >> 10)));
        out.push_back(static_cast<wchar_t>(0xDC00 + ((cp - 0x10000) & 0x3FF)));
    } else {
        out.push_back(static_cast<wchar_t>(cp));
    }
}

}  // namespace

void AppendUtf8(std::string& out, char32_t cp) {
    if (IsHighSurrogate(cp) || IsLowSurrogate(cp) || cp > 0x10FFFF) cp = 0xFFFD;
    constexpr unsigned char kLead[] = {0x00, 0xC0, 0xE0, 0xF0};
    const int following = cp < 0x80 ? 0 : cp < 0x800 ? 1 : cp < 0x10000 ? 2 : 3;
    out.push_back(static_cast<char>(kLead[following] | (cp >> (6 * following))));
    for (int k = following - 1; k >= 0; --k) {
        out.push_back(static_cast<char>(0x80 | ((cp >> (6 * k)) & 0x3F)));
    }
}

std::string Utf16ToUtf8(std::u16string_view units) {
    std::string out;
    out.reserve(units.size());
    for (std::size_t i = 0; i < units.size(); ++i) {
        char32_t cp = units[i];
        if (IsHighSurrogate(cp) && i + 1 < units.size() && IsLowSurrogate(units[i + 1])) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (units[++i] - 0xDC00);
        }
        AppendUtf8(out, cp);
    }
    return out;
}

std::string WideToUtf8(std::wstring_view text) {
    if constexpr (sizeof(wchar_t) == 2) {
        return Utf16ToUtf8(std::u16string(text.begin(), text.end()));
    } else {
        std::string out;
        out.reserve(text.size());
        for (wchar_t ch : text) AppendUtf8(out, static_cast<char32_t>(ch));
        return out;
    }
}

std::wstring Utf8ToWide(std::string_view text) {
    std::wstring out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i++]);
        // How many bytes follow the lead byte; -1 for a byte that cannot start a sequence.
        const int following = lead < 0x80   ? 0
                              : lead < 0xC2 ? -1
                              : lead < 0xE0 ? 1
                              : lead < 0xF0 ? 2
                              : lead < 0xF5 ? 3
                                            : -1;
        if (following <= 0) {
            AppendWide(out, following == 0 ? lead : 0xFFFD);
            continue;
        }
        // The second byte's range rules out overlong forms, surrogates and values past
        // U+10FFFF; a byte out of range ends the sequence and starts the next one.
        unsigned char low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
        unsigned char high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
        char32_t cp = lead & (0x3F >> following);
        int taken = 0;
        for (; taken < following && i < text.size(); ++taken, ++i) {
            const auto next = static_cast<unsigned char>(text[i]);
            if (next < low || next > high) break;
            cp = (cp << 6) | (next & 0x3F);
            low = 0x80;
            high = 0xBF;
        }
        AppendWide(out, taken == following ? cp : 0xFFFD);
    }
    return out;
}

std::string Utf16LeToUtf8(const std::uint8_t* data, std::size_t size) {
    std::u16string units;
    for (std::size_t i = 0; i + 1 < size; i += 2) {
        units.push_back(static_cast<char16_t>(data[i] | (data[i + 1] << 8)));
    }
    return Utf16ToUtf8(units);
}

std::vector<std::uint8_t> WideToUtf16Le(std::wstring_view text) {
    std::vector<std::uint8_t> bytes;
    for (wchar_t ch : text) {
        const auto unit = static_cast<std::uint32_t>(ch);
        bytes.push_back(static_cast<std::uint8_t>(unit));
        bytes.push_back(static_cast<std::uint8_t>(unit >> 8));
    }
    return bytes;
}

void Utf8WideStreamBuf::Put(wchar_t ch) {
    std::wstring units(1, ch);
    // Where wchar_t is UTF-16 a pair may come in two writes: its first half waits.
    if (pendingHighSurrogate_ != 0)
        units.insert(units.begin(), std::exchange(pendingHighSurrogate_, 0));
    if (sizeof(wchar_t) == 2 && IsHighSurrogate(static_cast<char32_t>(ch) & 0xFFFF)) {
        pendingHighSurrogate_ = ch;
        units.pop_back();
    }
    const std::string bytes = WideToUtf8(units);
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
