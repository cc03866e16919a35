#include <array>

#include "fault_fixture.h"
#include "stranger.h"
#include "wire_client.h"

namespace kelo::test {
namespace {

using kelosim::test::operator+;

constexpr uint32_t kHost = Address(127, 0, 0, 1);
constexpr uint32_t kAlways = UINT32_MAX;

// How long a request waits until its first so many attempts have been given up.
constexpr milliseconds GivenUpAfter(uint32_t attempts) {
    milliseconds time(0);
    for (uint32_t attempt = 1; attempt <= std::min(attempts, 4u); ++attempt)
        time += attempt * milliseconds(250);
    return time;
}

// In what a request with so many lost replies may take before the machine, and not the library, is
// the reason of a further attempt.
constexpr milliseconds Limit(uint32_t lost) {
    return lost == kAlways ? GivenUpAfter(4) + seconds(10) : GivenUpAfter(lost + 1);
}

std::string LossName(const testing::TestParamInfo<uint32_t>& test) {
    constexpr const char* kNames[] = {"", "Once", "Twice", "ThreeTimes"};
    return test.param == kAlways ? "Always" : kNames[test.param];
}

class EveryReplyLost : public FaultTest, public testing::WithParamInterface<uint32_t> {
protected:
    using Request = KELO_API_STATUS (*)(CAM_HANDLE);

    static KELO_API_STATUS ReadOne(CAM_HANDLE handle) {
        uint32_t value = 0;
        const KELO_API_STATUS status = keloGetRegisterInt(handle, REG_GAIN, &value);
        EXPECT_EQ(value, status == KELO_STATUS_SUCCESS ? 5u : 0u);
        return status;
    }
    static KELO_API_STATUS WriteOne(CAM_HANDLE handle) { return Set(handle, REG_GAIN, 5); }
    static KELO_API_STATUS ReadMany(CAM_HANDLE handle) {
        uint32_t values[128] = {};
        uint32_t count = 2;
        const KELO_API_STATUS status = keloReadMemory(handle, REG_OFFSETX, &count, values);
        EXPECT_EQ(values[1], status == KELO_STATUS_SUCCESS ? 7u : 0u);
        return status;
    }
    static KELO_API_STATUS WriteMany(CAM_HANDLE handle) {
        uint32_t values[128] = {6, 7};
        uint32_t count = 2;
        return keloWriteMemory(handle, REG_OFFSETX, &count, values);
    }
    static constexpr std::array<Request, 4> kRequests{ReadOne, WriteOne, ReadMany, WriteMany};

