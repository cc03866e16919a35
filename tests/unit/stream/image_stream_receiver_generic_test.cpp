#include <algorithm>
#include <chrono>
#include <initializer_list>
#include <memory>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ImageStreamReceiverGeneric.h"
#include "TPacketCommunicatorUDPSocket.h"
#include "log_capture.h"
#include "stream_wire.h"
#include "wait_for.h"
#include "waiting_call.h"

namespace kelo::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint32_t kCamera = 0x0A000001;
constexpr uint32_t kOtherCamera = 0x0A000002;
constexpr uint32_t kStranger = 0x0A000003;
constexpr int kLongMs = 60000;

// A transport without a socket: the test is the network.
class FakeTransport : public TPacketCommunicator {
public:
    FakeTransport(IPacketReceiver* receiver, int port, int packet_size_max, uint32_t ip,
                  int receive_buffer)
        : TPacketCommunicator(receiver) {
        made.push_back({port, packet_size_max, ip, receive_buffer});
    }
    void StartRxThread() override { ++started; }
    void StopRxThread() override { ++stopped; }
    bool IsInitialized() override { return true; }
    ssize_t Send(uint32_t, int, const void*, int) override { return -1; }
    unsigned short GetSocketPort() override { return 5678; }
    unsigned int GetSocketIp() override { return 0; }
    const char* GetDescription() override { return "fake"; }

    struct Arguments {
        int port;
        int packet_size_max;
        uint32_t ip;
        int receive_buffer;
    };
    static inline std::vector<Arguments> made;
    static inline int started = 0;
    static inline int stopped = 0;
};

class UdpFrontTest : public testing::Test {
protected:
    UdpFrontTest() {
        FakeTransport::made.clear();
        FakeTransport::started = FakeTransport::stopped = 0;
        InitStream(kCamera, 0);
    }

    void InitStream(uint32_t ip, uint8_t stream) { front_->InitStream(ip, stream, 0, 0, 0, 16); }
    void SendBytes(uint32_t ip, const std::string& bytes) {
        front_->OnRcv(nullptr, ip, bytes.data(), static_cast<int>(bytes.size()), 0);
    }
    void SendImage(uint32_t ip, uint8_t stream, uint32_t image = 1) {
        SendBytes(ip, ImagePacket{.image = image, .stream = stream}.Bytes());
    }

    LogCapture log_;
    std::unique_ptr<ImageStreamReceiverGeneric<FakeTransport>> front_ =
        std::make_unique<ImageStreamReceiverGeneric<FakeTransport>>();
};

TEST_F(UdpFrontTest, InitMakesOneSocketOnAnyPortAndAddress) {
    EXPECT_EQ(front_->GetStreamPort(), 0);
    EXPECT_TRUE(front_->Init());
    EXPECT_TRUE(front_->Init());
    ASSERT_EQ(FakeTransport::made.size(), 1u);
    EXPECT_EQ(FakeTransport::made[0].port, 0);
    EXPECT_EQ(FakeTransport::made[0].packet_size_max, 16384);
    EXPECT_EQ(FakeTransport::made[0].ip, 0u);
    EXPECT_EQ(FakeTransport::made[0].receive_buffer, 32 << 20);
    EXPECT_EQ(FakeTransport::started, 1);
    EXPECT_EQ(front_->GetStreamPort(), 5678);
    front_->Exit();
    EXPECT_EQ(front_->GetStreamPort(), 5678);
    EXPECT_TRUE(front_->InitCamera(kCamera, 1, 1, 0));
    front_.reset();
    EXPECT_EQ(FakeTransport::stopped, 1);
}

TEST_F(UdpFrontTest, DatagramsOfUpToTheHeadersSizeAreTooSmall) {
    const std::string packet = ImagePacket{.stream = 0}.Bytes();
    std::vector<std::string> expected;
    for (size_t size = 0; size <= 14; ++size) {
        SendBytes(kCamera, packet.substr(0, size));
        expected.push_back("Stream packet too small (less than header size) = " +
                           std::to_string(size) + " bytes.");
    }
    EXPECT_EQ(log_.Lines(), expected);
    SendBytes(kCamera, packet.substr(0, 15));
    EXPECT_EQ(front_->GetPendingCount(kCamera, 0), 1u);
}

TEST_F(UdpFrontTest, WrongMagicIsLoggedAndDropped) {
    SendBytes(kCamera, ImagePacket{.stream = 0, .magic = 0xAB}.Bytes());
    EXPECT_THAT(log_.Lines(), ElementsAre("Wrong stream packet magic number."));
    EXPECT_TRUE(front_->IsBufferEmpty(kCamera, 0));
}

