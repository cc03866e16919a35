// The ways in which threads are told to end and waits are ended: every order of steps.

#include <algorithm>
#include <cstring>
#include <optional>

#include "CachedAllocator.h"
#include "ImagesLeftBehind.h"
#include "kelo_types.h"
#include "model.h"
#include "utils.h"

namespace real {
#include "timer_class.inc"
//
#include "timer.inc"
}  // namespace real
namespace timer_stops_unlocked {
#include "timer_class.inc"
//
#include "timer_stops_unlocked.inc"
}  // namespace timer_stops_unlocked
namespace timer_without_signal {
#include "timer_class.inc"
//
#include "timer_without_signal.inc"
}  // namespace timer_without_signal

namespace real {
#include "gate.inc"
}
namespace gate_does_not_wait {
#include "gate_does_not_wait.inc"
}
namespace gate_without_signal {
#include "gate_without_signal.inc"
}

// A watch may end at any moment, whether the image is there or not.
struct ImageWatch {
    bool IsWorthwhile(kelo::model::Clock::time_point) const { return true; }
    template <typename Over>
    void Watch(Over over, kelo::model::Clock::time_point) {
        over();
    }
};

namespace real {
#include "images_class.inc"
//
#include "images.inc"
}  // namespace real
namespace images_end_unlocked {
#include "images_class.inc"
//
#include "images_end_unlocked.inc"
}  // namespace images_end_unlocked
namespace images_forget_the_end {
#include "images_class.inc"
//
#include "images_forget_the_end.inc"
}  // namespace images_forget_the_end
namespace images_go_at_once {
#include "images_class.inc"
//
#include "images_go_at_once.inc"
}  // namespace images_go_at_once
namespace images_wake_nobody {
#include "images_class.inc"
//
#include "images_wake_nobody.inc"
}  // namespace images_wake_nobody
namespace images_come_when_announced {
#include "images_class.inc"
//
#include "images_come_when_announced.inc"
}  // namespace images_come_when_announced
namespace images_watched_for_are_forgotten {
#include "images_class.inc"
//
#include "images_watched_for_are_forgotten.inc"
}  // namespace images_watched_for_are_forgotten
namespace images_wake_who_is_up {
#include "images_class.inc"
//
#include "images_wake_who_is_up.inc"
}  // namespace images_wake_who_is_up

// The session's heartbeat thread and the part of the destructor that ends it. What else these two
// functions use is stood in for.
#define KELO_MODEL_CAMERA                                                \
    constexpr std::chrono::milliseconds kHeartbeatTick(100);             \
    struct Directory {                                                   \
        void Remove(void*) {}                                            \
    };                                                                   \
    class KELOCamera {                                                   \
    public:                                                              \
        explicit KELOCamera(int& runs) : runs_(runs) {                   \
            HeartbeatThread = Thread([this] { HeartbeatThreadFunc(); }); \
        }                                                                \
        ~KELOCamera();                                                   \
        void HeartbeatThreadFunc();                                      \
        void HeartbeatRun() {                                            \
            Require(!gone_, "a heartbeat of a session that is gone");    \
            ++runs_;                                                     \
        }                                                                \
        void doClose(bool) { gone_ = true; }                             \
        bool ManagerIsGoing() const { return false; }                    \
                                                                         \
    private:                                                             \
        int& runs_;                                                      \
        bool gone_ = false;                                              \
        std::unique_ptr<int> intake;                                     \
        Directory* directory = nullptr;                                  \
        Mutex mutex_heartbeat_stop;                                      \
        ConditionVariable cv_heartbeat_stop;                             \
        Atomic<bool> HeartbeatThreadStopWanted{false};                   \
        Thread HeartbeatThread;                                          \
    };

