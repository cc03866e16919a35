#include "system_fixture.h"

namespace kelo::test {
namespace {

class UdpStream : public SystemTest {
protected:
    static kelosim::StreamConfig Chart(uint32_t images, double rate = 200) {
        return ChartStream(images, rate);
    }
    // Starts acquisitions until one whose images, so many of each stream, all came whole.
    CAM_HANDLE AcquireInTime(kelosim::Camera& camera, const std::vector<int>& images) {
        CAM_HANDLE handle = 0;
        RepeatUntilInTime([&] {
            const size_t before = log.Text().size();
            camera.ClearRequests();
            handle = OpenAndStart(camera);
            for (size_t s = 0; s < images.size(); ++s) {
                const auto stream = static_cast<uint8_t>(s);
                EXPECT_TRUE(
                    WaitFor([&] { return keloGetPendingImageCount(handle, stream) >= images[s]; }));
            }
            if (CountStarts(camera) == 1 && !AnImageWasCutShort(before)) return true;
            EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
            return false;
        });
        return handle;
    }
    // The images that so many bytes make.
    static std::vector<Image> TakeAll(CAM_HANDLE handle, uint64_t bytes) {
        std::vector<Image> images;
        for (uint64_t received = 0; received < bytes;) {
            images.push_back(Take(handle));
            if (!images.back().arrived) break;
            received += images.back().info.bufferStatistics.bytesReceived;
        }
        return images;
    }
    // Packets of an image of Chart() over a path of 1500 bytes.
    static constexpr uint32_t kPayload = 1500 - 28 - 14;
};

TEST_F(UdpStream, ImagesArriveAsTheCameraSentThem) {
    kelosim::Camera& camera = StartOne(With({Chart(20)}));
    const auto stream = camera.config().streams[0];
    const CAM_HANDLE handle = AcquireInTime(camera, {20});
    for (uint32_t number = 1; number <= 20; ++number) {
        const Image image = Take(handle);
        ASSERT_TRUE(image.arrived);
        EXPECT_EQ(image.number, number);
        EXPECT_EQ(image.data, stream.Frame(number));
        EXPECT_EQ(image.info.imageWidth, 320);
        EXPECT_EQ(image.info.imageHeight, 200);
        EXPECT_EQ(image.info.streamStatistics.imagesReceived, number);
        EXPECT_EQ(image.info.streamStatistics.imagesSkipped, 0u);
        EXPECT_EQ(image.info.streamStatistics.missingPackets, 0u);
        EXPECT_EQ(image.info.bufferStatistics.errorFlag, 0);
    }
    EXPECT_EQ(keloGetNextImage(handle, 0), nullptr);
    EXPECT_EQ(keloIsBufferEmpty(handle, 0), 1);
}

TEST_F(UdpStream, EveryKindOfSourceAndSeveralStreamsAtOnce) {
    std::vector<kelosim::StreamConfig> streams(3, Chart(10));
    streams[1].source = kelosim::MakeTestChart16(160, 120);
    streams[2].source = kelosim::MakeLaserProfile(320, 64);
    streams[2].header_size = 16;
    kelosim::Camera& camera = StartOne(With(streams));
    const CAM_HANDLE handle = AcquireInTime(camera, {10, 10, 10});
    for (uint32_t number = 1; number <= 10; ++number) {
        for (const uint8_t s : {0, 1}) {
            const Image image = Take(handle, s);
            ASSERT_TRUE(image.arrived);
            EXPECT_EQ(image.data, streams[s].Frame(number));
        }
        ASSERT_TRUE(WaitFor([&] { return keloIsBufferEmpty(handle, 2) == 0; }));
        std::vector<uint8_t> pixels(320 * 64 + 1);
        int status = 0;
        IMAGE_BUFFER_HANDLE profile =
            keloGetNextDecodedImage(handle, 2, pixels.data(), 16, 320 * 64, &status);
        ASSERT_NE(profile, nullptr);
        EXPECT_EQ(status, 1);
        EXPECT_EQ(keloGetHeaderSize(profile), 16);
        pixels.pop_back();
        EXPECT_EQ(pixels, kelosim::LaserProfilePixels(320, 64, keloGetImageNumber(profile)));
        keloPopImage(handle, 2, profile);
    }
}

TEST_F(UdpStream, CountsLostPacketsExactly) {
    kelosim::CameraConfig config = With({Chart(6, 50)});
    config.path_packet_size = 1500;
    using Kind = kelosim::PacketFault::Kind;
    config.faults.packets = {{.kind = Kind::kDrop, .image = 2, .packet = 3, .stream = {}},
                             {.kind = Kind::kDrop, .image = 2, .packet = 7, .stream = {}},
                             {.kind = Kind::kDrop, .image = 4, .packet = {}, .stream = {}}};
    kelosim::Camera& camera = StartOne(config);
    const auto stream = camera.config().streams[0];
    RepeatUntilInTime([&] {
        const uint64_t sent_before = camera.counters().streams[0].bytes;
        const CAM_HANDLE handle = OpenAndStart(camera);
        EXPECT_TRUE(WaitFor([&] { return !camera.acquiring(); }));
        const auto images = TakeAll(handle, camera.counters().streams[0].bytes - sent_before);
        EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
        // All but the first wait for the timer; held up within one of them, it makes two of it.
        if (images.size() > 5) return false;
        EXPECT_EQ(images.size(), 5u);
        const uint32_t numbers[] = {1, 2, 3, 5, 6};
        for (size_t i = 0; i < images.size(); ++i) {
            const Image& image = images[i];
            EXPECT_EQ(image.number, numbers[i]);
            const bool damaged = image.number == 2;
            EXPECT_EQ(image.info.bufferStatistics.errorFlag, damaged ? 1 : 0);
            EXPECT_EQ(image.info.bufferStatistics.missingPackets, damaged ? 2 : 0);
            EXPECT_EQ(image.bytes_lost, damaged ? static_cast<int>(2 * kPayload) : 0);
            EXPECT_EQ(image.info.streamStatistics.imagesSkipped, image.number < 5 ? 0u : 1u);
            EXPECT_EQ(image.data == stream.Frame(image.number), !damaged);
        }
        return true;
    });
}

TEST_F(UdpStream, DuplicatesAndReorderingDoNoHarm) {
    kelosim::CameraConfig config = With({Chart(30, 100)});
    config.path_packet_size = 1500;
    config.faults.reorder_rate = 0.2;
    config.faults.delay_rate = 0.1;
    kelosim::Camera& camera = StartOne(config);
    const auto stream = camera.config().streams[0];
    const CAM_HANDLE handle = AcquireInTime(camera, {30});
    for (uint32_t number = 1; number <= 30; ++number) {
        const Image image = Take(handle);
        ASSERT_TRUE(image.arrived);
        EXPECT_EQ(image.number, number);
        EXPECT_EQ(image.data, stream.Frame(number));
        EXPECT_EQ(image.bytes_lost, 0);
    }
}

TEST_F(UdpStream, AJumpInTheNumbersIsCountedAsSkipped) {
    kelosim::CameraConfig config = With({Chart(4, 50)});
    config.faults.jumps = {{.image = 3, .by = 10}};
    const CAM_HANDLE handle = AcquireInTime(StartOne(config), {4});
    std::vector<uint32_t> numbers;
    uint64_t skipped = 0;
    for (int i = 0; i < 4; ++i) {
        const Image image = Take(handle);
        ASSERT_TRUE(image.arrived);
        numbers.push_back(image.number);
        skipped = image.info.streamStatistics.imagesSkipped;
    }
    EXPECT_THAT(numbers, testing::ElementsAre(1, 2, 13, 14));
    EXPECT_EQ(skipped, 10u);
}

TEST_F(UdpStream, AnImageWhosePacketsStopIsCompletedByTheTimer) {
    // Of two packets, so that the one that comes has none to wait for.
    kelosim::StreamConfig stream;
    stream.source = kelosim::MakeBytes(2000, 50, 40);
    stream.image_count = 1;
    kelosim::CameraConfig config = With({stream});
    config.path_packet_size = 1500;
    using Kind = kelosim::PacketFault::Kind;
    config.faults.packets = {{.kind = Kind::kDrop, .image = 1, .packet = 0, .stream = {}}};
    const CAM_HANDLE handle = OpenAndStart(StartOne(config));
    const Image image = Take(handle);
    ASSERT_TRUE(image.arrived);
    EXPECT_EQ(image.info.bufferStatistics.missingPackets, 1);
    EXPECT_TRUE(WaitFor([&] {
        return log.Contains("Image 1 completed (forcefully by timer - no new packets arrived).");
    }));
}

TEST_F(UdpStream, ASlowApplicationLosesNothing) {
    const auto stream = Chart(60, 500);
    const CAM_HANDLE handle = AcquireInTime(StartOne(With({stream})), {60});
    IMAGE_BUFFER_HANDLE first = keloGetNextImage(handle, 0);
    EXPECT_EQ(keloGetNextImage(handle, 0), first);
    for (uint32_t number = 1; number <= 60; ++number) {
        const Image image = Take(handle);
        EXPECT_EQ(image.number, number);
        EXPECT_EQ(image.data, stream.Frame(number));
    }
}

TEST_F(UdpStream, ClearBufferDropsTheBacklog) {
    const CAM_HANDLE handle = AcquireInTime(StartOne(With({Chart(5, 500)})), {5});
    keloClearBuffer(handle, 0);
    EXPECT_EQ(keloGetPendingImageCount(handle, 0), 0);
    EXPECT_EQ(keloIsBufferEmpty(handle, 0), 1);
}

TEST_F(UdpStream, PoppingTwiceIsLoggedAndHarmless) {
    const CAM_HANDLE handle = AcquireInTime(StartOne(With({Chart(2, 500)})), {2});
    IMAGE_BUFFER_HANDLE image = keloGetNextImage(handle, 0);
    keloPopImage(handle, 0, image);
    keloPopImage(handle, 0, image);
    EXPECT_EQ(keloGetPendingImageCount(handle, 0), 1);
    EXPECT_EQ(log.Count("PopImage: corresponding image buffer was not found, popimage failed"), 1u);
    EXPECT_EQ(log.Count("KELOCamera::PopImage failed"), 1u);
}

TEST_F(UdpStream, StatsComeFromTheImage) {
    const CAM_HANDLE handle = OpenAndStart(StartOne(With({Chart(1)})));
    IMAGE_BUFFER_HANDLE image = keloGetNextImageTimeout(handle, 0, 20000);
    ASSERT_NE(image, nullptr);
    const EXT_CAM_STATS stats = keloGetCameraStats(12345, image);
    EXPECT_EQ(stats.current_image_number, 1u);
    EXPECT_EQ(stats.images_received, 1u);
    EXPECT_EQ(stats.images_dropped, 0u);
    EXPECT_EQ(stats.images_skipped, 0u);
}

TEST_F(UdpStream, FollowsANewAcquisition) {
    kelosim::Camera& camera = StartOne(With({Chart(3)}));
    const CAM_HANDLE handle = AcquireInTime(camera, {3});
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(Take(handle).arrived);
    ASSERT_EQ(keloStopImageAcquisition(handle), KELO_STATUS_SUCCESS);
    EXPECT_TRUE(WaitFor([&] { return !camera.acquiring(); }));
    ASSERT_EQ(keloStartImageAcquisition(handle), KELO_STATUS_SUCCESS);
    const Image image = Take(handle);
    ASSERT_TRUE(image.arrived);
    EXPECT_EQ(image.info.streamStatistics.imagesReceived, 1u);
}

TEST_F(UdpStream, ARefusedStartIsRepeated) {
    kelosim::CameraConfig config = With({Chart(1)});
    config.faults.refused_starts = 1;
    EXPECT_TRUE(Take(OpenAndStart(StartOne(config))).arrived);
}

TEST_F(UdpStream, ClosingEndsAWaitForAnImage) {
    const CAM_HANDLE handle = OpenAndStart(StartOne(With({Chart(1)})));
    ASSERT_TRUE(Take(handle).arrived);
    ExpectToEndAWaitForAnImage(handle, keloCloseCamera);
}

TEST_F(UdpStream, ReleasingEndsAWaitForAnImage) {
    const CAM_HANDLE handle = OpenAndStart(StartOne(With({Chart(1)})));
    ASSERT_TRUE(Take(handle).arrived);
    ExpectToEndAWaitForAnImage(handle, [](CAM_HANDLE) { return keloRelease(); });
}

TEST_F(UdpStream, AFrameSizeThatCannotBeHadCostsOnlyItsImages) {
    kelosim::Camera& camera = StartOne(With({Chart(3)}));
    const CAM_HANDLE handle = Open(camera);
    for (const uint32_t size : {0u, 0xFFFFFFFFu}) {
        camera.SetRegister(REG_STREAM0_FRAME_SIZE, size);
        ASSERT_EQ(keloStartImageAcquisition(handle), KELO_STATUS_SUCCESS);
        ASSERT_TRUE(WaitFor([&] { return camera.counters().streams[0].images >= 3; }));
        EXPECT_FALSE(Take(handle, 0, 300).arrived) << size;
        ASSERT_EQ(keloStopImageAcquisition(handle), KELO_STATUS_SUCCESS);
    }
    camera.SetRegister(REG_STREAM0_FRAME_SIZE, 320 * 200);
    ASSERT_EQ(keloStartImageAcquisition(handle), KELO_STATUS_SUCCESS);
    EXPECT_TRUE(Take(handle).arrived);
}

}  // namespace
}  // namespace kelo::test