    // Whether the attempt was one that the machine let run in time; then it has been judged.
    static bool Judge(kelosim::Camera& camera, CAM_HANDLE handle, Request request) {
        const uint32_t lost = GetParam();
        camera.SetRegister(REG_GAIN, 5);
        camera.SetRegister(REG_OFFSETY, 7);
        camera.ClearRequests();
        camera.UpdateFaults([&](kelosim::Faults& faults) { faults.drop_replies = lost; });
        const Stopwatch time;
        const KELO_API_STATUS status = request(handle);
        if (time.Elapsed() >= Limit(lost)) return false;
        EXPECT_EQ(status, lost == kAlways ? KELO_STATUS_NO_RESPONSE : KELO_STATUS_SUCCESS);
        EXPECT_GE(time.Elapsed(), GivenUpAfter(lost) - milliseconds(10));
        const auto requests = camera.Requests();
        EXPECT_EQ(requests.size(), lost == kAlways ? 4 : lost + 1);
        for (size_t i = 1; i < requests.size(); ++i) {
            EXPECT_EQ(requests[i].message_number, requests[i - 1].message_number + 1);
            EXPECT_EQ(requests[i].command, requests[0].command);
            EXPECT_EQ(requests[i].register_number, requests[0].register_number);
        }
        return true;
    }
};

// Each kind of request on a camera of its own, side by side: the waits are long.
TEST_P(EveryReplyLost, OfEachKindOfRequest) {
    AddCameras(kRequests.size());
    simulator.Start();
    const auto handles = DiscoverAll(kRequests.size());
    std::vector<std::thread> threads;
    for (size_t i = 0; i < kRequests.size(); ++i) {
        threads.emplace_back([&, i] {
            const CAM_HANDLE handle = Among(handles, simulator[i].address());
            RepeatUntilInTime([&] { return Judge(simulator[i], handle, kRequests[i]); });
        });
    }
    for (auto& thread : threads)
        thread.join();
}

INSTANTIATE_TEST_SUITE_P(Times, EveryReplyLost, testing::Values(1, 2, 3, kAlways), LossName);

// One answer of a session's life, and whether opening and starting go on without it.
struct Step {
    uint32_t reg;
    KELO_API_STATUS open_without = KELO_STATUS_SUCCESS;
    KELO_API_STATUS start_without = KELO_STATUS_SUCCESS;
};

constexpr Step kSteps[] = {
    {REG_CAMERA_USED, KELO_STATUS_ERROR},
    {REG_HEARTBEAT_TIMEOUT, KELO_STATUS_ERROR},
    {REG_MAX_STREAMS_MASK, KELO_STATUS_ERROR},
    {REG_TCP_STREAMPORT},  // an old camera does without
    {REG_STREAMPORT, KELO_STATUS_ERROR},
    {REG_MTU, KELO_STATUS_ERROR},
    {REG_USED_STREAMS_MASK, KELO_STATUS_SUCCESS, KELO_STATUS_ERROR},
    {REG_STREAM0_FORMAT, KELO_STATUS_SUCCESS, KELO_STATUS_ERROR},
    {REG_STREAM0_HEADER_SIZE, KELO_STATUS_SUCCESS, KELO_STATUS_ERROR},
    {REG_STREAM0_HEADER_FORMAT, KELO_STATUS_SUCCESS, KELO_STATUS_ERROR},
    {REG_STREAM0_FRAME_SIZE, KELO_STATUS_SUCCESS, KELO_STATUS_ERROR},
    {REG_STREAM0_OPTIONS},  // as above
    {REG_ACQUISITIONSTART, KELO_STATUS_SUCCESS, KELO_STATUS_NO_RESPONSE},
    {REG_ACQUISITIONSTOP},
};

class EveryStepOfASession : public FaultTest, public testing::WithParamInterface<uint32_t> {
protected:
    EveryStepOfASession() {
        // Images of one packet cannot be cut in two by a machine that stands still.
        kelosim::CameraConfig base;
        base.streams[0].source = kelosim::MakeBytes(1000, 50, 20);
        base.streams[0].frame_rate = 200;
        AddCameras(static_cast<int>(std::size(kSteps)), base);
        simulator.Start();
        handles_ = DiscoverAll(std::size(kSteps));
    }
    // live(step, camera, handle) for every step, side by side, until it was in time.
    template <typename Live>
    void ForEachStep(const Live& live) {
        std::vector<std::thread> threads;
        for (size_t i = 0; i < std::size(kSteps); ++i) {
            threads.emplace_back([&, i] {
                SCOPED_TRACE("register " + std::to_string(kSteps[i].reg));
                const CAM_HANDLE handle = Among(handles_, simulator[i].address());
                RepeatUntilInTime([&] { return live(kSteps[i], simulator[i], handle); });
            });
        }
        for (auto& thread : threads)
            thread.join();
    }
    static void Lose(kelosim::Camera& camera, const Step& step, uint32_t replies) {
        camera.UpdateFaults([&](kelosim::Faults& faults) {
            faults.drop_replies = replies;
            faults.drop_replies_register = step.reg;
        });
    }
    static void ExpectImages(const kelosim::Camera& camera, CAM_HANDLE handle) {
        for (uint32_t number = 1; number <= 3; ++number) {
            const Image image = Take(handle);
            EXPECT_TRUE(image.arrived);
            EXPECT_EQ(image.number, number);
            EXPECT_EQ(image.data, camera.config().streams[0].Frame(number));
        }
    }

