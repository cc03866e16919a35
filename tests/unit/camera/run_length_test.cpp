#include "run_length.h"

#include <cstdint>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<uint8_t>;

struct Case {
    const char* name;
    Bytes input;
    int output_size;
    int result;
    Bytes output;  // its first bytes
};

void PrintTo(const Case& c, std::ostream* os) {
    *os << c.name;
}

class RunLength : public testing::TestWithParam<Case> {};

TEST_P(RunLength, GivesResultAndOutput) {
    const Case& c = GetParam();
    // Exactly the documented size, on the heap, so that a sanitizer guards both ends.
    Bytes output(static_cast<size_t>(c.output_size) + 1, 0xEE);
    const int result =
        DecodeRLE(output.data(), c.input.data(), c.output_size, static_cast<int>(c.input.size()));
    EXPECT_EQ(result, c.result);
    output.resize(c.output.size());
    EXPECT_EQ(output, c.output);
}

INSTANTIATE_TEST_SUITE_P(
    Codes, RunLength,
    testing::Values(
        Case{"WholeImage", {5, 0, 2, 0, 0xFF, 1, 1}, 8, 1, {5, 0, 0, 0, 0xFF, 0xFF, 0xEE}},
        Case{"EndMarker2", {5, 2}, 8, 2, {5, 0xEE}},
        Case{"LongZeroRun", {0, 0x01, 0x01, 1}, 300, 1, Bytes(258, 0)},
        Case{"ZeroRunBeginsBehindTheOutput", {5, 0, 0, 0, 1}, 1, 3, {5, 0}},
        Case{"ZeroRunWithoutLength", {0}, 8, 4, {0, 0xEE}},
        Case{"ZeroRunWithHalfALength", {0, 1}, 8, 5, {0, 0xEE}},
        Case{"ZeroRunEndsTheInput", {0, 1, 0}, 8, 6, {0, 0xEE}},
        Case{"ZeroRunLongerThanTheOutput", {0, 8, 0, 1}, 8, 7, {0, 0xEE}},
        Case{"ZeroRunFillsTheOutput", {0, 7, 0, 1}, 8, 1, Bytes(8, 0)},
        Case{"FullRunBeginsBehindTheOutput", {5, 0xFF, 0, 1}, 1, 8, {5, 0xFF}},
        Case{"FullRunWithoutLength", {0xFF}, 8, 9, {0xFF, 0xEE}},
        Case{"FullRunEndsTheInput", {0xFF, 1}, 8, 10, {0xFF, 0xEE}},
        Case{"FullRunLongerThanTheOutput", {0xFF, 8, 1}, 8, 11, {0xFF, 0xEE}},
        Case{"FullRunFillsTheOutput", {0xFF, 7, 1}, 8, 1, Bytes(8, 0xFF)},
        Case{"LiteralBehindTheOutput", {5, 6, 1}, 1, 12, {5, 6}},
        Case{"LiteralEndsTheInput", {5, 6}, 8, 13, {5, 6, 0xEE}},
        Case{"NoRoomAtAll", {5, 1}, 0, 12, {5}}, Case{"EndMarkerWithoutRoom", {1}, 0, 1, {0xEE}},
        Case{"EmptyInput", {}, 4, 14, {0, 0, 0, 0, 0xEE}},
        Case{"EmptyInputAndOutput", {}, 0, 0, {0xEE}}),
    [](const auto& test) { return test.param.name; });

TEST(RunLengthSizes, ANegativeInputSizeDecodesNothing) {
    uint8_t output[2] = {0xEE, 0xEE};
    EXPECT_EQ(DecodeRLE(output, nullptr, 1, -1), 0);
    EXPECT_EQ(output[0], 0xEE);
}

}  // namespace
