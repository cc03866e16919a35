// The control channel of the simulated camera, byte by byte.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "in_time.h"
#include "kelo_registers.h"
#include "network_namespace.h"
#include "wait_for.h"
#include "wire_client.h"

namespace kelosim::test {
namespace {

using kelo::test::RepeatUntilInTime;
using kelo::test::Stopwatch;
using kelo::test::WaitFor;
using std::chrono::milliseconds;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr uint32_t kFirst = Ipv4(127, 0, 0, 11);
constexpr uint32_t kSecond = Ipv4(127, 0, 0, 12);

// A simulator with two cameras and a client.
class ControlTest : public testing::Test {
protected:
    ControlTest() {
        CameraConfig base;
        base.heartbeat_timeout_ms = 0;
        base.streams[0].source = MakeTestChart8(64, 48);
        base.firmware.reboot_time_ms = 20;
        simulator.AddMany(2, base);
        simulator.Start();
    }
    Camera& camera() { return simulator[0]; }

    std::mutex events_mutex;
    std::vector<std::string> events;
    Simulator simulator{[this](const std::string& line) {
        std::lock_guard lock(events_mutex);
        events.push_back(line);
    }};
    UdpClient client;

    // Until the camera has taken all that was sent to it. Its thread looks at its sockets between
    // two such orders.
    void AwaitReception() {
        camera().CloseConnections();
        camera().CloseConnections();
    }
    bool HasEvent(const std::string& text) {
        std::lock_guard lock(events_mutex);
        return std::any_of(events.begin(), events.end(), [&](const std::string& event) {
            return event.find(text) != std::string::npos;
        });
    }
};

Bytes Text(const std::string& text, size_t size) {
    Bytes bytes(text.begin(), text.end());
    bytes.resize(size);
    return bytes;
}

TEST_F(ControlTest, EveryCameraAnswersDiscoveryFromItsOwnAddress) {
    client.Broadcast(ControlHeader(1, 0));
    std::map<uint32_t, Bytes> replies;
    for (int i = 0; i < 2; ++i) {
        uint32_t from = 0;
        const Bytes reply = client.Receive(kReadTimeoutMs, &from);
        replies[from] = reply;
    }
    ASSERT_EQ(replies.size(), 2u);
    const Bytes expected = Bytes{0xAB, 0, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 1} + Be32(0) + Be16(2) +
                           Be16(3) + Text("KELO simulated camera 1", 32) + Be32(kFirst) +
                           Be32(Ipv4(255, 0, 0, 0)) + Bytes{0x02, 0x4B, 127, 0, 0, 11} + Be16(0) +
                           Be32(1000) + Be32(0);
    EXPECT_EQ(expected.size(), 78u);
    EXPECT_THAT(replies[kFirst], ElementsAreArray(expected));
    EXPECT_EQ(Be32At(replies[kSecond], 54), kSecond);
}

TEST_F(ControlTest, UnicastDiscoveryIsAnsweredWithItsNumber) {
    const Bytes reply = client.Ask(ControlHeader(1, 77), kFirst);
    ASSERT_EQ(reply.size(), 78u);
    EXPECT_EQ(Be32At(reply, 6), 77u);
}

TEST_F(ControlTest, DescriptionIsCutTo32Characters) {
    Simulator other;
    CameraConfig config;
    config.address = Ipv4(127, 0, 0, 40);
    config.description = std::string(40, 'x');
    other.Add(config);
    other.Start();
    const Bytes reply = client.Ask(ControlHeader(1, 0), config.address);
    EXPECT_EQ(Bytes(reply.begin() + 22, reply.begin() + 54), Text(std::string(32, 'x'), 32));
    EXPECT_EQ(Be32At(reply, 54), config.address);
}

TEST_F(ControlTest, RegisterReadReplyBytes) {
    camera().SetRegister(REG_EXPOSURETIME, 0x01020304);
    EXPECT_THAT(client.Ask(ReadRegister(5, REG_EXPOSURETIME), kFirst),
                ElementsAreArray(Bytes{0xAB, 0, 0, 0, 0, 5, 0, 0, 0, 5, 0, 0, 0, 1} + Be32(100) +
                                 Bytes{1, 2, 3, 4}));
}

TEST_F(ControlTest, RegisterWriteReplyBytesAndEffect) {
    EXPECT_THAT(client.Ask(WriteRegister(6, REG_EXPOSURETIME, 0xA1B2C3D4), kFirst),
                ElementsAreArray(Bytes{0xAB, 0, 0, 0, 0, 7, 0, 0, 0, 6, 0, 0, 0, 1} + Be32(100) +
                                 Bytes{0xA1, 0xB2, 0xC3, 0xD4}));
    EXPECT_EQ(camera().GetRegister(REG_EXPOSURETIME), 0xA1B2C3D4);
    EXPECT_NE(simulator[1].GetRegister(REG_EXPOSURETIME), 0xA1B2C3D4);
}

TEST_F(ControlTest, MemoryReadReplyBytes) {
    camera().SetRegister(REG_BUS_ACCESS, 7);
    camera().SetRegister(REG_BUS_ACCESS + 1, 8);
    EXPECT_THAT(client.Ask(ReadMemory(9, REG_BUS_ACCESS, 2), kFirst),
                ElementsAreArray(ControlHeader(9, 9) + Be32(REG_BUS_ACCESS * 4) + Be32(2) +
                                 Be32(7) + Be32(8)));
}

TEST_F(ControlTest, MemoryTransfersOf128RegistersTake534Bytes) {
    std::vector<uint32_t> values(128);
    for (uint32_t i = 0; i < 128; ++i)
        values[i] = i * 0x01010101;
    const Bytes request = WriteMemory(1, REG_BUS_ACCESS, values);
    ASSERT_EQ(request.size(), 534u);
    EXPECT_THAT(client.Ask(request, kFirst),
                ElementsAreArray(ControlHeader(11, 1) + Be32(REG_BUS_ACCESS * 4) + Be32(128)));
    const Bytes reply = client.Ask(ReadMemory(2, REG_BUS_ACCESS, 128), kFirst);
    ASSERT_EQ(reply.size(), 534u);
    EXPECT_EQ(Be32At(reply, 22 + 127 * 4), 127u * 0x01010101);
}

TEST_F(ControlTest, MoreThan128RegistersAreAnError) {
    const Bytes reply = client.Ask(ReadMemory(1, REG_BUS_ACCESS, 129), kFirst);
    EXPECT_EQ(reply, ControlHeader(9, 1, 2) + Be32(REG_BUS_ACCESS * 4) + Be32(0));
}

TEST_F(ControlTest, MemoryWriteOfFewerValuesThanClaimedIsAnErrorAndWritesNothing) {
    const Bytes request = ControlHeader(10, 1) + Be32(REG_BUS_ACCESS * 4) + Be32(3) + Be32(5);
    EXPECT_EQ(client.Ask(request, kFirst),
              ControlHeader(11, 1, 2) + Be32(REG_BUS_ACCESS * 4) + Be32(0));
    EXPECT_EQ(camera().GetRegister(REG_BUS_ACCESS), 0u);
}

TEST_F(ControlTest, TransfersOfNoRegistersSucceed) {
    EXPECT_EQ(client.Ask(ReadMemory(1, REG_BUS_ACCESS, 0), kFirst).size(), 22u);
    EXPECT_EQ(Be32At(client.Ask(WriteMemory(2, REG_BUS_ACCESS, {}), kFirst), 10), 1u);
}

TEST_F(ControlTest, UnmappedRegistersAreOutOfRange) {
    for (const Bytes& request : {ReadRegister(1, 9), WriteRegister(1, 9, 1), ReadMemory(1, 8, 2),
                                 WriteMemory(1, 8, {1, 2}), ReadRegister(1, 0x3FFFFFFF)}) {
        EXPECT_EQ(Be32At(client.Ask(request, kFirst), 10), 3u) << "command " << +request[5];
    }
    camera().UnmapRegister(REG_GAIN);
    EXPECT_EQ(Be32At(client.Ask(ReadRegister(1, REG_GAIN), kFirst), 10), 3u);
}

TEST_F(ControlTest, EveryNamedRegisterIsMapped) {
    for (const uint32_t number : {REG_SENSORWIDTH,
                                  REG_PIXELFORMAT,
                                  REG_ACQUISITIONMODE,
                                  REG_ACQUISITIONSTOP,
                                  REG_ACQUISITIONFRAMES,
                                  REG_TRIGGERSOFTWARE,
                                  REG_EXPOSURETIME,
                                  REG_GAIN_TUNING,
                                  REG_BLACKLEVEL,
                                  REG_DEVICEFIRMWAREVERSION,
                                  REG_CAMERASETTINGSSLOT,
                                  REG_LINEFIXENABLE,
                                  REG_MINTIME,
                                  REG_SENSORREGISTERVALUE,
                                  REG_IMAGEPIPELINERESET,
                                  REG_DEVICETEMPERATURE,
                                  REG_SENSOR_TYPE,
                                  REG_TRIGGERSELECTOR,
                                  REG_TRIGGERDEBOUNCE,
                                  REG_LINE0CONFIG,
                                  REG_LINE2CONFIG,
                                  REG_USEROUTPUTVALUE,
                                  REG_TIMERDURATION,
                                  REG_TIMERTRIGGERACTIVATION,
                                  REG_MAC_0_HIGH,
                                  REG_MAC_0_LOW,
                                  REG_CURR_IP_CONFIG_0,
                                  REG_CURR_IP_ADDR_0,
                                  REG_CURR_SUBNET_MASK_0,
                                  REG_CURR_GATEWAY_0,
                                  REG_MANUFACTURER_NAME,
                                  REG_MODEL_NAME,
                                  REG_DEVICE_VERSION,
                                  REG_SERIAL_NUMBER,
                                  REG_USER_DEFINED_NAME,
                                  REG_HEARTBEAT_TIMEOUT,
                                  REG_TIMESTAMP_VALUE_LOW,
                                  REG_PERSIST_SUBNET_MASK_0,
                                  REG_PERSIST_GATEWAY_0,
                                  REG_LINK_SPEED_0,
                                  REG_CONTROL,
                                  REG_STREAMPORT,
                                  REG_MAX_STREAMS_MASK,
                                  REG_USED_STREAMS_MASK,
                                  REG_TCP_STREAMPORT,
                                  REG_STREAM0_FORMAT,
                                  REG_STREAM0_OPTIONS,
                                  REG_STREAM1_FORMAT,
                                  REG_STREAM1_FRAME_SIZE,
                                  REG_STREAM1_HEADER_FORMAT,
                                  REG_STREAM1_HEADER_SIZE,
                                  REG_STREAM1_OPTIONS,
                                  REG_INTER_FRAME_GAP,
                                  REG_MTU,
                                  REG_REBOOT,
                                  REG_CAMERA_USED,
                                  REG_DEVICETEMPERATURE2,
                                  REG_NUM_SENSOR_CHANNELS,
                                  REG_TRIGGER_FRAMES_SET,
                                  REG_TRIGGER_FRAMES_GET,
                                  KELO_CMD_FIRMWARE,
                                  KELO_CMD_SAVE_CALIBRATION_TO_FLASH,
                                  REG_SENSOR_IMAGES_COUNT_DROPED,
                                  REG_SENSOR_IMAGES_COUNT_PENDING,
                                  REG_INPUTS_STATUS,
                                  REG_IMAGING_PROBLEM_EVENT_COUNTER,
                                  REG_IO_TEST_OUTPUT,
                                  REG_HDR_SENSOR_ENABLE_EXT_EXP_TRIGGER,
                                  REG_BAD_PIXEL_LOCATIONS,
                                  REG_BINNING_XY,
                                  REG_BINNING_Y,
                                  REG_BUS_ACCESS}) {
        EXPECT_EQ(Be32At(client.Ask(ReadRegister(1, number), kFirst), 10), 1u) << number;
    }
}

TEST_F(ControlTest, DefaultsDescribeTheCamera) {
    EXPECT_EQ(client.Get(kFirst, REG_WIDTH), 64u);
    EXPECT_EQ(client.Get(kFirst, REG_SENSORHEIGHT), 48u);
    EXPECT_EQ(client.Get(kFirst, REG_STREAM0_FRAME_SIZE), 64u * 48u);
    EXPECT_EQ(client.Get(kFirst, REG_STREAM0_FORMAT), kFormatGrey8);
    EXPECT_EQ(client.Get(kFirst, REG_MAX_STREAMS_MASK), 1u);
    EXPECT_EQ(client.Get(kFirst, REG_USED_STREAMS_MASK), 1u);
    EXPECT_EQ(client.Get(kFirst, REG_MAC_0_HIGH), 0x024Bu);
    EXPECT_EQ(client.Get(kFirst, REG_MAC_0_LOW), kFirst);
    EXPECT_EQ(client.Get(kFirst, REG_CURR_IP_ADDR_0), kFirst);
    EXPECT_EQ(client.Get(kFirst, REG_TCP_STREAMPORT), camera().tcp_port());
    EXPECT_EQ(client.Get(kFirst, REG_DEVICEFIRMWAREVERSION), 0x00020003u);
    EXPECT_EQ(client.Get(kFirst, REG_MODEL_NAME), 0x53696D75u);  // "Simu"
    EXPECT_EQ(client.Get(kFirst, REG_MTU), 1500u);
}

TEST_F(ControlTest, ReadOnlyRegistersRefuseWritesAndTellTheirValue) {
    const Bytes reply = client.Ask(WriteRegister(1, REG_SENSORWIDTH, 1), kFirst);
    EXPECT_EQ(Be32At(reply, 10), 2u);
    EXPECT_EQ(Be32At(reply, 18), 64u);
    EXPECT_EQ(Be32At(client.Ask(WriteMemory(2, REG_SENSORWIDTH, {1}), kFirst), 10), 2u);
    EXPECT_EQ(Be32At(client.Ask(WriteRegister(3, REG_STREAM0_FRAME_SIZE, 1), kFirst), 10), 2u);
}

TEST_F(ControlTest, FrameSizeIsWritableInManualMode) {
    client.Set(kFirst, REG_STREAM0_OPTIONS, STREAM_OPTIONS_FRAMESIZE_MANUAL);
    EXPECT_EQ(client.Set(kFirst, REG_STREAM0_FRAME_SIZE, 12345), 12345u);
}

TEST_F(ControlTest, WidthStaysThatOfThePicture) {
    EXPECT_EQ(client.Set(kFirst, REG_WIDTH, 32), 64u);
}

TEST_F(ControlTest, DatagramsThatAreNoRequestsAreIgnored) {
    client.Send({0xAB}, kFirst);
    client.Send(Bytes{0xAA} + Bytes(21), kFirst);
    client.Send(ControlHeader(4, 1) + Be32(0), kFirst);             // half a request
    client.Send(ControlHeader(4, 1) + Be32(2) + Be32(0), kFirst);   // no register's address
    client.Send(ControlHeader(5, 1) + Be32(8) + Be32(0), kFirst);   // a reply
    client.Send(ControlHeader(12, 1) + Be32(8) + Be32(0), kFirst);  // an event
    EXPECT_EQ(Be32At(client.Ask(ReadRegister(99, REG_WIDTH), kFirst), 6), 99u);
    EXPECT_TRUE(WaitFor([&] { return camera().counters().malformed == 6u; }));
}

TEST_F(ControlTest, RequestsAreRecorded) {
    client.Ask(WriteRegister(3, REG_GAIN, 9), kFirst);
    const auto requests = camera().Requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].command, 6u);
    EXPECT_EQ(requests[0].message_number, 3u);
    EXPECT_EQ(requests[0].register_number, uint32_t{REG_GAIN});
    EXPECT_EQ(requests[0].value, 9u);
    EXPECT_EQ(requests[0].from_port, client.port());
}

