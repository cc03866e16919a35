// The blocking ring, its wrapper and the flag that ends a wait.

#include <memory>
#include <type_traits>

#include "BlockingQueue.h"
#include "syncd_queue.h"
#include "waiting_call.h"

using kelo::test::WaitingCall;
using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;
using Queue = BlockingQueue<int>;
constexpr std::chrono::milliseconds kLong = 60s;

void Fill(Queue& queue, int count) {
    for (int i = 0; i < count; ++i)
        ASSERT_TRUE(queue.try_push(i)) << i;
}

TEST(BlockingQueueTest, BeginsEmpty) {
    Queue queue(1024);
    int item = 42;
    EXPECT_EQ(1024u, queue.size());
    EXPECT_EQ(0u, queue.pending());
    EXPECT_FALSE(queue.try_pop(item));
    EXPECT_EQ(42, item);
}

TEST(BlockingQueueTest, OneSlotAlwaysStaysFree) {
    Queue queue(1024);
    Fill(queue, 1023);
    EXPECT_EQ(1023u, queue.pending());
    EXPECT_FALSE(queue.try_push(1023));
    EXPECT_EQ(1023u, queue.pending());
}

TEST(BlockingQueueTest, PushIntoAFullQueueWaitsForAPop) {
    Queue queue(1024);
    Fill(queue, 1023);
    WaitingCall<void> push([&] { queue.push_wait(1023); });
    push.AwaitSleep();
    EXPECT_EQ(1023u, queue.pending());
    int item = -1;
    EXPECT_TRUE(queue.try_pop(item));
    EXPECT_EQ(0, item);
    push.Get();
    EXPECT_EQ(1023u, queue.pending());
    for (int expected = 1; expected <= 1023; ++expected) {
        queue.pop_wait(item);
        ASSERT_EQ(expected, item);
    }
}

TEST(BlockingQueueTest, PopWaitsForAPush) {
    Queue queue(4);
    int item = 0;
    WaitingCall<void> pop([&] { queue.pop_wait(item); });
    pop.AwaitSleep();
    queue.push_wait(7);
    pop.Get();
    EXPECT_EQ(7, item);
}

TEST(BlockingQueueTest, TimedPopOfAnEmptyQueueGivesUpAndLeavesItAsItWas) {
    Queue queue(3);
    int item = 42;
    const auto begin = Clock::now();
    EXPECT_FALSE(queue.pop_waitfor(item, 30ms));
    EXPECT_GE(Clock::now() - begin, 30ms);
    EXPECT_EQ(42, item);
    EXPECT_EQ(0u, queue.pending());
    Fill(queue, 2);
    EXPECT_FALSE(queue.try_push(2)) << "a head has moved";
}

TEST(BlockingQueueTest, TimedPopWithNoTimeIsANonBlockingTry) {
    Queue queue(3);
    int item = 0;
    EXPECT_FALSE(queue.pop_waitfor(item, 0ms));
    EXPECT_FALSE(queue.pop_waitfor(item, -5ms));
    queue.push_wait(9);
    EXPECT_TRUE(queue.pop_waitfor(item, 0ms));
    EXPECT_EQ(9, item);
}

TEST(BlockingQueueTest, TimedPopIsWokenByAPush) {
    Queue queue(3);
    int item = 0;
    WaitingCall<bool> pop([&] { return queue.pop_waitfor(item, kLong); });
    pop.AwaitSleep();
    queue.push_wait(11);
    EXPECT_TRUE(pop.Get());
    EXPECT_EQ(11, item);
}

TEST(BlockingQueueTest, HeadsWrapAtTheCapacity) {
    Queue queue(3);
    EXPECT_EQ(1u, queue.increment(0));
    EXPECT_EQ(0u, queue.increment(2));
    for (int i = 0; i < 10; ++i) {
        queue.push_wait(2 * i);
        queue.push_wait(2 * i + 1);
        EXPECT_EQ(2u, queue.pending()) << i;
        EXPECT_FALSE(queue.try_push(-1)) << i;
        int first = -1;
        int second = -1;
        EXPECT_TRUE(queue.try_pop(first));
        EXPECT_TRUE(queue.try_pop(second));
        EXPECT_EQ(std::pair(2 * i, 2 * i + 1), std::pair(first, second));
        EXPECT_EQ(0u, queue.pending()) << i;
    }
}

// A ring of a thousand slots would otherwise hold on to the last thousand items.
TEST(BlockingQueueTest, APoppedSlotHoldsNothing) {
    BlockingQueue<std::shared_ptr<int>> queue(4);
    auto item = std::make_shared<int>(1);
    const std::weak_ptr<int> observer = item;
    queue.push_wait(item);
    item.reset();
    EXPECT_TRUE(queue.try_pop(item));
    item.reset();
    EXPECT_TRUE(observer.expired());
}

TEST(BlockingQueueTest, ResizeSetsTheCapacity) {
    Queue queue(2);
    queue.resize(6);
    EXPECT_EQ(6u, queue.size());
    Fill(queue, 5);
    EXPECT_FALSE(queue.try_push(5));
}

TEST(BlockingQueueTest, HeadsAreLockFreeAndTheDestructorIsVirtual) {
    EXPECT_TRUE(Queue(2).is_lock_free());
    static_assert(std::has_virtual_destructor_v<Queue>);
}

