// Much to receive, an application that does not take it, and cameras that ask for memory that is
// not there.

#include "fault_fixture.h"
#include "process_figures.h"
#include "watched_memory.h"

namespace kelo::test {
namespace {

class StreamLoad : public FaultTest {};

TEST_F(StreamLoad, SixteenCamerasAtOnceLoseNothing) {
    constexpr uint32_t kImages = 50 / (kSlowness > 1 ? 2 : 1);
    constexpr double kRate = kSlowness > 1 ? 10 : 50;
    AddCameras(16, With({ChartStream(kImages, kRate)}));
    simulator.Start();
    const auto stream = simulator[0].config().streams[0];
    RepeatUntilInTime([&] {
        const size_t log_before = log.Text().size();
        const uint64_t drops_before = DropsOfFullBuffers();
        for (size_t i = 0; i < simulator.size(); ++i)
            simulator[i].ClearRequests();
        const int64_t memory_before = ResidentKib();
        const Stopwatch watch;
        const int64_t cpu_before = ThreadCpuMs("kelo-rx");
        const std::vector<CAM_HANDLE> handles = OpenAndStartAll();
        bool in_time = true;
        for (size_t i = 0; i < handles.size(); ++i) {
            in_time &= WaitFor([&] { return Pending(handles[i]) >= kImages; }, seconds(10)) &&
                       CountStarts(simulator[i]) == 1;
        }
        const std::chrono::duration<double> took = watch.Elapsed();
        const int64_t cpu = ThreadCpuMs("kelo-rx") - cpu_before;
        const int64_t memory = ResidentKib() - memory_before;
        in_time &= !AnImageWasCutShort(log_before) && DropsOfFullBuffers() == drops_before;
        for (size_t i = 0; in_time && i < handles.size() && !HasFailure(); ++i) {
            for (uint32_t number = 1; number <= kImages; ++number) {
                const Image image = Take(handles[i]);
                EXPECT_EQ(image.number, number);
                EXPECT_EQ(image.bytes_lost, 0);
                EXPECT_EQ(image.data, stream.Frame(number));
            }
            EXPECT_EQ(keloIsBufferEmpty(handles[i], 0), 1);
        }
        for (const CAM_HANDLE handle : handles)
            EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
        if (!in_time) return false;
        State("sixteen_cameras_images", kImages * 16);
        State("sixteen_cameras_s", took.count());
        State("sixteen_cameras_receive_cpu_ms", static_cast<double>(cpu));
        State("sixteen_cameras_memory_kib", static_cast<double>(memory));
        return true;
    });
}

struct Way {
    const char* name;
    bool over_tcp;
};

std::string NameOfWay(const testing::TestParamInfo<Way>& test) {
    return test.param.name;
}

// Images of 200,000 bytes take blocks of the next power of two.
constexpr uint32_t kImageBytes = 200000;
constexpr uint32_t kBlockBytes = 1 << 18;

kelosim::StreamConfig BytesStream(uint32_t bytes, uint32_t images, bool over_tcp) {
    kelosim::StreamConfig stream = ChartStream(images, 200);
    stream.source = kelosim::MakeBytes(bytes, 500, 400);
    stream.over_tcp = over_tcp;
    return stream;
}

// An application that does not take its images off the queue.
class SlowApplication : public StreamLoad, public testing::WithParamInterface<Way> {
protected:
    static constexpr uint32_t kImages = 10;

