#include "kelosim/firmware.h"

#include <filesystem>
#include <fstream>

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
    static KELO_API_STATUS Poll(CAM_HANDLE handle) {
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
        return status;
    }
    KELO_API_STATUS Program(CAM_HANDLE handle) const {
        return keloFirmwareProgram(handle, path.c_str());
    }
    // Until the camera has been sent something of the image.
    static bool WaitForData(const kelosim::Camera& camera) {
        return WaitFor([&] { return camera.counters().requests > 500; });
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

    const std::vector<uint8_t> image;
    const std::string path = std::filesystem::temp_directory_path() /
                             ("kelo-firmware-" + std::to_string(getpid()) + ".bin");
};

TEST_F(FirmwareRun, ProgramsVerifiesAndRebootsTheCamera) {
    kelosim::Camera& camera = StartWith({.flash_time_ms = 200, .reboot_time_ms = 300});
    const CAM_HANDLE handle = Open(camera);
    ASSERT_EQ(Program(handle), KELO_STATUS_SUCCESS);
    EXPECT_EQ(Poll(handle), KELO_STATUS_SUCCESS);
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
        if (request.command == 10) writes.push_back(request);
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
    const CAM_HANDLE handle = Find(camera);
    ASSERT_EQ(Program(handle), KELO_STATUS_SUCCESS);
    EXPECT_EQ(Poll(handle), KELO_STATUS_ERROR);
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
    const CAM_HANDLE handle = Find(camera);
    ASSERT_EQ(Program(handle), KELO_STATUS_SUCCESS);
    ASSERT_TRUE(WaitForData(camera));
    EXPECT_EQ(OpenFiles(), 1);
    EXPECT_EQ(keloFirmwareProgramAbort(handle), KELO_STATUS_SUCCESS);
    EXPECT_EQ(Poll(handle), KELO_STATUS_ERROR);
    EXPECT_TRUE(log.Contains("FW update FAILED"));
    EXPECT_EQ(OpenFiles(), 0);
    // Another run starts afresh.
    ASSERT_EQ(Program(handle), KELO_STATUS_SUCCESS);
    EXPECT_EQ(Poll(handle), KELO_STATUS_SUCCESS);
    EXPECT_TRUE(camera.FlashContents(kSize) == image);
}

TEST_F(FirmwareRun, AnAbortBehindTheFinishCommandHasNoEffect) {
    kelosim::Camera& camera = StartWith({.flash_time_ms = 1500});
    const CAM_HANDLE handle = Find(camera);
    ASSERT_EQ(Program(handle), KELO_STATUS_SUCCESS);
    ASSERT_TRUE(WaitFor([&] { return log.Contains("est_timeout_sec = 190"); }, seconds(60)));
    EXPECT_EQ(keloFirmwareProgramAbort(handle), KELO_STATUS_SUCCESS);
    EXPECT_EQ(Poll(handle), KELO_STATUS_SUCCESS);
    EXPECT_TRUE(camera.FlashContents(kSize) == image);
}

TEST_F(FirmwareRun, ACameraLostInTheMiddleIsATimeout) {
    kelosim::Camera& camera =
        StartWith({.stop_at = FirmwareConfig::Step::kData, .stop_from_offset = 1u << 20});
    const CAM_HANDLE handle = Find(camera);
    ASSERT_EQ(Program(handle), KELO_STATUS_SUCCESS);
    EXPECT_EQ(Poll(handle), KELO_STATUS_NO_RESPONSE);
    for (const char* attempt : {"1", "2", "3"}) {
        EXPECT_EQ(log.Count(std::string("FW writeMemory failed (attempt ") + attempt + " of 3)"),
                  1u);
    }
    EXPECT_EQ(log.Count("Sensor TIMEOUT. Sensor restart required. Normally, the firmware has been "
                        "updated correctly."),
              1u);
    EXPECT_GE(log.Count("KELOCamera::FirmwareGetProgress(): timeout"), 1u);
    EXPECT_FALSE(log.Contains("FW update FAILED"));
}

TEST_F(FirmwareRun, ASecondRunOnTheSameCameraIsRefusedAndDisturbsNothing) {
    kelosim::Camera& camera = StartWith({});
    const CAM_HANDLE handle = Find(camera);
    ASSERT_EQ(Program(handle), KELO_STATUS_SUCCESS);
    ASSERT_TRUE(WaitForData(camera));
    EXPECT_EQ(Program(handle), KELO_STATUS_ERROR);
    EXPECT_EQ(Poll(handle), KELO_STATUS_SUCCESS);
    EXPECT_TRUE(camera.FlashContents(kSize) == image);
}

TEST_F(FirmwareRun, TwoCamerasAreProgrammedSideBySide) {
    Write(image);
    simulator.AddMany(2);
    simulator.Start();
    const CAM_HANDLE first = Find(simulator[0]);
    const CAM_HANDLE second = Find(simulator[1]);
    ASSERT_EQ(Program(first), KELO_STATUS_SUCCESS);
    ASSERT_EQ(Program(second), KELO_STATUS_SUCCESS);
    EXPECT_EQ(Poll(first), KELO_STATUS_SUCCESS);
    EXPECT_EQ(Poll(second), KELO_STATUS_SUCCESS);
    EXPECT_TRUE(simulator[0].FlashContents(kSize) == image);
    EXPECT_TRUE(simulator[1].FlashContents(kSize) == image);
}

TEST_F(FirmwareRun, AFileChangedUnderTheRunIsNoticed) {
    kelosim::Camera& camera = StartWith({});
    const CAM_HANDLE handle = Find(camera);
    ASSERT_EQ(Program(handle), KELO_STATUS_SUCCESS);
    ASSERT_TRUE(WaitForData(camera));
    {
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(kSize - 10);
        file.put(static_cast<char>(~image[kSize - 10]));
    }
    EXPECT_EQ(Poll(handle), KELO_STATUS_ERROR);
}

TEST_F(FirmwareRun, ARunGoesOnWhenTheCameraIsClosed) {
    kelosim::Camera& camera = StartWith({});
    const CAM_HANDLE handle = Open(camera);
    ASSERT_EQ(Program(handle), KELO_STATUS_SUCCESS);
    ASSERT_TRUE(WaitForData(camera));
    EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
    EXPECT_EQ(Poll(handle), KELO_STATUS_SUCCESS);
    EXPECT_TRUE(camera.FlashContents(kSize) == image);
}

TEST_F(FirmwareRun, ARunSurvivesTheLibrarysRelease) {
    kelosim::Camera& camera = StartWith({});
    const CAM_HANDLE handle = Open(camera);
    ASSERT_EQ(Program(handle), KELO_STATUS_SUCCESS);
    ASSERT_TRUE(WaitForData(camera));
    const auto begin = steady_clock::now();
    EXPECT_EQ(keloRelease(), KELO_STATUS_SUCCESS);
    EXPECT_LT(steady_clock::now() - begin, seconds(20));
    // It gets no more answers and ends by itself.
    EXPECT_TRUE(WaitFor([&] { return log.Text().find("Sensor TIMEOUT.") != std::string::npos; }));
}

}  // namespace
}  // namespace kelo::test
