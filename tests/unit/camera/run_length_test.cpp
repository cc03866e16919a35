#include "run_length.h"

#include <cstdint>
#include <random>

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

// The format's description, one step after the other.
int SlowDecode(Bytes& out, const Bytes& in, uint32_t buffer_size) {
    uint32_t pixels = 0;
    uint32_t used = 0;
    const auto size = static_cast<uint32_t>(in.size());
    const auto put = [&](uint8_t v, uint32_t n) {
        for (uint32_t i = 0; i < n; ++i)
            out.at(pixels - n + i) = v;
    };
    for (uint32_t i = 0; i != size; ++i) {
        const uint8_t v = in.at(used);
        if (v == 1 || v == 2) return v;
        ++pixels;
        put(v, 1);
        if (v == 0) {
            if (buffer_size < pixels) return 3;
            if (size <= used + 1) return 4;
            if (size <= used + 2) return 5;
            const uint32_t n = in.at(used + 1) + 256u * in.at(used + 2);
            used += 3;
            if (size <= used) return 6;
            pixels += n;
            if (buffer_size < pixels) return 7;
            put(0, n);
        } else if (v == 0xFF) {
            if (buffer_size < pixels) return 8;
            if (size <= used + 1) return 9;
            const uint32_t n = in.at(used + 1);
            used += 2;
            if (size <= used) return 10;
            pixels += n;
            if (buffer_size < pixels) return 11;
            put(0xFF, n);
        } else {
            if (buffer_size < pixels) return 12;
            used += 1;
            if (size <= used) return 13;
        }
    }
    return 0;
}

TEST(RunLengthSizes, AgreesWithTheSlowDecoderOnRandomInput) {
    std::mt19937 random(7);
    for (int round = 0; round < 20000; ++round) {
        Bytes input(1 + random() % 40);
        for (uint8_t& byte : input) {
            const uint32_t kind = random() % 8;
            byte = kind == 0 ? 0 : kind == 1 ? 0xFF : static_cast<uint8_t>(random() % (kind + 2));
        }
        if (random() % 4 == 0) input.back() = static_cast<uint8_t>(1 + random() % 2);
        const uint32_t size = random() % 700;
        Bytes expected(size + 1, 0xEE);
        Bytes output(size + 1, 0xEE);
        const int expected_result = SlowDecode(expected, input, size);
        ASSERT_EQ(DecodeRLE(output.data(), input.data(), static_cast<int>(size),
                            static_cast<int>(input.size())),
                  expected_result);
        ASSERT_EQ(output, expected);
    }
}

// Rows of literals are copied many at a time: all lengths and both limits, input and output.
TEST(RunLengthSizes, AgreesWithTheSlowDecoderOnRowsOfLiterals) {
    std::mt19937 random(11);
    for (uint32_t row = 0; row < 200; ++row) {
        for (int round = 0; round < 10; ++round) {
            Bytes input;
            for (uint32_t i = 0; i < row; ++i) {
                input.push_back(static_cast<uint8_t>(3 + random() % 252));
            }
            const Bytes ends[] = {{1}, {2}, {0, 4, 0, 1}, {0xFF, 4, 1}, {0}, {0xFF}, {}};
            const Bytes& end = ends[random() % std::size(ends)];
            input.insert(input.end(), end.begin(), end.end());
            if (input.empty()) continue;
            // Around the row's length, so that the output ends before, at and behind it.
            const uint32_t around = row + random() % 12;
            const uint32_t size = around > 4 ? around - 4 : 0;
            Bytes expected(size + 1, 0xEE);
            Bytes output(size + 1, 0xEE);
            const int result = SlowDecode(expected, input, size);
            ASSERT_EQ(DecodeRLE(output.data(), input.data(), static_cast<int>(size),
                                static_cast<int>(input.size())),
                      result);
            ASSERT_EQ(output, expected);
        }
    }
}

}  // namespace
