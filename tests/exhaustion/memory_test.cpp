#include <algorithm>
#include <array>
#include <bit>
#include <functional>

#include <sys/wait.h>

#include "exhaustion_fixture.h"
#include "refusals.h"

namespace kelo::test {
namespace {

constexpr const char* kNotHere = "the sanitizer owns malloc and operator new";

// How far things must have come for a function to have something to do.
enum class State { kNone, kStarted, kKnown, kOpen, kImages };

class MemoryFixture : public ExhaustionTest {
protected:
    using ExhaustionTest::ExhaustionTest;

    void Reach(State state) {
        if (state == State::kNone) {
            keloRelease();
            return;
        }
        ASSERT_EQ(keloInit(), KELO_STATUS_SUCCESS);
        if (state >= State::kKnown) {
            ASSERT_TRUE(Known() || Find());
        }
        if (state >= State::kOpen) {
            ASSERT_EQ(keloOpenCamera(handle, nullptr), KELO_STATUS_SUCCESS);
        }
        if (state < State::kImages) return;
        ASSERT_EQ(keloStartImageAcquisition(handle), KELO_STATUS_SUCCESS);
        for (const uint8_t stream : {0, 1})
            ASSERT_NE(keloGetNextImageTimeout(handle, stream, 20000), nullptr);
    }
};

// What a function is called with; made before, because the memory for it is not the library's.
struct Scene {
    CAM_HANDLE handle;
    const char* firmware;
    IMAGE_BUFFER_HANDLE image;
    uint32_t address;
    uint32_t values[128];
    std::array<char, 4096> decoded;
};

long long Found(const void* pointer) {
    return pointer != nullptr ? 1 : 0;
}

// One exported function: what it gives when all goes well, and what may come instead for want of
// memory.
struct Function {
    const char* name;
    State state;
    std::function<long long(Scene&)> call;
    long long done;
    std::vector<long long> refused;
    bool changes_state = false;  // the state has to be reached anew behind each call
    bool over_tcp = false;
};

constexpr auto kError = static_cast<long long>(KELO_STATUS_ERROR);
constexpr long long kStatusless = 0;

template <typename Call>
auto Void(Call call) {
    return [call](Scene& s) {
        call(s);
        return kStatusless;
    };
}

const std::vector<Function>& Functions() {
    static const std::vector<Function> kFunctions = {
        {"keloInit", State::kNone, [](Scene&) { return keloInit(); }, 0, {kError}, true},
        {"keloRelease", State::kOpen, [](Scene&) { return keloRelease(); }, 0, {}, true},
        {"keloGetVersion", State::kNone, [](Scene&) { return keloGetVersion(); }, 0x02030003, {}},
        {"keloLogging", State::kNone, Void([](Scene&) { keloLogging(1); }), 0, {}},
        {"keloGetInfo",
         State::kNone,
         [](Scene& s) {
             int length = 100;
             return keloGetInfo("BuildInfo", s.decoded.data(), &length);
         },
         0,
         {}},
        {"keloGetInfoInt",
         State::kStarted,
         [](Scene&) {
             int value = 0;
             return keloGetInfoInt("IsMissingFilterDriver", &value);
         },
         0,
         {}},
        {"keloSetImagePacketCommunicatorOptions",
         State::kStarted,
         [](Scene&) { return keloSetImagePacketCommunicatorOptions("UDP 2"); },
         0,
         {kError}},
        {"keloGetCameraInfo",
         State::kKnown,
         [](Scene& s) {
             EXT_CAM_INFO info;
             return keloGetCameraInfo(s.handle, &info);
         },
         0,
         {kError}},
        {"keloSetCameraIP",
         State::kOpen,
         [](Scene& s) { return keloSetCameraIP(s.handle, s.address, 0xFF000000); },
         0,
         {kError},
         true},
        {"keloOpenCamera",
         State::kKnown,
         [](Scene& s) { return keloOpenCamera(s.handle, nullptr); },
         0,
         {kError},
         true},
        {"keloCloseCamera",
         State::kImages,
         [](Scene& s) { return keloCloseCamera(s.handle); },
         0,
         {},
         true},
        {"keloGetRegisterInt",
         State::kKnown,
         [](Scene& s) { return keloGetRegisterInt(s.handle, REG_WIDTH, s.values); },
         0,
         {kError}},
        {"keloSetRegisterInt",
         State::kKnown,
         [](Scene& s) { return keloSetRegisterInt(s.handle, REG_GAIN, s.values); },
         0,
         {kError}},
        {"keloGetRegisterFloat",
         State::kKnown,
         [](Scene& s) {
             float value = 0;
             return keloGetRegisterFloat(s.handle, REG_GAIN, &value);
         },
         0,
         {kError}},
        {"keloSetRegisterFloat",
         State::kKnown,
         [](Scene& s) {
             float value = 1;
             return keloSetRegisterFloat(s.handle, REG_GAIN, &value);
         },
         0,
         {kError}},
        {"keloWriteMemory",
         State::kKnown,
         [](Scene& s) {
             uint32_t count = 1;
             return keloWriteMemory(s.handle, REG_GAIN, &count, s.values);
         },
         0,
         {kError}},
        {"keloWriteMemoryOfTooMuch",
         State::kKnown,
         [](Scene& s) {
             uint32_t count = 129;
             return keloWriteMemory(s.handle, REG_GAIN, &count, s.values);
         },
         kError,
         {kError}},
        {"keloReadMemory",
         State::kKnown,
         [](Scene& s) {
             uint32_t count = 1;
             return keloReadMemory(s.handle, REG_WIDTH, &count, s.values);
         },
         0,
         {kError}},
        {"keloStartImageAcquisition",
         State::kOpen,
         [](Scene& s) { return keloStartImageAcquisition(s.handle); },
         0,
         {kError},
         true},
        {"keloStartImageAcquisitionOverTcp",
         State::kOpen,
         [](Scene& s) { return keloStartImageAcquisition(s.handle); },
         0,
         {kError},
         true,
         true},
        {"keloStopImageAcquisition",
         State::kImages,
         [](Scene& s) { return keloStopImageAcquisition(s.handle); },
         0,
         {kError}},
        {"keloGetPendingImageCount",
         State::kImages,
         [](Scene& s) { return std::min(keloGetPendingImageCount(s.handle, 0), 1); },
         1,
         {-1}},
        {"keloGetNextImage",
         State::kImages,
         [](Scene& s) { return Found(keloGetNextImage(s.handle, 0)); },
         1,
         {0}},
        {"keloGetNextImageTimeout",
         State::kImages,
         [](Scene& s) { return Found(keloGetNextImageTimeout(s.handle, 0, 20000)); },
         1,
         {0}},
        {"keloGetNextDecodedImage",
         State::kImages,
         [](Scene& s) {
             int status = 0;
             return Found(keloGetNextDecodedImage(s.handle, 1, s.decoded.data(), 0,
                                                  static_cast<int>(s.decoded.size()) - 1, &status));
         },
         1,
         {0}},
        {"keloPopImage",
         State::kImages,
         Void([](Scene& s) { keloPopImage(s.handle, 0, s.image); }),
         0,
         {}},
        {"keloIsBufferEmpty",
         State::kImages,
         [](Scene& s) { return keloIsBufferEmpty(s.handle, 0); },
         0,
         {1}},
        {"keloSetBufferSize",
         State::kKnown,
         Void([](Scene& s) { keloSetBufferSize(s.handle, 20); }),
         0,
         {}},
        {"keloClearBuffer",
         State::kImages,
         Void([](Scene& s) { keloClearBuffer(s.handle, 1); }),
         0,
         {}},
        {"keloGetCameraStats",
         State::kImages,
         [](Scene& s) { return keloGetCameraStats(s.handle, s.image).images_received > 0 ? 1 : 0; },
         1,
         {}},
        {"keloGetImageData",
         State::kImages,
         [](Scene& s) { return Found(keloGetImageData(s.image)); },
         1,
         {}},
        {"keloGetImageSize",
         State::kImages,
         [](Scene& s) { return keloGetImageSize(s.image) > 0 ? 1 : 0; },
         1,
         {}},
        {"keloGetHeaderSize",
         State::kImages,
         [](Scene& s) { return keloGetHeaderSize(s.image); },
         0,
         {}},
        {"keloGetImageBytesLost",
         State::kImages,
         [](Scene& s) { return keloGetImageBytesLost(s.image) >= 0 ? 1 : 0; },
         1,
         {}},
        {"keloGetImageNumber",
         State::kImages,
         [](Scene& s) { return keloGetImageNumber(s.image) > 0 ? 1 : 0; },
         1,
         {}},
        {"keloFirmwareProgram",
         State::kOpen,
         [](Scene& s) { return keloFirmwareProgram(s.handle, s.firmware); },
         0,
         {kError}},
        {"keloFirmwareProgramAbort",
         State::kKnown,
         [](Scene& s) { return keloFirmwareProgramAbort(s.handle); },
         0,
         {kError}},
        {"keloFirmwareGetProgress",
         State::kKnown,
         [](Scene& s) {
             int percent = 0;
             return keloFirmwareGetProgress(s.handle, &percent);
         },
         0,
         {kError}},
        {"kelo_crc32",
         State::kNone,
         [](Scene& s) {
             return kelo_crc32(7, reinterpret_cast<const uint8_t*>(s.decoded.data()), 0);
         },
         7,
         {}},
        {"kelo_crc16",
         State::kNone,
         [](Scene& s) { return kelo_crc16(reinterpret_cast<const uint8_t*>(s.decoded.data()), 0); },
         0,
         {}},
    };
    return kFunctions;
}

class Memory : public MemoryFixture, public testing::WithParamInterface<size_t> {
protected:
    Memory() : MemoryFixture(Functions()[GetParam()].over_tcp) {}