// Several cameras, streams and kinds of rubbish in one batch have the same effect as one by one.
TEST_F(UdpFrontTest, ABatchIsHandledAsItsDatagramsInTheirOrder) {
    InitStream(kCamera, 1);
    InitStream(kOtherCamera, 0);
    const std::vector<std::pair<uint32_t, std::string>> datagrams = {
        {kCamera, ImagePacket{.image = 1, .stream = 0}.Bytes()},
        {kCamera, ImagePacket{.image = 2, .stream = 0}.Bytes()},
        {kCamera, "short"},
        {kCamera, ImagePacket{.image = 3, .stream = 0}.Bytes()},
        {kCamera, ImagePacket{.image = 1, .stream = 1}.Bytes()},
        {kStranger, ImagePacket{.image = 1, .stream = 0}.Bytes()},
        {kOtherCamera, ImagePacket{.image = 4, .stream = 0}.Bytes()},
        {kCamera, ImagePacket{.stream = 0, .magic = 0xAB}.Bytes()},
        {kCamera, ImagePacket{.image = 2, .stream = 1}.Bytes()},
    };
    std::vector<TDatagram> batch;
    for (const auto& [ip, bytes] : datagrams) {
        batch.push_back({ip, bytes.data(), static_cast<int>(bytes.size())});
    }
    front_->OnRcvBatch(nullptr, batch, 0);
    EXPECT_EQ(front_->GetPendingCount(kCamera, 0), 3u);
    EXPECT_EQ(front_->GetPendingCount(kCamera, 1), 2u);
    EXPECT_EQ(front_->GetPendingCount(kOtherCamera, 0), 1u);
    EXPECT_EQ(front_->GetImage(0, kOtherCamera, 0)->imageNumber, 4u);
    EXPECT_THAT(log_.Lines(),
                ElementsAre("Stream packet too small (less than header size) = 5 bytes.",
                            "Wrong stream packet magic number."));
    front_->OnRcvBatch(nullptr, {}, 0);
}

// One batch of more streams than are locked at a time.
TEST_F(UdpFrontTest, ABatchMayHoldManyStreams) {
    std::vector<std::string> packets;
    for (uint8_t stream = 0; stream < 40; ++stream) {
        InitStream(kCamera, stream);
        for (uint32_t image = 1; image <= 2; ++image)
            packets.push_back(ImagePacket{.image = image, .stream = stream}.Bytes());
    }
    std::rotate(packets.begin(), packets.begin() + 27, packets.end());
    std::vector<TDatagram> batch;
    for (const std::string& packet : packets)
        batch.push_back({kCamera, packet.data(), static_cast<int>(packet.size())});
    front_->OnRcvBatch(nullptr, batch, 0);
    for (uint8_t stream = 0; stream < 40; ++stream)
        EXPECT_EQ(front_->GetPendingCount(kCamera, stream), 2u) << int{stream};
}

// What the front expects after a batch, of a camera's only stream, in an image of ten packets.
class FrontOutlookTest : public UdpFrontTest {
protected:
    uint32_t After(uint32_t ip, std::initializer_list<uint16_t> numbers, uint16_t count = 10) {
        std::vector<std::string> packets;
        for (const uint16_t number : numbers)
            packets.push_back(ImagePacket{.number = number, .count = count, .stream = 0}.Bytes());
        std::vector<TDatagram> batch;
        for (const std::string& packet : packets)
            batch.push_back({ip, packet.data(), static_cast<int>(packet.size())});
        return front_->OnRcvBatch(nullptr, batch, 0).until_wanted;
    }

    // What steps() gives before the timer may have completed any of its images: on a machine that
    // stands still in between it is begun anew.
    template <typename Steps>
    std::vector<uint32_t> BetweenTwoTicks(const Steps& steps) {
        while (true) {
            InitStream(kCamera, 0);
            InitStream(kOtherCamera, 0);
            const auto begin = std::chrono::steady_clock::now();
            const std::vector<uint32_t> outlooks = steps();
            if (std::chrono::steady_clock::now() - begin < std::chrono::milliseconds(90)) {
                return outlooks;
            }
        }
    }
};

TEST_F(FrontOutlookTest, IsThatOfTheStreamWhichIsNextToItsEnd) {
    EXPECT_THAT(BetweenTwoTicks([&] {
                    return std::vector{After(kOtherCamera, {0, 1, 2}), After(kCamera, {0}),
                                       After(kCamera, {1, 2, 3, 4}),
                                       After(kOtherCamera, {3, 4, 5, 6, 7}), After(kCamera, {5})};
                }),
                ElementsAre(7, 7, 5, 2, 2));
}

