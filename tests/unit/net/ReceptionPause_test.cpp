#include "ReceptionPause.h"

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;

constexpr size_t kLargeBuffer = 64 << 20;
constexpr uint32_t kFarAway = UINT32_MAX;

class ReceptionPauseTest : public testing::Test {
protected:
    // count datagrams one by one, interval after each other; what comes of the last one.
    nanoseconds Receive(int count, nanoseconds interval, size_t bytes = 1472,
                        TOutlook outlook = {.until_wanted = kFarAway}, bool drained = true) {
        nanoseconds length{};
        for (int i = 0; i < count; ++i) {
            now += interval;
            length = pause.After(now, 1, bytes, outlook, drained);
        }
        return length;
    }

    ReceptionPause pause{kLargeBuffer};
    ReceptionPause::Clock::time_point now{1h};
};

TEST_F(ReceptionPauseTest, ComesWhenSeveralDatagramsAreDueInIt) {
    EXPECT_EQ(800us, Receive(100, 12us));
}

TEST_F(ReceptionPauseTest, NeedsARateFirst) {
    EXPECT_EQ(0ns, Receive(16, 12us)) << "the time before the first one is not known";
    EXPECT_EQ(800us, Receive(1, 12us));
}

TEST_F(ReceptionPauseTest, IsNotMadeForFewDatagrams) {
    EXPECT_EQ(800us, Receive(100, 200us));
    EXPECT_EQ(0ns, Receive(1000, 201us));
}

// By a quarter of its length, as the rate is an estimate, and the time of a late wake-up.
TEST_F(ReceptionPauseTest, EndsWellBeforeSomebodyWantsTheResult) {
    Receive(1000, 5us);
    const auto when_wanted_in = [&](uint32_t datagrams) {
        return Receive(1, 5us, 1472, {.until_wanted = datagrams});
    };
    EXPECT_EQ(800us, when_wanted_in(215));
    EXPECT_EQ(400us, when_wanted_in(214));
    EXPECT_EQ(400us, when_wanted_in(115));
    EXPECT_EQ(200us, when_wanted_in(114));
    EXPECT_EQ(200us, when_wanted_in(65));
    EXPECT_EQ(100us, when_wanted_in(64));
    EXPECT_EQ(100us, when_wanted_in(40));
    EXPECT_EQ(0ns, when_wanted_in(39));
    EXPECT_EQ(0ns, when_wanted_in(0));
}

TEST_F(ReceptionPauseTest, IsNotMadeWhileThereIsMoreToTake) {
    Receive(100, 12us);
    EXPECT_EQ(0ns, Receive(1, 12us, 1472, {.until_wanted = kFarAway}, false));
}

TEST_F(ReceptionPauseTest, LeavesTheCoreToWhoeverWasGivenTheLastResult) {
    Receive(100, 12us);
    EXPECT_EQ(0ns, Receive(1, 12us, 1472, {.until_wanted = kFarAway, .begins = true}));
    EXPECT_EQ(0ns, Receive(8, 12us)) << "96 us later";
    EXPECT_EQ(800us, Receive(1, 12us));
}

TEST_F(ReceptionPauseTest, LetsNoMoreGatherThanTheCacheHolds) {
    EXPECT_EQ(800us, Receive(3000, 10us, 9000)) << "720 KB";
    EXPECT_EQ(400us, Receive(3000, 5us, 9000)) << "720 KB";
    EXPECT_EQ(200us, Receive(3000, 3us, 9000)) << "600 KB";
    EXPECT_EQ(100us, Receive(3000, 2us, 9000)) << "450 KB";
    EXPECT_EQ(0ns, Receive(3000, 1us, 9000)) << "900 KB";
}

// The buffer is for stalls: a pause takes the thirty-second part of it at most.
TEST_F(ReceptionPauseTest, LeavesASmallBufferToStalls) {
    pause = ReceptionPause(8 << 20);
    EXPECT_EQ(800us, Receive(1000, 15us, 1472)) << "180 KB with the kernel's bookkeeping";
    EXPECT_EQ(200us, Receive(3000, 15us, 8972)) << "250 KB";
    EXPECT_EQ(100us, Receive(3000, 9us, 8972)) << "200 KB";
    EXPECT_EQ(0ns, Receive(3000, 6us, 8972)) << "300 KB";
    // What a system grants that was never told otherwise.
    pause = ReceptionPause(425984);
    EXPECT_EQ(0ns, Receive(3000, 12us, 1472));
}

TEST_F(ReceptionPauseTest, IsNotMisledByTheTimeBetweenImages) {
    Receive(2000, 12us);
    for (int image = 0; image < 20; ++image) {
        now += 1500us;
        pause.After(now, 1, 1472, {.until_wanted = 100, .begins = true}, true);
        EXPECT_EQ(800us, Receive(50, 12us));
    }
    now += 3ms;  // longer than any distance of packets, within an image or not
    EXPECT_EQ(800us, pause.After(now, 1, 1472, {.until_wanted = kFarAway}, true));
}

TEST_F(ReceptionPauseTest, FollowsTheRateWithinAnImageOrTwo) {
    Receive(10000, 12us);
    EXPECT_EQ(0ns, Receive(4000, 250us));
    EXPECT_EQ(800us, Receive(6000, 12us));
}

TEST_F(ReceptionPauseTest, CountsManyDatagramsOfABatch) {
    nanoseconds length{};
    for (int i = 0; i < 10; ++i) {
        now += 80us;
        length = pause.After(now, 8, 8 * 1472, {.until_wanted = 1000}, true);
    }
    EXPECT_EQ(800us, length);
}

// Two batches at the same moment of a coarse clock.
TEST_F(ReceptionPauseTest, StandsATimeThatDoesNotPass) {
    EXPECT_EQ(0ns, Receive(100, 0ns));
}

}  // namespace
