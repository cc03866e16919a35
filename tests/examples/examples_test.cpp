// Each example, run as its own program in the test's private network, with what it did looked at.

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <png.h>
#include <sys/wait.h>
#include <unistd.h>

#include "in_time.h"
#include "kelo_registers.h"
#include "kelosim/simulator.h"
#include "read_back_guard.h"

namespace kelo::test {
namespace {

constexpr uint16_t kWidth = 160;
constexpr uint16_t kHeight = 100;

// What a program wrote and how it ended.
struct Outcome {
    int exit_code = -1;
    std::string text;

    bool Has(const std::string& part) const { return text.find(part) != std::string::npos; }
    // In the words of the library's log and of the examples.
    bool LostBytes() const {
        const std::regex some_lost(" [1-9][0-9]* of them lost");
        return std::regex_search(text, some_lost) || Has("completed (forcefully by timer") ||
               Has(" is damaged\n");
    }
};

class Examples : public testing::Test {
protected:
    Examples() { std::filesystem::create_directory(folder); }
    ~Examples() override {
        simulator.Stop();
        std::filesystem::remove_all(folder);
    }

    static kelosim::CameraConfig Config(kelosim::ImageSourcePtr source, double rate = 100) {
        kelosim::CameraConfig config;
        // A program may be held up for longer than a camera would wait for it.
        config.heartbeat_timeout_ms = 100000;
        config.streams[0].source = std::move(source);
        config.streams[0].frame_rate = rate;
        return config;
    }
    static kelosim::CameraConfig Chart() {
        return Config(kelosim::MakeTestChart8(kWidth, kHeight));
    }
    kelosim::Camera& StartOne(const kelosim::CameraConfig& config) {
        kelosim::Camera& camera = simulator.Add(config);
        simulator.Start();
        return camera;
    }
    // Runs an example in the test's folder. on_line sees each line when it is written.
    Outcome RunExample(const std::string& command,
                       const std::function<void(const std::string&)>& on_line = {}) const {
        const std::string line =
            "cd '" + folder.string() + "' && exec " EXAMPLES_FOLDER "/" + command + " 2>&1";
        Outcome run;
        FILE* output = popen(line.c_str(), "r");
        if (output == nullptr) return run;
        std::array<char, 512> buffer{};
        while (std::fgets(buffer.data(), buffer.size(), output) != nullptr) {
            run.text += buffer.data();
            if (on_line) on_line(buffer.data());
        }
        const int status = pclose(output);
        if (WIFEXITED(status)) run.exit_code = WEXITSTATUS(status);
        return run;
    }
    // The same, again until it says something: a program that listens for half a second does not
    // find its camera when the machine stands still for as long, and the timer completes an image
    // within which it stood still.
    Outcome RunInTime(const std::string& command,
                      const std::function<void(const std::string&)>& on_line = {}) {
        Outcome run;
        RepeatUntilInTime([&] {
            const std::vector<uint64_t> before = CountQuestions();
            run = RunExample(command, on_line);
            const std::vector<uint64_t> after = CountQuestions();
            // Who opens a camera asks it something.
            const bool opened =
                std::equal(before.begin(), before.end(), after.begin(), std::less<>());
            return opened && !run.LostBytes();
        });
        return run;
    }
    // For each camera, what it was asked besides whether it is there.
    std::vector<uint64_t> CountQuestions() {
        std::vector<uint64_t> counts;
        for (size_t i = 0; i < simulator.size(); ++i) {
            const kelosim::CameraCounters counters = simulator[i].counters();
            counts.push_back(counters.requests - counters.discoveries);
        }
        return counts;
    }
    std::vector<uint8_t> ReadFile(const std::string& name) const {
        std::ifstream file(folder / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    std::vector<uint8_t> ReadPng(const std::string& name) const {
        png_image png;
        std::memset(&png, 0, sizeof png);
        png.version = PNG_IMAGE_VERSION;
        const std::string path = folder / name;
        if (png_image_begin_read_from_file(&png, path.c_str()) == 0) return {};
        png.format = PNG_FORMAT_GRAY;
        std::vector<uint8_t> pixels(PNG_IMAGE_SIZE(png));
        png_image_finish_read(&png, nullptr, pixels.data(), 0, nullptr);
        return pixels;
    }

    const std::filesystem::path folder =
        std::filesystem::temp_directory_path() / ("kelo-examples-" + std::to_string(getpid()));
    kelosim::Simulator simulator;
};

class FirstPicture : public Examples, public testing::WithParamInterface<const char*> {};

TEST_P(FirstPicture, IsTheFirstImageThatTheCameraSent) {
    kelosim::Camera& camera = StartOne(Chart());
    const Outcome run = RunInTime(GetParam());
    EXPECT_EQ(run.exit_code, 0) << run.text;
    std::vector<uint8_t> expected;
    std::string_view header = "P5 160 100 255\n";
    expected.assign(header.begin(), header.end());
    const std::vector<uint8_t> pixels = camera.config().streams[0].Frame(1);
    expected.insert(expected.end(), pixels.begin(), pixels.end());
    EXPECT_TRUE(ReadFile("picture.pgm") == expected);
    EXPECT_FALSE(camera.used());
}

TEST_P(FirstPicture, FailsWithoutACamera) {
    EXPECT_EQ(RunExample(GetParam()).exit_code, 1);
    EXPECT_TRUE(ReadFile("picture.pgm").empty());
}

INSTANTIATE_TEST_SUITE_P(
    Languages, FirstPicture, testing::Values("first_picture_c", "first_picture_cpp"),
    [](const auto& language) {
        return std::string(language.param).substr(sizeof("first_picture_") - 1);
    });

TEST_F(Examples, SeveralCamerasAtOnce) {
    simulator.AddMany(3, Chart());
    simulator.Start();
    const Outcome run = RunInTime("example_several_cameras 20");
    EXPECT_EQ(run.exit_code, 0) << run.text;
    for (const char* camera : {"127.0.0.11", "127.0.0.12", "127.0.0.13"}) {
        const std::string line = ": 20 images, 320000 bytes, 0 of them lost\n";
        EXPECT_TRUE(run.Has(camera + line)) << run.text;
    }
}

TEST_F(Examples, SeveralCamerasOfWhichOneRefuses) {
    kelosim::CameraConfig refusing = Chart();
    refusing.faults.refused_registers = {{REG_CAMERA_USED, 2}};
    simulator.Add(refusing);
    kelosim::CameraConfig other = Chart();
    other.address = kelosim::Ipv4(127, 0, 0, 12);
    simulator.Add(other);
    simulator.Start();
    const Outcome run = RunInTime("example_several_cameras 3");
    EXPECT_TRUE(run.Has("127.0.0.11: keloOpenCamera failed for camera 0x")) << run.text;
    EXPECT_TRUE(run.Has("127.0.0.12: 3 images, 48000 bytes, 0 of them lost\n")) << run.text;
}

TEST_F(Examples, Trigger) {
    kelosim::Camera& camera = StartOne(Chart());
    const Outcome run = RunInTime("example_trigger 3");
    EXPECT_EQ(run.exit_code, 0) << run.text;
    EXPECT_TRUE(run.Has("sensor: 160 x 100, at 127.0.0.11\nexposure time: 2000\n")) << run.text;
    EXPECT_TRUE(run.Has("failed at register 9999")) << run.text;
    EXPECT_TRUE(run.Has("image 1: 16000 bytes\nimage 2: 16000 bytes\nimage 3: 16000 bytes\n"))
        << run.text;
    // A trigger whose answer comes late is written again, and counts again.
    const auto requests = camera.Requests();
    const auto triggers = std::count_if(requests.begin(), requests.end(), [](const auto& request) {
        return request.register_number == REG_TRIGGERSOFTWARE;
    });
    EXPECT_GE(triggers, 3);
    EXPECT_EQ(camera.counters().streams[0].images, static_cast<uint64_t>(triggers));
    EXPECT_EQ(camera.GetRegister(REG_EXPOSURETIME), 2000u);
    EXPECT_EQ(camera.GetRegister(REG_TRIGGERMODE), 0u) << "as before";
}

TEST_F(Examples, ReconnectAfterAReboot) {
    kelosim::Camera& camera = StartOne(Chart());
    bool rebooted = false;
    const Outcome run = RunInTime("example_reconnect 150", [&](const std::string& line) {
        if (line != "image 100\n" || std::exchange(rebooted, true)) return;
        // When it sends no more: an image in front of the reboot must not count on.
        camera.PowerOff();
        camera.UpdateFaults([](kelosim::Faults& faults) { faults.jumps = {{1, 100000}}; });
        camera.Reboot();
    });
    EXPECT_TRUE(rebooted);
    EXPECT_EQ(run.exit_code, 0) << run.text;
    EXPECT_TRUE(run.Has("opened 127.0.0.11\n")) << run.text;
    unsigned before = 0;
    unsigned after = 0;
    int ms = 0;
    unsigned missed = 0;
    const size_t line = run.text.find("reconnected: ");
    ASSERT_NE(line, std::string::npos) << run.text;
    ASSERT_EQ(std::sscanf(run.text.c_str() + line,
                          "reconnected: image %u, then %u after %d ms; missed: %u", &before, &after,
                          &ms, &missed),
              4)
        << run.text;
    EXPECT_GE(before, 100u);
    EXPECT_EQ(after, 100001u);
    EXPECT_EQ(missed, after - before - 1);
}

TEST_F(Examples, Profile) {
    kelosim::Camera& camera = StartOne(Config(kelosim::MakeLaserProfile(kWidth, kHeight)));
    const Outcome run = RunInTime("example_profile 3");
    EXPECT_EQ(run.exit_code, 0) << run.text;
    for (uint32_t number = 1; number <= 3; ++number) {
        const auto pixels = kelosim::LaserProfilePixels(kWidth, kHeight, number);
        std::string line = "image " + std::to_string(number) + ": " +
                           std::to_string(camera.config().streams[0].Frame(number).size()) +
                           " bytes, line at";
        for (const size_t column : {kWidth / 4, kWidth / 2, kWidth * 3 / 4}) {
            size_t brightest = 0;
            for (size_t row = 0; row < kHeight; ++row) {
                if (pixels[row * kWidth + column] > pixels[brightest * kWidth + column]) {
                    brightest = row;
                }
            }
            line += ' ' + std::to_string(brightest);
        }
        EXPECT_TRUE(run.Has(line + '\n')) << run.text;
    }
}

TEST_F(Examples, TcpStream) {
    kelosim::Camera& camera = StartOne(Chart());
    const Outcome run = RunInTime("example_tcp_stream 3");
    EXPECT_EQ(run.exit_code, 0) << run.text;
    EXPECT_EQ(run.text, "image 1: 16000 bytes\nimage 2: 16000 bytes\nimage 3: 16000 bytes\n");
    EXPECT_EQ(camera.counters().connections, 1u);
    EXPECT_EQ(camera.counters().streams[0].packets, 0u) << "nothing over UDP";
    EXPECT_EQ(camera.GetRegister(REG_STREAM0_OPTIONS), 0u) << "as before";
}

TEST_F(Examples, Firmware) {
    kelosim::CameraConfig config = Chart();
    // Long enough to be missed by the program, whatever holds it up.
    config.firmware.reboot_time_ms = 3000;
    kelosim::Camera& camera = StartOne(config);
    const auto image = kelosim::MakeFirmwareImage(kelosim::kMinFirmwareSize, 5);
    kelosim::WriteFirmwareFile(folder / "camera.bin", image);
    Outcome run;
    // An answer that comes too late leaves a hole in what is read back, and the run fails by
    // design, or is lost.
    RepeatUntilInTime([&] {
        const ReadBackGuard guard(camera, image.size());
        run = RunInTime("example_firmware camera.bin");
        return !run.Has("keloFirmwareGetProgress failed");
    });
    EXPECT_EQ(run.exit_code, 0) << run.text;
    EXPECT_TRUE(run.Has("100 % programmed\n")) << run.text;
    EXPECT_TRUE(run.Has("the camera is back, with version 2.3\n")) << run.text;
    EXPECT_TRUE(camera.FlashContents(kelosim::kMinFirmwareSize) == image);
}

TEST_F(Examples, FirmwareThatIsNotValid) {
    StartOne(Chart());
    kelosim::WriteFirmwareFile(
        folder / "camera.bin",
        kelosim::MakeFirmwareImage(kelosim::kMinFirmwareSize, 5, kelosim::FirmwareSpoil::kCrc));
    const Outcome run = RunInTime("example_firmware camera.bin");
    EXPECT_EQ(run.exit_code, 1);
    EXPECT_TRUE(run.Has("keloFirmwareProgram failed for camera")) << run.text;
}

TEST_F(Examples, SavePng) {
    kelosim::Camera& camera = StartOne(Chart());
    const Outcome run = RunInTime("example_save_png 2");
    EXPECT_EQ(run.exit_code, 0) << run.text;
    EXPECT_TRUE(run.Has("image-2.png: 160 x 100\n")) << run.text;
    EXPECT_TRUE(ReadPng("image-1.png") == camera.config().streams[0].Frame(1));
    EXPECT_TRUE(ReadPng("image-2.png") == camera.config().streams[0].Frame(2));
}

TEST_F(Examples, SavePngOfAProfile) {
    StartOne(Config(kelosim::MakeLaserProfile(kWidth, kHeight)));
    const Outcome run = RunInTime("example_save_png 1");
    EXPECT_EQ(run.exit_code, 0) << run.text;
    EXPECT_TRUE(ReadPng("image-1.png") == kelosim::LaserProfilePixels(kWidth, kHeight, 1));
}

}  // namespace
}  // namespace kelo::test
