#include "crc32.h"

#include <gtest/gtest.h>

namespace {

const uint8_t* const kDigits = reinterpret_cast<const uint8_t*>("123456789");

TEST(Crc32, GivesTheStandardCheckValueWithTheUsualInversions) {
    EXPECT_EQ(kelo_crc32(0xFFFFFFFF, kDigits, 9) ^ 0xFFFFFFFF, 0xCBF43926u);
}

TEST(Crc32, CanBeFedInPieces) {
    const uint32_t whole = kelo_crc32(0x5478DE90, kDigits, 9);
    for (uint32_t cut = 0; cut <= 9; ++cut) {
        EXPECT_EQ(kelo_crc32(kelo_crc32(0x5478DE90, kDigits, cut), kDigits + cut, 9 - cut), whole);
    }
}

TEST(Crc32, LeavesTheValueAloneForNoBytes) {
    EXPECT_EQ(kelo_crc32(0x12345678, kDigits, 0), 0x12345678u);
    EXPECT_EQ(kelo_crc32(0x12345678, nullptr, 0), 0x12345678u);
}

TEST(Crc32, InvertsNeitherTheStartValueNorTheResult) {
    const uint8_t one = 1;
    EXPECT_EQ(kelo_crc32(0, &one, 1), 0x77073096u);
}

TEST(Crc16, GivesTheStandardCheckValue) {
    EXPECT_EQ(kelo_crc16(kDigits, 9), 0xBB3D);
}

TEST(Crc16, IsZeroForNoBytes) {
    EXPECT_EQ(kelo_crc16(kDigits, 0), 0);
    EXPECT_EQ(kelo_crc16(nullptr, 0), 0);
    EXPECT_EQ(kelo_crc16(kDigits, -1), 0);
}

TEST(Reflect, ReversesTheLowestBits) {
    EXPECT_EQ(reflect(0x01, 8), 0x80u);
    EXPECT_EQ(reflect(0x0001, 16), 0x8000u);
    EXPECT_EQ(reflect(0x80000000, 32), 1u);
}

TEST(Reflect, DropsTheHigherBits) {
    EXPECT_EQ(reflect(0xFFFFFF02, 4), 0x4u);
}

}  // namespace
