#include "Timer.h"

#include <algorithm>
#include <latch>

#include "wait_for.h"
#include "waiting_call.h"

using kelo::test::WaitFor;
using kelo::test::WaitingCall;
using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds kNever = 1h;

class TimerTest : public testing::Test {
protected:
    std::function<void()> Count() {
        return [this] { ++calls; };
    }

    std::atomic<int> calls{0};
    Timer timer;
};

TEST_F(TimerTest, CallsAgainAndAgain) {
    timer.start(1ms, Count());
    EXPECT_TRUE(WaitFor([&] { return calls >= 3; }));
    timer.stop();
}

TEST_F(TimerTest, TheFirstCallComesAfterTheInterval) {
    std::atomic<Clock::time_point> first{Clock::time_point::max()};
    const auto begin = Clock::now();
    timer.start(20ms, [&] {
        if (calls++ == 0) first = Clock::now();
    });
    ASSERT_TRUE(WaitFor([&] { return calls > 0; }));
    timer.stop();
    EXPECT_GE(first.load() - begin, 20ms);
}

TEST_F(TimerTest, TheIntervalBeginsWhenACallHasReturned) {
    struct Call {
        Clock::time_point begin;
        Clock::time_point end;
    };
    std::vector<Call> log;
    timer.start(10ms, [&] {
        if (log.size() == 4) return;
        const auto begin = Clock::now();
        std::this_thread::sleep_for(15ms);
        log.push_back({begin, Clock::now()});
        ++calls;
    });
    ASSERT_TRUE(WaitFor([&] { return calls == 4; }));
    timer.stop();
    for (size_t i = 1; i < log.size(); ++i) {
        EXPECT_GE(log[i].begin - log[i - 1].end, 10ms) << "a call that catches up";
        EXPECT_GE(log[i].begin - log[i - 1].begin, 25ms);
    }
    // And not much later, or the period would not be the sum: the quickest of them is taken, as
    // the machine may be busy.
    auto shortest = Clock::duration::max();
    for (size_t i = 1; i < log.size(); ++i) {
        shortest = std::min(shortest, log[i].begin - log[i - 1].begin);
    }
    EXPECT_LT(shortest, 2s);
}

TEST_F(TimerTest, StopWithoutStartReturnsAtOnce) {
    timer.stop();
    timer.stop();
}

TEST_F(TimerTest, StopWhileWaitingEndsTheThreadWithoutAnotherCall) {
    const auto begin = Clock::now();
    timer.start(kNever, Count());
    timer.stop();
    EXPECT_LT(Clock::now() - begin, 20s);
    EXPECT_EQ(0, calls);
}

TEST_F(TimerTest, StopDuringACallIsNotLost) {
    std::latch called(1);
    std::latch go_on(1);
    timer.start(1ms, [&] {
        if (calls++ == 0) {
            called.count_down();
            go_on.wait();
        }
    });
    called.wait();
    WaitingCall<void> stop([&] { timer.stop(); });
    stop.AwaitSleep();
    go_on.count_down();
    stop.Get();
    // The thread has been joined: were the stop lost, this line would never be reached.
    const int calls_at_stop = calls;
    std::this_thread::sleep_for(10ms);
    EXPECT_EQ(calls_at_stop, calls);
}

TEST_F(TimerTest, StopWaitsForACallThatIsGoingOn) {
    std::latch called(1);
    std::atomic<bool> returned{false};
    timer.start(1ms, [&] {
        if (calls++ == 0) {
            called.count_down();
            std::this_thread::sleep_for(20ms);
            returned = true;
        }
    });
    called.wait();
    timer.stop();
    EXPECT_TRUE(returned);
}

TEST_F(TimerTest, StartingAgainReplacesTheFunction) {
    std::atomic<int> second_calls{0};
    timer.start(1ms, Count());
    ASSERT_TRUE(WaitFor([&] { return calls > 0; }));
    timer.start(1ms, [&] { ++second_calls; });
    const int first_calls = calls;
    ASSERT_TRUE(WaitFor([&] { return second_calls >= 5; }));
    EXPECT_EQ(first_calls, calls);
    timer.stop();
}

TEST_F(TimerTest, StartingAgainReplacesTheInterval) {
    timer.start(kNever, Count());
    timer.start(1ms, Count());
    EXPECT_TRUE(WaitFor([&] { return calls > 0; }));
    timer.stop();
}

TEST_F(TimerTest, CanBeStartedAfterAStop) {
    timer.start(kNever, Count());
    timer.stop();
    timer.start(1ms, Count());
    EXPECT_TRUE(WaitFor([&] { return calls > 0; }));
    timer.stop();
}

TEST_F(TimerTest, KeepsItsOwnCopiesOfIntervalAndFunction) {
    auto interval = std::make_unique<std::chrono::milliseconds>(1);
    auto function = std::make_unique<std::function<void()>>(Count());
    timer.start(*interval, *function);
    interval.reset();
    function.reset();
    EXPECT_TRUE(WaitFor([&] { return calls >= 2; }));
    timer.stop();
}

TEST_F(TimerTest, DestructionEndsTheThread) {
    {
        Timer local;
        local.start(1ms, Count());
        ASSERT_TRUE(WaitFor([&] { return calls > 0; }));
    }
    const int calls_at_end = calls;
    std::this_thread::sleep_for(10ms);
    EXPECT_EQ(calls_at_end, calls);
}

TEST_F(TimerTest, AnEmptyFunctionIsABadCall) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto run = [] {
        Timer local;
        local.start(1ms, {});
        // The process ends long before.
        std::this_thread::sleep_for(20s);
    };
    EXPECT_DEATH(run(), "bad_function_call");
}

}  // namespace
