// SPDX-License-Identifier: Apache-2.0
// Numbers typed by the operator, and numbers inside device paths.
#pragma once

#include <cstdint>
#include <string_view>

// Reads a number the way the C runtime's atoi and _wtoi do: leading white space, an optional
// sign, then the digits up to the first other character; no digits gives 0. Where their
// result is undefined (beyond the 32-bit range), the number is kept exactly in 64 bits,
// saturating at the 64-bit limits, so that such an answer is out of range for every list.
std::int64_t ParseLeadingNumber(std::string_view text);
std::int64_t ParseLeadingNumber(std::wstring_view text);

inline std::int64_t ParseAnswerNumber(std::string_view answer) {
    return ParseLeadingNumber(answer);
}
