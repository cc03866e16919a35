// The image streams of the simulated camera, over UDP and TCP, and the image sources.

#include <algorithm>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <png.h>

#include "kelo_registers.h"
#include "network_namespace.h"
#include "wait_for.h"
#include "wire_client.h"

namespace kelosim::test {
namespace {

using kelo::test::WaitFor;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr uint32_t kAddress = Ipv4(127, 0, 0, 11);

// One camera; images go to `images`, control requests come from `client`.
class StreamTest : public testing::Test {
protected:
    // A stream of small images, a number of them.
    static StreamConfig Small(uint32_t count, uint32_t size = 10000) {
        StreamConfig stream;
        stream.source = MakeBytes(size, 100, 50);
        stream.image_count = count;
        return stream;
    }
    Camera& Run(const std::vector<StreamConfig>& streams, const Faults& faults = {}) {
        CameraConfig config;
        config.heartbeat_timeout_ms = 0;
        config.streams = streams;
        config.faults = faults;
        Camera& camera = simulator.Add(config);
        simulator.Start();
        client.Set(kAddress, REG_STREAMPORT, images.port());
        return camera;
    }
    void Acquire() { client.Set(kAddress, REG_ACQUISITIONSTART, 0xFFFFFFFF); }
    // Until everything has left the camera, hence waits in the socket.
    void AcquireAll() {
        Acquire();
        ASSERT_TRUE(WaitFor([&] { return !simulator[0].acquiring(); }));
    }
    void StopAcquiring() { client.Set(kAddress, REG_ACQUISITIONSTOP, 0xFFFFFFFF); }

