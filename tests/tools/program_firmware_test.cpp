// kelo firmware.

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "in_time.h"
#include "kelosim/firmware.h"
#include "read_back_guard.h"
#include "tool_fixture.h"

namespace kelo::test {
namespace {

using kelosim::FirmwareConfig;
using kelosim::FirmwareSpoil;

// The first word of the payload that makes the camera write its flash, as the camera gets it: the
// lowest byte first.
constexpr uint32_t FINISH = 0x01FFFFFF;
constexpr const char* CTRL_C = "\x03";

class KeloFirmware : public ToolTest {
protected:
    KeloFirmware() { kelosim::WriteFirmwareFile(file, image); }

    kelosim::Camera& StartWith(const FirmwareConfig& firmware, uint32_t reply_delay_ms = 0) {
        kelosim::CameraConfig config;
        config.firmware = firmware;
        config.faults.reply_delay_ms = reply_delay_ms;
        return StartOne(config);
    }
    std::vector<std::string> Arguments(std::vector<std::string> more = {}) const {
        std::vector<std::string> arguments = Patiently({"firmware", "127.0.0.11", file});
        arguments.insert(arguments.end(), more.begin(), more.end());
        return arguments;
    }
    static bool WritesItsFlash(const kelosim::Camera& camera) {
        const auto requests = camera.Requests();
        return std::any_of(requests.begin(), requests.end(), [](const auto& request) {
            return request.register_number == KELO_CMD_FIRMWARE && request.value == FINISH;
        });
    }
    static bool WasRebooted(const kelosim::Camera& camera) {
        const auto requests = camera.Requests();
        return std::any_of(requests.begin(), requests.end(), [](const auto& request) {
            return request.register_number == REG_REBOOT;
        });
    }
    // Whether the version register was asked for after the reboot.
    static bool VersionWasReadAfterReboot(const kelosim::Camera& camera) {
        const auto requests = camera.Requests();
        const auto reboot = std::find_if(requests.begin(), requests.end(), [](const auto& request) {
            return request.register_number == REG_REBOOT;
        });
        return std::any_of(reboot, requests.end(), [](const auto& request) {
            return request.register_number == REG_DEVICEFIRMWAREVERSION;
        });
    }
    // A run to its end. The camera reads on with every request: when an answer to a read-back comes
    // too late, and it is asked for again, a piece is left out and the run fails by design, or is
    // lost. Then another one is made. So is one that Ctrl-C reached too late, or when it failed.
    template <typename Run>
    void WholeRun(kelosim::Camera& camera, const Run& run, int expected = 0) const {
        constexpr int REFUSED = 4;
        constexpr int INTERRUPTED = 130;
        RepeatUntilInTime([&] {
            camera.ClearRequests();
            const ReadBackGuard guard(camera, image.size());
            const int exit_code = run();
            if (exit_code == REFUSED || exit_code == INTERRUPTED) return false;
            EXPECT_EQ(exit_code, expected);
            return true;
        });
    }
    bool HasTheImage(const kelosim::Camera& camera) const {
        return camera.FlashContents(static_cast<uint32_t>(image.size())) == image;
    }

