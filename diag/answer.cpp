// SPDX-License-Identifier: Apache-2.0
#include "diag/answer.h"

#include <limits>

namespace {

template <typename Char>
std::int64_t ParseLeading(std::basic_string_view<Char> answer) {
    std::size_t i = 0;
    // The C locale's white space, which is what both runtimes skip.
    while (i < answer.size() && answer[i] < 0x80 &&
           std::string_view(" \t\n\v\f\r").find(static_cast<char>(answer[i])) !=
               std::string_view::npos) {
        ++i;
    }
    bool negative = false;
    if (i < answer.size() && (answer[i] == Char('+') || answer[i] == Char('-'))) {
        negative = answer[i] == Char('-');
        ++i;
    }
    constexpr std::uint64_t kMaxMagnitude =
        static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) + 1;
    std::uint64_t magnitude = 0;
    for (; i < answer.size() && answer[i] >= Char('0') && answer[i] <= Char('9'); ++i) {
        const auto digit = static_cast<std::uint64_t>(answer[i] - Char('0'));
        magnitude =
            magnitude > (kMaxMagnitude - digit) / 10 ? kMaxMagnitude : magnitude * 10 + digit;
    }
    if (negative) {
        return magnitude == kMaxMagnitude ? std::numeric_limits<std::int64_t>::min()
                                          : -static_cast<std::int64_t>(magnitude);
    }
    return magnitude >= kMaxMagnitude ? std::numeric_limits<std::int64_t>::max()
                                      : static_cast<std::int64_t>(magnitude);
}

}  // namespace

std::int64_t ParseLeadingNumber(std::string_view text) {
    return ParseLeading(text);
}

std::int64_t ParseLeadingNumber(std::wstring_view text) {
    return ParseLeading(text);
}