TEST_F(ControlTest, ClaimAndFree) {
    EXPECT_EQ(client.Set(kFirst, REG_CAMERA_USED, 1), 1u);
    EXPECT_TRUE(camera().used());
    EXPECT_EQ(Be32At(client.Ask(ControlHeader(1, 0), kFirst), 74), 1u);
    EXPECT_EQ(client.Set(kFirst, REG_CAMERA_USED, 0), 0u);
    EXPECT_FALSE(camera().used());
}

TEST_F(ControlTest, ExclusiveCameraRefusesAnotherClient) {
    Simulator other;
    CameraConfig config;
    config.address = Ipv4(127, 0, 0, 41);
    config.exclusive = true;
    other.Add(config);
    other.Start();
    client.Set(config.address, REG_CAMERA_USED, 1);
    UdpClient rival;
    EXPECT_EQ(Be32At(rival.Ask(WriteRegister(1, REG_CAMERA_USED, 1), config.address), 10), 2u);
    client.Set(config.address, REG_CAMERA_USED, 0);
    rival.Set(config.address, REG_CAMERA_USED, 1);
}

TEST_F(ControlTest, WatchdogFreesTheCameraOfASilentClient) {
    client.Set(kFirst, REG_HEARTBEAT_TIMEOUT, 50);
    UdpClient images;
    client.Set(kFirst, REG_STREAMPORT, images.port());
    camera().SetFrameRate(0, 1);
    client.Set(kFirst, REG_ACQUISITIONSTART, 0xFFFFFFFF);
    EXPECT_TRUE(camera().acquiring());
    client.Set(kFirst, REG_CAMERA_USED, 1);
    EXPECT_TRUE(WaitFor([&] { return !camera().used() && !camera().acquiring(); }));
    EXPECT_TRUE(WaitFor([&] { return camera().counters().watchdog_expired == 1u; }));
    EXPECT_TRUE(WaitFor([&] { return HasEvent("client silent for 50 ms: freed"); }));
}

