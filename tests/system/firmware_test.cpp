#include "kelosim/firmware.h"

#include <filesystem>
#include <fstream>

#include "read_back_guard.h"
#include "system_fixture.h"

namespace kelo::test {
namespace {

using kelosim::FirmwareConfig;
using kelosim::FirmwareSpoil;

constexpr uint32_t kSize = 5u << 20;

class FirmwareRun : public SystemTest {
protected:
    FirmwareRun() : image(kelosim::MakeFirmwareImage(kSize, 7)) {}
    ~FirmwareRun() override { std::filesystem::remove(path); }

    void Write(const std::vector<uint8_t>& bytes) const {
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
    }
    kelosim::Camera& StartWith(const FirmwareConfig& firmware) {
        Write(image);
        kelosim::CameraConfig config;
        config.firmware = firmware;
        return StartOne(config);
    }
    static KELO_API_STATUS Progress(CAM_HANDLE handle, int& percent) {
        return keloFirmwareGetProgress(handle, &percent);
    }
    // Polls as an application does; the status that ended the run. Fails if progress goes back.
    KELO_API_STATUS Poll(CAM_HANDLE handle) {
        const ReadBackGuard guard(CameraOf(handle), kSize);
        KELO_API_STATUS status = KELO_STATUS_SUCCESS;
        int last = 0;
        EXPECT_TRUE(WaitFor(
            [&] {
                int percent = 0;
                status = Progress(handle, percent);
                if (status != KELO_STATUS_SUCCESS) {
                    EXPECT_EQ(percent, 0);
                    return true;
                }
                EXPECT_GE(percent, last);
                last = percent;
                return percent == 100;
            },
            seconds(90)));
        if (guard.RunWasLost()) ++lost_runs;
        return status;
    }
    kelosim::Camera& CameraOf(CAM_HANDLE handle) {
        size_t i = 0;
        while (i + 1 < simulator.size() && Among({handle}, simulator[i].address()) == 0)
            ++i;
        return simulator[i];
    }
    KELO_API_STATUS Program(CAM_HANDLE handle) const {
        return keloFirmwareProgram(handle, path.c_str());
    }
    // Begins a run and waits until the camera has been sent something of the image.
    void BeginSending(const kelosim::Camera& camera, CAM_HANDLE handle) {
        requests_before = camera.counters().requests;
        EXPECT_EQ(Program(handle), KELO_STATUS_SUCCESS);
        EXPECT_TRUE(WaitFor([&] { return RequestsOfTheRun(camera) > 500; }));
    }
    // Whether the run is far from the end of the image, which takes more than 10000 requests. What
    // was done before is done to a run that sends data then.
    bool IsSending(const kelosim::Camera& camera) const { return RequestsOfTheRun(camera) < 5000; }
    uint64_t RequestsOfTheRun(const kelosim::Camera& camera) const {
        return camera.counters().requests - requests_before;
    }
    // How a whole run ends. The camera reads on with every request: when an answer to a read-back
    // comes too late, and it is asked for again, a piece is left out and the run fails by design,
    // or is lost. Then another one is made.
    template <typename Run>
    KELO_API_STATUS EndOf(const Run& run) {
        KELO_API_STATUS status = KELO_STATUS_SUCCESS;
        RepeatUntilInTime([&] {
            const size_t before = log.Text().size();
            const int lost_before = lost_runs;
            status = run();
            return lost_runs == lost_before &&
                   log.Text().find("FATAL: FW: ExtractReadData:  CurrentAddress", before) ==
                       std::string::npos;
        });
        return status;
    }
    KELO_API_STATUS EndOfPlainRun(CAM_HANDLE handle) {
        return EndOf([&] {
            EXPECT_EQ(Program(handle), KELO_STATUS_SUCCESS);
            return Poll(handle);
        });
    }

    // Descriptors of this process that are open on the image file.
    int OpenFiles() const {
        int count = 0;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code gone;
            if (std::filesystem::read_symlink(entry.path(), gone) == path) ++count;
        }
        return count;
    }

