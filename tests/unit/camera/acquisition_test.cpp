#include <chrono>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake_camera.h"
#include "kelo_manager.h"
#include "kelo_registers.h"
#include "log_capture.h"
#include "utils.h"
#include "wait_for.h"

namespace kelo::test {
namespace {

using testing::Each;
using testing::ElementsAre;

// A real manager with its receivers, and image packets sent to its port from this process.
class Acquisition : public testing::Test {
protected:
    Acquisition() {
        fake.registers[REG_HEARTBEAT_TIMEOUT] = 0;
        fake.registers[REG_USED_STREAMS_MASK] = 1;
        fake.registers[REG_STREAM0_FORMAT] = 0x124;  // only the low 8 bits count
        fake.registers[REG_STREAM0_FRAME_SIZE] = 64;
        fake.registers[REG_STREAM0_HEADER_SIZE] = 4;
        fake.registers[REG_STREAM0_HEADER_FORMAT] = 9;
    }
    ~Acquisition() override { session.fake->silent = false; }

    // One image of one packet.
    void SendImage(uint32_t number, const Bytes& payload, uint8_t stream = 0) {
        Bytes packet{0xAC, stream};
        Append32(packet, number);
        const Bytes rest{0, 0, 0, 1, 0, 20, 0, 10};
        packet.insert(packet.end(), rest.begin(), rest.end());
        packet.insert(packet.end(), payload.begin(), payload.end());
        UDPSocket socket(0x7F000001, 0);
        ASSERT_GT(socket.sendto(packet.data(), packet.size(), 0x7F000001, manager.GetStreamPort()),
                  0);
    }
    std::vector<uint32_t> RegistersRead() const {
        std::vector<uint32_t> registers;
        for (const auto& request : fake.Requests()) {
            if (request.command == 4) registers.push_back(request.reg);
        }
        return registers;
    }
    void OpenAndStart() {
        ASSERT_EQ(camera.Open(nullptr, false), KELO_STATUS_SUCCESS);
        ASSERT_EQ(camera.StartAcquisition(), KELO_STATUS_SUCCESS);
    }