    // Acquires so many times; false when it did not go in time.
    bool Acquire(CAM_HANDLE handle, int times) {
        for (int i = 0; i < times; ++i) {
            const size_t expected = Pending(handle) + kImages;
            const size_t log_before = log.Text().size();
            simulator[0].ClearRequests();
            EXPECT_EQ(keloStartImageAcquisition(handle), KELO_STATUS_SUCCESS);
            EXPECT_TRUE(WaitFor([&] { return Pending(handle) >= expected; }));
            EXPECT_TRUE(WaitFor([&] { return !simulator[0].acquiring(); }));
            if (CountStarts(simulator[0]) != 1 || AnImageWasCutShort(log_before)) return false;
            EXPECT_EQ(Pending(handle), expected);
        }
        return true;
    }
    bool FillAndEmpty(CAM_HANDLE handle) {
        const int64_t memory_before = ResidentKib();
        for (int64_t times = 1; times <= 3; ++times) {
            if (!Acquire(handle, 1)) return false;
            EXPECT_EQ(WatchedMemory::BlocksInUse(), times * kImages);
        }
        State("backlog_of_30_kib", static_cast<double>(ResidentKib() - memory_before));
        // They go back to the cache, not to the system, and serve the next images.
        keloClearBuffer(handle, 0);
        EXPECT_EQ(Pending(handle), 0u);
        EXPECT_EQ(WatchedMemory::BlocksInUse(), 3 * kImages);
        if (!Acquire(handle, 3)) return false;
        EXPECT_EQ(WatchedMemory::BlocksInUse(), 3 * kImages);
        if (!Acquire(handle, 1)) return false;
        EXPECT_EQ(WatchedMemory::BlocksInUse(), 4 * kImages);
        // The application catches up: nothing was dropped, and nothing is given back either.
        for (uint32_t i = 0; i < 4 * kImages; ++i) {
            const Image image = Take(handle);
            EXPECT_EQ(image.number, i % kImages + 1);
            EXPECT_EQ(image.data, simulator[0].config().streams[0].Frame(image.number));
        }
        EXPECT_EQ(keloIsBufferEmpty(handle, 0), 1);
        EXPECT_EQ(WatchedMemory::BlocksInUse(), 4 * kImages);
        return true;
    }
};

TEST_P(SlowApplication, MakesABacklogThatClearingGivesBackToTheCache) {
    if (!WatchedMemory::kAvailable) GTEST_SKIP() << "memory cannot be watched";
    WatchedMemory::Watch(kBlockBytes);
    StartOne(With({BytesStream(kImageBytes, kImages, GetParam().over_tcp)}));
    const CAM_HANDLE handle = Find(simulator[0]);
    RepeatUntilInTime([&] {
        Open(handle);
        const bool in_time = FillAndEmpty(handle);
        EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
        // A call that is on its way may hold the stream a little longer.
        EXPECT_TRUE(WaitFor([] { return WatchedMemory::BlocksInUse() == 0; }));
        return in_time;
    });
}

INSTANTIATE_TEST_SUITE_P(Over, SlowApplication,
                         testing::Values(Way{"Udp", false}, Way{"Tcp", true}), NameOfWay);

struct Lie {
    const char* name;
    bool over_tcp;
    uint32_t frame_size;
    std::optional<uint16_t> packets = {};
};

// A camera that announces images of a size that cannot be had. The process has no block of half a
// gigabyte to give, as a smaller machine would not.
class LyingCamera : public StreamLoad, public testing::WithParamInterface<Lie> {
protected:
    static constexpr uint32_t kImages = 5;
    static constexpr size_t kTooLarge = size_t{1} << 29;
    static constexpr uint32_t k2GiB = uint32_t{1} << 31;