TEST(BlockingQueueTest, CarriesEverythingInOrderBetweenTwoThreads) {
    constexpr int kItems = 20000;
    Queue queue(5);
    std::thread producer([&] {
        for (int i = 0; i < kItems; ++i) {
            // Both ways in.
            if (i % 3 != 0 || !queue.try_push(i)) queue.push_wait(i);
        }
    });
    for (int expected = 0; expected < kItems; ++expected) {
        int item = -1;
        if (expected % 2 == 0) {
            queue.pop_wait(item);
        } else {
            EXPECT_TRUE(queue.pop_waitfor(item, kLong));
        }
        // No early end: the producer would wait for ever.
        EXPECT_EQ(expected, item);
    }
    producer.join();
    EXPECT_EQ(0u, queue.pending());
}

class SyncdQueueTest : public testing::Test {
protected:
    // How long Get takes to bring nothing.
    Clock::duration TimeOfEmptyGet(int timeout_ms, AbortFlag abort) {
        int item = 0;
        const auto begin = Clock::now();
        EXPECT_FALSE(queue.Get(timeout_ms, item, abort));
        return Clock::now() - begin;
    }

    TSyncdQueue<int> queue{1024};
};

TEST_F(SyncdQueueTest, GivesItemsBackInOrderAndCountsThem) {
    queue.Put(1);
    EXPECT_TRUE(queue.TryPut(2));
    EXPECT_EQ(2u, queue.Count());
    int item = 0;
    queue.Get(item);
    EXPECT_EQ(1, item);
    EXPECT_TRUE(queue.Get(0, item));
    EXPECT_EQ(2, item);
    EXPECT_EQ(0u, queue.Count());
}

TEST_F(SyncdQueueTest, HoldsOneItemLessThanItsCapacity) {
    for (int i = 0; i < 1023; ++i)
        queue.Put(i);
    EXPECT_EQ(1023u, queue.Count());
    EXPECT_FALSE(queue.TryPut(1023));
}

TEST(SyncdQueueDefaultTest, Holds1023Items) {
    TSyncdQueue<int> queue;
    for (int i = 0; i < 1023; ++i)
        ASSERT_TRUE(queue.TryPut(i));
    EXPECT_FALSE(queue.TryPut(1023));
}

TEST_F(SyncdQueueTest, ResizeSetsTheCapacity) {
    queue.resize(3);
    EXPECT_TRUE(queue.TryPut(0));
    EXPECT_TRUE(queue.TryPut(1));
    EXPECT_FALSE(queue.TryPut(2));
}

TEST_F(SyncdQueueTest, GetWithoutAFlagWaitsItsTime) {
    EXPECT_GE(TimeOfEmptyGet(20, nullptr), 20ms);
}

TEST_F(SyncdQueueTest, GetWithAClearFlagWaitsItsTime) {
    bool abort = false;
    EXPECT_GE(TimeOfEmptyGet(20, &abort), 20ms);
}

TEST_F(SyncdQueueTest, GetWithAClearFlagGoesOnAfterTheFirstSlice) {
    bool abort = false;
    EXPECT_GE(TimeOfEmptyGet(1050, &abort), 1050ms);
}

TEST_F(SyncdQueueTest, ASetFlagIsReadAfterASliceOfASecond) {
    bool abort = true;
    const auto time = TimeOfEmptyGet(60000, &abort);
    EXPECT_GE(time, 1000ms);
    EXPECT_LT(time, 30s);
}

TEST_F(SyncdQueueTest, TheFlagMayBeSetDuringTheWait) {
    std::atomic<bool> abort{false};
    WaitingCall<Clock::duration> get([&] { return TimeOfEmptyGet(60000, &abort); });
    get.AwaitSleep();
    abort = true;
    EXPECT_LT(get.Get(), 30s);
}

TEST_F(SyncdQueueTest, AnItemIsTakenEvenWhenTheFlagIsSet) {
    bool abort = true;
    queue.Put(5);
    int item = 0;
    EXPECT_TRUE(queue.Get(0, item, &abort));
    EXPECT_EQ(5, item);
}

TEST_F(SyncdQueueTest, NoTimeOrLessIsANonBlockingTryWithOrWithoutAFlag) {
    bool abort = false;
    for (const int timeout_ms : {0, -1, -100000}) {
        EXPECT_LT(TimeOfEmptyGet(timeout_ms, nullptr), 10s);
        EXPECT_LT(TimeOfEmptyGet(timeout_ms, &abort), 10s);
    }
}

TEST_F(SyncdQueueTest, APutWakesAWaitingGet) {
    bool abort = false;
    int item = 0;
    WaitingCall<bool> get([&] { return queue.Get(60000, item, &abort); });
    get.AwaitSleep();
    queue.Put(8);
    EXPECT_TRUE(get.Get());
    EXPECT_EQ(8, item);
}

TEST(AbortFlagTest, MayBeAbsent) {
    EXPECT_FALSE(AbortFlag().IsPresent());
    EXPECT_FALSE(AbortFlag(nullptr).IsPresent());
    EXPECT_FALSE(AbortFlag().IsSet());
}

TEST(AbortFlagTest, FollowsAPlainFlag) {
    bool flag = false;
    const AbortFlag abort(&flag);
    EXPECT_TRUE(abort.IsPresent());
    EXPECT_FALSE(abort.IsSet());
    flag = true;
    EXPECT_TRUE(abort.IsSet());
}

TEST(AbortFlagTest, FollowsAnAtomicFlag) {
    std::atomic<bool> flag{true};
    const AbortFlag abort(&flag);
    EXPECT_TRUE(abort.IsPresent());
    EXPECT_TRUE(abort.IsSet());
    flag = false;
    EXPECT_FALSE(abort.IsSet());
}

}  // namespace
