// SPDX-License-Identifier: Apache-2.0
#include "diag/answer.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

TEST(AnswerNumber, ReadsLikeAtoiWithoutWrapping) {
    // clang-format off
    const struct {
        const char* answer;
        std::int64_t number;
    } rows[] = {
        {"", 0}, {"1", 1}, {"0", 0}, {"abc", 0}, {"12abc", 12}, {"1 2", 1}, {"  \t3", 3},
        {"\r\n\v\f7", 7}, {"-3", -3}, {"+4", 4}, {"- 4", 0}, {"--4", 0}, {"007", 7},
        {"\x01" "1", 0}, {"2147483647", 2147483647}, {"-2147483648", -2147483648LL},
        // Beyond 32 bits: the number as typed, never a wrapped small one.
        {"4294967297", 4294967297LL}, {"-4294967295", -4294967295LL},
        {"99999999999999999999999", kMax}, {"-99999999999999999999999", -kMax - 1}};
    // clang-format on
    for (const auto& row : rows) EXPECT_EQ(row.number, ParseAnswerNumber(row.answer)) << row.answer;
    // Very long lines end in time.
    EXPECT_EQ(kMax, ParseAnswerNumber(std::string(1 << 20, '9')));
    EXPECT_EQ(0, ParseAnswerNumber(std::string(1 << 20, ' ')));
}

}  // namespace