    uint64_t requests_before = 0;
    int lost_runs = 0;
    const std::vector<uint8_t> image;
    const std::string path = std::filesystem::temp_directory_path() /
                             ("kelo-firmware-" + std::to_string(getpid()) + ".bin");
};

TEST_F(FirmwareRun, ProgramsVerifiesAndRebootsTheCamera) {
    kelosim::Camera& camera = StartWith({.flash_time_ms = 200, .reboot_time_ms = 300});
    const CAM_HANDLE handle = Open(camera);
    EXPECT_EQ(EndOfPlainRun(handle), KELO_STATUS_SUCCESS);
    EXPECT_TRUE(log.Contains("Started fw_program " + path));
    EXPECT_TRUE(log.Contains("ST_PROG_FINISH"));
    EXPECT_TRUE(log.Contains(
        "Setting state to ST_READ_PREPARE, payload length 4 B, estimated timeout 190 s"));
    EXPECT_TRUE(log.Contains("est_timeout_sec = 190"));
    EXPECT_TRUE(log.Contains("ST_READ_PREPARE"));
    EXPECT_TRUE(log.Contains(
        "Setting state to ST_START_READING, estimated timeout 15 s, payload length 8 B"));
    EXPECT_TRUE(log.Contains("est_timeout_sec = 15"));
    EXPECT_TRUE(log.Contains("FW readback"));
    EXPECT_TRUE(log.ContainsPrefix("FW done in "));
    EXPECT_TRUE(log.Text().find(" steps - with READBACK\n") != std::string::npos);
    EXPECT_TRUE(log.Text().find("FW update succesfully completed - REBOOTING camera\n") !=
                std::string::npos);
    const auto flash = camera.FlashContents(kSize);
    EXPECT_TRUE(flash == image);
    // Gone for its reboot, then there again.
    EXPECT_EQ(Find(camera), handle);
    EXPECT_EQ(keloOpenCamera(handle, nullptr), KELO_STATUS_SUCCESS);
}

// Words leave byte-swapped, as every memory write's do: the camera stores values, and so the
// payload's own bytes.
TEST_F(FirmwareRun, PayloadsOnTheWire) {
    kelosim::Camera& camera = StartWith({.read_back = false});
    const CAM_HANDLE handle = Find(camera);
    camera.ClearRequests();
    ASSERT_EQ(Program(handle), KELO_STATUS_SUCCESS);
    EXPECT_EQ(Poll(handle), KELO_STATUS_SUCCESS);
    std::vector<kelosim::ControlRequest> writes;
    for (const auto& request : camera.Requests()) {
        const bool again = !writes.empty() && writes.back().value == request.value;
        if (request.command == 10 && !again) writes.push_back(request);
    }
    ASSERT_GT(writes.size(), 3u);
    for (const auto& write : writes)
        EXPECT_EQ(write.register_number, uint32_t{KELO_CMD_FIRMWARE});
    // The finish payload, 4 bytes: 4 registers, the first one the bytes FF FF FF 01 as a
    // little-endian number.
    const auto& finish = writes[writes.size() - 2];
    EXPECT_EQ(finish.count, 4u);
    EXPECT_EQ(finish.value, 0x01FFFFFFu);
    const auto& read_prepare = writes.back();
    EXPECT_EQ(read_prepare.count, 8u);
    EXPECT_EQ(read_prepare.value, 0x02FFFFFFu);
    // A full payload of 512 bytes goes as 128 registers.
    EXPECT_EQ(writes[writes.size() - 4].count, 128u);
}

TEST_F(FirmwareRun, AnOldCameraIsProgrammedWithoutReadBack) {
    kelosim::Camera& camera = StartWith({.read_back = false});
    const CAM_HANDLE handle = Find(camera);
    ASSERT_EQ(Program(handle), KELO_STATUS_SUCCESS);
    EXPECT_EQ(Poll(handle), KELO_STATUS_SUCCESS);
    EXPECT_TRUE(log.Text().find("Old firmware on camera: readback not supported\n") !=
                std::string::npos);
    EXPECT_TRUE(log.Text().find(" steps - without READBACK\n") != std::string::npos);
    EXPECT_TRUE(camera.FlashContents(kSize) == image);
}

TEST_F(FirmwareRun, AWrongByteIsFoundAndTheCameraNotRebooted) {
    kelosim::Camera& camera = StartWith({.corrupt_offset = 300000});
    EXPECT_EQ(EndOfPlainRun(Find(camera)), KELO_STATUS_ERROR);
    EXPECT_TRUE(log.Text().find("CheckReadData: verification failed at addr 0x") !=
                std::string::npos);
    EXPECT_TRUE(log.Text().find("FW readback failed\n") != std::string::npos);
    EXPECT_TRUE(log.Text().find("FW update FAILED\n") != std::string::npos);
    EXPECT_TRUE(camera.powered());
    EXPECT_TRUE(log.Text().find("REBOOTING") == std::string::npos);
}

class BadFile : public FirmwareRun, public testing::WithParamInterface<FirmwareSpoil> {};

TEST_P(BadFile, IsRefusedBeforeAnythingIsSent) {
    kelosim::Camera& camera = StartOne();
    const CAM_HANDLE handle = Find(camera);
    Write(kelosim::MakeFirmwareImage(kSize, 7, GetParam()));
    camera.ClearRequests();
    EXPECT_EQ(Program(handle), KELO_STATUS_ERROR);
    EXPECT_TRUE(camera.Requests().empty());
}

INSTANTIATE_TEST_SUITE_P(Spoils, BadFile,
                         testing::Values(FirmwareSpoil::kMagic, FirmwareSpoil::kLength,
                                         FirmwareSpoil::kCrc, FirmwareSpoil::kTooShort));

TEST_F(FirmwareRun, AFileThatIsNotThereIsRefused) {
    const CAM_HANDLE handle = Find(StartOne());
    EXPECT_EQ(keloFirmwareProgram(handle, "/nowhere/at/all"), KELO_STATUS_ERROR);
}

TEST_F(FirmwareRun, AnAbortWhileDataIsSentFailsTheRun) {
    kelosim::Camera& camera = StartWith({});
    CAM_HANDLE handle = 0;
    RepeatUntilInTime([&] {
        handle = Find(camera);
        BeginSending(camera, handle);
        const int open_files = OpenFiles();
        EXPECT_EQ(keloFirmwareProgramAbort(handle), KELO_STATUS_SUCCESS);
        const bool in_time = IsSending(camera);
        const KELO_API_STATUS status = Poll(handle);
        EXPECT_EQ(OpenFiles(), 0);
        if (!in_time) return false;
        EXPECT_EQ(open_files, 1);
        EXPECT_EQ(status, KELO_STATUS_ERROR);
        EXPECT_TRUE(log.Contains("FW update FAILED"));
        return true;
    });
    // Another run starts afresh.
    EXPECT_EQ(EndOfPlainRun(handle), KELO_STATUS_SUCCESS);
    EXPECT_TRUE(camera.FlashContents(kSize) == image);
}

TEST_F(FirmwareRun, AnAbortBehindTheFinishCommandHasNoEffect) {
    kelosim::Camera& camera = StartWith({.flash_time_ms = 1500});
    const CAM_HANDLE handle = Find(camera);
    const auto run = [&] {
        const size_t before = log.Count("est_timeout_sec = 190");
        EXPECT_EQ(Program(handle), KELO_STATUS_SUCCESS);
        EXPECT_TRUE(
            WaitFor([&] { return log.Count("est_timeout_sec = 190") > before; }, seconds(60)));
        EXPECT_EQ(keloFirmwareProgramAbort(handle), KELO_STATUS_SUCCESS);
        return Poll(handle);
    };
    EXPECT_EQ(EndOf(run), KELO_STATUS_SUCCESS);
    EXPECT_TRUE(camera.FlashContents(kSize) == image);
}

TEST_F(FirmwareRun, ACameraLostInTheMiddleIsATimeout) {
    kelosim::Camera& camera =
        StartWith({.stop_at = FirmwareConfig::Step::kData, .stop_from_offset = 1u << 20});
    const CAM_HANDLE handle = Find(camera);
    ASSERT_EQ(Program(handle), KELO_STATUS_SUCCESS);
    EXPECT_EQ(Poll(handle), KELO_STATUS_NO_RESPONSE);
    // The last ones are those of the loss; before them the camera may have been slow.
    std::vector<std::string> failed;
    for (const std::string& line : log.Lines()) {
        if (line.rfind("FW writeMemory failed ", 0) == 0) failed.push_back(line);
    }
    ASSERT_GE(failed.size(), 3u);
    failed.erase(failed.begin(), failed.end() - 3);
    EXPECT_THAT(failed, testing::ElementsAre("FW writeMemory failed (attempt 1 of 3)",
                                             "FW writeMemory failed (attempt 2 of 3)",
                                             "FW writeMemory failed (attempt 3 of 3)"));
    EXPECT_EQ(log.Count("FW writeMemory failed (attempt 3 of 3)"), 1u);
    EXPECT_EQ(log.Count("Sensor TIMEOUT. Sensor restart required. Normally, the firmware has been "
                        "updated correctly."),
              1u);
    EXPECT_GE(log.Count("KELOCamera::FirmwareGetProgress(): timeout"), 1u);
    EXPECT_FALSE(log.Contains("FW update FAILED"));
}

TEST_F(FirmwareRun, ASecondRunOnTheSameCameraIsRefusedAndDisturbsNothing) {
    kelosim::Camera& camera = StartWith({});
    const auto run = [&] {
        KELO_API_STATUS status = KELO_STATUS_ERROR;
        RepeatUntilInTime([&] {
            const CAM_HANDLE handle = Find(camera);
            BeginSending(camera, handle);
            const KELO_API_STATUS second = Program(handle);
            const bool in_time = IsSending(camera);
            status = Poll(handle);
            if (!in_time) return false;
            EXPECT_EQ(second, KELO_STATUS_ERROR);
            return true;
        });
        return status;
    };
    EXPECT_EQ(EndOf(run), KELO_STATUS_SUCCESS);
    EXPECT_TRUE(camera.FlashContents(kSize) == image);
}

TEST_F(FirmwareRun, TwoCamerasAreProgrammedSideBySide) {
    Write(image);
    AddCameras(2);
    simulator.Start();
    const auto handles = DiscoverAll(2);
    ASSERT_EQ(handles.size(), 2u);
    const auto run = [&] {
        for (const CAM_HANDLE handle : handles)
            EXPECT_EQ(Program(handle), KELO_STATUS_SUCCESS);
        const KELO_API_STATUS first = Poll(handles[0]);
        const KELO_API_STATUS second = Poll(handles[1]);
        return first != KELO_STATUS_SUCCESS ? first : second;
    };
    EXPECT_EQ(EndOf(run), KELO_STATUS_SUCCESS);
    EXPECT_TRUE(simulator[0].FlashContents(kSize) == image);
    EXPECT_TRUE(simulator[1].FlashContents(kSize) == image);
}

TEST_F(FirmwareRun, AFileChangedUnderTheRunIsNoticed) {
    kelosim::Camera& camera = StartWith({});
    RepeatUntilInTime([&] {
        Write(image);
        const CAM_HANDLE handle = Find(camera);
        BeginSending(camera, handle);
        {
            std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
            file.seekp(kSize - 10);
            file.put(static_cast<char>(~image[kSize - 10]));
        }
        const bool in_time = IsSending(camera);
        const KELO_API_STATUS status = Poll(handle);
        if (!in_time) return false;
        EXPECT_EQ(status, KELO_STATUS_ERROR);
        return true;
    });
}

TEST_F(FirmwareRun, ARunGoesOnWhenTheCameraIsClosed) {
    kelosim::Camera& camera = StartWith({});
    const auto run = [&] {
        KELO_API_STATUS status = KELO_STATUS_ERROR;
        RepeatUntilInTime([&] {
            const CAM_HANDLE handle = Open(camera);
            BeginSending(camera, handle);
            EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
            const bool in_time = IsSending(camera);
            status = Poll(handle);
            return in_time;
        });
        return status;
    };
    EXPECT_EQ(EndOf(run), KELO_STATUS_SUCCESS);
    EXPECT_TRUE(camera.FlashContents(kSize) == image);
}

TEST_F(FirmwareRun, ARunSurvivesTheLibrarysRelease) {
    kelosim::Camera& camera = StartWith({});
    RepeatUntilInTime([&] {
        keloInit();
        const CAM_HANDLE handle = Open(camera);
        BeginSending(camera, handle);
        const Stopwatch release;
        EXPECT_EQ(keloRelease(), KELO_STATUS_SUCCESS);
        EXPECT_LT(release.Elapsed(), seconds(20));
        if (!IsSending(camera)) return false;
        // It gets no more answers and ends by itself.
        EXPECT_TRUE(
            WaitFor([&] { return log.Text().find("Sensor TIMEOUT.") != std::string::npos; }));
        return true;
    });
}

}  // namespace
}  // namespace kelo::test