TEST_F(ControlTest, WatchdogIsFedByRequests) {
    constexpr milliseconds kTimeout(700);
    client.Set(kFirst, REG_HEARTBEAT_TIMEOUT, kTimeout.count());
    RepeatUntilInTime([&] {
        const uint64_t expired = camera().counters().watchdog_expired;
        const Stopwatch all;
        Stopwatch last;
        client.Set(kFirst, REG_CAMERA_USED, 1);
        bool fed = true;
        // The camera has heard no two requests further apart than from the sending of one to the
        // answer of the next.
        std::chrono::steady_clock::duration longest_gap{};
        while (fed && all.Elapsed() < kTimeout * 3 / 2) {
            const Stopwatch sent;
            client.Get(kFirst, REG_WIDTH);
            fed = camera().used() && camera().counters().watchdog_expired == expired;
            longest_gap = std::max(longest_gap, last.Elapsed());
            last = sent;
            std::this_thread::sleep_for(milliseconds(10));
        }
        if (longest_gap >= kTimeout) return false;
        EXPECT_TRUE(fed);
        return true;
    });
}

TEST_F(ControlTest, ZeroHeartbeatTimeoutMeansNoWatchdog) {
    client.Set(kFirst, REG_CAMERA_USED, 1);
    EXPECT_TRUE(client.Receive(100).empty());
    EXPECT_TRUE(camera().used());
}

