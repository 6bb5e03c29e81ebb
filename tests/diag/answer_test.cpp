#include "diag/answer.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

struct AnswerCase {
    const char* answer;
    std::int64_t number;
};

class AnswerNumber : public testing::TestWithParam<AnswerCase> {};

TEST_P(AnswerNumber, ReadsLikeAtoi) {
    EXPECT_EQ(GetParam().number, ParseAnswerNumber(GetParam().answer));
}

INSTANTIATE_TEST_SUITE_P(
    Answers, AnswerNumber,
    testing::Values(AnswerCase{"", 0}, AnswerCase{"1", 1}, AnswerCase{"0", 0}, AnswerCase{"abc", 0},
                    AnswerCase{"12abc", 12}, AnswerCase{"1 2", 1}, AnswerCase{"  \t3", 3},
                    AnswerCase{"\r\n\v\f7", 7}, AnswerCase{"-3", -3}, AnswerCase{"+4", 4},
                    AnswerCase{"- 4", 0}, AnswerCase{"--4", 0}, AnswerCase{"007", 7},
                    AnswerCase{"\x01"
                               "1",
                               0},
                    AnswerCase{"2147483647", 2147483647}, AnswerCase{"-2147483648", -2147483648LL},
                    // Beyond 32 bits: the number as typed, never a wrapped small one.
                    AnswerCase{"4294967297", 4294967297LL},
                    AnswerCase{"-4294967295", -4294967295LL},
                    AnswerCase{"99999999999999999999999", std::numeric_limits<std::int64_t>::max()},
                    AnswerCase{"-99999999999999999999999",
                               std::numeric_limits<std::int64_t>::min()}));

TEST(AnswerNumber, VeryLongLinesEndInTime) {
    const std::string digits(1 << 20, '9');
    EXPECT_EQ(std::numeric_limits<std::int64_t>::max(), ParseAnswerNumber(digits));
    EXPECT_EQ(0, ParseAnswerNumber(std::string(1 << 20, ' ')));
}

}  // namespace