TEST_F(FrontOutlookTest, IsNoneWithoutDatagrams) {
    EXPECT_EQ(front_->OnRcvBatch(nullptr, {}, 0).until_wanted, 0u);
}

// Between its images a stream counts as one whose next image has as many packets as the last; one
// that sends nothing for a while does not count.
TEST_F(FrontOutlookTest, ThinksOfStreamsThatAreBetweenTheirImages) {
    EXPECT_THAT(BetweenTwoTicks([&] {
                    return std::vector{After(kOtherCamera, {0, 1}, 2), After(kCamera, {0})};
                }),
                ElementsAre(0, 2));
    EXPECT_TRUE(WaitFor([&] { return After(kCamera, {0}) == 9u; }));
}

TEST_F(UdpFrontTest, DatagramsOfUnknownStreamsAreDroppedSilently) {
    SendImage(kCamera, 1);
    SendImage(kStranger, 0);
    EXPECT_EQ(front_->GetPendingCount(kCamera, 0), 0u);
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(UdpFrontTest, DatagramsGoToTheStreamOfTheirSenderAndNumber) {
    InitStream(kCamera, 1);
    InitStream(kOtherCamera, 0);
    SendImage(kCamera, 1, 11);
    SendImage(kOtherCamera, 0, 20);
    EXPECT_EQ(front_->GetPendingCount(kCamera, 0), 0u);
    EXPECT_EQ(front_->GetImage(0, kCamera, 1)->imageNumber, 11u);
    EXPECT_EQ(front_->GetImage(0, kOtherCamera, 0)->imageNumber, 20u);
    EXPECT_EQ(front_->GetImage(0, kOtherCamera, 0)->streamNumber, 0);
}

TEST_F(UdpFrontTest, UnknownStreamsAnswerAsIfEmpty) {
    BufferInfo image{};
    EXPECT_EQ(front_->GetPendingCount(kStranger, 0), 0u);
    EXPECT_TRUE(front_->PopImage(kStranger, 0, &image));
    EXPECT_TRUE(IsNullAtOnce([&] { return front_->GetImage(kLongMs, kStranger, 0); }));
    EXPECT_TRUE(front_->IsBufferEmpty(kStranger, 0));
    front_->ClearBuffer(kStranger, 0);
    front_->ResetStatistics(kStranger);
    front_->ExitCamera(kStranger);
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(UdpFrontTest, ImagesAreTakenAndGivenBack) {
    SendImage(kCamera, 0);
    SendImage(kCamera, 0, 2);
    EXPECT_FALSE(front_->IsBufferEmpty(kCamera, 0));
    BufferInfo* image = front_->GetImage(kLongMs, kCamera, 0);
    ASSERT_NE(image, nullptr);
    EXPECT_TRUE(front_->PopImage(kCamera, 0, image));
    EXPECT_FALSE(front_->PopImage(kCamera, 0, image));
    EXPECT_EQ(front_->GetPendingCount(kCamera, 0), 1u);
    front_->ClearBuffer(kCamera, 0);
    EXPECT_TRUE(front_->IsBufferEmpty(kCamera, 0));
}

TEST_F(UdpFrontTest, ForgottenCamerasStreamsAndImagesAreGone) {
    InitStream(kOtherCamera, 0);
    InitStream(kCamera, 1);
    SendImage(kCamera, 0);
    SendImage(kOtherCamera, 0);
    front_->ExitCamera(kCamera);
    EXPECT_EQ(front_->GetPendingCount(kCamera, 0), 0u);
    EXPECT_EQ(front_->GetPendingCount(kOtherCamera, 0), 1u);
    SendImage(kCamera, 0);
    SendImage(kCamera, 1);
    EXPECT_EQ(front_->GetPendingCount(kCamera, 0), 0u);
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(UdpFrontTest, RestartOfAStreamKeepsItsImagesAndStatisticsAndCompletesPartialOnes) {
    SendImage(kCamera, 0, 1);
    SendBytes(kCamera, ImagePacket{.image = 2, .count = 2, .stream = 0}.Bytes());
    InitStream(kCamera, 0);
    EXPECT_THAT(log_.Lines(),
                ElementsAre("Image 2 completed (forcefully by timer - no new packets arrived)."));
    SendImage(kCamera, 0, 3);
    EXPECT_EQ(front_->GetPendingCount(kCamera, 0), 3u);
    for (uint32_t number = 1; number <= 3; ++number) {
        BufferInfo* image = front_->GetImage(0, kCamera, 0);
        EXPECT_EQ(image->streamStatistics.imagesReceived, number);
        front_->PopImage(kCamera, 0, image);
    }
}

TEST_F(UdpFrontTest, ResetOfStatisticsReachesEveryStreamOfTheCameraAndNoOther) {
    InitStream(kCamera, 7);
    InitStream(kOtherCamera, 0);
    for (uint32_t image = 1; image <= 2; ++image) {
        SendImage(kCamera, 0, image);
        SendImage(kCamera, 7, image);
        SendImage(kOtherCamera, 0, image);
        if (image == 1) front_->ResetStatistics(kCamera);
    }
    const auto received = [&](uint32_t ip, uint8_t stream) {
        front_->PopImage(ip, stream, front_->GetImage(0, ip, stream));
        return front_->GetImage(0, ip, stream)->streamStatistics.imagesReceived;
    };
    EXPECT_EQ(received(kCamera, 0), 1u);
    EXPECT_EQ(received(kCamera, 7), 1u);
    EXPECT_EQ(received(kOtherCamera, 0), 2u);
}

TEST_F(UdpFrontTest, EachTickLooksAtEveryStream) {
    InitStream(kOtherCamera, 0);
    for (uint32_t ip : {kCamera, kOtherCamera}) {
        SendBytes(ip, ImagePacket{.image = ip, .count = 2, .stream = 0}.Bytes());
    }
    front_->finishTransfersIfNeeded();
    front_->finishTransfersIfNeeded();
    EXPECT_EQ(front_->GetPendingCount(kCamera, 0), 1u);
    EXPECT_EQ(front_->GetPendingCount(kOtherCamera, 0), 1u);
}

TEST_F(UdpFrontTest, OwnTimerCompletesImagesWhosePacketsStopped) {
    SendBytes(kCamera, ImagePacket{.image = 6, .count = 2, .stream = 0}.Bytes());
    const BufferInfo* image = front_->GetImage(kLongMs, kCamera, 0);
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->bufferStatistics.missingPackets, 1);
}

// ---- Nobody waits for a camera that is being closed

class UdpFrontWaitTest : public UdpFrontTest {
protected:
    // Waits for an image of the camera on another thread.
    class Wait : public WaitingCall<BufferInfo*> {
    public:
        explicit Wait(UdpFrontWaitTest& test)
            : WaitingCall([&test] { return test.front_->GetImage(kLongMs, kCamera, 0); }) {
            AwaitSleep();
        }
    };
};

TEST_F(UdpFrontWaitTest, ForgettingTheCameraEndsTheWait) {
    Wait wait(*this);
    front_->ExitCamera(kCamera);
    ASSERT_TRUE(wait.Returns());
    EXPECT_EQ(wait.Get(), nullptr);
}

TEST_F(UdpFrontWaitTest, ClosingEndsTheWaitAndLaterOnes) {
    Wait wait(*this);
    front_->BeginClosing(kCamera);
    ASSERT_TRUE(wait.Returns());
    EXPECT_EQ(wait.Get(), nullptr);
    EXPECT_TRUE(IsNullAtOnce([&] { return front_->GetImage(kLongMs, kCamera, 0); }));
    front_->EndClosing(kCamera);
    EXPECT_TRUE(IsNullAtOnce(
        [&] { return front_->GetImage(kLongMs, kCamera, 0); }));  // its streams are ended for good
}

TEST_F(UdpFrontWaitTest, StreamMadeAfterClosingWaitsAgain) {
    front_->BeginClosing(kCamera);
    front_->ExitCamera(kCamera);
    front_->EndClosing(kCamera);
    InitStream(kCamera, 0);
    Wait wait(*this);
    SendImage(kCamera, 0, 4);
    ASSERT_TRUE(wait.Returns());
    ASSERT_NE(wait.Get(), nullptr);
}

TEST_F(UdpFrontWaitTest, StreamThatIsRestartedAfterClosingIsANewOne) {
    SendImage(kCamera, 0, 1);
    front_->BeginClosing(kCamera);
    InitStream(kCamera, 0);  // still closing: the same one
    EXPECT_EQ(front_->GetPendingCount(kCamera, 0), 1u);
    front_->EndClosing(kCamera);
    InitStream(kCamera, 0);
    EXPECT_EQ(front_->GetPendingCount(kCamera, 0), 0u);
    Wait wait(*this);
    SendImage(kCamera, 0, 4);
    ASSERT_NE(wait.Get(), nullptr);
}

TEST_F(UdpFrontWaitTest, NobodyWaitsForAStreamThatIsMadeWhileItsCameraCloses) {
    front_->BeginClosing(kCamera);
    front_->BeginClosing(kCamera);
    front_->ExitCamera(kCamera);
    InitStream(kCamera, 0);
    EXPECT_TRUE(IsNullAtOnce([&] { return front_->GetImage(kLongMs, kCamera, 0); }));
    front_->EndClosing(kCamera);  // one of two
    EXPECT_TRUE(IsNullAtOnce([&] { return front_->GetImage(kLongMs, kCamera, 0); }));
    front_->EndClosing(kCamera);
    front_->EndClosing(kCamera);  // one more than begun
    Wait wait(*this);
    SendImage(kCamera, 0);
    EXPECT_NE(wait.Get(), nullptr);
}

TEST_F(UdpFrontWaitTest, ClosingLeavesQueuedImagesAndOtherCamerasAlone) {
    InitStream(kOtherCamera, 0);
    SendImage(kCamera, 0);
    front_->BeginClosing(kCamera);
    EXPECT_NE(front_->GetImage(kLongMs, kCamera, 0), nullptr);
    SendImage(kOtherCamera, 0);
    EXPECT_NE(front_->GetImage(kLongMs, kOtherCamera, 0), nullptr);
}

TEST_F(UdpFrontWaitTest, ReleaseEndsAllWaitsForGood) {
    Wait wait(*this);
    front_->EndAllWaits();
    ASSERT_TRUE(wait.Returns());
    EXPECT_EQ(wait.Get(), nullptr);
    InitStream(kOtherCamera, 0);
    EXPECT_TRUE(IsNullAtOnce([&] { return front_->GetImage(kLongMs, kOtherCamera, 0); }));
}

TEST_F(UdpFrontWaitTest, StreamsComeAndGoWhileDatagramsArrive) {
    std::atomic<bool> done{false};
    std::thread network([&] {
        for (uint32_t image = 0; !done; ++image)
            SendImage(kCamera, 0, image);
    });
    std::thread application([&] {
        while (!done) {
            BufferInfo* image = front_->GetImage(1, kCamera, 0);
            (void)image;  // the stream may already be gone, and the image with it
            front_->ResetStatistics(kCamera);
        }
    });
    for (int i = 0; i < 200; ++i) {
        front_->ExitCamera(kCamera);
        InitStream(kCamera, 0);
        front_->ClearBuffer(kCamera, 0);
        front_->finishTransfersIfNeeded();
    }
    done = true;
    network.join();
    application.join();
}

// ---- With the transport that the library uses

TEST(UdpFrontSocketTest, ImageArrivesOnThePortThatTheSystemChose) {
    constexpr uint32_t kLoopback = 0x7F000001;
    ImageStreamReceiverGeneric<TPacketCommunicatorUDPSocket> front;
    front.Init();
    front.InitStream(kLoopback, 0, 0, 0, 0, 16);
    ASSERT_NE(front.GetStreamPort(), 0);
    UDPSocket camera(kLoopback, 0);
    const std::string packet = ImagePacket{.image = 8, .payload = "socket", .stream = 0}.Bytes();
    camera.sendto(packet.data(), packet.size(), kLoopback, front.GetStreamPort());
    const BufferInfo* image = front.GetImage(kLongMs, kLoopback, 0);
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(Data(*image, 6), "socket");
}

TEST(NullImageStreamReceiverTest, EveryOperationDoesNothing) {
    NullImageStreamReceiver none;
    none.Exit();
    none.ExitCamera(kCamera);
    none.ClearBuffer(kCamera, 0);
    none.InitStream(kCamera, 0, 0, 0, 0, 16);
    none.ResetStatistics(kCamera);
    none.BeginClosing(kCamera);
    none.EndClosing(kCamera);
    none.EndAllWaits();
    EXPECT_FALSE(none.IsAvailable());
    EXPECT_FALSE(none.Init());
    EXPECT_FALSE(none.InitCamera(kCamera, 1, 1, 1));
    EXPECT_EQ(none.GetPendingCount(kCamera, 0), 0u);
    EXPECT_FALSE(none.PopImage(kCamera, 0, nullptr));
    EXPECT_EQ(none.GetImage(kLongMs, kCamera, 0), nullptr);
    EXPECT_FALSE(none.IsBufferEmpty(kCamera, 0));
    EXPECT_EQ(none.GetStreamPort(), 0);
}

}  // namespace
}  // namespace kelo::test