TEST_F(ControlTest, PacketSizeTestSendsOneDatagramBeforeItsReply) {
    const uint32_t value = uint32_t{client.port()} << 16 | 1500;
    client.Send(WriteRegister(1, REG_MTU, value), kFirst);
    EXPECT_EQ(client.Receive().size(), 1472u);
    EXPECT_EQ(Be32At(client.Receive(), 2), 7u);
    EXPECT_EQ(camera().GetRegister(REG_MTU), 1500u);
}

TEST_F(ControlTest, PacketSizeTestBeyondThePathSendsOnlyTheReply) {
    camera().SetPathPacketSize(4074);
    for (const auto& [size, passes] : {std::pair{4074u, true}, {8500u, false}}) {
        client.Send(WriteRegister(1, REG_MTU, uint32_t{client.port()} << 16 | size), kFirst);
        const size_t expected = passes ? size - 28 : 22;
        EXPECT_EQ(client.Receive().size(), expected);
        EXPECT_EQ(client.Receive(passes ? kReadTimeoutMs : 0).empty(), !passes);
    }
}

TEST_F(ControlTest, PacketSizeIsSetWithoutAPort) {
    EXPECT_EQ(client.Set(kFirst, REG_MTU, 8500), 8500u);
    EXPECT_EQ(Be32At(client.Ask(WriteRegister(1, REG_MTU, 10), kFirst), 10), 2u);
}