    // The line by which reception refuses an image of the lying stream.
    static std::string Refused(uint32_t number) {
        return (GetParam().over_tcp ? "TCP: stream 0: image " : "Stream 0: image ") +
               std::to_string(number) + " dropped, no buffer of " +
               std::to_string(GetParam().frame_size) + " bytes can be had.";
    }
    static void ExpectAllImages(CAM_HANDLE handle, uint8_t stream,
                                const kelosim::StreamConfig& config) {
        for (uint32_t number = 1; number <= kImages; ++number) {
            const Image image = Take(handle, stream);
            EXPECT_EQ(image.number, number);
            EXPECT_EQ(image.data, config.Frame(number));
        }
        EXPECT_EQ(keloIsBufferEmpty(handle, stream), 1);
    }
};

TEST_P(LyingCamera, IsRefusedImageByImageWhileOtherStreamsGoOn) {
    if (!WatchedMemory::kAvailable && GetParam().frame_size == k2GiB) {
        GTEST_SKIP() << "memory cannot be refused";
    }
    const WatchedMemory::Refusal no_memory(kTooLarge);
    kelosim::CameraConfig config =
        With({BytesStream(kImageBytes, kImages, GetParam().over_tcp),
              BytesStream(50000, kImages, false), BytesStream(60000, kImages, true)});
    if (GetParam().packets) {
        kelosim::HeaderLie lie;
        lie.stream = 0;
        lie.all_packets = GetParam().packets;
        config.faults.headers = {lie};
    }
    kelosim::Camera& camera = StartOne(config);
    const CAM_HANDLE handle = Find(camera);
    const auto streams = camera.config().streams;
    RepeatUntilInTime([&] {
        const size_t log_before = log.Text().size();
        const size_t lines_before = log.Lines().size();
        camera.ClearRequests();
        camera.SetRegister(REG_STREAM0_FRAME_SIZE, GetParam().frame_size);
        OpenAndStart(handle);
        EXPECT_TRUE(WaitFor([&] { return Pending(handle, 1) >= kImages; }));
        EXPECT_TRUE(WaitFor([&] { return Pending(handle, 2) >= kImages; }));
        EXPECT_TRUE(WaitFor(
            [&] { return log.Text().find(Refused(kImages), log_before) != std::string::npos; }));
        const bool in_time = CountStarts(camera) == 1 && !AnImageWasCutShort(log_before);
        if (in_time) {
            ExpectAllImages(handle, 1, streams[1]);
            ExpectAllImages(handle, 2, streams[2]);
            EXPECT_EQ(keloIsBufferEmpty(handle, 0), 1);
            std::vector<std::string> refused;
            for (uint32_t number = 1; number <= kImages; ++number)
                refused.push_back(Refused(number));
            EXPECT_EQ(LinesThatBegin({"Stream ", "TCP: ", "Image "}, lines_before), refused);
        }
        EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
        return in_time;
    });
    // Once it tells the truth, its images come.
    camera.SetRegister(REG_STREAM0_FRAME_SIZE, kImageBytes);
    camera.SetFaults({});
    RepeatUntilInTime([&] {
        const size_t log_before = log.Text().size();
        camera.ClearRequests();
        OpenAndStart(handle);
        EXPECT_TRUE(WaitFor([&] { return Pending(handle) >= kImages; }));
        const bool in_time = CountStarts(camera) == 1 && !AnImageWasCutShort(log_before);
        if (in_time) ExpectAllImages(handle, 0, streams[0]);
        EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
        return in_time;
    });
}

INSTANTIATE_TEST_SUITE_P(
    Says, LyingCamera,
    testing::Values(Lie{"NoBytesOverUdp", false, 0}, Lie{"NoBytesOverTcp", true, 0},
                    Lie{"FourGigabytesOverUdp", false, 0xFFFFFFFF},
                    Lie{"FourGigabytesOverTcp", true, 0xFFFFFFFF},
                    Lie{"TwoGigabytesOverUdp", false, 0x80000000},
                    Lie{"TwoGigabytesOverTcp", true, 0x80000000},
                    Lie{"FourGigabytesInAllPacketsThereCanBe", false, 0xFFFFFFFF, 0xFFFF}),
    [](const auto& test) { return test.param.name; });

// A message that claims to be four gigabytes long swallows what its camera sends after it, and
// nothing else: no memory, and no other stream.
TEST_F(StreamLoad, ATcpMessageOfFourGigabytesCostsItsOwnStreamOnly) {
    constexpr uint32_t kImages = 5;
    const WatchedMemory::Refusal no_memory(size_t{1} << 29);
    kelosim::CameraConfig config =
        With({BytesStream(kImageBytes, kImages, true), BytesStream(50000, kImages, false)});
    config.faults.tcp.claimed_size = 0xFFFFFFFF;
    kelosim::Camera& camera = StartOne(config);
    const auto stream = camera.config().streams[1];
    const std::string cut = "TCP: stream 0: Allocated buffer to small for incoming TCP transfer.";
    RepeatUntilInTime([&] {
        const size_t log_before = log.Text().size();
        const size_t cuts_before = log.Count(cut);
        camera.ClearRequests();
        const CAM_HANDLE handle = OpenAndStart(camera);
        EXPECT_TRUE(WaitFor([&] { return Pending(handle, 1) >= kImages; }));
        EXPECT_TRUE(WaitFor([&] { return !camera.acquiring(); }));
        EXPECT_TRUE(WaitFor([&] { return log.Count(cut) > cuts_before; }));
        const bool in_time = CountStarts(camera) == 1 && !AnImageWasCutShort(log_before);
        for (uint32_t number = 1; in_time && number <= kImages; ++number)
            EXPECT_EQ(Take(handle, 1).data, stream.Frame(number));
        EXPECT_EQ(log.Count(cut), cuts_before + 1);
        EXPECT_EQ(keloIsBufferEmpty(handle, 0), 1);
        EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
        return in_time;
    });
}

// Memory that runs out while images come, and is there again later.
class MemoryShortage : public StreamLoad, public testing::WithParamInterface<Way> {};

TEST_P(MemoryShortage, CostsTheImagesThatNoMemoryWasThereFor) {
    if (!WatchedMemory::kAvailable) GTEST_SKIP() << "memory cannot be refused";
    const bool over_tcp = GetParam().over_tcp;
    kelosim::Camera& camera =
        StartOne(With({BytesStream(kImageBytes, 0, over_tcp), BytesStream(10000, 0, over_tcp)}));
    const auto streams = camera.config().streams;
    RepeatUntilInTime([&] {
        const size_t log_before = log.Text().size();
        const size_t lines_before = log.Lines().size();
        camera.ClearRequests();
        const CAM_HANDLE handle = OpenAndStart(camera);
        const std::string refused = over_tcp ? "TCP: stream 0: image " : "Stream 0: image ";
        EXPECT_TRUE(WaitFor([&] { return Pending(handle, 0) >= 2; }));
        {
            const WatchedMemory::Refusal no_memory(kBlockBytes);
            EXPECT_TRUE(
                WaitFor([&] { return LinesThatBegin({refused}, lines_before).size() >= 5; }));
            const size_t others = Pending(handle, 1);
            EXPECT_TRUE(WaitFor([&] { return Pending(handle, 1) >= others + 5; }));
        }
        const size_t had = Pending(handle, 0);
        EXPECT_TRUE(WaitFor([&] { return Pending(handle, 0) >= had + 5; }));
        EXPECT_EQ(keloStopImageAcquisition(handle), KELO_STATUS_SUCCESS);
        EXPECT_TRUE(WaitFor([&] { return !camera.acquiring(); }));
        EXPECT_TRUE(WaitFor(
            [&] { return Pending(handle, 1) >= camera.counters().streams[1].last_image_number; }));
        EXPECT_TRUE(WaitFor([&] {
            return Pending(handle, 0) + LinesThatBegin({refused}, lines_before).size() >=
                   camera.counters().streams[0].last_image_number;
        }));
        const size_t lost = LinesThatBegin({refused}, lines_before).size();
        const bool in_time = CountStarts(camera) == 1 && !AnImageWasCutShort(log_before);
        for (uint8_t s = 0; in_time && s < 2; ++s) {
            uint32_t taken = 0;
            Image last;
            while (keloIsBufferEmpty(handle, s) == 0 && !HasFailure()) {
                last = Take(handle, s);
                ++taken;
                EXPECT_EQ(last.data, streams[s].Frame(last.number));
                EXPECT_EQ(last.bytes_lost, 0);
            }
            EXPECT_EQ(taken + (s == 0 ? lost : 0), last.number);
            if (!over_tcp) {
                EXPECT_EQ(last.info.streamStatistics.imagesSkipped, s == 0 ? lost : 0);
            }
        }
        EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
        return in_time;
    });
}

INSTANTIATE_TEST_SUITE_P(Over, MemoryShortage, testing::Values(Way{"Udp", false}, Way{"Tcp", true}),
                         NameOfWay);

}  // namespace
}  // namespace kelo::test