    std::vector<CAM_HANDLE> handles_;
};

TEST_P(EveryStepOfASession, IsMadeGoodByRetries) {
    const uint32_t lost = GetParam();
    ForEachStep([&](const Step& step, kelosim::Camera& camera, CAM_HANDLE handle) {
        camera.ClearRequests();
        Lose(camera, step, lost);
        const Stopwatch time;
        const KELO_API_STATUS opened = keloOpenCamera(handle, nullptr);
        const KELO_API_STATUS started = keloStartImageAcquisition(handle);
        const bool in_time = time.Elapsed() < milliseconds(100) + Limit(lost);
        if (in_time) {
            EXPECT_EQ(opened, KELO_STATUS_SUCCESS);
            EXPECT_EQ(started, KELO_STATUS_SUCCESS);
            EXPECT_TRUE(camera.used());
            ExpectImages(camera, handle);
        }
        Lose(camera, step, lost);
        EXPECT_EQ(keloStopImageAcquisition(handle), KELO_STATUS_SUCCESS);
        EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
        Lose(camera, step, 0);
        if (!in_time) return false;
        EXPECT_FALSE(camera.used());
        EXPECT_TRUE(WaitFor([&] { return !camera.acquiring(); }));
        return true;
    });
}

INSTANTIATE_TEST_SUITE_P(Times, EveryStepOfASession, testing::Values(1, 2, 3), LossName);

using AStepOfASession = EveryStepOfASession;

TEST_P(AStepOfASession, ThatIsNeverAnsweredFailsOnlyWhatNeedsIt) {
    ForEachStep([&](const Step& step, kelosim::Camera& camera, CAM_HANDLE handle) {
        // Starting waits for its own answer twice, and so for 6 s.
        if (step.reg == REG_ACQUISITIONSTART || step.reg == REG_ACQUISITIONSTOP) return true;
        camera.SetRegister(REG_HEARTBEAT_TIMEOUT, 100000);
        Lose(camera, step, kAlways);
        EXPECT_EQ(keloOpenCamera(handle, nullptr), step.open_without);
        if (step.open_without == KELO_STATUS_SUCCESS) {
            EXPECT_EQ(keloStartImageAcquisition(handle), step.start_without);
            if (step.start_without == KELO_STATUS_SUCCESS) ExpectImages(camera, handle);
        }
        // Nothing of it lasts.
        Lose(camera, step, 0);
        EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
        EXPECT_EQ(keloOpenCamera(handle, nullptr), KELO_STATUS_SUCCESS);
        EXPECT_EQ(keloStartImageAcquisition(handle), KELO_STATUS_SUCCESS);
        ExpectImages(camera, handle);
        EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
        return true;
    });
}

INSTANTIATE_TEST_SUITE_P(Times, AStepOfASession, testing::Values(kAlways), LossName);

// Every answer comes so much too late; so many attempts have been made when one is in time.
struct Lateness {
    const char* name;
    uint32_t delay_ms;
    size_t attempts;
    KELO_API_STATUS status;
};

class LateReplies : public FaultTest, public testing::WithParamInterface<Lateness> {
protected:
    size_t Discarded() const {
        const auto lines = log.Lines();
        return static_cast<size_t>(
            std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
                return line.rfind("discarded message from camera our msg num", 0) == 0;
            }));
    }
    static size_t CountQuestions(const kelosim::Camera& camera, uint32_t reg) {
        const auto requests = camera.Requests();
        return static_cast<size_t>(
            std::count_if(requests.begin(), requests.end(),
                          [&](const auto& request) { return request.register_number == reg; }));
    }
    // When the camera's answer to that attempt comes.
    static milliseconds Answer(size_t attempt) {
        return GivenUpAfter(static_cast<uint32_t>(attempt) - 1) + milliseconds(GetParam().delay_ms);
    }
    static void Delay(kelosim::Camera& camera, uint32_t delay_ms) {
        camera.UpdateFaults([&](kelosim::Faults& faults) { faults.reply_delay_ms = delay_ms; });
    }
};