    const Function& function = Functions()[GetParam()];

    // One call with that piece of memory refused. Whether it was asked for.
    bool Try(int nth, Extent extent) {
        Scene scene{};
        scene.handle = handle;
        scene.firmware = firmware.c_str();
        scene.address = camera_address(0);
        if (function.state == State::kImages) {
            scene.image = keloGetNextImageTimeout(handle, 0, 20000);
        }
        const auto result = [&] {
            const NoMemory none(nth, extent);
            return function.call(scene);
        }();
        if (result != function.done) {
            EXPECT_TRUE(NoMemory::Happened()) << result;
            EXPECT_THAT(function.refused, testing::Contains(result));
        }
        const bool refused = NoMemory::Happened();
        CleanUp(result == function.done);
        return refused;
    }
    void CleanUp(bool done) {
        if (function.state == State::kNone) {
            keloRelease();
            ExpectNothingLeft();
        }
        if (done && IsFirmwareRun()) AbortRun();
    }
    bool IsFirmwareRun() const { return std::string_view(function.name) == "keloFirmwareProgram"; }
    void ReachAgain() {
        if (function.changes_state) Reach(function.state);
    }
};

TEST_P(Memory, RefusedIsToldAndHarmless) {
    if (!MemoryCanBeRefused()) GTEST_SKIP() << kNotHere;
    constexpr int kRequestsMax = 500;
    FirmwareFile();
    Reach(function.state);
    if (IsFirmwareRun()) SlowRunsDown();
    for (const Extent extent : {Extent::kOne, Extent::kAllFromThere}) {
        bool refused = true;
        for (int nth = 1; refused && nth < kRequestsMax && !HasFailure(); ++nth) {
            SCOPED_TRACE(testing::Message() << "request " << nth << " refused"
                                            << (extent == Extent::kOne ? "" : " and the rest"));
            ReachAgain();
            refused = Try(nth, extent);
        }
        EXPECT_FALSE(refused && !HasFailure());
    }
    ExpectToWork();
}

INSTANTIATE_TEST_SUITE_P(Of, Memory, testing::Range(size_t{0}, Functions().size()),
                         [](const auto& test) { return Functions()[test.param].name; });

// A discovery that fails ends the process, because the registry is then in doubt: each one is made
// by a process of its own.
class MemoryOfDiscover : public testing::Test {
protected:
    MemoryOfDiscover() {
        const camera_setup setup{
            .over_tcp = 0, .cameras = 1, .heartbeat_timeout_ms = 0, .flash_time_ms = 0};
        camera_start(&setup);
    }
    ~MemoryOfDiscover() override { camera_stop(); }

