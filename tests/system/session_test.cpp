#include <cstring>

#include "system_fixture.h"

namespace kelo::test {
namespace {

using Registers = SystemTest;

TEST_F(Registers, AreReadAndWritten) {
    kelosim::Camera& camera = StartOne();
    const CAM_HANDLE handle = Find(camera);
    EXPECT_EQ(Set(handle, REG_EXPOSURETIME, 1234), KELO_STATUS_SUCCESS);
    EXPECT_EQ(camera.GetRegister(REG_EXPOSURETIME), 1234u);
    EXPECT_EQ(Get(handle, REG_EXPOSURETIME), 1234u);
}

TEST_F(Registers, CarryFloatsAsTheyAre) {
    kelosim::Camera& camera = StartOne();
    const CAM_HANDLE handle = Find(camera);
    camera.SetRegister(REG_GAIN, 0x3F800000);
    float value = 0;
    EXPECT_EQ(keloGetRegisterFloat(handle, REG_GAIN, &value), KELO_STATUS_SUCCESS);
    EXPECT_EQ(value, 1.0F);
    value = -2.5F;
    EXPECT_EQ(keloSetRegisterFloat(handle, REG_GAIN, &value), KELO_STATUS_SUCCESS);
    EXPECT_EQ(camera.GetRegister(REG_GAIN), 0xC0200000u);
    EXPECT_EQ(value, -2.5F);
}

TEST_F(Registers, ThatTheCameraDoesNotHaveAreOutOfRange) {
    const CAM_HANDLE handle = Find(StartOne());
    uint32_t value = 0;
    EXPECT_EQ(keloGetRegisterInt(handle, 9999, &value), KELO_STATUS_OUT_OF_RANGE);
    EXPECT_EQ(keloSetRegisterInt(handle, 9999, &value), KELO_STATUS_OUT_OF_RANGE);
    float number = 0;
    EXPECT_EQ(keloGetRegisterFloat(handle, 9999, &number), KELO_STATUS_OUT_OF_RANGE);
}

TEST_F(Registers, NullPointersAreRefusedEvenForUnknownHandles) {
    EXPECT_EQ(keloGetRegisterInt(1, REG_WIDTH, nullptr), KELO_STATUS_ERROR);
    EXPECT_EQ(keloSetRegisterInt(1, REG_WIDTH, nullptr), KELO_STATUS_ERROR);
    EXPECT_EQ(keloGetRegisterFloat(1, REG_WIDTH, nullptr), KELO_STATUS_ERROR);
    EXPECT_EQ(keloSetRegisterFloat(1, REG_WIDTH, nullptr), KELO_STATUS_ERROR);
    const CAM_HANDLE handle = Find(StartOne());
    EXPECT_EQ(keloGetCameraInfo(handle, nullptr), KELO_STATUS_ERROR);
    EXPECT_EQ(keloWriteMemory(handle, 0, nullptr, nullptr), KELO_STATUS_ERROR);
    EXPECT_EQ(keloReadMemory(handle, 0, nullptr, nullptr), KELO_STATUS_ERROR);
    EXPECT_EQ(keloFirmwareProgram(handle, nullptr), KELO_STATUS_ERROR);
    EXPECT_EQ(keloFirmwareGetProgress(handle, nullptr), KELO_STATUS_ERROR);
}

TEST_F(Registers, MemoryOfConsecutiveRegisters) {
    kelosim::Camera& camera = StartOne();
    const CAM_HANDLE handle = Find(camera);
    uint32_t values[128] = {640, 480};
    uint32_t count = 2;
    EXPECT_EQ(keloWriteMemory(handle, REG_OFFSETX, &count, values), KELO_STATUS_SUCCESS);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(camera.GetRegister(REG_OFFSETY), 480u);
    uint32_t read[128] = {};
    EXPECT_EQ(keloReadMemory(handle, REG_OFFSETX, &count, read), KELO_STATUS_SUCCESS);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(read[0], 640u);
    EXPECT_EQ(read[1], 480u);
    count = 129;
    EXPECT_EQ(keloWriteMemory(handle, REG_OFFSETX, &count, values), KELO_STATUS_ERROR);
}

class LostReplies : public SystemTest, public testing::WithParamInterface<uint32_t> {};

TEST_P(LostReplies, UpToThreeAreMadeGoodByRetries) {
    kelosim::Camera& camera = StartOne();
    const CAM_HANDLE handle = Find(camera);
    camera.SetRegister(REG_GAIN, 5);
    // Until the attempt that is answered would be given up.
    milliseconds limit(0);
    for (uint32_t attempt = 1; attempt <= GetParam() + 1; ++attempt)
        limit += attempt * milliseconds(250);
    RepeatUntilInTime([&] {
        camera.ClearRequests();
        camera.UpdateFaults([&](kelosim::Faults& faults) { faults.drop_replies = GetParam(); });
        uint32_t value = 0;
        const Stopwatch time;
        const KELO_API_STATUS status = keloGetRegisterInt(handle, REG_GAIN, &value);
        if (time.Elapsed() >= limit) return false;
        EXPECT_EQ(status, KELO_STATUS_SUCCESS);
        EXPECT_EQ(value, 5u);
        const auto requests = camera.Requests();
        EXPECT_EQ(requests.size(), GetParam() + 1);
        for (size_t i = 1; i < requests.size(); ++i) {
            EXPECT_EQ(requests[i].message_number, requests[i - 1].message_number + 1);
        }
        return true;
    });
}

INSTANTIATE_TEST_SUITE_P(Counts, LostReplies, testing::Values(1, 2, 3));

TEST_F(Registers, ACameraThatNeverAnswersIsLeft) {
    kelosim::Camera& camera = StartOne();
    const CAM_HANDLE handle = Find(camera);
    camera.UpdateFaults([](kelosim::Faults& faults) { faults.silent = true; });
    uint32_t value = 0;
    const auto begin = steady_clock::now();
    EXPECT_EQ(keloGetRegisterInt(handle, REG_GAIN, &value), KELO_STATUS_NO_RESPONSE);
    EXPECT_GE(steady_clock::now() - begin, milliseconds(2490));
}

TEST_F(Registers, ALateReplyIsDiscarded) {
    kelosim::Camera& camera = StartOne();
    const CAM_HANDLE handle = Find(camera);
    camera.SetRegister(REG_GAIN, 5);
    const auto discarded = [&] {
        const auto lines = log.Lines();
        return std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
            return line.rfind("discarded message from camera our msg num", 0) == 0;
        });
    };
    // Later than the first attempt waits, and the second one is answered before.
    constexpr milliseconds kDelay(400);
    RepeatUntilInTime([&] {
        camera.UpdateFaults([&](kelosim::Faults& faults) {
            faults.reply_delay_ms = kDelay.count();
            faults.delayed_replies = 1;
        });
        const auto before = discarded();
        const Stopwatch time;
        EXPECT_EQ(Get(handle, REG_GAIN), 5u);
        if (time.Elapsed() >= kDelay) return false;
        EXPECT_TRUE(WaitFor([&] { return discarded() > before; }));
        return true;
    });
}

