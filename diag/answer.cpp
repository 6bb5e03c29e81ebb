#include "diag/answer.h"

#include <limits>

std::int64_t ParseAnswerNumber(std::string_view answer) {
    std::size_t i = 0;
    while (i < answer.size() && (answer[i] == ' ' || answer[i] == '\t' || answer[i] == '\n' ||
                                 answer[i] == '\v' || answer[i] == '\f' || answer[i] == '\r')) {
        ++i;
    }
    bool negative = false;
    if (i < answer.size() && (answer[i] == '+' || answer[i] == '-')) {
        negative = answer[i] == '-';
        ++i;
    }
    constexpr std::uint64_t kMaxMagnitude =
        static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) + 1;
    std::uint64_t magnitude = 0;
    for (; i < answer.size() && answer[i] >= '0' && answer[i] <= '9'; ++i) {
        const auto digit = static_cast<std::uint64_t>(answer[i] - '0');
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