TEST_F(ControlTest, SetIpMovesTheCameraWithTheMac) {
    const uint32_t moved = Ipv4(127, 9, 9, 9);
    client.Broadcast(SetIp({0x02, 0x4B, 127, 0, 0, 11}, kFirst, moved, Ipv4(255, 255, 0, 0)));
    ASSERT_TRUE(WaitFor([&] { return camera().address() == moved; }));
    const Bytes reply = client.Ask(ControlHeader(1, 0), moved);
    EXPECT_EQ(Be32At(reply, 54), moved);
    EXPECT_EQ(Be32At(reply, 58), Ipv4(255, 255, 0, 0));
    EXPECT_EQ(client.Get(moved, REG_CURR_IP_ADDR_0), moved);
    EXPECT_EQ(simulator[1].address(), kSecond);
    EXPECT_TRUE(WaitFor([&] { return HasEvent("127.9.9.9: moved here from 127.0.0.11"); }));
    client.Send(ControlHeader(1, 0), kFirst);
    EXPECT_TRUE(client.Receive(50).empty());
}

TEST_F(ControlTest, SetIpToAnAddressOfAnotherCameraIsRefused) {
    client.Broadcast(SetIp({0x02, 0x4B, 127, 0, 0, 11}, kFirst, kSecond, Ipv4(255, 0, 0, 0)));
    EXPECT_TRUE(WaitFor([&] { return HasEvent("address refused: cannot take 127.0.0.12:6061"); }));
    EXPECT_EQ(client.Get(kFirst, REG_CURR_IP_ADDR_0), kFirst);
}

