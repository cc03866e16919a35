#include <gtest/gtest.h>

#include "ImageExpectation.h"

namespace {

using namespace std::chrono_literals;

class ImageExpectationTest : public testing::Test {
protected:
    // An image whose packets come 10 us after each other has got so many of its 1000.
    bool IsDueAfter(uint32_t received) {
        const uint32_t to_come = 1000 - received;
        return image.IsNear(received, to_come) &&
               image.IsDue(begin + received * 10us, received, to_come);
    }

    ImageExpectation image;
    const ImageExpectation::Clock::time_point begin{1h};
};

TEST_F(ImageExpectationTest, IsDueWhenTheRestTakes200MicrosecondsAtMost) {
    image.Begin(begin);
    EXPECT_FALSE(IsDueAfter(979));
    EXPECT_TRUE(IsDueAfter(980));
}

TEST_F(ImageExpectationTest, IsDueOnceForEachImage) {
    image.Begin(begin);
    EXPECT_TRUE(IsDueAfter(990));
    EXPECT_FALSE(IsDueAfter(991));
    image.Begin(begin);
    EXPECT_TRUE(IsDueAfter(991));
}

TEST_F(ImageExpectationTest, IsNotNearBeforeTheLastTwentieth) {
    image.Begin(begin);
    EXPECT_FALSE(image.IsNear(999, 50));
    EXPECT_TRUE(image.IsNear(1000, 50));
}

TEST_F(ImageExpectationTest, AnImageOfFewPacketsIsNeverNear) {
    image.Begin(begin);
    for (uint32_t received = 1; received < 20; ++received)
        EXPECT_FALSE(image.IsNear(received, 1)) << received;
    EXPECT_TRUE(image.IsNear(20, 1));
}

TEST_F(ImageExpectationTest, NothingIsNearWithoutAnImageOrBehindItsEnd) {
    EXPECT_FALSE(image.IsNear(1000, 1));
    image.Begin(begin);
    EXPECT_FALSE(image.IsNear(1000, 0));
}

}  // namespace
