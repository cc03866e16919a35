// The simulated camera's flash, from the wire and by itself.

#include "kelosim/firmware.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "crc32.h"
#include "in_time.h"
#include "kelo_registers.h"
#include "wait_for.h"
#include "wire_client.h"

namespace kelosim::test {
namespace {

using kelo::test::RepeatUntilInTime;
using kelo::test::Stopwatch;
using kelo::test::WaitFor;
using std::chrono::milliseconds;
using Step = FirmwareConfig::Step;

constexpr uint32_t kAddress = Ipv4(127, 0, 0, 11);
constexpr uint32_t kSize = 4260000;

const Bytes& Image() {
    static const Bytes image = MakeFirmwareImage(kSize, 3);
    return image;
}

// A client that programs as real ones do: the payload's bytes are taken for 32-bit words of a
// little-endian host, so that each word's bytes arrive in reverse order.
class FlashTest : public testing::Test {
protected:
    Camera& Run(const FirmwareConfig& firmware = {}) {
        CameraConfig config;
        config.heartbeat_timeout_ms = 0;
        config.firmware = firmware;
        Camera& camera = simulator.Add(config);
        simulator.Start();
        return camera;
    }
    static Bytes Payload(const Bytes& payload) {
        const auto count = static_cast<uint32_t>(std::min<size_t>(payload.size(), 128));
        Bytes padded = payload;
        padded.resize(count * 4);
        Bytes request = ControlHeader(10, 1) + Be32(10000 * 4) + Be32(count);
        for (size_t i = 0; i < padded.size(); i += 4) {
            for (size_t byte = 4; byte-- > 0;)
                request.push_back(padded[i + byte]);
        }
        return request;
    }
    // The answer's status; 0 when there is no answer.
    uint32_t Write(const Bytes& payload, int timeout_ms = kReadTimeoutMs) {
        client.Send(Payload(payload), kAddress);
        const Bytes reply = client.Receive(timeout_ms);
        if (reply.empty()) return 0;
        EXPECT_EQ(Be32At(reply, 2), 11u);
        return Be32At(reply, 10);
    }
    uint32_t WriteData(const Bytes& image, uint32_t begin, int timeout_ms = kReadTimeoutMs) {
        const size_t end = std::min<size_t>(begin + 508, image.size());
        return Write(
            Be32(begin) + Bytes(image.begin() + begin, image.begin() + static_cast<ptrdiff_t>(end)),
            timeout_ms);
    }
    void Program(const Bytes& image) {
        ASSERT_EQ(Write(Be32(0xFFFFFF00)), 1u);
        for (uint32_t begin = 0; begin < image.size(); begin += 508) {
            ASSERT_EQ(WriteData(image, begin), 1u) << begin;
        }
        ASSERT_EQ(Write(Be32(0xFFFFFF01)), 1u);
    }
    // The bytes of a read-back reply.
    Bytes ReadPiece(int timeout_ms = kReadTimeoutMs) {
        client.Send(ReadMemory(2, 10000, 128), kAddress);
        const Bytes reply = client.Receive(timeout_ms);
        Bytes piece;
        for (size_t i = 22; i + 4 <= reply.size(); i += 4) {
            for (size_t byte = 4; byte-- > 0;)
                piece.push_back(reply[i + byte]);
        }
        return piece;
    }