TEST_F(ControlTest, SetIpForAnotherMacChangesNothing) {
    client.Broadcast(SetIp({1, 2, 3, 4, 5, 6}, kFirst, Ipv4(127, 9, 9, 9), 0));
    EXPECT_TRUE(WaitFor([&] { return camera().counters().requests == 1; }));
    EXPECT_EQ(client.Get(kFirst, REG_CURR_IP_ADDR_0), kFirst);
}

TEST_F(ControlTest, RebootAnswersThenLeavesAndComesBackWithDefaults) {
    client.Set(kFirst, REG_GAIN, 99);
    client.Set(kFirst, REG_CAMERA_USED, 1);
    EXPECT_EQ(client.Set(kFirst, REG_REBOOT, 1), 0u);
    EXPECT_TRUE(WaitFor([&] { return HasEvent("power off"); }));
    ASSERT_TRUE(WaitFor([&] { return camera().powered(); }));
    EXPECT_EQ(client.Ask(ControlHeader(1, 0), kFirst).size(), 78u);
    EXPECT_EQ(client.Get(kFirst, REG_GAIN), 1u);
    EXPECT_FALSE(camera().used());
}

TEST_F(ControlTest, WithoutPowerThereIsNoAnswer) {
    camera().PowerOff();
    client.Send(ReadRegister(1, REG_WIDTH), kFirst);
    EXPECT_TRUE(client.Receive(50).empty());
    camera().PowerOn();
    EXPECT_EQ(client.Get(kFirst, REG_WIDTH), 64u);
}

TEST_F(ControlTest, StopAndStartAgain) {
    simulator.Stop();
    simulator.Start();
    EXPECT_EQ(client.Get(kFirst, REG_WIDTH), 64u);
}

TEST_F(ControlTest, AddressInUseIsSaidClearly) {
    Simulator other;
    other.Add({});
    try {
        other.Start();
        FAIL() << "started";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(),
                     "cannot take 127.0.0.11:6061: the address is in use (is another simulator "
                     "running?)");
    }
}

TEST_F(ControlTest, AddressOfAnotherHostIsSaidClearly) {
    Simulator other;
    CameraConfig config;
    config.address = Ipv4(192, 0, 2, 1);
    other.Add(config);
    try {
        other.Start();
        FAIL() << "started";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(),
                     "cannot take 192.0.2.1:6061: this host does not have the address");
    }
}

// Faults of the control channel.

TEST_F(ControlTest, DropsTheNextReplies) {
    camera().UpdateFaults([](Faults& faults) { faults.drop_replies = 2; });
    for (uint32_t i = 1; i <= 3; ++i)
        client.Send(ReadRegister(i, REG_WIDTH), kFirst);
    EXPECT_EQ(Be32At(client.Receive(), 6), 3u);
    EXPECT_TRUE(WaitFor([&] { return camera().counters().replies_dropped == 2u; }));
}

TEST_F(ControlTest, DropsRepliesOfOneRegisterOnly) {
    camera().UpdateFaults([](Faults& faults) {
        faults.drop_replies = 1;
        faults.drop_replies_register = REG_GAIN;
    });
    EXPECT_EQ(client.Ask(ReadRegister(1, REG_WIDTH), kFirst).size(), 22u);
    client.Send(ReadRegister(2, REG_GAIN), kFirst);
    EXPECT_EQ(Be32At(client.Ask(ReadRegister(3, REG_GAIN), kFirst), 6), 3u);
}

TEST_F(ControlTest, DropsRepliesByRateTheSameWayForTheSameSeed) {
    std::vector<Bytes> runs[2];
    for (int run = 0; run < 2; ++run) {
        Simulator other;
        CameraConfig config;
        config.address = Ipv4(127, 0, 0, 42);
        config.faults.drop_reply_rate = 0.5;
        other.Add(config);
        other.Start();
        for (uint32_t i = 1; i <= 40; ++i)
            client.Send(ReadRegister(i, REG_WIDTH), config.address);
        ASSERT_TRUE(WaitFor([&] {
            const CameraCounters counters = other[0].counters();
            return counters.replies + counters.replies_dropped == 40;
        }));
        for (Bytes reply = client.Receive(); !reply.empty(); reply = client.Receive(20)) {
            runs[run].push_back(reply);
        }
    }
    EXPECT_GT(runs[0].size(), 5u);
    EXPECT_LT(runs[0].size(), 35u);
    EXPECT_EQ(runs[0], runs[1]);
}

