// The ring between one producer and one consumer: every order of steps.

#include "model.h"

// The code as it is, and with faults that must be found.
namespace real {
#include "queue.inc"
}
namespace push_unlocked {
#include "queue_push_unlocked.inc"
}
namespace pop_unlocked {
#include "queue_pop_unlocked.inc"
}
namespace waits_under_the_wrong_lock {
#include "queue_waits_under_the_wrong_lock.inc"
}
namespace early_head {
#include "queue_early_head.inc"
}
namespace without_signal {
#include "queue_without_signal.inc"
}
namespace without_free_slot {
#include "queue_without_free_slot.inc"
}

namespace kelo::model {
namespace {

// A copy takes two steps: a slot that is read while it is written shows.
struct Item {
    int first = 0;
    int second = 0;
    Item() = default;
    explicit Item(int value) : first(value), second(value) {}
    Item(const Item&) = default;
    Item& operator=(const Item& other) {
        first = other.first;
        Scheduler::Point();
        second = other.second;
        return *this;
    }
};

constexpr int kItems = 3;

void RequireNext(const Item& item, int& expected) {
    Require(item.first == item.second, "a torn item");
    Require(item.first == expected, "items out of order");
    ++expected;
}

// More items than the ring of two places (one of which stays free) holds: both sides wait.
template <typename Queue>
void PushAndPop() {
    Queue queue(2);
    Thread producer([&] {
        for (int i = 1; i <= kItems; ++i)
            queue.push_wait(Item(i));
    });
    int expected = 1;
    while (expected <= kItems) {
        Item item;
        queue.pop_wait(item);
        RequireNext(item, expected);
    }
    producer.join();
    Require(queue.pending() == 0, "items are left");
}

// A consumer with little time, a producer that does not wait.
template <typename Queue>
void TryAndPopInTime() {
    Queue queue(3);
    int pushed = 0;
    Thread producer([&] {
        for (int i = 1; i <= kItems; ++i) {
            if (!queue.try_push(Item(i))) break;
            pushed = i;
        }
    });
    int expected = 1;
    for (int i = 0; i < 2; ++i) {
        Item item;
        if (queue.pop_waitfor(item, std::chrono::milliseconds(1))) RequireNext(item, expected);
    }
    producer.join();
    Item item;
    while (queue.try_pop(item))
        RequireNext(item, expected);
    Require(expected == pushed + 1, "an item is lost");
}

// The second wait for an answer begins while the first item's signal is still under way.
template <typename Queue>
void WaitsInTime() {
    Queue queue(3);
    Thread producer([&] { queue.push_wait(Item(1)); });
    Item item;
    Require(queue.pop_waitfor(item, std::chrono::milliseconds(1)), "an item is not waited for");
    producer.join();
    Require(!SomebodyWaitedForTime(), "a signal is lost: somebody waited for time");
}

constexpr Bounds kBounds{.preemptions = 3, .timeouts = 1};
constexpr Bounds kNoTimeouts{.preemptions = 4, .timeouts = 0};

TEST(QueueModel, ItemsComeInOrderAndNobodyIsLeftWaiting) {
    ExpectToHold(kBounds, PushAndPop<real::BlockingQueue<Item>>);
}

TEST(QueueModel, WaitsThatEndByTimeLoseNothing) {
    ExpectToHold(kBounds, TryAndPopInTime<real::BlockingQueue<Item>>);
}

TEST(QueueModel, ASignalIsNeverMissed) {
    ExpectToHold(kNoTimeouts, WaitsInTime<real::BlockingQueue<Item>>);
}

TEST(QueueModelFindsThat, PushSignalsOutsideItsLock) {
    ExpectToFail(kBounds, PushAndPop<push_unlocked::BlockingQueue<Item>>, "a deadlock");
    ExpectToFail(kNoTimeouts, WaitsInTime<push_unlocked::BlockingQueue<Item>>, "a signal is lost");
}

TEST(QueueModelFindsThat, PopSignalsOutsideItsLock) {
    ExpectToFail(kBounds, PushAndPop<pop_unlocked::BlockingQueue<Item>>, "a deadlock");
}

TEST(QueueModelFindsThat, AWaitIsUnderTheWrongLock) {
    ExpectToFail(kNoTimeouts, WaitsInTime<waits_under_the_wrong_lock::BlockingQueue<Item>>,
                 "a signal is lost");
}

TEST(QueueModelFindsThat, AnItemIsAnnouncedBeforeItIsThere) {
    ExpectToFail(kBounds, PushAndPop<early_head::BlockingQueue<Item>>, "item");
    ExpectToFail(kBounds, TryAndPopInTime<early_head::BlockingQueue<Item>>, "item");
}

TEST(QueueModelFindsThat, APopDoesNotSignal) {
    ExpectToFail(kBounds, PushAndPop<without_signal::BlockingQueue<Item>>, "a deadlock");
}

TEST(QueueModelFindsThat, AFullRingIsOverrun) {
    ExpectToFail(kBounds, TryAndPopInTime<without_free_slot::BlockingQueue<Item>>, "item");
}

}  // namespace
}  // namespace kelo::model
