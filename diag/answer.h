// Numbers typed by the operator.
#pragma once

#include <cstdint>
#include <string_view>

// Reads an answer the way the C runtime's atoi does: leading white space, an optional sign,
// then the digits up to the first other character; no digits gives 0. Where atoi's result
// is undefined (beyond the 32-bit range), the number is kept exactly in 64 bits, saturating
// at the 64-bit limits, so that such an answer is out of range for every list.
std::int64_t ParseAnswerNumber(std::string_view answer);