struct Falsification {
    const char* name;
    kelosim::ReplyLie lie;
    KELO_API_STATUS status;
};

class FalseReplies : public SystemTest, public testing::WithParamInterface<Falsification> {};

TEST_P(FalseReplies, AreNotMistakenForTheAnswer) {
    kelosim::Camera& camera = StartOne();
    const CAM_HANDLE handle = Find(camera);
    camera.SetRegister(REG_GAIN, 5);
    camera.UpdateFaults([](kelosim::Faults& faults) { faults.replies = {GetParam().lie}; });
    uint32_t value = 7;
    EXPECT_EQ(keloGetRegisterInt(handle, REG_GAIN, &value), GetParam().status);
    EXPECT_EQ(value, GetParam().status == KELO_STATUS_SUCCESS ? 5u : 7u);
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, FalseReplies,
    testing::Values(
        Falsification{"Number", {.count = 1, .number_offset = 77}, KELO_STATUS_SUCCESS},
        Falsification{"Magic", {.count = 1, .magic = 0xAC}, KELO_STATUS_SUCCESS},
        Falsification{"Command", {.count = 1, .command = 12}, KELO_STATUS_SUCCESS},
        Falsification{"Truncated", {.count = 1, .truncate_to = 14}, KELO_STATUS_SUCCESS},
        Falsification{"StatusError", {.status = 2}, KELO_STATUS_ERROR},
        Falsification{"StatusRange", {.status = 3}, KELO_STATUS_OUT_OF_RANGE},
        Falsification{
            "LongerThanAnyRecord", {.count = 1, .extra_bytes = 900}, KELO_STATUS_SUCCESS}),
    [](const auto& test) { return test.param.name; });

using Sessions = SystemTest;

TEST_F(Sessions, OpenClaimsAndCloseFreesTheCamera) {
    kelosim::Camera& camera = StartOne();
    const CAM_HANDLE handle = Open(camera);
    EXPECT_TRUE(camera.used());
    EXPECT_EQ(Get(handle, REG_CAMERA_USED), 1u);
    EXPECT_NE(camera.GetRegister(REG_STREAMPORT), 0u);
    EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
    EXPECT_FALSE(camera.used());
    EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
    EXPECT_EQ(CloseEvents::count, 0);
}

TEST_F(Sessions, ManyThreadsMayUseOneCamera) {
    kelosim::Camera& camera = StartOne();
    const CAM_HANDLE handle = Open(camera);
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < 4; ++t) {
        threads.emplace_back([=] {
            const uint32_t reg = REG_TRIGGERSELECTOR + t;
            for (uint32_t i = 0; i < 100; ++i) {
                EXPECT_EQ(Set(handle, reg, i), KELO_STATUS_SUCCESS);
                EXPECT_EQ(Get(handle, reg), i);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
}

}  // namespace
}  // namespace kelo::test
