#include <chrono>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake_camera.h"
#include "in_time.h"
#include "kelo_registers.h"
#include "log_capture.h"
#include "stream_mask.h"
#include "wait_for.h"

namespace kelo::test {
namespace {

using testing::ElementsAre;

KELO_API_STATUS OnClosed(CAM_HANDLE) {
    return KELO_STATUS_SUCCESS;
}

class Session : public testing::Test {
protected:
    Session() {
        // Where a test is not about it, the supervision must not come into it, however long the
        // machine stands still.
        fake.registers[REG_HEARTBEAT_TIMEOUT] = 100000;
        fake.registers[REG_MTU] = 1234;
    }

    LogCapture log;
    FakeSession session;
    FakeCamera& fake = *session.fake;
    KELOCamera& camera = *session.camera;
};

TEST_F(Session, BeginsWithItsDefaults) {
    EXPECT_FALSE(camera.IsOpened());
    EXPECT_EQ(camera.camInfo()->video_port, 54321);
    EXPECT_EQ(camera.GetIP(), 0x7F00000Bu);
}

TEST_F(Session, OpenClaimsTheCameraAndReadsItsHeartbeat) {
    EXPECT_EQ(camera.Open(&OnClosed, false), KELO_STATUS_SUCCESS);
    EXPECT_TRUE(camera.IsOpened());
    const auto seen = fake.Requests();
    EXPECT_EQ(seen.at(0).reg, uint32_t{REG_CAMERA_USED});
    EXPECT_EQ(seen.at(0).value, 1u);
    EXPECT_EQ(seen.at(1).reg, uint32_t{REG_HEARTBEAT_TIMEOUT});
    EXPECT_EQ(seen.at(2).reg, uint32_t{REG_MTU});
    EXPECT_EQ(seen.at(2).command, 4u);
}

struct PacketSizeCase {
    uint32_t path;
    uint32_t chosen;
};

class PacketSize : public Session, public testing::WithParamInterface<PacketSizeCase> {};

TEST_P(PacketSize, IsTheLargestThatPasses) {
    fake.largest_packet = GetParam().path;
    EXPECT_EQ(camera.Open(nullptr, false), KELO_STATUS_SUCCESS);
    EXPECT_EQ(fake.Register(REG_MTU), GetParam().chosen);
    EXPECT_EQ(fake.Writes(REG_MTU).back(), GetParam().chosen);
}

INSTANTIATE_TEST_SUITE_P(Ladder, PacketSize,
                         testing::Values(PacketSizeCase{1000, 1234}, PacketSizeCase{1500, 1500},
                                         PacketSizeCase{4073, 1500}, PacketSizeCase{4074, 4074},
                                         PacketSizeCase{8499, 4074}, PacketSizeCase{8500, 8500},
                                         PacketSizeCase{9000, 9000}));

TEST_F(Session, APacketSizeIsTriedTwiceAndTheLadderStopsAtTheFirstThatFails) {
    fake.largest_packet = 1500;
    EXPECT_EQ(camera.Open(nullptr, false), KELO_STATUS_SUCCESS);
    std::vector<uint32_t> sizes;
    for (const uint32_t value : fake.Writes(REG_MTU))
        sizes.push_back(value & 0xFFFF);
    EXPECT_THAT(sizes, ElementsAre(1500, 4074, 4074, 1500));
}

// A camera answers each request that had to be made again. What is left over of the smaller sizes
// must not be taken for the answer to the next.
TEST_F(Session, APacketSizeIsNotMisjudgedForDatagramsThatAreLeftOver) {
    fake.test_datagrams = 4;
    EXPECT_EQ(camera.Open(nullptr, false), KELO_STATUS_SUCCESS);
    EXPECT_EQ(fake.Register(REG_MTU), 9000u);
}

TEST_F(Session, ARefusedPacketSizeRequestIsNotTriedAgain) {
    fake.statuses[REG_MTU] = {1, 2};  // the first read; the write for 1500
    EXPECT_EQ(camera.Open(nullptr, false), KELO_STATUS_SUCCESS);
    EXPECT_EQ(fake.CountWrites(REG_MTU), 2u);
    EXPECT_EQ(fake.Register(REG_MTU), 1234u);
}

struct OpenFailure {
    uint32_t reg;
    std::deque<uint32_t> statuses;
    bool stays_open;
};

class OpenFails : public Session, public testing::WithParamInterface<OpenFailure> {};

TEST_P(OpenFails, WithAnError) {
    fake.statuses[GetParam().reg] = GetParam().statuses;
    fake.largest_packet = 0;
    EXPECT_EQ(camera.Open(nullptr, false), KELO_STATUS_ERROR);
    EXPECT_EQ(camera.IsOpened(), GetParam().stays_open);
}

INSTANTIATE_TEST_SUITE_P(AtEachRegister, OpenFails,
                         testing::Values(OpenFailure{REG_CAMERA_USED, {2}, false},
                                         OpenFailure{REG_HEARTBEAT_TIMEOUT, {3}, false},
                                         OpenFailure{REG_MTU, {3}, true},
                                         OpenFailure{REG_MTU, {1, 1, 1, 2}, true}));

TEST_F(Session, CloseFreesTheCamera) {
    camera.Open(nullptr, false);
    fake.Forget();
    EXPECT_EQ(camera.Close(), KELO_STATUS_SUCCESS);
    EXPECT_FALSE(camera.IsOpened());
    EXPECT_THAT(fake.Writes(REG_CAMERA_USED), ElementsAre(0));
    EXPECT_EQ(log.Count("doClose(notify app == false) isOpened == true"), 1u);
}

TEST_F(Session, CloseOfAClosedSessionOnlyLogs) {
    EXPECT_EQ(camera.Close(), KELO_STATUS_SUCCESS);
    EXPECT_EQ(log.Count("doClose(notify app == false) isOpened == false"), 1u);
    EXPECT_TRUE(fake.Requests().empty());
}

TEST_F(Session, KeepsTheCameraAliveWhenNothingElseIsAsked) {
    using std::chrono::milliseconds;
    constexpr milliseconds kTimeout(600);
    fake.registers[REG_HEARTBEAT_TIMEOUT] = kTimeout.count();
    // The requests, and how long after the one before each of them came.
    struct Timed {
        SeenRequest request;
        std::chrono::steady_clock::duration gap;
    };
    std::mutex mutex;
    Stopwatch last;
    std::vector<Timed> requests;
    fake.on_request = [&](const SeenRequest& request) {
        const std::lock_guard lock(mutex);
        requests.push_back({request, last.Elapsed()});
        last = Stopwatch();
    };
    const auto seen = [&] {
        const std::lock_guard lock(mutex);
        return requests;
    };
    const auto last_gap = [&] {
        const std::lock_guard lock(mutex);
        return last.Elapsed();
    };
    RepeatUntilInTime([&] {
        {
            const std::lock_guard lock(mutex);
            requests.clear();
            last = Stopwatch();
        }
        EXPECT_EQ(camera.Open(nullptr, false), KELO_STATUS_SUCCESS);
        // The opening ends with the packet size.
        const auto kept_alive = [&] {
            auto all = seen();
            const auto open = std::find_if(all.rbegin(), all.rend(), [](const Timed& timed) {
                return timed.request.reg == REG_MTU;
            });
            return std::vector<Timed>(open.base(), all.end());
        };
        const bool came =
            WaitFor([&] { return kept_alive().size() >= 3 || last_gap() >= kTimeout; });
        const bool is_opened = camera.IsOpened();
        std::chrono::steady_clock::duration longest = last_gap();
        for (const Timed& timed : seen())
            longest = std::max(longest, timed.gap);
        const auto asked = kept_alive();
        camera.Close();
        // The session is lost, rightly, when it hears nothing for that long.
        if (longest >= kTimeout) return false;
        EXPECT_TRUE(came);
        EXPECT_TRUE(is_opened);
        for (const Timed& timed : asked) {
            EXPECT_EQ(timed.request.command, 4u);
            EXPECT_EQ(timed.request.reg, uint32_t{REG_WIDTH});
            EXPECT_GE(timed.gap, kTimeout / 3 - milliseconds(5)) << "more often than needed";
        }
        return true;
    });
    fake.on_request = nullptr;
}

TEST_F(Session, ATimeoutOfZeroMeansNoSupervision) {
    fake.registers[REG_HEARTBEAT_TIMEOUT] = 0;
    camera.Open(nullptr, false);
    fake.Forget();
    fake.silent = true;
    for (int i = 0; i < 5; ++i)
        camera.HeartbeatRun();
    EXPECT_TRUE(fake.Requests().empty());
    EXPECT_TRUE(camera.IsOpened());
}

TEST_F(Session, AStoppedHeartbeatAsksNothing) {
    using std::chrono::milliseconds;
    constexpr milliseconds kInterval(400);
    fake.registers[REG_HEARTBEAT_TIMEOUT] = static_cast<uint32_t>(3 * kInterval.count());
    RepeatUntilInTime([&] {
        const Stopwatch time;
        camera.Open(nullptr, false);
        camera.HeartbeatStop();
        fake.Forget();
        // Later, a tick that had begun before the stop may still ask.
        const bool in_time = time.Elapsed() < kInterval;
        // Longer than a heartbeat that goes on keeps still.
        std::this_thread::sleep_for(kInterval + milliseconds(200));
        for (int i = 0; i < 5; ++i)
            camera.HeartbeatRun();
        if (in_time) {
            EXPECT_TRUE(fake.Requests().empty());
        }
        camera.Close();
        return in_time;
    });
}

TEST_F(Session, ACameraThatStopsAnsweringIsClosed) {
    fake.registers[REG_HEARTBEAT_TIMEOUT] = 300;
    camera.Open(nullptr, false);
    fake.silent = true;
    ASSERT_TRUE(WaitFor([&] { return !camera.IsOpened(); }));
    ASSERT_TRUE(WaitFor([&] { return log.ContainsPrefix("heartbeat missing, 0x0x"); }));
    EXPECT_EQ(log.Count("KELOCamera::HeartbeatIsMissing()"), 1u);
    EXPECT_EQ(log.Count("doClose(notify app == true) isOpened == true"), 1u);
    fake.silent = false;
}

TEST(StreamMask, CountsUpToTheHighestOfBits1To7) {
    EXPECT_EQ(StreamCountOfMask(0), 1);
    EXPECT_EQ(StreamCountOfMask(1), 1);
    EXPECT_EQ(StreamCountOfMask(2), 2);
    EXPECT_EQ(StreamCountOfMask(0b101), 3);
    EXPECT_EQ(StreamCountOfMask(0x80), 8);
    EXPECT_EQ(StreamCountOfMask(0xFFFFFF00), 1);
}

TEST(SessionEnd, ASessionThatIsOpenIsClosedByItsDestruction) {
    const LogCapture log;
    FakeSession session;
    session.fake->registers[REG_HEARTBEAT_TIMEOUT] = 100000;
    session.camera->Open(nullptr, false);
    session.fake->Forget();
    session.camera.reset();
    EXPECT_THAT(session.fake->Writes(REG_CAMERA_USED), ElementsAre(0));
}

}  // namespace
}  // namespace kelo::test
