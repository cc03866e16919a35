#include <algorithm>
#include <cstdlib>

#include "camera_fault_fixture.h"
#include "process_figures.h"
#include "stranger.h"
#include "wire_client.h"

namespace kelo::test {
namespace {

using kelosim::test::operator+;

constexpr uint32_t kHost = Address(127, 0, 0, 1);
constexpr uint32_t kStranger = Address(127, 0, 77, 77);
constexpr uint32_t kDiscoverReply = 2;
constexpr uint32_t kLastCommand = 15;

// Datagrams that nobody asked for, at the port where the cameras' answers come in.
class ControlPort : public CameraFaultTest {
protected:
    // The port of the library's end; the camera knows it from the latest request.
    static uint16_t PortOf(const kelosim::Camera& camera) {
        return camera.Requests().back().from_port;
    }
    static double Milliseconds(steady_clock::duration time) {
        return std::chrono::duration<double, std::milli>(time).count();
    }
    static void ExpectRegistersToWork(CAM_HANDLE handle, uint32_t value) {
        EXPECT_EQ(Set(handle, REG_EXPOSURETIME, value), KELO_STATUS_SUCCESS);
        EXPECT_EQ(Get(handle, REG_EXPOSURETIME), value);
    }
};

TEST_F(ControlPort, AFloodDisturbsNeitherRegistersNorImages) {
    kelosim::Camera& camera = StartOne(Streaming());
    const CAM_HANDLE handle = OpenAndStart(camera);
    const uint16_t port = PortOf(camera);
    AcquisitionJudge judge(StreamOf(camera));
    Stranger stranger(kStranger, 1);
    const uint64_t dropped_before = DatagramsDropped(port);
    const seconds duration(Long() ? 20 : 1);
    stranger.BeginFlood(kHost, port, 100000);
    const Stopwatch flood;
    std::vector<double> latencies_ms;
    while (flood.Elapsed() < duration) {
        const Stopwatch time;
        ExpectRegistersToWork(handle, static_cast<uint32_t>(latencies_ms.size()));
        latencies_ms.push_back(Milliseconds(time.Elapsed()) / 2);
        judge.JudgeAll(handle);
    }
    const double flooded_ms = Milliseconds(flood.Elapsed());
    const uint64_t sent = stranger.EndFlood();
    ExpectWhole(handle, judge);
    if (!judge.cut_in_two()) {
        EXPECT_EQ(judge.whole(), judge.last_number());
    }
    std::sort(latencies_ms.begin(), latencies_ms.end());
    State("datagrams_per_second", static_cast<double>(sent) * 1000 / flooded_ms);
    State("datagrams_without_room", static_cast<double>(DatagramsDropped(port) - dropped_before));
    State("requests", static_cast<double>(2 * latencies_ms.size()));
    State("request_ms_median", latencies_ms[latencies_ms.size() / 2]);
    State("request_ms_max", latencies_ms.back());
    State("images", static_cast<double>(judge.whole()));
    EXPECT_GT(sent, 0u);
    EXPECT_EQ(CloseEvents::count, 0);
}

enum class Content { kChance, kBehindAHeader };

// Many runs of some datagrams each, from a stranger and from the camera's own address in turn, and
// a question to the camera behind each run.
class GarbageRuns : public ControlPort, public testing::WithParamInterface<Content> {
protected:
    static constexpr int kDatagrams = 300;
    static constexpr size_t kBytesMax = 700;  // beyond the longest of the protocol

    // A line for each datagram would be most of the work.
    GarbageRuns() { keloLogging(0); }
    ~GarbageRuns() override { keloLogging(1); }

    static Stranger::Datagram Make(Stranger& sender, uint32_t number_in_flight) {
        if (GetParam() == Content::kChance) return sender.Noise(0, kBytesMax);
        // Every command but the answer to a discovery, which has a test of its own. Any number but
        // those that requests have here: who is heard from the camera's own address and knows the
        // number cannot be told from the camera.
        uint32_t command = sender.Number() % kLastCommand;
        if (command == kDiscoverReply) command = kLastCommand;
        const uint32_t number = number_in_flight + 0x10000 + sender.Number() % 0x7FFF0000;
        return kelosim::test::ControlHeader(command, number, sender.Number()) +
               sender.Noise(0, kBytesMax);
    }
};

TEST_P(GarbageRuns, DisturbNoRegisterAndNoImage) {
    kelosim::Camera& camera = StartOne(With({ChartStream(0, 20)}));
    const CAM_HANDLE handle = OpenAndStart(camera);
    AcquisitionJudge judge(StreamOf(camera));
    const uint16_t port = PortOf(camera);
    const uint64_t dropped_before = DatagramsDropped(port);
    Stranger stranger(kStranger, 1);
    Stranger namesake(camera.address(), 2);
    const int runs = Long() ? 10000 : 1000;
    for (int run = 0; run < runs; ++run) {
        Stranger& sender = run % 2 == 0 ? stranger : namesake;
        const uint32_t number = camera.Requests().back().message_number;
        std::vector<Stranger::Datagram> datagrams(kDatagrams);
        for (auto& datagram : datagrams)
            datagram = Make(sender, number);
        sender.SendAll(datagrams, kHost, port);
        ExpectRegistersToWork(handle, static_cast<uint32_t>(run));
        judge.JudgeAll(handle);
    }
    ExpectWhole(handle, judge);
    if (!judge.cut_in_two()) {
        EXPECT_EQ(judge.whole(), judge.last_number());
    }
    State("datagrams", static_cast<double>(runs) * kDatagrams);
    State("datagrams_without_room", static_cast<double>(DatagramsDropped(port) - dropped_before));
    EXPECT_EQ(CloseEvents::count, 0);
}

INSTANTIATE_TEST_SUITE_P(Of, GarbageRuns,
                         testing::Values(Content::kChance, Content::kBehindAHeader),
                         [](const auto& test) {
                             return test.param == Content::kChance ? "Chance"
                                                                   : "ChanceBehindAHeader";
                         });

// Answers to a discovery that somebody makes up fill the list to its limits, and are gone with the
// next one. The session that is open does not suffer.
TEST_F(ControlPort, MadeUpCamerasDisplaceNoneThatIsKnown) {
    if (kThreadsAreCostly && !Long()) GTEST_SKIP() << "begins a thousand threads";
    kelosim::Camera& camera = StartOne(Streaming());
    Stranger stranger(kStranger, 1);
    RepeatUntilInTime([&] {
        const CAM_HANDLE handle = OpenAndStart(camera);
        const uint16_t port = PortOf(camera);
        AcquisitionJudge judge(StreamOf(camera));
        constexpr int kMadeUp = 6000;  // more than are kept
        for (int i = 0; i < kMadeUp; ++i) {
            stranger.Send(kelosim::test::ControlHeader(kDiscoverReply, 0) + stranger.Noise(64, 64),
                          kHost, port);
        }
        EXPECT_TRUE(WaitFor([&] { return BytesWaiting(port) == 0; }));
        const auto crowd = Discover(2048, 1000);
        EXPECT_EQ(crowd.size(), 1024u);
        const auto alone = Discover(2048, 1000);
        const bool in_time = Among(crowd, camera.address()) == handle && alone.size() == 1 &&
                             alone[0] == handle && !judge.cut_in_two();
        if (in_time) {
            ExpectWhole(handle, judge);
            EXPECT_EQ(CloseEvents::count, 0);
            EXPECT_EQ(judge.first_number(), 1u);
        }
        (void)keloCloseCamera(handle);
        CloseEvents::Reset();
        return in_time;
    });
}

}  // namespace
}  // namespace kelo::test
