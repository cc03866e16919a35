
#include "system_fixture.h"

namespace kelo::test {
namespace {

class TcpStream : public SystemTest {
protected:
    static kelosim::StreamConfig Chart(uint32_t images, bool over_tcp = true) {
        kelosim::StreamConfig stream = ChartStream(images, 200);
        stream.over_tcp = over_tcp;
        return stream;
    }
    static void ExpectImages(CAM_HANDLE handle, const kelosim::StreamConfig& stream, uint32_t first,
                             uint32_t last, uint8_t number = 0) {
        for (uint32_t n = first; n <= last; ++n) {
            const Image image = Take(handle, number);
            ASSERT_TRUE(image.arrived) << n;
            EXPECT_EQ(image.number, n);
            EXPECT_EQ(image.data, stream.Frame(n));
        }
    }
};

TEST_F(TcpStream, ImagesArriveAsTheCameraSentThem) {
    const auto stream = Chart(20);
    const CAM_HANDLE handle = OpenAndStart(StartOne(With({stream})));
    ExpectImages(handle, stream, 1, 20);
    EXPECT_TRUE(log.Contains("tcp_connect: connected"));
}

TEST_F(TcpStream, UdpAndTcpStreamsOfOneCameraSideBySide) {
    std::vector<kelosim::StreamConfig> streams = {Chart(10), Chart(10, false), Chart(10)};
    streams[1].source = kelosim::MakeTestChart16(100, 100);
    streams[2].source = kelosim::MakeLaserProfile(320, 64);
    const CAM_HANDLE handle = OpenAndStart(StartOne(With(streams)));
    for (const uint8_t s : {0, 1, 2})
        ExpectImages(handle, streams[s], 1, 10, s);
}

struct Fault {
    const char* name;
    kelosim::TcpFaults faults;
};

class HarmlessFaults : public TcpStream, public testing::WithParamInterface<Fault> {};

TEST_P(HarmlessFaults, DoNotDisturbTheImages) {
    const auto stream = Chart(5);
    kelosim::CameraConfig config = With({stream});
    config.faults.tcp = GetParam().faults;
    ExpectImages(OpenAndStart(StartOne(config)), stream, 1, 5);
}

INSTANTIATE_TEST_SUITE_P(Kinds, HarmlessFaults,
                         testing::Values(Fault{"SplitWrites",
                                               {.split_bytes = 1000, .split_pause_us = 50}},
                                         Fault{"Garbage", {.garbage_bytes = 100000}},
                                         Fault{"Sync", {.sync_messages = true}},
                                         Fault{"WrongMagic", {.wrong_magic_bytes = 300}}),
                         [](const auto& test) { return test.param.name; });

TEST_F(TcpStream, AnImageLargerThanItsFrameIsCutAndTheStreamStaysInStep) {
    const auto stream = Chart(5);
    kelosim::CameraConfig config = With({stream});
    config.faults.tcp.oversize_bytes = 5000;
    const std::string cut = "TCP: stream 0: Allocated buffer to small for incoming TCP transfer.";
    kelosim::Camera& camera = StartOne(config);
    RepeatUntilInTime([&] {
        const size_t before = log.Count(cut);
        camera.ClearRequests();
        const CAM_HANDLE handle = OpenAndStart(camera);
        const bool in_time = CountStarts(camera) == 1;
        ExpectImages(handle, stream, 1, 5);
        if (in_time) {
            EXPECT_EQ(log.Count(cut), before + 5);
        }
        EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
        return in_time;
    });
}

class Closes : public TcpStream, public testing::WithParamInterface<uint64_t> {};

TEST_P(Closes, CostAtMostTheImageUnderWay) {
    const auto stream = Chart(3);
    kelosim::CameraConfig config = With({stream});
    config.faults.tcp.closes = {{.image = 2, .after_bytes = GetParam(), .stream = {}}};
    kelosim::Camera& camera = StartOne(config);
    const CAM_HANDLE handle = OpenAndStart(camera);
    ExpectImages(handle, stream, 1, 1);
    ASSERT_TRUE(WaitFor([&] { return log.Contains("TCP: stream 0: Connection closed."); }));
    EXPECT_FALSE(Take(handle, 0, 50).arrived);
    // The next start connects again.
    camera.UpdateFaults([](kelosim::Faults& faults) { faults.tcp.closes.clear(); });
    ASSERT_EQ(keloStopImageAcquisition(handle), KELO_STATUS_SUCCESS);
    ASSERT_EQ(keloStartImageAcquisition(handle), KELO_STATUS_SUCCESS);
    ExpectImages(handle, stream, 1, 3);
}

INSTANTIATE_TEST_SUITE_P(Where, Closes, testing::Values(0, 5, 10, 15, 24, 30000));

TEST_F(TcpStream, ACameraThatRefusesConnectionsIsAskedTwentyTimes) {
    kelosim::CameraConfig config = With({Chart(1)});
    config.faults.tcp.accept = kelosim::TcpFaults::Accept::kRefuse;
    OpenAndStart(StartOne(config));
    EXPECT_EQ(log.Count("tcp_connect: ERROR connecting TCP socket."), 20u);
    EXPECT_EQ(log.Count("ensureTcpConnection(): connect TCP, attempt 20/20"), 1u);
    EXPECT_EQ(log.Count("ensureTcpConnection(): connection not up after 20 attempts, giving up"),
              1u);
}

// Ends the session, in one of two ways, while its start hangs in a connection attempt that gets no
// answer.
class HangingConnection : public TcpStream {
protected:
    template <typename End>
    void EndMeanwhile(End end) {
        kelosim::CameraConfig config = With({Chart(1)});
        config.faults.tcp.accept = kelosim::TcpFaults::Accept::kHang;
        const CAM_HANDLE handle = Open(StartOne(config));
        std::thread starter([=] { keloStartImageAcquisition(handle); });
        EXPECT_TRUE(WaitFor(
            [&] { return log.Contains("ensureTcpConnection(): connect TCP, attempt 1/20"); }));
        const auto begin = steady_clock::now();
        EXPECT_EQ(end(handle), KELO_STATUS_SUCCESS);
        EXPECT_LT(steady_clock::now() - begin, seconds(8));
        starter.join();
        EXPECT_FALSE(log.Contains("ensureTcpConnection(): connect TCP, attempt 15/20"));
    }
};

TEST_F(HangingConnection, IsNotWaitedForByClosing) {
    EndMeanwhile(keloCloseCamera);
}

TEST_F(HangingConnection, IsNotWaitedForByReleasing) {
    EndMeanwhile([](CAM_HANDLE) { return keloRelease(); });
}

TEST_F(TcpStream, ClosingEndsAWaitForAnImage) {
    const CAM_HANDLE handle = OpenAndStart(StartOne(With({Chart(1)})));
    ASSERT_TRUE(Take(handle).arrived);
    ExpectToEndAWaitForAnImage(handle, keloCloseCamera);
}

}  // namespace
}  // namespace kelo::test