    UdpClient client;
    UdpClient images;
    Simulator simulator;
};

TEST_F(StreamTest, ImagePacketsAreMadeOfHeaderAndSlice) {
    const StreamConfig stream = Small(1, 3000);
    Run({stream});
    Acquire();
    const Bytes frame = stream.Frame(1);
    // 1500 bytes of IP packet: 28 of IP and UDP, 14 of image header, 1458 of image.
    for (uint32_t packet = 0; packet < 3; ++packet) {
        const Bytes datagram = images.Receive();
        const size_t begin = packet * 1458;
        const Bytes slice(
            frame.begin() + static_cast<ptrdiff_t>(begin),
            frame.begin() + static_cast<ptrdiff_t>(std::min<size_t>(begin + 1458, 3000)));
        EXPECT_EQ(datagram, Bytes({0xAC, 0}) + Be32(1) + Be16(packet) + Be16(3) + Be16(100) +
                                Be16(50) + slice);
    }
    EXPECT_TRUE(images.Receive(20).empty());
}

struct SizeCase {
    uint32_t image_size;
    uint32_t packet_size;
    uint32_t packets;
};

void PrintTo(const SizeCase& size, std::ostream* out) {
    *out << size.image_size << " bytes in packets of " << size.packet_size;
}

class PacketSizeTest : public StreamTest, public testing::WithParamInterface<SizeCase> {};

TEST_P(PacketSizeTest, ImagesReassembleToWhatTheSourceRenders) {
    const StreamConfig stream = Small(3, GetParam().image_size);
    Run({stream});
    client.Set(kAddress, REG_MTU, GetParam().packet_size);
    Acquire();
    const auto received = ReceiveImages(images, 3);
    ASSERT_EQ(received.size(), 3u);
    for (const auto& [number, image] : received) {
        EXPECT_EQ(image.packets, GetParam().packets);
        EXPECT_EQ(image.Data(), stream.Frame(number));
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, PacketSizeTest,
                         testing::Values(SizeCase{1, 1500, 1}, SizeCase{1458, 1500, 1},
                                         SizeCase{1459, 1500, 2}, SizeCase{300000, 1500, 206},
                                         SizeCase{300000, 4074, 75}, SizeCase{300000, 8500, 36},
                                         SizeCase{300000, 9000, 34}, SizeCase{8958 * 7, 9000, 7},
                                         SizeCase{60000, 64, 2728}),
                         [](const auto& test) {
                             return std::to_string(test.param.image_size) + "BytesIn" +
                                    std::to_string(test.param.packet_size);
                         });

TEST_F(StreamTest, ImageNumbersBeginAnewWithEveryAcquisitionAndWrap) {
    StreamConfig stream = Small(3, 100);
    stream.first_image_number = 0xFFFFFFFE;
    Camera& camera = Run({stream});
    for (int run = 0; run < 2; ++run) {
        Acquire();
        std::vector<uint32_t> numbers;
        for (int i = 0; i < 3; ++i)
            numbers.push_back(Be32At(images.Receive(), 2));
        EXPECT_THAT(numbers, ElementsAre(0xFFFFFFFE, 0xFFFFFFFF, 0));
        ASSERT_TRUE(WaitFor([&] { return !camera.acquiring(); }));
    }
    EXPECT_TRUE(WaitFor([&] { return camera.counters().streams[0].images == 6u; }));
    EXPECT_TRUE(WaitFor([&] { return camera.counters().streams[0].packets == 6u; }));
    EXPECT_TRUE(WaitFor([&] { return camera.counters().streams[0].bytes == 600u; }));
}

TEST_F(StreamTest, StopEndsTheStream) {
    Camera& camera = Run({Small(0)});
    Acquire();
    ASSERT_EQ(ReceiveImages(images, 2).size(), 2u);
    StopAcquiring();
    ASSERT_TRUE(WaitFor([&] { return !camera.acquiring(); }));
    while (!images.Receive(0).empty()) {
    }
    const uint64_t sent = camera.counters().streams[0].images;
    EXPECT_TRUE(images.Receive(50).empty());
    EXPECT_EQ(camera.counters().streams[0].images, sent);
}

TEST_F(StreamTest, FrameRateIsKept) {
    StreamConfig stream = Small(11, 100);
    stream.frame_rate = 100;
    Run({stream});
    const auto begin = std::chrono::steady_clock::now();
    Acquire();
    EXPECT_EQ(ReceiveImages(images, 11).size(), 11u);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(100));
}

TEST_F(StreamTest, FrameRateRegisterIsInThousandthsOfAnImagePerSecond) {
    Camera& camera = Run({Small(0, 100)});
    client.Set(kAddress, REG_FRAMERATE, 10);
    Acquire();
    EXPECT_FALSE(images.Receive().empty());
    EXPECT_TRUE(images.Receive(100).empty());
    camera.SetFrameRate(0, 0);
    EXPECT_FALSE(images.Receive().empty());
}

TEST_F(StreamTest, BandwidthLimitSlowsAnImageDown) {
    StreamConfig stream = Small(1, 1000000);
    stream.max_bytes_per_second = 10e6;
    Run({stream});
    const auto begin = std::chrono::steady_clock::now();
    Acquire();
    const auto received = ReceiveImages(images, 1);
    EXPECT_EQ(received.at(1).Data(), stream.Frame(1));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(80));
}

TEST_F(StreamTest, AcquisitionFramesRegisterLimitsAllStreams) {
    Camera& camera = Run({Small(0, 100)});
    client.Set(kAddress, REG_ACQUISITIONFRAMES, 2);
    AcquireAll();
    EXPECT_EQ(ReceiveImages(images, 3, 50).size(), 2u);
    EXPECT_TRUE(WaitFor([&] { return camera.counters().streams[0].images == 2u; }));
}

TEST_F(StreamTest, TriggerModeSendsOneImagePerTrigger) {
    Camera& camera = Run({Small(0, 100)});
    client.Set(kAddress, REG_TRIGGERMODE, 1);
    Acquire();
    EXPECT_TRUE(images.Receive(20).empty());
    client.Set(kAddress, REG_TRIGGERSOFTWARE, 1);
    EXPECT_EQ(Be32At(images.Receive(), 2), 1u);
    camera.Trigger();
    EXPECT_EQ(Be32At(images.Receive(), 2), 2u);
    EXPECT_TRUE(images.Receive(20).empty());
}

TEST_F(StreamTest, UsedStreamsMaskChoosesTheStreams) {
    Run({Small(1, 100), Small(1, 200), Small(1, 300)});
    EXPECT_EQ(client.Get(kAddress, REG_USED_STREAMS_MASK), 7u);
    client.Set(kAddress, REG_USED_STREAMS_MASK, 0xFD);
    Acquire();
    std::vector<std::pair<uint8_t, size_t>> seen;
    for (int i = 0; i < 2; ++i) {
        const Bytes datagram = images.Receive();
        seen.emplace_back(datagram.at(1), datagram.size());
    }
    EXPECT_THAT(seen, testing::UnorderedElementsAre(std::pair(0, 114), std::pair(2, 314)));
    EXPECT_TRUE(images.Receive(20).empty());
}

TEST_F(StreamTest, StreamBlocksDescribeTheStreams) {
    StreamConfig profile;
    profile.source = MakeLaserProfile(64, 32);
    profile.header_format = 3;
    profile.header_size = 8;
    profile.over_tcp = true;
    Run({Small(1), profile});
    EXPECT_EQ(client.Get(kAddress, REG_MAX_STREAMS_MASK), 3u);
    EXPECT_EQ(client.Get(kAddress, REG_STREAM1_FORMAT), 0x24u);
    EXPECT_EQ(client.Get(kAddress, REG_STREAM1_FRAME_SIZE), profile.source->MaxSize() + 8);
    EXPECT_EQ(client.Get(kAddress, REG_STREAM1_HEADER_FORMAT), 3u);
    EXPECT_EQ(client.Get(kAddress, REG_STREAM1_HEADER_SIZE), 8u);
    EXPECT_EQ(client.Get(kAddress, REG_STREAM1_OPTIONS), 1u);
    EXPECT_EQ(client.Get(kAddress, REG_STREAM0_OPTIONS), 0u);
}

TEST_F(StreamTest, ImageHeaderCarriesNumberAndSize) {
    StreamConfig stream;
    stream.source = MakeTestChart8(32, 16);
    stream.header_size = 12;
    const Bytes frame = stream.Frame(9);
    EXPECT_EQ(Bytes(frame.begin(), frame.begin() + 12), Be32(9) + Be16(32) + Be16(16) + Bytes(4));
    EXPECT_EQ(frame.size(), 12u + 32 * 16);
    stream.header_size = 2;
    EXPECT_EQ(stream.Frame(9).size(), 2u + 32 * 16);
}

TEST_F(StreamTest, WithoutStreamPortNothingIsSent) {
    Camera& camera = Run({Small(0, 100)});
    client.Set(kAddress, REG_STREAMPORT, 0);
    Acquire();
    EXPECT_TRUE(images.Receive(20).empty());
    EXPECT_EQ(camera.counters().streams[0].images, 0u);
    client.Set(kAddress, REG_STREAMPORT, images.port());
    EXPECT_EQ(Be32At(images.Receive(), 2), 1u);
}

TEST_F(StreamTest, SecondStartDoesNotBeginAnew) {
    StreamConfig stream = Small(0, 100);
    stream.frame_rate = 200;
    Run({stream});
    Acquire();
    for (int i = 0; i < 3; ++i)
        images.Receive();
    Acquire();
    EXPECT_GE(Be32At(images.Receive(), 2), 4u);
}

TEST_F(StreamTest, PowerOffEndsTheStreamAtOnce) {
    StreamConfig stream = Small(0, 5000000);
    stream.max_bytes_per_second = 5e6;  // an image takes a second
    Camera& camera = Run({stream});
    Acquire();
    EXPECT_FALSE(images.Receive().empty());
    camera.PowerOff();
    while (!images.Receive(0).empty()) {
    }
    EXPECT_TRUE(images.Receive(50).empty());
    EXPECT_FALSE(camera.acquiring());
}

TEST_F(StreamTest, MovingToAnotherAddressEndsTheStream) {
    Camera& camera = Run({Small(0, 100)});
    Acquire();
    EXPECT_FALSE(images.Receive().empty());
    camera.SetAddress(Ipv4(127, 0, 0, 99), Ipv4(255, 0, 0, 0));
    EXPECT_FALSE(camera.acquiring());
    while (!images.Receive(0).empty()) {
    }
    client.Set(Ipv4(127, 0, 0, 99), REG_STREAMPORT, images.port());
    client.Set(Ipv4(127, 0, 0, 99), REG_ACQUISITIONSTART, 1);
    uint32_t from = 0;
    EXPECT_FALSE(images.Receive(kReadTimeoutMs, &from).empty());
    EXPECT_EQ(from, camera.address());
}

// Faults of UDP images.

std::vector<uint32_t> Sequence(uint32_t count) {
    std::vector<uint32_t> sequence(count);
    for (uint32_t i = 0; i < count; ++i)
        sequence[i] = i;
    return sequence;
}

TEST_F(StreamTest, ListedPacketsAreDroppedDuplicatedDelayedAndReordered) {
    using Kind = PacketFault::Kind;
    Faults faults;
    faults.delay_packets = 3;
    faults.packets = {{Kind::kDrop, 2, 1, {}, 2},
                      {Kind::kDuplicate, 3, 2, {}},
                      {Kind::kDelay, 4, 0, {}},
                      {Kind::kReorder, 5, 5, {}}};
    const StreamConfig stream = Small(5);  // of 7 packets
    Camera& camera = Run({stream}, faults);
    AcquireAll();
    auto received = ReceiveImages(images, 5, 20);
    EXPECT_EQ(received[1].order, Sequence(7));
    EXPECT_THAT(received[2].order, ElementsAre(0, 3, 4, 5, 6));
    EXPECT_THAT(received[3].order, ElementsAre(0, 1, 2, 2, 3, 4, 5, 6));
    EXPECT_THAT(received[4].order, ElementsAre(1, 2, 3, 0, 4, 5, 6));
    EXPECT_THAT(received[5].order, ElementsAre(0, 1, 2, 3, 4, 6, 5));
    for (const uint32_t number : {1, 3, 4, 5}) {
        EXPECT_EQ(received[number].Data(), stream.Frame(number));
    }
    EXPECT_TRUE(WaitFor([&] { return camera.counters().streams[0].packets_dropped == 2u; }));
}

TEST_F(StreamTest, KeepsWhatItHasSent) {
    using Kind = PacketFault::Kind;
    Faults faults;
    faults.packets = {
        {Kind::kDrop, 1, 1, {}}, {Kind::kDuplicate, 2, 0, {}}, {Kind::kDelay, 2, 6, {}}};
    StreamConfig stream = Small(2);
    stream.keep_sent = true;
    Camera& camera = Run({stream}, faults);
    for (int start = 0; start < 2; ++start) {
        AcquireAll();
        std::vector<std::vector<uint8_t>> received;
        for (Bytes packet = images.Receive(); !packet.empty(); packet = images.Receive(20))
            received.emplace_back(packet.begin(), packet.end());
        EXPECT_EQ(received.size(), 14u);
        EXPECT_EQ(camera.SentDatagrams(0), received);
    }
}

TEST_F(StreamTest, DelayedPacketsLeaveAtTheEndOfTheAcquisition) {
    Faults faults;
    faults.packets = {{PacketFault::Kind::kDelay, 1, 6, {}}};
    Run({Small(1)}, faults);
    Acquire();
    EXPECT_EQ(ReceiveImages(images, 1)[1].order, Sequence(7));
}

TEST_F(StreamTest, WholeImagesCanBeDropped) {
    Faults faults;
    faults.packets = {{PacketFault::Kind::kDrop, 2, {}, {}}};
    Run({Small(3, 100)}, faults);
    AcquireAll();
    const auto received = ReceiveImages(images, 3, 20);
    EXPECT_EQ(received.size(), 2u);
    EXPECT_EQ(received.count(2), 0u);
}

TEST_F(StreamTest, FaultsByRateAreRepeatable) {
    std::vector<uint32_t> orders[2];
    for (int run = 0; run < 2; ++run) {
        Simulator other;
        CameraConfig config;
        config.address = Ipv4(127, 0, 0, 50);
        config.streams = {Small(20)};
        config.faults.seed = 42;
        config.faults.drop_rate = config.faults.duplicate_rate = 0.1;
        config.faults.delay_rate = config.faults.reorder_rate = 0.1;
        other.Add(config);
        other.Start();
        client.Set(config.address, REG_STREAMPORT, images.port());
        client.Set(config.address, REG_ACQUISITIONSTART, 1);
        ASSERT_TRUE(WaitFor([&] { return !other[0].acquiring(); }));
        for (Bytes packet = images.Receive(); !packet.empty(); packet = images.Receive(20)) {
            orders[run].push_back(Be32At(packet, 2) << 16 | Be16At(packet, 6));
        }
    }
    EXPECT_EQ(orders[0], orders[1]);
    EXPECT_FALSE(std::is_sorted(orders[0].begin(), orders[0].end()));
    const std::set<uint32_t> distinct(orders[0].begin(), orders[0].end());
    EXPECT_LT(distinct.size(), 135u);
    EXPECT_GT(distinct.size(), 110u);
}

TEST_F(StreamTest, AnotherSeedHarmsOtherPackets) {
    std::set<size_t> seen;
    Camera& camera = Run({Small(1, 100000)});
    for (uint64_t seed = 1; seed <= 4; ++seed) {
        camera.UpdateFaults([&](Faults& faults) {
            faults.seed = seed;
            faults.drop_rate = 0.3;
        });
        AcquireAll();
        size_t hash = 0;
        for (Bytes packet = images.Receive(50); !packet.empty(); packet = images.Receive(20)) {
            hash = hash * 31 + Be16At(packet, 6);
        }
        seen.insert(hash);
    }
    EXPECT_EQ(seen.size(), 4u);
}

TEST_F(StreamTest, NumbersJump) {
    Faults faults;
    faults.jumps = {{3, 10}, {4, 0xFFFFFFFF}};
    const StreamConfig stream = Small(5, 100);
    Run({stream}, faults);
    Acquire();
    std::vector<uint32_t> numbers;
    for (int i = 0; i < 5; ++i) {
        const Bytes packet = images.Receive();
        numbers.push_back(Be32At(packet, 2));
        EXPECT_EQ(Bytes(packet.begin() + 14, packet.end()), stream.Frame(numbers.back()));
    }
    EXPECT_THAT(numbers, ElementsAre(1, 2, 13, 13, 14));
}

TEST_F(StreamTest, HeaderFieldsLie) {
    Faults faults;
    HeaderLie lie;
    lie.image = 1;
    lie.packet = 0;
    lie.magic = 0x11;
    lie.stream_number = 0x22;
    lie.image_number = 0x33333333;
    lie.current_packet = 0x4444;
    lie.all_packets = 0x5555;
    lie.width = 0x6666;
    lie.height = 0x7777;
    lie.truncate_to = 14;
    faults.headers = {lie};
    Run({Small(1)}, faults);
    Acquire();
    EXPECT_EQ(images.Receive(), Bytes({0x11, 0x22}) + Be32(0x33333333) + Be16(0x4444) +
                                    Be16(0x5555) + Be16(0x6666) + Be16(0x7777));
    const Bytes next = images.Receive();
    EXPECT_EQ(Bytes(next.begin(), next.begin() + 14),
              Bytes({0xAC, 0}) + Be32(1) + Be16(1) + Be16(7) + Be16(100) + Be16(50));
}

TEST_F(StreamTest, PacketsLargerThanThePathGetLost) {
    Camera& camera = Run({Small(1)});
    client.Set(kAddress, REG_MTU, 4000);
    camera.SetPathPacketSize(3000);
    AcquireAll();
    auto received = ReceiveImages(images, 1, 20);
    EXPECT_THAT(received[1].order, ElementsAre(2));  // the last one is small
    EXPECT_TRUE(WaitFor([&] { return camera.counters().streams[0].packets_dropped == 2u; }));
}

// An interface that is too small for the packets also makes the kernel refuse to segment: from then
// on datagrams leave one by one.
TEST_F(StreamTest, GoesOnWithoutSegmentation) {
    if (!kelo::test::InPrivateNetwork()) GTEST_SKIP() << "needs a network namespace";
    const StreamConfig stream = Small(0, 30000);
    Camera& camera = Run({stream});
    kelo::test::Ip("link set lo mtu 4074");
    client.Set(kAddress, REG_TRIGGERMODE, 1);
    client.Set(kAddress, REG_MTU, 9000);
    Acquire();
    camera.Trigger();
    ASSERT_TRUE(WaitFor([&] { return camera.counters().streams[0].images == 1; }));
    auto received = ReceiveImages(images, 1, 20);
    EXPECT_THAT(received[1].order, ElementsAre(3));  // the last one is small
    client.Set(kAddress, REG_MTU, 4074);
    camera.Trigger();
    received = ReceiveImages(images, 1);
    EXPECT_EQ(received[2].Data(), stream.Frame(2));
    EXPECT_TRUE(WaitFor([&] { return camera.counters().streams[0].packets_dropped == 3u; }));
    kelo::test::Ip("link set lo mtu 65536");
}

TEST_F(StreamTest, SilentCameraPausesItsStreams) {
    StreamConfig stream = Small(0, 100);
    stream.frame_rate = 500;
    Camera& camera = Run({stream});
    Acquire();
    EXPECT_FALSE(images.Receive().empty());
    camera.UpdateFaults([](Faults& faults) { faults.silent = true; });
    EXPECT_TRUE(WaitFor([&] { return images.Receive(50).empty(); }));
    camera.UpdateFaults([](Faults& faults) { faults.silent = false; });
    EXPECT_FALSE(images.Receive().empty());
}

// TCP.

class TcpTest : public StreamTest {
protected:
    static StreamConfig OverTcp(uint32_t count, uint32_t size = 10000) {
        StreamConfig stream = Small(count, size);
        stream.over_tcp = true;
        return stream;
    }
    static Bytes ImageHeader(uint32_t number, uint8_t stream = 0) {
        return Bytes{0xAC, stream} + Be32(number) + Be16(0) + Be16(1) + Be16(100) + Be16(50);
    }
    static Bytes MessageHeader(uint32_t type, uint32_t size, uint8_t stream = 0) {
        return Bytes{0xAC, stream} + Be32(type) + Be32(size);
    }
    static void ExpectImage(TcpClient& tcp, const StreamConfig& stream, uint32_t number) {
        const TcpMessage message = tcp.ReadMessage();
        EXPECT_EQ(message.header, MessageHeader(1, 14 + stream.source->MaxSize()));
        EXPECT_EQ(message.body, ImageHeader(number) + stream.Frame(number));
    }
};

TEST_F(TcpTest, ImageMessagesAreFramed) {
    const StreamConfig stream = OverTcp(3);
    Camera& camera = Run({stream});
    TcpClient tcp(kAddress, camera.tcp_port());
    tcp.Open(0);
    Acquire();
    for (uint32_t number = 1; number <= 3; ++number)
        ExpectImage(tcp, stream, number);
    EXPECT_TRUE(WaitFor([&] { return camera.counters().streams[0].bytes == 30000u; }));
}

TEST_F(TcpTest, NoImageIsMadeBeforeSomeoneConnects) {
    const StreamConfig stream = OverTcp(2, 1000);
    Camera& camera = Run({stream});
    Acquire();
    TcpClient idle(kAddress, camera.tcp_port());
    TcpClient tcp(kAddress, camera.tcp_port());
    tcp.Open(0);
    ExpectImage(tcp, stream, 1);
    ExpectImage(tcp, stream, 2);
}

TEST_F(TcpTest, OpeningMayArriveByteByByte) {
    const StreamConfig stream = OverTcp(1, 1000);
    Camera& camera = Run({stream});
    TcpClient tcp(kAddress, camera.tcp_port());
    Acquire();
    tcp.Send({0xAC});
    tcp.Send({0});
    ExpectImage(tcp, stream, 1);
}

TEST_F(TcpTest, WrongOpeningsAreHungUpOn) {
    Camera& camera = Run({OverTcp(1)});
    for (const Bytes& opening : {Bytes{0xAB, 0}, Bytes{0xAC, 1}}) {
        TcpClient tcp(kAddress, camera.tcp_port());
        tcp.Send(opening);
        EXPECT_TRUE(tcp.AtEnd());
    }
}

TEST_F(TcpTest, LivenessProbesAreSwallowed) {
    const StreamConfig stream = OverTcp(2, 1000);
    Camera& camera = Run({stream});
    TcpClient tcp(kAddress, camera.tcp_port());
    tcp.Open(0);
    for (int i = 0; i < 100; ++i)
        tcp.Send(MessageHeader(0, 0));
    Acquire();
    ExpectImage(tcp, stream, 1);
    ExpectImage(tcp, stream, 2);
}

TEST_F(TcpTest, NewConnectionReplacesTheOld) {
    StreamConfig stream = OverTcp(0, 1000);
    stream.frame_rate = 100;
    Camera& camera = Run({stream});
    TcpClient old(kAddress, camera.tcp_port());
    old.Open(0);
    Acquire();
    EXPECT_EQ(old.ReadMessage().body.size(), 1014u);
    TcpClient tcp(kAddress, camera.tcp_port());
    tcp.Open(0);
    EXPECT_EQ(tcp.ReadMessage().body.size(), 1014u);
    EXPECT_TRUE(WaitFor([&] { return old.Read(100000).size() < 100000; }));
}

TEST_F(TcpTest, UdpAndTcpStreamsMixOnOneCamera) {
    StreamConfig profile = OverTcp(2);
    profile.source = MakeLaserProfile(64, 64);
    const StreamConfig chart = Small(2, 5000);
    Camera& camera = Run({chart, profile});
    TcpClient tcp(kAddress, camera.tcp_port());
    tcp.Open(1);
    Acquire();
    auto received = ReceiveImages(images, 2);
    EXPECT_EQ(received[2].Data(), chart.Frame(2));
    for (uint32_t number = 1; number <= 2; ++number) {
        const TcpMessage message = tcp.ReadMessage();
        EXPECT_EQ(message.header.at(1), 1);
        EXPECT_EQ(Bytes(message.body.begin() + 14, message.body.end()), profile.Frame(number));
    }
}

TEST_F(TcpTest, OptionsRegisterChoosesTheTransportAtTheStart) {
    const StreamConfig stream = Small(1, 1000);
    Camera& camera = Run({stream});
    client.Set(kAddress, REG_STREAM0_OPTIONS, 1);
    TcpClient tcp(kAddress, camera.tcp_port());
    tcp.Open(0);
    Acquire();
    ExpectImage(tcp, stream, 1);
}

TEST_F(TcpTest, PeerThatNeverReadsDoesNotHoldUpTheCamera) {
    Camera& camera = Run({OverTcp(0, 20000000)});
    TcpClient tcp(kAddress, camera.tcp_port());
    tcp.Open(0);
    Acquire();
    EXPECT_FALSE(tcp.Read(1).empty());
    EXPECT_EQ(client.Get(kAddress, REG_WIDTH), 100u);
    // Without an end of its own, the writing would hold it up for ever.
    const auto begin = std::chrono::steady_clock::now();
    camera.PowerOff();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
}

class TcpCloseTest : public TcpTest, public testing::WithParamInterface<uint32_t> {};

TEST_P(TcpCloseTest, EndsTheConnectionAfterThatManyBytesAndGoesOnOverANewOne) {
    const StreamConfig stream = OverTcp(3, 1000);
    Faults faults;
    faults.tcp.closes = {{2, GetParam(), {}}};
    Camera& camera = Run({stream}, faults);
    Acquire();
    {
        TcpClient tcp(kAddress, camera.tcp_port());
        tcp.Open(0);
        ExpectImage(tcp, stream, 1);
        const Bytes whole = MessageHeader(1, 1014) + ImageHeader(2) + stream.Frame(2);
        EXPECT_EQ(tcp.Read(5000), Bytes(whole.begin(), whole.begin() + GetParam()));
    }
    TcpClient again(kAddress, camera.tcp_port());
    again.Open(0);
    ExpectImage(again, stream, 3);
}

INSTANTIATE_TEST_SUITE_P(Bytes, TcpCloseTest,
                         testing::Values(0, 1, 9, 10, 23, 24, 500, 1023, 1024));

TEST_F(TcpTest, DecoysComeBeforeTheImage) {
    const StreamConfig stream = OverTcp(1, 1000);
    Faults faults;
    faults.tcp.sync_messages = true;
    faults.tcp.garbage_bytes = 70000;
    faults.tcp.wrong_magic_bytes = 5;
    Camera& camera = Run({stream}, faults);
    TcpClient tcp(kAddress, camera.tcp_port());
    tcp.Open(0);
    Acquire();
    EXPECT_EQ(tcp.ReadMessage().header, MessageHeader(0, 0));
    const TcpMessage garbage = tcp.ReadMessage();
    EXPECT_EQ(garbage.header, MessageHeader(7, 70000));
    EXPECT_EQ(garbage.body.size(), 70000u);
    EXPECT_EQ(tcp.ReadMessage().header, Bytes({0xCA, 0}) + Be32(1) + Be32(5));
    ExpectImage(tcp, stream, 1);
}

TEST_F(TcpTest, OversizeImageCarriesMoreThanItsFrame) {
    const StreamConfig stream = OverTcp(2, 1000);
    Faults faults;
    faults.tcp.oversize_bytes = 50;
    Camera& camera = Run({stream}, faults);
    TcpClient tcp(kAddress, camera.tcp_port());
    tcp.Open(0);
    Acquire();
    for (uint32_t number = 1; number <= 2; ++number) {
        const TcpMessage message = tcp.ReadMessage();
        EXPECT_EQ(message.header, MessageHeader(1, 1064));
        EXPECT_EQ(message.body, ImageHeader(number) + stream.Frame(number) + Bytes(50, 0xEE));
    }
}

TEST_F(TcpTest, ClaimedSizeLies) {
    Faults faults;
    faults.tcp.claimed_size = 0xFFFFFFFF;
    Camera& camera = Run({OverTcp(1, 1000)}, faults);
    TcpClient tcp(kAddress, camera.tcp_port());
    tcp.Open(0);
    Acquire();
    EXPECT_EQ(tcp.Read(10), MessageHeader(1, 0xFFFFFFFF));
}

TEST_F(TcpTest, SplitWritesCarryTheSameBytes) {
    const StreamConfig stream = OverTcp(2, 1000);
    Faults faults;
    faults.tcp.split_bytes = 1;
    faults.tcp.split_pause_us = 1;
    Camera& camera = Run({stream}, faults);
    TcpClient tcp(kAddress, camera.tcp_port());
    tcp.Open(0);
    Acquire();
    ExpectImage(tcp, stream, 1);
    ExpectImage(tcp, stream, 2);
}

TEST_F(TcpTest, ConnectionsAreRefusedUntilToldOtherwise) {
    Camera& camera = Run({OverTcp(1)});
    camera.UpdateFaults([](Faults& faults) { faults.tcp.accept = TcpFaults::Accept::kRefuse; });
    EXPECT_EQ(TcpClient(kAddress, camera.tcp_port()).error(), ECONNREFUSED);
    camera.UpdateFaults([](Faults& faults) { faults.tcp.accept = TcpFaults::Accept::kNormal; });
    EXPECT_TRUE(TcpClient(kAddress, camera.tcp_port()).connected());
}

TEST_F(TcpTest, ConnectionsHangUntilToldOtherwise) {
    Camera& camera = Run({OverTcp(1)});
    camera.UpdateFaults([](Faults& faults) { faults.tcp.accept = TcpFaults::Accept::kHang; });
    EXPECT_EQ(TcpClient(kAddress, camera.tcp_port(), 100).error(), ETIMEDOUT);
    camera.UpdateFaults([](Faults& faults) { faults.tcp.accept = TcpFaults::Accept::kNormal; });
    EXPECT_TRUE(TcpClient(kAddress, camera.tcp_port()).connected());
}

TEST_F(TcpTest, FirstConnectionsAreReset) {
    const StreamConfig stream = OverTcp(1, 1000);
    Faults faults;
    faults.tcp.reset_connections = 2;
    Camera& camera = Run({stream}, faults);
    for (int i = 0; i < 2; ++i)
        EXPECT_TRUE(TcpClient(kAddress, camera.tcp_port()).AtEnd());
    TcpClient tcp(kAddress, camera.tcp_port());
    tcp.Open(0);
    Acquire();
    ExpectImage(tcp, stream, 1);
}

TEST_F(TcpTest, CloseConnectionsEndsThemAll) {
    Camera& camera = Run({OverTcp(0, 1000)});
    TcpClient tcp(kAddress, camera.tcp_port());
    tcp.Open(0);
    ASSERT_TRUE(WaitFor([&] { return camera.counters().connections == 1; }));
    camera.CloseConnections();
    EXPECT_TRUE(tcp.AtEnd());
}

// Image sources.

TEST(ImageSourceTest, TestChartsCarryTheirNumberAndMove) {
    for (const auto& source : {MakeTestChart8(320, 240), MakeTestChart16(320, 240)}) {
        Bytes first;
        Bytes second;
        Bytes again;
        source->Render(0x01020304, first);
        source->Render(0x01020305, second);
        source->Render(0x01020304, again);
        EXPECT_EQ(first.size(), source->MaxSize());
        EXPECT_EQ(NumberInData(first), 0x01020304u);
        EXPECT_EQ(first, again);
        EXPECT_NE(Bytes(first.begin() + 4, first.end()), Bytes(second.begin() + 4, second.end()));
    }
    EXPECT_EQ(MakeTestChart16(320, 240)->MaxSize(), 2u * 320 * 240);
    EXPECT_THROW(MakeTestChart8(1, 3), std::invalid_argument);
}

// Reads the digits back out of a picture drawn at scale 1: 3 by 5 cells, 4 apart, from (2, 2) on.
TEST(ImageSourceTest, NumberIsReadableInThePicture) {
    constexpr uint32_t kWidth = 64;
    const char* const digits[] = {"111101101101111", "010110010010111", "111001111100111",
                                  "111001111001111", "101101111001001", "111100111001111",
                                  "111100111101111", "111001010010010", "111101111101111",
                                  "111101111001111"};
    Bytes picture;
    MakeTestChart8(kWidth, 48)->Render(1234567890, picture);
    std::string text;
    for (uint32_t position = 0; position < 10; ++position) {
        std::string cells;
        for (uint32_t y = 0; y < 5; ++y) {
            for (uint32_t x = 0; x < 3; ++x) {
                cells += picture[(y + 2) * kWidth + 2 + position * 4 + x] == 255 ? '1' : '0';
            }
        }
        for (int digit = 0; digit < 10; ++digit) {
            if (cells == digits[digit]) text += static_cast<char>('0' + digit);
        }
    }
    EXPECT_EQ(text, "1234567890");
}

// The decoder of the tests: 0x00 lo hi, 0xFF n, literals, 0x01 ends.
Bytes DecodeRunLengths(const Bytes& code) {
    Bytes pixels;
    for (size_t i = 0; i < code.size();) {
        const uint8_t value = code[i++];
        if (value == 1 || value == 2) {
            EXPECT_EQ(i, code.size()) << "bytes behind the end marker";
            return pixels;
        }
        size_t run = 1;
        if (value == 0x00) {
            run += code.at(i) + 256u * code.at(i + 1);
            i += 2;
        } else if (value == 0xFF) {
            run += code.at(i++);
        }
        pixels.insert(pixels.end(), run, value);
    }
    ADD_FAILURE() << "no end marker";
    return pixels;
}

TEST(ImageSourceTest, LaserProfileDecodesToItsPixels) {
    for (const auto& [width, height] : {std::pair{8, 1}, {64, 32}, {640, 480}, {1280, 1024}}) {
        const auto w = static_cast<uint16_t>(width);
        const auto h = static_cast<uint16_t>(height);
        const ImageSourcePtr source = MakeLaserProfile(w, h);
        for (const uint32_t number : {0u, 1u, 0x89ABCDEFu, 0xFFFFFFFFu}) {
            Bytes code;
            source->Render(number, code);
            EXPECT_LE(code.size(), source->MaxSize()) << width << " " << number;
            const Bytes pixels = DecodeRunLengths(code);
            EXPECT_EQ(pixels, LaserProfilePixels(w, h, number));
            uint32_t read = 0;
            for (int i = 0; i < 8; ++i)
                read = read << 4 | (pixels.at(i) - 0x10u);
            EXPECT_EQ(read, number);
        }
    }
}

class PngTest : public testing::Test {
protected:
    PngTest() { std::filesystem::create_directories(folder); }
    ~PngTest() override { std::filesystem::remove_all(folder); }
    void Write(const std::string& name, uint32_t width, uint32_t height, uint8_t value) {
        png_image image{};
        image.version = PNG_IMAGE_VERSION;
        image.width = width;
        image.height = height;
        image.format = PNG_FORMAT_GRAY;
        const Bytes pixels(size_t{width} * height, value);
        ASSERT_NE(png_image_write_to_file(&image, (folder + "/" + name).c_str(), 0, pixels.data(),
                                          0, nullptr),
                  0);
    }
    std::string Error() const {
        try {
            MakePngFolder(folder);
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "none";
    }
    const std::string folder = testing::TempDir() + "kelo-sim-png-" + std::to_string(getpid());
};

TEST_F(PngTest, ShowsTheFilesInTurn) {
    Write("b.png", 5, 4, 20);
    Write("a.png", 5, 4, 10);
    const ImageSourcePtr source = MakePngFolder(folder);
    EXPECT_EQ(source->Width(), 5);
    EXPECT_EQ(source->Height(), 4);
    for (uint32_t number = 0; number < 4; ++number) {
        Bytes picture;
        source->Render(number, picture);
        EXPECT_EQ(picture, Bytes(20, number % 2 == 0 ? 10 : 20));
    }
}

TEST_F(PngTest, SaysWhatIsWrong) {
    EXPECT_THAT(Error(), HasSubstr("there is no PNG file in this folder"));
    Write("a.png", 5, 4, 10);
    Write("b.png", 4, 4, 10);
    EXPECT_THAT(Error(), HasSubstr("b.png: the picture's size differs"));
    std::ofstream(folder + "/0.png") << "no picture";
    EXPECT_THAT(Error(), HasSubstr("0.png: "));
    EXPECT_THROW(MakePngFolder(folder + "/none"), std::runtime_error);
}

}  // namespace
}  // namespace kelosim::test
