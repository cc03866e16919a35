#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "ImageWatch.h"
#include "in_time.h"

namespace kelo::test {
namespace {

using namespace std::chrono_literals;
using Clock = ImageWatch::Clock;

const auto kNever = [] { return false; };

class ImageWatchTest : public testing::Test {
protected:
    ImageWatch watch;
    const Clock::time_point begin = Clock::now();
};

TEST_F(ImageWatchTest, AnImageThatIsThereIsNotWatchedFor) {
    int asked = 0;
    watch.Watch([&] { return ++asked, true; }, begin + 1h);
    EXPECT_EQ(asked, 1);
    EXPECT_TRUE(watch.IsWorthwhile(begin));
}

TEST_F(ImageWatchTest, SeesAnImageThatAnotherThreadCompletes) {
    std::atomic<bool> here = false;
    std::thread other([&] { here = true; });
    while (!here)
        watch.Watch([&] { return here.load(); }, begin + 1h);
    other.join();
}

TEST_F(ImageWatchTest, LastsForAFractionOfAMillisecond) {
    RepeatUntilInTime([&] {
        const Stopwatch watching;
        watch.Watch(kNever, begin + 1h);
        return watching.Elapsed() < 5ms;
    });
}

TEST_F(ImageWatchTest, EndsAtTheDeadline) {
    int asked = 0;
    watch.Watch([&] { return ++asked, false; }, begin);
    EXPECT_EQ(asked, 1) << "whether the image is there at last";
    EXPECT_TRUE(watch.IsWorthwhile(begin)) << "it was not the image that was late";
}

TEST_F(ImageWatchTest, IsLeftAloneForASecondWhenTheImageDoesNotCome) {
    EXPECT_TRUE(watch.IsWorthwhile(begin));
    watch.Watch(kNever, begin + 1h);
    EXPECT_FALSE(watch.IsWorthwhile(begin + 1s));
    EXPECT_TRUE(watch.IsWorthwhile(Clock::now() + 1s));
}

// Watching in turns with somebody who computes.
TEST_F(ImageWatchTest, IsLeftAloneWhenSomebodyElseWantsTheCore) {
    int asked = 0;
    watch.Watch(
        [&] {
            ++asked;
            std::this_thread::sleep_for(200us);
            return false;
        },
        begin + 1h);
    EXPECT_EQ(asked, 2) << "in turns with sleeping, and at last";
    EXPECT_FALSE(watch.IsWorthwhile(begin + 1s));
    EXPECT_TRUE(watch.IsWorthwhile(Clock::now() + 1s));
}

}  // namespace
}  // namespace kelo::test