TEST_P(LateReplies, AreNeverTakenForTheAnswerToAnotherRequest) {
    const Lateness& late = GetParam();
    kelosim::Camera& camera = StartOne();
    const CAM_HANDLE handle = Find(camera);
    camera.SetRegister(REG_GAIN, 5);
    camera.SetRegister(REG_EXPOSURETIME, 6);
    RepeatUntilInTime([&] {
        const size_t before = Discarded();
        camera.ClearRequests();
        Delay(camera, late.delay_ms);
        uint32_t value = 0;
        const Stopwatch time;
        const KELO_API_STATUS status = keloGetRegisterInt(handle, REG_GAIN, &value);
        const auto took = time.Elapsed();
        Delay(camera, 0);
        // Its answers to the first question may still be on their way.
        EXPECT_EQ(Get(handle, REG_EXPOSURETIME), 6u);
        const size_t attempts = CountQuestions(camera, REG_GAIN);
        EXPECT_TRUE(WaitFor([&] { return Discarded() >= before + attempts - 1; }));
        EXPECT_EQ(Get(handle, REG_EXPOSURETIME), 6u);
        const bool answered = status == KELO_STATUS_SUCCESS;
        EXPECT_EQ(value, answered ? 5u : 0u);
        // An attempt that the machine made wait for longer has got its own answer.
        const bool held_up = answered && attempts < late.attempts && took >= Answer(attempts);
        const milliseconds limit =
            milliseconds(100) + (answered ? Answer(late.attempts) : GivenUpAfter(4));
        if (held_up || took >= limit) return false;
        EXPECT_EQ(status, late.status);
        EXPECT_EQ(attempts, late.attempts);
        return true;
    });
}

INSTANTIATE_TEST_SUITE_P(By, LateReplies,
                         testing::Values(Lateness{"300ms", 300, 2, KELO_STATUS_SUCCESS},
                                         Lateness{"600ms", 600, 3, KELO_STATUS_SUCCESS},
                                         Lateness{"1100ms", 1100, 4, KELO_STATUS_NO_RESPONSE}),
                         [](const auto& test) { return std::string("By") + test.param.name; });

// Who answers instead of the camera, and with a number how far from the right one.
struct Impostor {
    const char* name;
    uint32_t address;
    uint32_t number_offset;
    const char* refusal;  // the beginning of the log line
};

class Impostors : public FaultTest, public testing::WithParamInterface<Impostor> {};

TEST_P(Impostors, AreNotHeard) {
    const Impostor& impostor = GetParam();
    AddCameras(2);
    simulator.Start();
    kelosim::Camera& camera = simulator[0];
    const CAM_HANDLE handle = Among(DiscoverAll(2), camera.address());
    camera.SetRegister(REG_GAIN, 5);
    Stranger stranger(impostor.address, 1);
    constexpr milliseconds kDelay(150);
    RepeatUntilInTime([&] {
        camera.ClearRequests();
        camera.UpdateFaults([&](kelosim::Faults& faults) {
            faults.reply_delay_ms = kDelay.count();
            faults.delayed_replies = 1;
        });
        const size_t log_before = log.Text().size();
        std::atomic<bool> answered{false};
        uint32_t value = 0;
        std::thread reader([&] {
            value = Get(handle, REG_GAIN);
            answered = true;
        });
        EXPECT_TRUE(WaitFor([&] { return !camera.Requests().empty(); }));
        const auto request = camera.Requests().front();
        stranger.Send(
            kelosim::test::ControlHeader(5, request.message_number + impostor.number_offset) +
                kelosim::test::Be32(REG_GAIN * 4) + kelosim::test::Be32(0xBAD),
            kHost, request.from_port);
        EXPECT_TRUE(WaitFor([&] {
            return answered || log.Text().find(impostor.refusal, log_before) != std::string::npos;
        }));
        // Nobody else says anything of that kind, so it was refused before the answer came.
        const bool in_time = !answered;
        reader.join();
        // The number to come is right when the question is asked again.
        if (value != 5 && WaitFor([&] { return camera.Requests().size() > 1; }, seconds(5))) {
            return false;
        }
        EXPECT_EQ(value, 5u);
        return in_time;
    });
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, Impostors,
    testing::Values(Impostor{"AStrangerWithTheRightNumber", Address(127, 0, 77, 77), 0,
                             "unknown response."},
                    Impostor{"AnotherCameraWithTheRightNumber", Address(127, 0, 0, 12), 0,
                             "discarded message from camera"},
                    Impostor{"TheCamerasAddressWithAnOldNumber", Address(127, 0, 0, 11), UINT32_MAX,
                             "discarded message from camera"},
                    Impostor{"TheCamerasAddressWithANumberToCome", Address(127, 0, 0, 11), 1,
                             "discarded message from camera"}),
    [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace kelo::test
