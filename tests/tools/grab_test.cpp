// kelo grab: what is in the files, and what is said about those that are not there.

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>

#include <sys/stat.h>

#include "in_time.h"
#include "json_number.h"
#include "picture_files.h"
#include "tool_fixture.h"

namespace kelo::test {
namespace {

using testing::ElementsAre;
using testing::StartsWith;

class KeloGrab : public ToolTest {
protected:
    // Whatever the machine does, an image that comes over TCP is whole.
    static kelosim::StreamConfig Tcp(kelosim::StreamConfig stream = {}) {
        stream.over_tcp = true;
        return stream;
    }
    static kelosim::StreamConfig Showing(kelosim::ImageSourcePtr source, double rate = 100) {
        kelosim::StreamConfig stream;
        stream.source = std::move(source);
        stream.frame_rate = rate;
        return stream;
    }
    kelosim::Camera& StartWith(std::vector<kelosim::StreamConfig> streams,
                               const kelosim::Faults& faults = {}) {
        kelosim::CameraConfig config;
        config.streams = std::move(streams);
        config.faults = faults;
        return StartOne(config);
    }
    std::vector<std::string> Arguments(std::vector<std::string> more) const {
        std::vector<std::string> all = {"grab", "127.0.0.11", "-o", folder.Path()};
        all.insert(all.end(), more.begin(), more.end());
        return Patiently(all);
    }
    Result Grab(std::vector<std::string> more) const { return Kelo(Arguments(std::move(more))); }
    // What it says besides that the disk is slow.
    static std::string Said(const Result& result) {
        static const std::regex slow(
            "kelo: (1 image waits|([2-9]|[0-9]{2,}) images wait) to be written; [^\n]*\n");
        return std::regex_replace(result.err, slow, "");
    }
    // Over UDP: a machine that stands still within an image has it cut in two, which is reported.
    // Such a run is done again.
    Result GrabUndisturbed(const std::vector<std::string>& more, int incomplete = 0) const {
        Result result;
        for (int attempt = 0; attempt < 10; ++attempt) {
            for (const std::string& name : Names(folder.Path()))
                std::filesystem::remove(folder / name);
            std::vector<std::string> arguments = more;
            arguments.emplace_back("--json");
            result = Grab(arguments);
            if (JsonNumber(result.out, "images_incomplete") == incomplete) break;
        }
        return result;
    }

    TemporaryFolder folder;
};

// ---- What is in the files
// ------------------------------------------------------------------------

enum class Picture { kGrey8, kGrey16, kProfile };

struct FileCase {
    const char* name;
    Picture picture;
    const char* format;
    uint8_t header_size;
    bool tcp;
};

void PrintTo(const FileCase& file, std::ostream* out) {
    *out << file.name;
}

class KeloGrabFiles : public KeloGrab, public testing::WithParamInterface<FileCase> {
protected:
    static constexpr uint16_t kWidth = 70;
    static constexpr uint16_t kHeight = 50;