namespace kelo::model {
namespace heartbeat {
KELO_MODEL_CAMERA
#include "heartbeat.inc"
}  // namespace heartbeat
namespace heartbeat_stops_unlocked {
KELO_MODEL_CAMERA
#include "heartbeat_stops_unlocked.inc"
}  // namespace heartbeat_stops_unlocked
namespace heartbeat_without_signal {
KELO_MODEL_CAMERA
#include "heartbeat_without_signal.inc"
}  // namespace heartbeat_without_signal

namespace {

constexpr Bounds kBounds{.preemptions = 4, .timeouts = 2};
constexpr Bounds kNoTimeouts{.preemptions = 4, .timeouts = 0};

void RequireNoWaitForTime() {
    Require(!SomebodyWaitedForTime(), "somebody had to wait for time");
}

template <typename Timer>
void StartAndStop() {
    int calls = 0;
    bool stopped = false;
    {
        Timer timer;
        timer.start(std::chrono::milliseconds(1), [&] {
            Require(!stopped, "a call behind the stop");
            Scheduler::Point();
            ++calls;
        });
        timer.stop();
        stopped = true;
        const int calls_until_stop = calls;
        Scheduler::Point();
        Require(calls == calls_until_stop, "a call goes on behind the stop");
    }
    RequireNoWaitForTime();
}

TEST(StopModel, ATimerEndsAtOnceAndCallsNothingAfterwards) {
    ExpectToHold(kBounds, StartAndStop<real::Timer>);
}

TEST(StopModel, ATimerStartedAnewEndsAsWell) {
    ExpectToHold({.preemptions = 3, .timeouts = 1}, [] {
        real::Timer timer;
        timer.start(std::chrono::milliseconds(1), [] {});
        timer.start(std::chrono::milliseconds(1), [] {});
        timer.stop();
        RequireNoWaitForTime();
    });
}

TEST(StopModelFindsThat, ATimerIsStoppedOutsideItsLock) {
    ExpectToFail(kBounds, StartAndStop<timer_stops_unlocked::Timer>, "wait for time");
}

TEST(StopModelFindsThat, ATimerIsNotWoken) {
    ExpectToFail(kBounds, StartAndStop<timer_without_signal::Timer>, "wait for time");
}

template <typename Gate>
void UseAndClose() {
    Gate gate;
    bool gone = false;
    const auto use = [&] {
        const typename Gate::Pass pass(gate);
        if (!pass) return;
        Require(!gone, "somebody is inside behind the closing");
        Scheduler::Point();
        Require(!gone, "closing does not wait for who is inside");
        const typename Gate::Pass inner(gate);
        Require(!gone, "closing does not wait for who is inside twice");
    };
    Thread first(use);
    Thread second(use);
    gate.Close();
    gone = true;
    first.join();
    second.join();
}

TEST(StopModel, AGateClosesBehindEveryUser) {
    ExpectToHold({.preemptions = 3, .timeouts = 0}, UseAndClose<real::AccessGate>);
}

TEST(StopModelFindsThat, AGateDoesNotWait) {
    ExpectToFail(kBounds, UseAndClose<gate_does_not_wait::AccessGate>, "closing does not wait");
}

TEST(StopModelFindsThat, TheLastUserDoesNotSignal) {
    ExpectToFail(kBounds, UseAndClose<gate_without_signal::AccessGate>, "a deadlock");
}

template <typename Base>
class Images : public Base {
public:
    using Base::announce;
    using Base::takeWoken;
    void Receive(uint32_t number) {
        BufferInfo image{};
        image.imageNumber = number;
        image.buffer = reinterpret_cast<uintptr_t>(this->allocateImage(16));
        this->finish(image);
    }
};

// An application thread waits while another one ends all waits, as a close does.
template <typename Base>
void EndAWait() {
    Images<Base> images;
    Thread waiter([&] {
        const BufferInfo* image = images.GetImage(1000);
        Require(image == nullptr, "an image that never came");
    });
    images.EndWaits();
    waiter.join();
    RequireNoWaitForTime();
}

// Two wait; one image comes; then all waits end.
template <typename Base>
void TwoWaitForOneImage() {
    Images<Base> images;
    int got = 0;
    const auto wait = [&] {
        BufferInfo* const image = images.GetImage(1000);
        if (image == nullptr) return;
        if (images.PopImage(image)) ++got;
    };
    Thread first(wait);
    Thread second(wait);
    images.Receive(1);
    images.EndWaits();
    first.join();
    second.join();
    RequireNoWaitForTime();
    Require(got == 1 || images.GetPendingCount() == 1, "an image is lost");
}

// The image itself wakes who waits; nobody needs the time.
template <typename Base>
void ImageWakes() {
    Images<Base> images;
    Thread receiver([&] { images.Receive(1); });
    BufferInfo* const image = images.GetImage(1000);
    Require(image != nullptr && image->imageNumber == 1, "the image is not seen");
    receiver.join();
    RequireNoWaitForTime();
}

// The same with an image that is announced, and watched for if the receiver is slow enough.
template <typename Base>
void AnnouncedImageWakes() {
    Images<Base> images;
    Thread receiver([&] {
        images.announce();
        images.Receive(1);
    });
    BufferInfo* const image = images.GetImage(1000);
    Require(image != nullptr && image->imageNumber == 1, "the image is not seen");
    receiver.join();
    RequireNoWaitForTime();
}

// Who has got up for the first image is not woken by others.
template <typename Base>
void ThreeImagesCome() {
    Images<Base> images;
    bool is_up = false;
    Thread waiter([&] { is_up = images.GetImage(1000) != nullptr; });
    images.Receive(1);
    images.takeWoken();
    Require(!images.takeWoken(), "it is told twice");
    Scheduler::Point();
    const bool was_up = is_up;
    images.Receive(2);
    images.Receive(3);
    Require(!images.takeWoken() || !was_up, "who is up is woken");
    waiter.join();
}

TEST(StopModel, OnlyWhoeverWaitsIsWoken) {
    ExpectToHold(kNoTimeouts, ThreeImagesCome<real::FinishedImageQueue>);
}

TEST(StopModelFindsThat, WhoIsUpIsWoken) {
    ExpectToFail(kNoTimeouts, ThreeImagesCome<images_wake_who_is_up::FinishedImageQueue>,
                 "who is up is woken");
}

// The stream goes while somebody waits in it. Its memory stays, so that a use shows.
template <typename Base>
void GoUnderAWait() {
    std::optional<Images<Base>> images(std::in_place);
    Thread waiter([&stream = *images] {
        Require(stream.GetImage(1000) == nullptr, "an image that never came");
    });
    // A wait that begins only now is kept out by the registry.
    Scheduler::LetOthersRun();
    images.reset();
    waiter.join();
    RequireNoWaitForTime();
}

TEST(StopModel, AStreamGoesOnlyWhenWhoWaitsInItHasLeft) {
    ExpectToHold({.preemptions = 6, .timeouts = 0}, GoUnderAWait<real::FinishedImageQueue>);
}

TEST(StopModelFindsThat, AStreamGoesAtOnce) {
    ExpectToFail(kNoTimeouts, GoUnderAWait<images_go_at_once::FinishedImageQueue>, "that is gone");
}

TEST(StopModel, EndingAllWaitsWakesWhoWaitsForAnImage) {
    ExpectToHold(kBounds, EndAWait<real::FinishedImageQueue>);
}

TEST(StopModel, OneImageAndTheEndLeaveNobodyWaiting) {
    ExpectToHold({.preemptions = 3, .timeouts = 0}, TwoWaitForOneImage<real::FinishedImageQueue>);
}

TEST(StopModel, AnImageWakesWhoWaitsForIt) {
    ExpectToHold(kNoTimeouts, ImageWakes<real::FinishedImageQueue>);
}

TEST(StopModel, AnAnnouncedImageWakesWhoWaitsForIt) {
    ExpectToHold(kNoTimeouts, AnnouncedImageWakes<real::FinishedImageQueue>);
}

TEST(StopModelFindsThat, AnAnnouncementEndsTheWait) {
    ExpectToFail(kNoTimeouts, AnnouncedImageWakes<images_come_when_announced::FinishedImageQueue>,
                 "the image is not seen");
}

TEST(StopModelFindsThat, AnImageThatComesWhileItIsWatchedForIsForgotten) {
    ExpectToFail(kNoTimeouts,
                 AnnouncedImageWakes<images_watched_for_are_forgotten::FinishedImageQueue>,
                 "wait for time");
}

TEST(StopModelFindsThat, WaitsAreEndedOutsideTheLock) {
    ExpectToFail(kNoTimeouts, EndAWait<images_end_unlocked::FinishedImageQueue>, "wait for time");
}

TEST(StopModelFindsThat, AWaitThatBeginsBehindTheEndIsForgotten) {
    ExpectToFail(kNoTimeouts, EndAWait<images_forget_the_end::FinishedImageQueue>, "wait for time");
}

TEST(StopModelFindsThat, AnImageWakesNobody) {
    ExpectToFail(kNoTimeouts, ImageWakes<images_wake_nobody::FinishedImageQueue>, "wait for time");
}

template <typename Camera>
void OpenAndGo() {
    int runs = 0;
    {
        const Camera camera(runs);
        Scheduler::Point();
    }
    const int runs_until_gone = runs;
    Scheduler::Point();
    Require(runs == runs_until_gone, "a heartbeat behind the end");
    RequireNoWaitForTime();
}

TEST(StopModel, TheHeartbeatEndsAtOnceWithItsSession) {
    ExpectToHold(kBounds, OpenAndGo<heartbeat::KELOCamera>);
}

TEST(StopModelFindsThat, TheHeartbeatIsStoppedOutsideItsLock) {
    ExpectToFail(kBounds, OpenAndGo<heartbeat_stops_unlocked::KELOCamera>, "wait for time");
}

TEST(StopModelFindsThat, TheHeartbeatIsNotWoken) {
    ExpectToFail(kBounds, OpenAndGo<heartbeat_without_signal::KELOCamera>, "wait for time");
}

}  // namespace
}  // namespace kelo::model