    LogCapture log;
    KELOManager manager;
    FakeSession session{&manager, TestCamInfo("Test camera", 0x7F000001)};
    FakeCamera& fake = *session.fake;
    KELOCamera& camera = *session.camera;
};

TEST_F(Acquisition, OpenRegistersTheStreamsAndThePort) {
    fake.registers[REG_MAX_STREAMS_MASK] = 3;
    fake.unmapped = {REG_TCP_STREAMPORT};
    ASSERT_EQ(camera.Open(nullptr, false), KELO_STATUS_SUCCESS);
    EXPECT_THAT(fake.Writes(REG_STREAMPORT), ElementsAre(manager.GetStreamPort()));
    EXPECT_EQ(camera.camInfo()->video_port, manager.GetStreamPort());
}

TEST_F(Acquisition, OpenFailsWithoutTheStreamRegistersButStaysOpen) {
    fake.unmapped = {REG_MAX_STREAMS_MASK};
    EXPECT_EQ(camera.Open(nullptr, false), KELO_STATUS_ERROR);
    EXPECT_TRUE(camera.IsOpened());
    fake.unmapped = {REG_STREAMPORT};
    EXPECT_EQ(camera.Open(nullptr, false), KELO_STATUS_ERROR);
}

TEST_F(Acquisition, StartReadsTheStreamsBlockInOrder) {
    ASSERT_EQ(camera.StartAcquisition(), KELO_STATUS_SUCCESS);
    EXPECT_THAT(RegistersRead(), ElementsAre(REG_USED_STREAMS_MASK, REG_STREAM0_FORMAT,
                                             REG_STREAM0_HEADER_SIZE, REG_STREAM0_HEADER_FORMAT,
                                             REG_STREAM0_FRAME_SIZE, REG_STREAM0_OPTIONS));
    EXPECT_THAT(fake.Writes(REG_ACQUISITIONSTART), ElementsAre(0xFFFFFFFF));
    EXPECT_EQ(fake.CountWrites(REG_ACQUISITIONSTOP), 0u);
}

TEST_F(Acquisition, AMaskOf101SetsThreeStreamsUpTheUnusedOneWithASmallFrame) {
    fake.registers[REG_USED_STREAMS_MASK] = 0b101;
    fake.registers[REG_STREAM1_FRAME_SIZE] = 5000;
    fake.registers[REG_STREAM1_FRAME_SIZE + 8] = 100;
    OpenAndStart();
    for (const uint8_t stream : {0, 1, 2}) {
        EXPECT_NE(manager.getStreamReceiver(0x7F000001, stream), nullptr);
    }
    EXPECT_EQ(manager.getStreamReceiver(0x7F000001, 3), nullptr);
    SendImage(1, {1, 2, 3}, 1);
    const TImageBuffer* image = camera.GetNextImage(1, 10000);
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->GetBufferLength(), 32u);
}

TEST_F(Acquisition, ACameraThatRefusedTheOptionsOnceIsNeverAskedAgain) {
    fake.registers[REG_USED_STREAMS_MASK] = 3;
    fake.unmapped = {REG_STREAM0_OPTIONS};
    ASSERT_EQ(camera.StartAcquisition(), KELO_STATUS_SUCCESS);
    fake.unmapped.clear();
    fake.registers[REG_STREAM0_OPTIONS] = 1;
    ASSERT_EQ(camera.StartAcquisition(), KELO_STATUS_SUCCESS);
    const auto read = RegistersRead();
    EXPECT_EQ(std::count(read.begin(), read.end(), REG_STREAM0_OPTIONS), 1);
    EXPECT_EQ(std::count(read.begin(), read.end(), REG_STREAM1_OPTIONS), 0);
}

TEST_F(Acquisition, AFailingRegisterFailsTheStart) {
    for (const uint32_t reg : {REG_USED_STREAMS_MASK, REG_STREAM0_FORMAT, REG_STREAM0_HEADER_SIZE,
                               REG_STREAM0_HEADER_FORMAT, REG_STREAM0_FRAME_SIZE}) {
        fake.statuses[reg] = {2};
        EXPECT_EQ(camera.StartAcquisition(), KELO_STATUS_ERROR) << reg;
    }
    EXPECT_EQ(fake.CountWrites(REG_ACQUISITIONSTART), 0u);
}

TEST_F(Acquisition, ARefusedStartIsTriedAgainBehindAStop) {
    fake.statuses[REG_ACQUISITIONSTART] = {2};
    EXPECT_EQ(camera.StartAcquisition(), KELO_STATUS_SUCCESS);
    EXPECT_EQ(fake.CountWrites(REG_ACQUISITIONSTART), 2u);
    EXPECT_EQ(fake.CountWrites(REG_ACQUISITIONSTOP), 1u);
}

TEST_F(Acquisition, AStartRefusedTwiceIsPrintedEvenWithoutLogging) {
    fake.statuses[REG_ACQUISITIONSTART] = {2, 3};
    kelo::Logging(false);
    EXPECT_EQ(camera.StartAcquisition(), KELO_STATUS_OUT_OF_RANGE);
    kelo::Logging(true);
    EXPECT_EQ(log.Count("REG_ACQUISITIONSTART (-3) in the camera could not be activated!"), 1u);
    EXPECT_EQ(fake.CountWrites(REG_ACQUISITIONSTOP), 2u);
}

TEST_F(Acquisition, StopAlwaysSucceeds) {
    fake.statuses[REG_ACQUISITIONSTOP] = {2};
    EXPECT_EQ(camera.StopAcquisition(), KELO_STATUS_SUCCESS);
    EXPECT_THAT(fake.Writes(REG_ACQUISITIONSTOP), ElementsAre(0xFFFFFFFF));
}

TEST_F(Acquisition, AClosedSessionHasNoImages) {
    ASSERT_EQ(camera.StartAcquisition(), KELO_STATUS_SUCCESS);
    SendImage(1, {1});
    ASSERT_TRUE(WaitFor([&] { return manager.GetPendingCount(0x7F000001, 0) == 1; }));
    EXPECT_EQ(camera.GetPendingImageCount(0), 0u);
    EXPECT_EQ(camera.GetNextImage(0), nullptr);
    EXPECT_EQ(camera.GetNextImage(0, 1000), nullptr);
    EXPECT_TRUE(camera.IsBufferEmpty(0));
    camera.ClearBuffer(0);
    camera.PopImage(0, nullptr);
    int status = 99;
    uint8_t pixels[65];
    EXPECT_EQ(camera.GetNextDecodedImage(0, pixels, 0, 64, &status), nullptr);
    EXPECT_EQ(status, 99);
    EXPECT_EQ(manager.GetPendingCount(0x7F000001, 0), 1u);
}

TEST_F(Acquisition, AnImageIsFoundUsedAndGivenBack) {
    OpenAndStart();
    EXPECT_EQ(camera.GetNextImage(0), nullptr);
    SendImage(5, {1, 2, 3});
    TImageBuffer* image = camera.GetNextImage(0, 10000);
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->GetCurrentImageNum(), 5u);
    EXPECT_EQ(image->GetHeaderSize(), 4);
    EXPECT_EQ(image->streamFormat, 0x24);
    EXPECT_EQ(image->headerType, 9);
    EXPECT_EQ(image->GetData()[2], 3);
    EXPECT_EQ(image->GetBytesLost(), 0u);
    EXPECT_EQ(image->GetStreamNumber(), 0);
    EXPECT_EQ(camera.GetNextImage(0), image);
    EXPECT_EQ(camera.GetPendingImageCount(0), 1u);
    EXPECT_FALSE(camera.IsBufferEmpty(0));
    const EXT_CAM_STATS stats = KELOCamera::getStats(image);
    EXPECT_EQ(stats.current_image_number, 5u);
    EXPECT_EQ(stats.images_received, 1u);
    EXPECT_EQ(stats.images_dropped, 0u);
    camera.PopImage(0, image);
    EXPECT_TRUE(camera.IsBufferEmpty(0));
}