    const std::vector<uint8_t> image = kelosim::MakeFirmwareImage(kelosim::kMinFirmwareSize, 3);
    TemporaryFolder folder;
    const std::string file = folder / "camera.bin";
};

TEST_F(KeloFirmware, ShowsABarFindsTheCameraAfterItsRebootAndShowsItsVersion) {
    kelosim::Camera& camera = StartWith({});
    std::string screen;
    WholeRun(camera, [&] {
        KeloProcess process(Arguments(), KeloProcess::Stdio::kTerminal);
        const int exit_code = process.Wait();
        screen = process.Output();
        return exit_code;
    });
    EXPECT_THAT(screen, HasSubstr("Programming KELO simulated camera at 127.0.0.11 (version "
                                  "0x00020003 (2.3)) with "));
    EXPECT_THAT(screen, HasSubstr("\r\033[K[                                        ]   0 %"));
    EXPECT_THAT(screen, HasSubstr("[########################################] 100 %"));
    EXPECT_THAT(screen, HasSubstr("Programmed. The camera reboots ..."));
    EXPECT_THAT(screen, HasSubstr("is back after "));
    EXPECT_THAT(screen, HasSubstr("Version: 0x00020003 (2.3), before: 0x00020003 (2.3)."));
    EXPECT_TRUE(HasTheImage(camera));
    EXPECT_TRUE(VersionWasReadAfterReboot(camera));
}

TEST_F(KeloFirmware, PrintsJson) {
    Result result;
    WholeRun(StartWith({}), [&] {
        result = Kelo(Arguments({"--json"}));
        return result.exit_code;
    });
    ExpectJsonLines(result.out);
    EXPECT_THAT(result.out, HasSubstr(R"("address":"127.0.0.11")"));
    EXPECT_THAT(result.out, HasSubstr(R"("bytes":)" + std::to_string(image.size())));
    EXPECT_THAT(result.out, HasSubstr(R"("version_before":131075,"version_after":131075})"));
    EXPECT_THAT(result.err, IsEmpty());
}

TEST_F(KeloFirmware, CtrlCStopsItWhileTheFileIsSent) {
    // Slow enough never to end by itself.
    kelosim::Camera& camera = StartWith({}, 20);
    KeloProcess process(Arguments(), KeloProcess::Stdio::kTerminal);
    EXPECT_TRUE(process.WaitForOutput("0 %"));
    process.Type(CTRL_C);
    EXPECT_EQ(process.Wait(), 130);
    EXPECT_THAT(process.Output(), HasSubstr("stopped before the camera wrote its flash"));
    EXPECT_FALSE(WritesItsFlash(camera));
    EXPECT_FALSE(WasRebooted(camera));
}

TEST_F(KeloFirmware, CtrlCSaysThatNothingStopsACameraThatWritesItsFlash) {
    kelosim::Camera& camera = StartWith({.flash_time_ms = 60000});
    KeloProcess process(Arguments(), KeloProcess::Stdio::kTerminal);
    EXPECT_TRUE(WaitFor([&] { return WritesItsFlash(camera); }, std::chrono::seconds(60)));
    process.Type(CTRL_C);
    EXPECT_TRUE(process.WaitForOutput("this cannot be stopped any more. Do NOT switch it off."));
}

TEST_F(KeloFirmware, GoesOnAfterCtrlCOnceTheCameraWritesItsFlash) {
    kelosim::Camera& camera = StartWith({.flash_time_ms = 300});
    WholeRun(camera, [&] {
        KeloProcess process(Arguments(), KeloProcess::Stdio::kTerminal);
        EXPECT_TRUE(WaitFor([&] { return WritesItsFlash(camera); }, std::chrono::seconds(60)));
        process.Type(CTRL_C);
        return process.Wait();
    });
    EXPECT_TRUE(HasTheImage(camera));
    EXPECT_TRUE(VersionWasReadAfterReboot(camera));
}

TEST_F(KeloFirmware, TellsThatTheCameraHoldsSomethingElse) {
    StartWith({.corrupt_offset = 70000});
    const Result result = Kelo(Arguments());
    EXPECT_EQ(result.exit_code, 4);
    EXPECT_THAT(result.err, HasSubstr("what the camera holds is not the file"));
    EXPECT_THAT(result.err, HasSubstr("Do not switch it off"));
}

TEST_F(KeloFirmware, TellsThatTheCameraDoesNotComeBack) {
    if (std::getenv("KELO_LONG_TESTS") == nullptr) GTEST_SKIP() << "takes 10 s: KELO_LONG_TESTS=1";
    Result result;
    WholeRun(
        StartWith({.reboot_time_ms = 600000}),
        [&] {
            result = Kelo(Arguments({"--reboot-wait", "1"}));
            return result.exit_code;
        },
        5);
    EXPECT_THAT(result.err, HasSubstr("is programmed, but did not come back within 1 s"));
}

struct FileCase {
    const char* name;
    FirmwareSpoil spoil;
    const char* text;
};

class KeloFirmwareFile : public testing::TestWithParam<FileCase> {};

// There is no camera at all: the file comes first.
TEST_P(KeloFirmwareFile, IsRefusedBeforeACameraIsLookedFor) {
    const TemporaryFolder folder;
    const std::string file = folder / "camera.bin";
    const auto image = kelosim::MakeFirmwareImage(5'000'000, 1, GetParam().spoil);
    kelosim::WriteFirmwareFile(file, image);
    const Result result = Kelo({"firmware", "127.0.0.11", file});
    EXPECT_EQ(result.exit_code, 6);
    EXPECT_THAT(result.err, HasSubstr(GetParam().text));
    EXPECT_THAT(result.err, HasSubstr("The camera was not touched."));
}

INSTANTIATE_TEST_SUITE_P(
    All, KeloFirmwareFile,
    testing::Values(FileCase{"Magic", FirmwareSpoil::kMagic, "its mark is not there"},
                    FileCase{"Length", FirmwareSpoil::kLength, "damaged: it has 5000000 bytes"},
                    FileCase{"Checksum", FirmwareSpoil::kCrc, "its checksum is wrong"},
                    FileCase{"TooShort", FirmwareSpoil::kTooShort, "bytes are too few"}),
    [](const auto& test) { return test.param.name; });

TEST(KeloFirmwareFiles, WhatIsNoFileIsRefused) {
    EXPECT_THAT(Kelo({"firmware", "gate", "/nowhere/camera.bin"}).err,
                HasSubstr("/nowhere/camera.bin: No such file"));
    EXPECT_THAT(Kelo({"firmware", "gate", "/tmp"}).err, HasSubstr("/tmp: this is no file"));
    EXPECT_EQ(Kelo({"firmware", "gate", "/dev/zero"}).exit_code, 6);
}

}  // namespace
}  // namespace kelo::test