    static kelosim::StreamConfig Stream() {
        const FileCase& file = GetParam();
        kelosim::ImageSourcePtr source = kelosim::MakeTestChart8(kWidth, kHeight);
        if (file.picture == Picture::kGrey16) source = kelosim::MakeTestChart16(kWidth, kHeight);
        if (file.picture == Picture::kProfile) source = kelosim::MakeLaserProfile(kWidth, kHeight);
        kelosim::StreamConfig stream = Showing(source);
        stream.header_size = file.header_size;
        stream.over_tcp = file.tcp;
        return stream;
    }
    static std::vector<uint16_t> Pixels(uint32_t number) {
        const FileCase& file = GetParam();
        const auto frame = Stream().Frame(number);
        if (file.picture == Picture::kGrey16) return Pixels16(frame, file.header_size);
        if (file.picture == Picture::kGrey8) return Pixels8(frame, file.header_size);
        return Pixels8(kelosim::LaserProfilePixels(kWidth, kHeight, number));
    }
    void ExpectPicture(const std::string& path, uint32_t number) const {
        const bool png = path.ends_with("png");
        const DecodedPicture picture = png ? ReadPng(path) : ReadPgm(path);
        EXPECT_EQ(picture.width, kWidth);
        EXPECT_EQ(picture.height, kHeight);
        EXPECT_EQ(picture.bits, GetParam().picture == Picture::kGrey16 ? 16 : 8);
        EXPECT_EQ(picture.pixels, Pixels(number));
    }
};

TEST_P(KeloGrabFiles, HoldWhatTheCameraSent) {
    StartWith({Stream()});
    const std::string format = GetParam().format;
    const Result result = GrabUndisturbed({"-n", "3", "--format", format});
    EXPECT_EQ(result.exit_code, 0) << result.err;
    ASSERT_THAT(Names(folder.Path()),
                ElementsAre("image-0000000001." + format, "image-0000000002." + format,
                            "image-0000000003." + format));
    for (uint32_t number = 1; number <= 3; ++number) {
        const std::string path =
            folder / ("image-000000000" + std::to_string(number) + "." + format);
        if (format == "raw") {
            EXPECT_EQ(ReadFile(path), Stream().Frame(number));
        } else {
            ExpectPicture(path, number);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, KeloGrabFiles,
    testing::Values(FileCase{"Png8", Picture::kGrey8, "png", 0, false},
                    FileCase{"Png8Header", Picture::kGrey8, "png", 12, false},
                    FileCase{"Png8Tcp", Picture::kGrey8, "png", 0, true},
                    FileCase{"Png16", Picture::kGrey16, "png", 0, false},
                    FileCase{"Png16OddHeaderTcp", Picture::kGrey16, "png", 9, true},
                    FileCase{"PngProfile", Picture::kProfile, "png", 0, false},
                    FileCase{"PngProfileHeaderTcp", Picture::kProfile, "png", 8, true},
                    FileCase{"Pgm8", Picture::kGrey8, "pgm", 0, true},
                    FileCase{"Pgm16", Picture::kGrey16, "pgm", 0, true},
                    FileCase{"PgmProfile", Picture::kProfile, "pgm", 0, true},
                    FileCase{"Raw8Header", Picture::kGrey8, "raw", 12, true},
                    FileCase{"Raw16", Picture::kGrey16, "raw", 0, true},
                    FileCase{"RawProfileIsNotDecoded", Picture::kProfile, "raw", 0, true}),
    [](const auto& test) { return test.param.name; });

TEST_F(KeloGrab, OneImageIsTheDefault) {
    StartWith({Tcp()});
    const Result result = Grab({});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(Names(folder.Path()), ElementsAre("image-0000000001.png"));
    EXPECT_THAT(result.out, StartsWith("1 of 1 images written to " + folder.Path() +
                                       ": image-0000000001.png\n0 packets (0 bytes) lost"));
    EXPECT_THAT(Said(result), IsEmpty());
}

TEST_F(KeloGrab, TakesTheStreamThatIsNamed) {
    const auto stream = Tcp(Showing(kelosim::MakeTestChart8(64, 32)));
    StartWith({Tcp(), stream});
    EXPECT_EQ(Grab({"--stream", "1", "--prefix", "right"}).exit_code, 0);
    EXPECT_EQ(ReadPng(folder / "right-0000000001.png").pixels, Pixels8(stream.Frame(1)));
}

TEST_F(KeloGrab, WritesWhatIsNoPictureAsItIsAndSaysSo) {
    struct Odd {
        kelosim::ImageSourcePtr source;
        const char* note;
    };
    const std::vector<Odd> odd = {
        {kelosim::MakeBytes(1000, 10, 100, 0x31), "pixel format 0x31 is not known"},
        {kelosim::MakeBytes(999, 10, 100), "999 bytes are too few for 10 x 100 pixels of 8 bits"},
        {kelosim::MakeBytes(1000, 0, 100), "the camera gives no width and height"}};
    std::vector<kelosim::StreamConfig> streams;
    for (const Odd& one : odd)
        streams.push_back(Tcp(Showing(one.source)));
    StartWith(streams);
    for (size_t i = 0; i < odd.size(); ++i) {
        const std::string number = std::to_string(i);
        const Result result = Grab({"--stream", number, "--prefix", number, "-n", "2"});
        EXPECT_EQ(result.exit_code, 0);
        EXPECT_EQ(Said(result), std::string("kelo: written as raw data: ") + odd[i].note + "\n");
        EXPECT_EQ(ReadFile(folder / (number + "-0000000002.raw")), streams[i].Frame(2));
    }
}

// ---- Losses
// --------------------------------------------------------------------------------------

kelosim::Faults PacketLost(uint32_t image, uint16_t packet) {
    kelosim::Faults faults;
    faults.packets.push_back({kelosim::PacketFault::Kind::kDrop, image, packet, {}});
    return faults;
}

TEST_F(KeloGrab, MarksIncompleteImagesAndLeavesTheirGapsBlack) {
    const auto stream = Showing(kelosim::MakeTestChart8(320, 200));
    StartWith({stream}, PacketLost(2, 3));
    const Result result = GrabUndisturbed({"-n", "3"}, 1);
    EXPECT_EQ(result.exit_code, 0);
    ASSERT_THAT(Names(folder.Path()),
                ElementsAre("image-0000000001.png", "image-0000000002-incomplete.png",
                            "image-0000000003.png"));
    const auto lost = static_cast<size_t>(JsonNumber(result.out, "bytes_lost"));
    EXPECT_EQ(JsonNumber(result.out, "packets_lost"), 1);
    ASSERT_GT(lost, 1000U);
    auto expected = Pixels8(stream.Frame(2));
    ASSERT_LT(4 * lost, expected.size());
    std::fill_n(expected.begin() + static_cast<ptrdiff_t>(3 * lost), lost, uint16_t{0});
    EXPECT_EQ(ReadPng(folder / "image-0000000002-incomplete.png").pixels, expected);
}

TEST_F(KeloGrab, DropsIncompleteImagesWhenToldToAndDoesNotCountThem) {
    StartWith({Showing(kelosim::MakeTestChart8(320, 200))}, PacketLost(2, 3));
    RepeatUntilInTime([&] {
        const Result result = Grab({"-n", "3", "--drop-incomplete", "--overwrite", "--json"});
        EXPECT_EQ(result.exit_code, 0);
        if (JsonNumber(result.out, "images_incomplete_dropped") != 1) return false;
        EXPECT_EQ(JsonNumber(result.out, "images_written"), 3);
        EXPECT_THAT(
            Names(folder.Path()),
            ElementsAre("image-0000000001.png", "image-0000000003.png", "image-0000000004.png"));
        return true;
    });
}

TEST_F(KeloGrab, CountsImagesThatNeverCame) {
    kelosim::Faults faults;
    faults.jumps.push_back({2, 5});
    StartWith({Showing(kelosim::MakeTestChart8(64, 32))}, faults);
    const Result result = GrabUndisturbed({"-n", "2"});
    EXPECT_THAT(Names(folder.Path()), ElementsAre("image-0000000001.png", "image-0000000007.png"));
    EXPECT_EQ(JsonNumber(result.out, "images_skipped"), 5);
    ExpectJsonLines(result.out);
}

TEST_F(KeloGrab, TellsWhenACameraIsLost) {
    kelosim::CameraConfig config;
    config.streams = {Showing(kelosim::MakeTestChart8(64, 32))};
    config.heartbeat_timeout_ms = 300;
    kelosim::Camera& camera = simulator.Add(config);
    simulator.Start();
    KeloProcess process(Arguments({"-n", "0", "--wait", "100000"}));
    EXPECT_TRUE(WaitFor([&] { return !Names(folder.Path()).empty(); }));
    camera.UpdateFaults([](kelosim::Faults& faults) { faults.drop_reply_rate = 1; });
    // The library says goodbye, and takes its time when nobody answers.
    EXPECT_TRUE(WaitFor([&] {
        const auto requests = camera.Requests();
        return std::any_of(requests.begin(), requests.end(), [](const auto& request) {
            return request.register_number == REG_CAMERA_USED && request.value == 0;
        });
    }));
    camera.SetFaults({});
    EXPECT_EQ(process.Wait(), 5);
    EXPECT_THAT(process.Errors(), HasSubstr("the camera does not answer any more"));
}

TEST_F(KeloGrab, GivesUpOnACameraThatSendsNothing) {
    kelosim::Camera& camera = StartWith({Tcp()});
    camera.SetRegister(REG_TRIGGERMODE, 1);
    const Result result = Grab({"--wait", "100", "--json"});
    EXPECT_EQ(result.exit_code, 5);
    EXPECT_THAT(result.out, HasSubstr("\"ended_by\":\"no-image\""));
    EXPECT_THAT(result.err, HasSubstr("no image came for 100 ms"));
    EXPECT_THAT(result.err, HasSubstr("kelo get CAMERA REG_TRIGGERMODE"));
    EXPECT_FALSE(camera.used());
}

TEST_F(KeloGrab, NamesTheStreamsThereAre) {
    StartWith({Tcp(), Tcp()});
    const Result result = Grab({"--stream", "2"});
    EXPECT_EQ(result.exit_code, 2);
    EXPECT_EQ(result.err,
              "kelo: the camera does not send stream 2\n"
              "Choose with --stream among: 0, 1\n");
}

// ---- Ctrl-C
// --------------------------------------------------------------------------------------

TEST_F(KeloGrab, InterruptEndsAnEndlessRunCleanly) {
    const auto stream = Tcp(Showing(kelosim::MakeTestChart8(320, 200)));
    kelosim::Camera& camera = StartWith({stream});
    KeloProcess process(Arguments({"-n", "0"}));
    ASSERT_TRUE(WaitFor([&] { return Names(folder.Path()).size() > 2; }));
    process.Signal(SIGINT);
    EXPECT_EQ(process.Wait(), 0) << process.Errors();
    EXPECT_FALSE(camera.acquiring());
    EXPECT_FALSE(camera.used());
    const auto names = Names(folder.Path());
    EXPECT_THAT(process.Output(), StartsWith(std::to_string(names.size()) + " of " +
                                             std::to_string(names.size()) + " images written"));
    EXPECT_THAT(process.Output(), HasSubstr(" images/s, "));
    for (uint32_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(ReadPng(folder / names[i]).pixels, Pixels8(stream.Frame(i + 1)));
    }
}

TEST_F(KeloGrab, InterruptBeforeTheCountIsReachedShowsInTheExitCode) {
    StartWith({Tcp(Showing(kelosim::MakeTestChart8(64, 32)))});
    KeloProcess process(Arguments({"-n", "1000000"}));
    ASSERT_TRUE(WaitFor([&] { return Names(folder.Path()).size() > 2; }));
    process.Signal(SIGTERM);
    EXPECT_EQ(process.Wait(), 130);
}

// ---- Disks
// ---------------------------------------------------------------------------------------

// A disk that stands still: the files of the first two images are pipes that nobody reads.
class KeloGrabSlowDisk : public KeloGrab {
protected:
    static constexpr uint32_t kImages = 10;
    // Three of them are as much as may wait.
    static constexpr uint16_t kWidth = 640;
    static constexpr uint16_t kHeight = 500;

    KeloGrabSlowDisk() {
        for (const char* name : {"image-0000000001.raw", "image-0000000002.raw"}) {
            pipes.push_back(folder / name);
            EXPECT_EQ(mkfifo(pipes.back().c_str(), 0600), 0);
        }
        StartWith({Tcp(Showing(kelosim::MakeTestChart8(kWidth, kHeight)))});
    }
    std::vector<std::string> SlowArguments() const {
        return Arguments({"-n", std::to_string(kImages), "--format", "raw", "--overwrite",
                          "--queue-mb", "1", "--threads", "2", "--json"});
    }
    static bool WaitUntilOnlyTheDiskIsMissing(KeloProcess& process) {
        return WaitFor([&] {
            return process.Errors().find("3 images wait to be written") != std::string::npos;
        });
    }

    std::vector<std::string> pipes;
};

TEST_F(KeloGrabSlowDisk, LeavesImagesOutAndSaysSo) {
    KeloProcess process(SlowArguments());
    ASSERT_TRUE(WaitUntilOnlyTheDiskIsMissing(process)) << process.Errors();
    for (const std::string& pipe : pipes)
        EXPECT_EQ(ReadFile(pipe).size(), size_t{kWidth} * kHeight);
    EXPECT_EQ(process.Wait(), 6);
    EXPECT_THAT(
        process.Errors(),
        testing::ContainsRegex("images are left out: the disk takes [0-9.]+ MB/s, the camera "
                               "sends [0-9.]+ MB/s"));
    EXPECT_THAT(process.Errors(), HasSubstr("7 of 10 images were left out: the disk takes "));
    EXPECT_EQ(JsonNumber(process.Output(), "images_taken"), 10);
    EXPECT_EQ(JsonNumber(process.Output(), "images_written"), 3);
    EXPECT_EQ(JsonNumber(process.Output(), "images_left_out"), 7);
    EXPECT_THAT(Names(folder.Path()), ElementsAre("image-0000000001.raw", "image-0000000002.raw",
                                                  "image-0000000003.raw"));
}

TEST_F(KeloGrabSlowDisk, InterruptDoesNotWaitForIt) {
    KeloProcess process(SlowArguments());
    ASSERT_TRUE(WaitUntilOnlyTheDiskIsMissing(process)) << process.Errors();
    EXPECT_FALSE(simulator[0].used());
    process.Signal(SIGINT);
    EXPECT_EQ(process.Wait(), 130);
    EXPECT_THAT(process.Errors(), HasSubstr("3 images were not written"));
}

TEST_F(KeloGrab, EndsWhenTheDiskIsFull) {
    StartWith({Tcp(Showing(kelosim::MakeTestChart8(64, 32)))});
    std::filesystem::create_symlink("/dev/full", folder / "image-0000000003.raw");
    const Result result = Grab({"-n", "0", "--format", "raw", "--overwrite", "--threads", "1"});
    EXPECT_EQ(result.exit_code, 6);
    EXPECT_THAT(result.err, HasSubstr("image-0000000003.raw: No space left on device\n"
                                      "The disk is full: make room, or choose another folder"));
    EXPECT_THAT(result.out, StartsWith("2 of "));
    EXPECT_TRUE(std::filesystem::exists("/dev/full"));
    EXPECT_FALSE(simulator[0].used());
}

TEST_F(KeloGrab, DoesNotReplaceFilesUnlessItMay) {
    const auto stream = Tcp(Showing(kelosim::MakeTestChart8(64, 32)));
    StartWith({stream});
    const std::string path = folder / "image-0000000001.png";
    std::ofstream(path) << "mine";
    const Result result = Grab({});
    EXPECT_EQ(result.exit_code, 6);
    EXPECT_EQ(Said(result),
              "kelo: 1 image was not written: " + path +
                  ": File exists\nReplace files that exist with --overwrite, or choose "
                  "another folder with -o.\n");
    EXPECT_EQ(ReadFile(path).size(), 4U);
    EXPECT_EQ(Grab({"--overwrite"}).exit_code, 0);
    EXPECT_EQ(ReadPng(path).pixels, Pixels8(stream.Frame(1)));
}

TEST_F(KeloGrab, MakesTheFolderOrSaysWhyNot) {
    StartWith({Tcp()});
    EXPECT_EQ(Grab({"-o", folder / "a/b"}).exit_code, 2) << "-o was given twice";
    EXPECT_EQ(Kelo(Patiently({"grab", "127.0.0.11", "-o", folder / "a/b"})).exit_code, 0);
    EXPECT_THAT(Names(folder / "a/b"), ElementsAre("image-0000000001.png"));
    const std::string file = folder / "a/b/image-0000000001.png";
    const Result result = Kelo({"grab", "127.0.0.11", "-o", file + "/c"});
    EXPECT_EQ(result.exit_code, 6);
    EXPECT_THAT(result.err, HasSubstr("is no use: Not a directory"));
}

}  // namespace
}  // namespace kelo::test