    UdpClient client;
    Simulator simulator;
};

TEST_F(FlashTest, PayloadWordsTravelReversed) {
    const Bytes expected =
        ControlHeader(10, 1) + Be32(40000) + Be32(4) + Bytes{0x00, 0xFF, 0xFF, 0xFF} + Bytes(12);
    EXPECT_EQ(Payload(Be32(0xFFFFFF00)), expected);
}

TEST_F(FlashTest, WholeRunStoresTheFileAndReadsItBackWithoutItsEmblem) {
    Camera& camera = Run();
    Program(Image());
    EXPECT_EQ(camera.FlashContents(kSize), Image());
    EXPECT_EQ(camera.FlashContents(kSize + 600), Image() + Bytes(600, 0xFF));
    ASSERT_EQ(Write(Be32(0xFFFFFF02) + Be32(0)), 1u);
    Bytes expected = Image() + Bytes(504, 0xFF);
    std::fill_n(expected.begin() + kEmblemOffset, kEmblemSize, 0xFF);
    // Clients notice the end of the file by a piece that is longer than what is left of it.
    for (uint32_t offset = 0; offset < kSize; offset += 504) {
        const auto begin = expected.begin() + offset;
        ASSERT_EQ(ReadPiece(), Be32(offset) + Be32(504) + Bytes(begin, begin + 504)) << offset;
    }
}

TEST_F(FlashTest, ShortPayloadsHaveTheLengthThatTheirCountTells) {
    Camera& camera = Run();
    Write(Be32(0xFFFFFF00));
    EXPECT_EQ(Write(Be32(8) + Bytes{1, 2, 3}), 1u);
    EXPECT_EQ(Write(Be32(20) + Bytes(123, 7)), 1u);  // 127 bytes
    const Bytes expected = Bytes(8, 0xFF) + Bytes{1, 2, 3} + Bytes(9, 0xFF) + Bytes{7};
    EXPECT_EQ(camera.FlashContents(21), expected);
    EXPECT_EQ(camera.FlashContents(144), camera.FlashContents(143) + Bytes{0xFF});
}

TEST_F(FlashTest, ContentsSurviveAReboot) {
    FirmwareConfig firmware;
    firmware.reboot_time_ms = 1;
    Camera& camera = Run(firmware);
    Write(Be32(0xFFFFFF00));
    Write(Be32(0) + Bytes{1, 2, 3, 4});
    camera.Reboot();
    ASSERT_TRUE(WaitFor([&] { return camera.powered(); }));
    EXPECT_EQ(camera.FlashContents(4), Bytes({1, 2, 3, 4}));
    EXPECT_EQ(Write(Be32(4) + Bytes{5}), 2u) << "the run is over";
}

TEST_F(FlashTest, WrongSequencesAreRefused) {
    FirmwareConfig firmware;
    firmware.flash_size = 4096;
    Run(firmware);
    EXPECT_EQ(Write(Be32(0) + Bytes{1}), 2u) << "data before start";
    EXPECT_EQ(Write(Be32(0xFFFFFF01)), 2u) << "finish before start";
    EXPECT_EQ(Write({1, 2, 3}), 2u) << "no whole word";
    EXPECT_EQ(Write(Be32(0xFFFFFF00)), 1u);
    EXPECT_EQ(Write(Be32(4096) + Bytes{1}), 2u) << "behind the flash";
    EXPECT_EQ(Write(Be32(4000) + Bytes(508, 1)), 1u) << "padding may reach behind the flash";
}

TEST_F(FlashTest, FinishAnswersAfterTheFlashTime) {
    constexpr milliseconds kFlashTime(300);
    FirmwareConfig firmware;
    firmware.flash_time_ms = kFlashTime.count();
    Camera& camera = Run(firmware);
    RepeatUntilInTime([&] {
        Write(Be32(0xFFFFFF00));
        camera.ClearRequests();
        const Stopwatch time;
        client.Send(Payload(Be32(0xFFFFFF01)), kAddress);
        client.Send(ReadRegister(9, REG_WIDTH), kAddress);  // gets no answer: the camera is busy
        EXPECT_TRUE(WaitFor([&] { return camera.Requests().size() == 2; }));
        const bool in_time = time.Elapsed() < kFlashTime;
        const Bytes reply = client.Receive();
        const auto answered_after = time.Elapsed();
        // Too late, the camera answers the read as well.
        const bool silent = client.Receive(in_time ? 20 : 2000).empty();
        if (!in_time) return false;
        EXPECT_EQ(Be32At(reply, 2), 11u);
        EXPECT_GE(answered_after, kFlashTime);
        EXPECT_TRUE(silent);
        return true;
    });
    EXPECT_EQ(client.Get(kAddress, REG_WIDTH), 640u);
    EXPECT_EQ(Write(Be32(0xFFFFFF01)), 1u) << "asked again, because an answer may get lost";
}

TEST_F(FlashTest, FlashTimeDoesNotWakeTheWatchdog) {
    constexpr milliseconds kFlashTime(1000);
    FirmwareConfig firmware;
    firmware.flash_time_ms = kFlashTime.count();
    Camera& camera = Run(firmware);
    RepeatUntilInTime([&] {
        client.Set(kAddress, REG_CAMERA_USED, 1);
        Write(Be32(0xFFFFFF00));
        camera.ClearRequests();
        const uint64_t expired = camera.counters().watchdog_expired;
        const Stopwatch time;
        client.Send(Payload(Be32(0xFFFFFF01)), kAddress);
        EXPECT_TRUE(WaitFor([&] { return camera.Requests().size() == 1; }));
        camera.SetRegister(REG_HEARTBEAT_TIMEOUT, 20);
        const Bytes early = client.Receive(100);
        camera.SetRegister(REG_HEARTBEAT_TIMEOUT, 0);
        const bool in_time = time.Elapsed() < kFlashTime;
        const Bytes reply = early.empty() ? client.Receive() : early;
        if (!in_time) return false;
        EXPECT_TRUE(early.empty()) << "it writes its flash";
        EXPECT_FALSE(reply.empty());
        EXPECT_EQ(camera.counters().watchdog_expired, expired);
        EXPECT_TRUE(camera.used());
        return true;
    });
}

TEST_F(FlashTest, CameraWithoutReadBackBeginsElsewhere) {
    FirmwareConfig firmware;
    firmware.read_back = false;
    Run(firmware);
    EXPECT_EQ(Write(Be32(0xFFFFFF02) + Be32(0)), 1u);
    EXPECT_GT(Be32At(ReadPiece(), 0), 0u);
}

TEST_F(FlashTest, CorruptsOneByteOnReadBackOnly) {
    FirmwareConfig firmware;
    firmware.corrupt_offset = 505;
    Camera& camera = Run(firmware);
    Write(Be32(0xFFFFFF00));
    Write(Be32(0) + Bytes(508, 0x20));
    Write(Be32(508) + Bytes(508, 0x20));
    Write(Be32(0xFFFFFF02) + Be32(0));
    EXPECT_EQ(ReadPiece(), Be32(0) + Be32(504) + Bytes(504, 0x20));
    const Bytes second = Be32(504) + Be32(504) + Bytes{0x20, 0x21} + Bytes(502, 0x20);
    EXPECT_EQ(ReadPiece(), second);
    EXPECT_EQ(camera.FlashContents(508), Bytes(508, 0x20));
}

class StopTest : public FlashTest, public testing::WithParamInterface<std::tuple<Step, int>> {};

TEST_P(StopTest, CameraStopsAnsweringAtTheStep) {
    const auto& [step, answers] = GetParam();
    FirmwareConfig firmware;
    firmware.stop_at = step;
    firmware.stop_from_offset = step == Step::kReadBack ? 504 : 508;
    Run(firmware);
    const std::vector<Bytes> payloads = {Be32(0xFFFFFF00), Be32(0) + Bytes(508),
                                         Be32(508) + Bytes(508), Be32(0xFFFFFF01),
                                         Be32(0xFFFFFF02) + Be32(0)};
    for (int i = 0; i < 8; ++i) {
        const auto index = static_cast<size_t>(i);
        const int timeout_ms = i < answers ? kReadTimeoutMs : 40;
        const bool answered = index < payloads.size() ? Write(payloads[index], timeout_ms) != 0
                                                      : !ReadPiece(timeout_ms).empty();
        ASSERT_EQ(answered, i < answers) << "request " << i;
        if (!answered) break;
    }
    EXPECT_EQ(client.Get(kAddress, REG_WIDTH), 640u) << "other registers go on";
}

INSTANTIATE_TEST_SUITE_P(Steps, StopTest,
                         testing::Values(std::tuple(Step::kStart, 0), std::tuple(Step::kData, 2),
                                         std::tuple(Step::kFinish, 3),
                                         std::tuple(Step::kReadPrepare, 4),
                                         std::tuple(Step::kReadBack, 6),
                                         std::tuple(Step::kNone, 8)));

// Whatever the size of the pieces: none begins at the emblem's first byte or inside it.
TEST_F(FlashTest, PiecesNeverCutTheEmblem) {
    Camera& camera = Run();
    for (const uint32_t piece_size : {1u, 4u, 16u, 100u, 496u, 503u, 504u}) {
        FirmwareConfig firmware;
        firmware.piece_size = piece_size;
        camera.SetFirmware(firmware);
        for (uint32_t start = kEmblemOffset - 530; start < kEmblemOffset - 500; ++start) {
            ASSERT_EQ(Write(Be32(0xFFFFFF02) + Be32(start)), 1u);
            uint32_t next = start;
            while (next < kEmblemOffset + kEmblemSize) {
                const Bytes piece = ReadPiece();
                ASSERT_EQ(Be32At(piece, 0), next);
                ASSERT_FALSE(next >= kEmblemOffset) << piece_size << " from " << start;
                next += Be32At(piece, 4);
            }
            if (piece_size < 16) break;  // hundreds of small pieces say it once
        }
    }
}

TEST(FirmwareImageTest, EmblemHoldsMagicLengthAndChecksum) {
    Bytes image = MakeFirmwareImage(kSize, 1);
    ASSERT_EQ(image.size(), kSize);
    EXPECT_EQ(Be32At(image, 0x40FFF0), 0x9AE4601Fu);
    EXPECT_EQ(Be32At(image, 0x40FFF4), kSize);
    const uint32_t crc = Be32At(image, 0x40FFF8);
    std::fill_n(image.begin() + 0x40FFF0, 12, 0xFF);
    EXPECT_EQ(kelo_crc32(0x5478DE90, image.data(), kSize), crc);
}

TEST(FirmwareImageTest, SmallestImageEndsWithItsEmblem) {
    EXPECT_EQ(MakeFirmwareImage(0x40FFFC, 1).size(), 0x40FFFCu);
    EXPECT_THROW(MakeFirmwareImage(0x40FFFB, 1), std::invalid_argument);
}

TEST(FirmwareImageTest, DependsOnItsSeedOnly) {
    EXPECT_EQ(MakeFirmwareImage(kSize, 3), Image());
    EXPECT_NE(MakeFirmwareImage(kSize, 4), Image());
}

TEST(FirmwareImageTest, SpoiltImagesDifferInOneItemOnly) {
    const auto difference = [](FirmwareSpoil spoil) {
        const Bytes spoilt = MakeFirmwareImage(kSize, 3, spoil);
        std::set<size_t> items;
        for (size_t i = 0; i < kSize; ++i) {
            if (spoilt[i] != Image()[i]) items.insert((i - kEmblemOffset) / 4);
        }
        return items;
    };
    EXPECT_EQ(difference(FirmwareSpoil::kMagic), std::set<size_t>{0});
    EXPECT_EQ(difference(FirmwareSpoil::kLength), std::set<size_t>{1});
    EXPECT_EQ(difference(FirmwareSpoil::kCrc), std::set<size_t>{2});
    EXPECT_EQ(MakeFirmwareImage(kSize, 3, FirmwareSpoil::kTooShort).size(), kEmblemOffset);
}

}  // namespace
}  // namespace kelosim::test