TEST_F(ControlTest, DelaysReplies) {
    constexpr milliseconds kDelay(200);
    uint32_t number = 0;
    RepeatUntilInTime([&] {
        camera().UpdateFaults([&](Faults& faults) {
            faults.reply_delay_ms = kDelay.count();
            faults.delayed_replies = 1;
        });
        const uint32_t delayed = ++number;
        const uint32_t prompt = ++number;
        const Stopwatch time;
        client.Send(ReadRegister(delayed, REG_WIDTH), kFirst);
        client.Send(ReadRegister(prompt, REG_WIDTH), kFirst);
        const Bytes first = client.Receive();
        const bool in_time = time.Elapsed() < kDelay;
        const Bytes second = client.Receive();
        if (!in_time) return false;
        EXPECT_EQ(Be32At(first, 6), prompt);
        EXPECT_EQ(Be32At(second, 6), delayed);
        EXPECT_GE(time.Elapsed(), kDelay);
        return true;
    });
}

struct LieCase {
    const char* name;
    ReplyLie lie;
    Bytes expected;
};

void PrintTo(const LieCase& lie, std::ostream* out) {
    *out << lie.name;
}

class ReplyLieTest : public ControlTest, public testing::WithParamInterface<LieCase> {};

TEST_P(ReplyLieTest, GoesOutAsTold) {
    ReplyLie lie = GetParam().lie;
    lie.count = 1;
    camera().UpdateFaults([&](Faults& faults) { faults.replies = {lie}; });
    EXPECT_THAT(client.Ask(ReadRegister(5, REG_WIDTH), kFirst),
                ElementsAreArray(GetParam().expected));
    EXPECT_THAT(client.Ask(ReadRegister(6, REG_WIDTH), kFirst),
                ElementsAreArray(ControlHeader(5, 6) + Be32(8) + Be32(64)));
}

ReplyLie Lie(void (*set)(ReplyLie&)) {
    ReplyLie lie;
    set(lie);
    return lie;
}

INSTANTIATE_TEST_SUITE_P(
    All, ReplyLieTest,
    testing::Values(LieCase{"Magic", Lie([](ReplyLie& l) { l.magic = 0xAA; }),
                            Bytes{0xAA, 0} + Be32(5) + Be32(5) + Be32(1) + Be32(8) + Be32(64)},
                    LieCase{"Command", Lie([](ReplyLie& l) { l.command = 12; }),
                            ControlHeader(12, 5) + Be32(8) + Be32(64)},
                    LieCase{"Number", Lie([](ReplyLie& l) { l.number_offset = 3; }),
                            ControlHeader(5, 8) + Be32(8) + Be32(64)},
                    LieCase{"Status", Lie([](ReplyLie& l) { l.status = 4; }),
                            ControlHeader(5, 5, 4) + Be32(8) + Be32(64)},
                    LieCase{"Value", Lie([](ReplyLie& l) { l.value = 1; }),
                            ControlHeader(5, 5) + Be32(8) + Be32(1)},
                    LieCase{"Truncated", Lie([](ReplyLie& l) { l.truncate_to = 15; }),
                            ControlHeader(5, 5) + Bytes{0}},
                    LieCase{"ExtraBytes", Lie([](ReplyLie& l) { l.extra_bytes = 2; }),
                            ControlHeader(5, 5) + Be32(8) + Be32(64) + Bytes{0xEE, 0xEE}}),
    [](const auto& test) { return test.param.name; });

TEST_F(ControlTest, MemoryReplyMayClaimMoreRegisters) {
    camera().UpdateFaults([](Faults& faults) {
        faults.replies.emplace_back();
        faults.replies.back().registers = 200;
    });
    const Bytes reply = client.Ask(ReadMemory(1, REG_BUS_ACCESS, 1), kFirst);
    EXPECT_EQ(Be32At(reply, 18), 200u);
    EXPECT_EQ(reply.size(), 26u);
}

TEST_F(ControlTest, LiesAboutOneRegisterOnly) {
    camera().UpdateFaults([](Faults& faults) {
        faults.replies.emplace_back();
        faults.replies.back().only_register = REG_GAIN;
        faults.replies.back().value = 5;
    });
    EXPECT_EQ(client.Get(kFirst, REG_WIDTH), 64u);
    EXPECT_EQ(client.Get(kFirst, REG_GAIN), 5u);
}