TEST_F(Acquisition, PoppingWhatIsNotThereIsLogged) {
    OpenAndStart();
    SendImage(5, {1});
    ASSERT_NE(camera.GetNextImage(0, 10000), nullptr);
    camera.PopImage(0, nullptr);
    EXPECT_EQ(log.Count("KELOCamera::PopImage failed"), 1u);
}

TEST_F(Acquisition, DecodesARunLengthImageBehindItsHeader) {
    OpenAndStart();
    SendImage(1, {9, 9, 9, 9, 5, 0, 2, 0, 0xFF, 1, 1, 0});
    std::vector<uint8_t> pixels(9, 0xEE);
    int status = 0;
    TImageBuffer* image = nullptr;
    ASSERT_TRUE(WaitFor([&] {
        image = camera.GetNextDecodedImage(0, pixels.data(), 4, 8, &status);
        return image != nullptr;
    }));
    EXPECT_EQ(status, 1);
    EXPECT_THAT(pixels, ElementsAre(5, 0, 0, 0, 0xFF, 0xFF, 0xEE, 0xEE, 0xEE));
    EXPECT_EQ(camera.GetPendingImageCount(0), 1u);
}

TEST_F(Acquisition, AnImageWithTooLittleDataIsNotDecoded) {
    OpenAndStart();
    SendImage(1, {9, 9, 9, 9, 5, 0, 2, 0, 0xFF, 1, 1});  // 11 bytes, 12 needed
    ASSERT_NE(camera.GetNextImage(0, 10000), nullptr);
    uint8_t pixels[9];
    int status = 0;
    EXPECT_EQ(camera.GetNextDecodedImage(0, pixels, 4, 8, &status), nullptr);
    EXPECT_EQ(camera.GetNextDecodedImage(0, pixels, -4, 8, &status), nullptr);
    EXPECT_EQ(camera.GetNextDecodedImage(0, pixels, 4, -1, &status), nullptr);
    EXPECT_EQ(camera.GetPendingImageCount(0), 1u);
}

TEST_F(Acquisition, AnImageOfAnotherFormatIsNotDecodedAndStaysQueued) {
    fake.registers[REG_STREAM0_FORMAT] = 8;
    OpenAndStart();
    SendImage(1, Bytes(20, 5));
    ASSERT_NE(camera.GetNextImage(0, 10000), nullptr);
    uint8_t pixels[9];
    int status = 0;
    EXPECT_EQ(camera.GetNextDecodedImage(0, pixels, 0, 8, &status), nullptr);
    EXPECT_EQ(camera.GetPendingImageCount(0), 1u);
}

TEST_F(Acquisition, ClosingEndsAWaitForAnImageAtOnce) {
    OpenAndStart();
    std::atomic<bool> left{false};
    const auto begin = std::chrono::steady_clock::now();
    std::thread waiter([&] {
        EXPECT_EQ(camera.GetNextImage(0, 60000), nullptr);
        left = true;
    });
    camera.Close();
    EXPECT_TRUE(WaitFor([&] { return left.load(); }));
    waiter.join();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
    EXPECT_TRUE(manager.IsBufferEmpty(0x7F000001, 0));
}

TEST_F(Acquisition, ASessionMayOutliveTheManager) {
    auto own_manager = std::make_unique<KELOManager>();
    FakeSession survivor(own_manager.get(), TestCamInfo("Survivor", 0x7F00000C));
    survivor.fake->registers[REG_HEARTBEAT_TIMEOUT] = 0;
    survivor.fake->registers[REG_STREAM0_FRAME_SIZE] = 64;
    ASSERT_EQ(survivor.camera->Open(nullptr, false), KELO_STATUS_SUCCESS);
    ASSERT_EQ(survivor.camera->StartAcquisition(), KELO_STATUS_SUCCESS);
    own_manager.reset();
    EXPECT_FALSE(survivor.camera->GetImageAcquisitionOK());
    EXPECT_EQ(survivor.camera->GetNextImage(0, 60000), nullptr);
    uint32_t value = 0;
    EXPECT_EQ(survivor.camera->getRegisterValue(REG_WIDTH, value), KELO_STATUS_NO_RESPONSE);
    EXPECT_EQ(survivor.camera->StartAcquisition(), KELO_STATUS_ERROR);
    survivor.camera->Close();
}

TEST(Stats, WithoutAnImageAreEmpty) {
    EXPECT_EQ(KELOCamera::getStats(nullptr).images_received, 0u);
}

}  // namespace
}  // namespace kelo::test