    enum Outcome { kNothingRefused = 0, kGoesOn = 1, kWrong = 2, kAborted = 3 };

    [[noreturn]] static void RunChild(int nth, Extent extent) {
        CAM_HANDLE found[4];
        if (keloInit() != KELO_STATUS_SUCCESS) _exit(kWrong);
        bool refused = false;
        {
            const NoMemory none(nth, extent);
            (void)keloDiscover(found, 4, 5);
            refused = NoMemory::Happened();
        }
        // Who survives it finds the camera by the next one.
        const bool works = WaitFor([&] { return keloDiscover(found, 4, 20) == 1; });
        _exit(!works ? kWrong : refused ? kGoesOn : kNothingRefused);
    }
    static Outcome RunOne(int nth, Extent extent) {
        const LogCapture log;
        const pid_t child = fork();
        if (child == 0) RunChild(nth, extent);
        int status = 0;
        // Without a child, the camera process would be waited for.
        EXPECT_GT(child, 0);
        if (child < 0) return kWrong;
        waitpid(child, &status, 0);
        if (WIFEXITED(status)) return static_cast<Outcome>(WEXITSTATUS(status));
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
        EXPECT_TRUE(log.Contains("Fatal: keloManager->Discover function crashed."));
        return kAborted;
    }
};

TEST_F(MemoryOfDiscover, RefusedEndsTheProcessWithItsLineOrIsMadeGood) {
    if (!MemoryCanBeRefused()) GTEST_SKIP() << kNotHere;
    constexpr int kRequestsMax = 500;
    int aborted = 0;
    for (const Extent extent : {Extent::kOne, Extent::kAllFromThere}) {
        Outcome outcome = kGoesOn;
        for (int nth = 1; outcome != kNothingRefused && nth < kRequestsMax && !HasFailure();
             ++nth) {
            SCOPED_TRACE(testing::Message() << "request " << nth << " refused"
                                            << (extent == Extent::kOne ? "" : " and the rest"));
            outcome = RunOne(nth, extent);
            EXPECT_NE(outcome, kWrong);
            aborted += outcome == kAborted ? 1 : 0;
        }
        EXPECT_EQ(outcome, kNothingRefused);
    }
    EXPECT_GT(aborted, 0);
}

class MemoryOfTheLibrary : public ExhaustionTest, public testing::WithParamInterface<bool> {
protected:
    MemoryOfTheLibrary() : ExhaustionTest(GetParam()) {}
};

TEST_P(MemoryOfTheLibrary, ThreadsLoseWhatNeedsItAndGoOn) {
    if (!MemoryCanBeRefused()) GTEST_SKIP() << kNotHere;
    ExpectToWork();
    {
        const NoMemoryForOthers none;
        for (const uint8_t stream : {0, 1})
            keloClearBuffer(handle, stream);
        EXPECT_TRUE(WaitFor([] { return NoMemoryForOthers::Count() > 10; }));
        uint32_t width = 0;
        EXPECT_EQ(keloGetRegisterInt(handle, REG_WIDTH, &width), KELO_STATUS_SUCCESS);
    }
    ExpectNewImages();
}

INSTANTIATE_TEST_SUITE_P(Over, MemoryOfTheLibrary, testing::Bool(),
                         [](const auto& test) { return test.param ? "Tcp" : "Udp"; });

}  // namespace
}  // namespace kelo::test
