#pragma once

#include <cstdint>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "camera_process.h"
#include "kelo_api.h"
#include "log_capture.h"
#include "wait_for.h"

namespace kelo::test {

inline std::set<int> OpenDescriptors() {
    std::set<int> open;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        open.insert(std::stoi(entry.path().filename().string()));
    // The one that the folder was read through is gone again.
    std::erase_if(open, [](int fd) {
        return !std::filesystem::exists("/proc/self/fd/" + std::to_string(fd));
    });
    return open;
}

inline size_t CountThreads() {
    size_t count = 0;
    for ([[maybe_unused]] const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
        ++count;
    return count;
}

// The library, not yet started, and one camera in another process. Behind every test the process
// has the descriptors and threads that it had before.
class ExhaustionTest : public testing::Test {
protected:
    static constexpr uint32_t kShortMs = 20;

    explicit ExhaustionTest(bool over_tcp = false) {
        const camera_setup setup{
            .over_tcp = over_tcp, .cameras = 2, .heartbeat_timeout_ms = 0, .flash_time_ms = 0};
        camera_start(&setup);
        // What a sanitizer makes along with a program's first thread is none of the library's.
        std::thread([] {}).join();
        descriptors_before = OpenDescriptors();
        threads_before = CountThreads();
    }
    ~ExhaustionTest() override {
        keloRelease();
        ExpectNothingLeft();
        camera_stop();
        std::filesystem::remove(firmware);
    }

    void ExpectNothingLeft() const {
        WaitFor([&] { return CountThreads() <= threads_before; });
        EXPECT_EQ(CountThreads(), threads_before);
        EXPECT_EQ(OpenDescriptors(), descriptors_before);
    }

    // One discovery; whether it found the first camera, whose handle is kept.
    bool Discover(uint32_t listen_ms = kShortMs) {
        CAM_HANDLE found[4];
        const int count = keloDiscover(found, 4, listen_ms);
        EXPECT_GE(count, 0);
        for (int i = 0; i < count; ++i) {
            EXT_CAM_INFO info{};
            EXPECT_EQ(keloGetCameraInfo(found[i], &info), KELO_STATUS_SUCCESS);
            if (info.camera_ip == camera_address(0)) {
                handle = found[i];
                return true;
            }
        }
        return false;
    }
    bool Find() {
        return WaitFor([this] { return Discover(); });
    }
    bool Known() const {
        EXT_CAM_INFO info{};
        return keloGetCameraInfo(handle, &info) == KELO_STATUS_SUCCESS;
    }

    // Takes the next image of a stream and compares every byte with what the camera sent.
    void ExpectImage(uint8_t stream = 0) const {
        IMAGE_BUFFER_HANDLE image = keloGetNextImageTimeout(handle, stream, 20000);
        ASSERT_NE(image, nullptr);
        uint8_t frame[CAMERA_FRAME_BYTES_MAX];
        const size_t bytes = camera_frame(stream, keloGetImageNumber(image), frame);
        if (keloGetImageBytesLost(image) == 0 &&
            static_cast<size_t>(keloGetImageSize(image)) == bytes) {
            EXPECT_TRUE(std::equal(frame, frame + bytes, keloGetImageData(image)));
        } else {
            ADD_FAILURE() << keloGetImageSize(image) << " bytes of " << bytes;
        }
        keloPopImage(handle, stream, image);
    }
    // Also after whatever was queued before is gone.
    void ExpectNewImages() const {
        for (const uint8_t stream : {0, 1}) {
            keloClearBuffer(handle, stream);
            ExpectImage(stream);
        }
    }
    // From whatever state it is in, the library does all that it is there for.
    void ExpectToWork() {
        ASSERT_EQ(keloInit(), KELO_STATUS_SUCCESS);
        ASSERT_TRUE(Find());
        ASSERT_EQ(keloOpenCamera(handle, nullptr), KELO_STATUS_SUCCESS);
        ASSERT_EQ(keloStartImageAcquisition(handle), KELO_STATUS_SUCCESS);
        ExpectNewImages();
    }

    // From now on a run is still sending when it is aborted.
    static void SlowRunsDown() { camera_tell(0, CAMERA_DELAY_REPLIES, 0, 1); }
    const std::string& FirmwareFile() {
        if (!std::filesystem::exists(firmware)) camera_write_firmware(firmware.c_str());
        return firmware;
    }
    // Ends a run that goes on.
    void AbortRun() const {
        EXPECT_EQ(keloFirmwareProgramAbort(handle), KELO_STATUS_SUCCESS);
        EXPECT_TRUE(WaitFor([&] {
            int percent = 0;
            return keloFirmwareGetProgress(handle, &percent) != KELO_STATUS_SUCCESS;
        }));
    }

    LogCapture log;
    CAM_HANDLE handle = 0;
    std::set<int> descriptors_before;
    size_t threads_before = 0;
    const std::string firmware = std::filesystem::temp_directory_path() /
                                 ("kelo-exhaustion-" + std::to_string(getpid()) + ".bin");
};

}  // namespace kelo::test
