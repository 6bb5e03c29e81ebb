// SPDX-License-Identifier: Apache-2.0
#include "diag/dfu_logger.h"

#include <cstdint>

HRESULT DfuLogger::CheckStatus(const char* stepText, HRESULT status) const {
    if (status != 0) LogLine(stepText, " Failed with status", static_cast<long>(status));
    return status;
}

std::string NarrowLow8(const std::wstring& text) {
    std::string narrow;
    narrow.reserve(text.size());
    const auto keepLow8 = [&narrow](std::uint32_t unit) {
        narrow.push_back(static_cast<char>(unit & 0xFFu));
    };
    for (wchar_t c : text) {
        // Where wchar_t holds whole code points, a character beyond the basic plane is the
        // two surrogate units it would be in UTF-16, so every target prints the same bytes.
        const auto point = static_cast<std::uint32_t>(c);
        if (point > 0xFFFFu && point <= 0x10FFFFu) {
            keepLow8(0xD800u + ((point - 0x10000u) >> 10));
            keepLow8(0xDC00u + ((point - 0x10000u) & 0x3FFu));
        } else {
            keepLow8(point);
        }
    }
    return narrow;
}
