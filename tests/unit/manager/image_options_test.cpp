#include "image_options.h"

#include <gtest/gtest.h>

namespace {

struct Case {
    const char* line;
    bool understood;
    double factor;  // 0: left as it was
};

class ImageOptions : public testing::TestWithParam<Case> {};

TEST_P(ImageOptions, ParsesALine) {
    TImageOptions options;
    EXPECT_EQ(options.Parse(GetParam().line), GetParam().understood);
    EXPECT_EQ(options.Type, TImageOptions::TYPE_UDP);
    EXPECT_DOUBLE_EQ(options.KernelMemoryFactor, GetParam().factor);
}

INSTANTIATE_TEST_SUITE_P(Lines, ImageOptions,
                         testing::Values(Case{"UDP 2.5", true, 2.5}, Case{"UDP", true, 1.0},
                                         Case{"  UDP 100\n", true, 100}, Case{"UDP 0.3", true, 0.3},
                                         Case{"UDP 0.2", false, 0}, Case{"UDP 100.5", false, 0},
                                         Case{"UDP many", true, 1.0}, Case{"PCAP 2", false, 0},
                                         Case{"udp 2", false, 0}, Case{"UDPUDPUDPUDP 2", false, 0},
                                         Case{"", false, 0}, Case{"  \n", false, 0}));

TEST(ImageOptionsTwice, AFactorOutOfRangeLeavesTheOldOne) {
    TImageOptions options;
    options.Type = TImageOptions::TYPE_PCAP;
    ASSERT_TRUE(options.Parse("UDP 3"));
    EXPECT_FALSE(options.Parse("UDP 0.1"));
    EXPECT_DOUBLE_EQ(options.KernelMemoryFactor, 3);
    options.Type = TImageOptions::TYPE_PCAP;
    EXPECT_FALSE(options.Parse("UDP 0.1"));
    EXPECT_EQ(options.Type, TImageOptions::TYPE_UDP);
}

}  // namespace