TEST_F(ControlTest, SilentCameraSaysNothingAndKeepsItsState) {
    client.Set(kFirst, REG_GAIN, 7);
    camera().UpdateFaults([](Faults& faults) { faults.silent = true; });
    client.Send(ReadRegister(1, REG_GAIN), kFirst);
    client.Send(ControlHeader(1, 0), kFirst);
    AwaitReception();
    EXPECT_TRUE(client.Receive(50).empty());
    camera().UpdateFaults([](Faults& faults) { faults.silent = false; });
    EXPECT_EQ(client.Get(kFirst, REG_GAIN), 7u);
}

TEST_F(ControlTest, MayIgnoreDiscoveryAlone) {
    camera().UpdateFaults([](Faults& faults) { faults.ignore_discovery = true; });
    client.Send(ControlHeader(1, 0), kFirst);
    EXPECT_EQ(client.Get(kFirst, REG_WIDTH), 64u);
}

TEST_F(ControlTest, RefusesRegistersWithTheGivenStatus) {
    camera().UpdateFaults([](Faults& faults) {
        faults.refused_registers = {{REG_GAIN, 2}, {KELO_CMD_FIRMWARE, 3}};
    });
    EXPECT_EQ(Be32At(client.Ask(ReadRegister(1, REG_GAIN), kFirst), 10), 2u);
    EXPECT_EQ(Be32At(client.Ask(WriteRegister(1, REG_GAIN, 1), kFirst), 10), 2u);
    EXPECT_EQ(Be32At(client.Ask(WriteMemory(1, KELO_CMD_FIRMWARE, {1}), kFirst), 10), 3u);
}

TEST_F(ControlTest, RejectsTheFirstStarts) {
    camera().UpdateFaults([](Faults& faults) { faults.refused_starts = 1; });
    EXPECT_EQ(Be32At(client.Ask(WriteRegister(1, REG_ACQUISITIONSTART, 1), kFirst), 10), 2u);
    EXPECT_EQ(Be32At(client.Ask(WriteRegister(2, REG_ACQUISITIONSTART, 1), kFirst), 10), 1u);
}

TEST(FaultsTest, PrintAsOneLine) {
    EXPECT_EQ(ToString({}), "none");
    Faults faults;
    faults.seed = 7;
    faults.drop_rate = 0.25;
    faults.packets.push_back({PacketFault::Kind::kReorder, 4, 2, std::nullopt});
    faults.packets.push_back({PacketFault::Kind::kDrop, 5, 7, std::nullopt, 3});
    faults.silent = true;
    faults.tcp.closes.push_back({3, 17, std::nullopt});
    EXPECT_EQ(
        ToString(faults),
        "seed 7: drop rate 0.25, reorder image 4 packet 2, drop image 5 packets 7 to 9, silent, "
        "close in image 3 after 17 bytes");
}

TEST(AddressTest, ReadsDottedQuadsOnly) {
    EXPECT_EQ(ParseIpv4("10.1.2.3"), Ipv4(10, 1, 2, 3));
    EXPECT_EQ(Ipv4Text(Ipv4(10, 1, 2, 3)), "10.1.2.3");
    for (const char* wrong : {"", "10.1.2", "camera", "10.1.2.256", "::1"}) {
        EXPECT_THROW(ParseIpv4(wrong), std::invalid_argument) << wrong;
    }
}

// A path whose own limit is real.
TEST(PathTest, InterfaceMtuBoundsTestDatagrams) {
    if (!kelo::test::InPrivateNetwork()) GTEST_SKIP() << "needs a network namespace";
    kelo::test::Ip("link set lo mtu 4074");
    Simulator simulator;
    Camera& camera = simulator.Add({});
    simulator.Start();
    UdpClient client;
    for (const auto& [size, passes] : {std::pair{4074u, true}, {4075u, false}}) {
        client.Send(WriteRegister(1, REG_MTU, uint32_t{client.port()} << 16 | size),
                    camera.address());
        const size_t expected = passes ? size - 28 : 22;
        EXPECT_EQ(client.Receive().size(), expected);
        EXPECT_EQ(client.Receive(passes ? kReadTimeoutMs : 0).empty(), !passes);
    }
    kelo::test::Ip("link set lo mtu 65536");
}

}  // namespace
}  // namespace kelosim::test
