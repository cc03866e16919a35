#include <chrono>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake_camera.h"
#include "in_time.h"
#include "kelo_registers.h"
#include "log_capture.h"

namespace kelo::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::ElementsAreArray;

class Requests : public testing::Test {
protected:
    LogCapture log;
    FakeSession session;
    FakeCamera& fake = *session.fake;
    KELOCamera& camera = *session.camera;
};

TEST_F(Requests, RegisterReadOnTheWire) {
    fake.registers[REG_WIDTH] = 0x01020304;
    uint32_t value = 0;
    EXPECT_EQ(camera.getRegisterValue(REG_WIDTH, value), KELO_STATUS_SUCCESS);
    EXPECT_EQ(value, 0x01020304u);
    EXPECT_EQ(fake.last_ip.load(), 0x7F00000Bu);
    EXPECT_EQ(fake.last_port.load(), 6061);
    EXPECT_THAT(fake.Requests().at(0).bytes,
                ElementsAreArray({0xAB, 0, 0, 0, 0, 4, 0, 0, 0, 2, 0, 0, 0, 1,  // header
                                  0,    0, 0, 8, 0, 0, 0, 0}));
}

TEST_F(Requests, RegisterWriteOnTheWireAddressesByBytes) {
    uint32_t value = 0x0A0B0C0D;
    EXPECT_EQ(camera.setRegisterValue(REG_MTU, value), KELO_STATUS_SUCCESS);
    EXPECT_THAT(
        fake.Requests().at(0).bytes,
        ElementsAreArray({0xAB, 0, 0,    0,    0,    6,    0,    0,   0, 2, 0, 0, 0, 1,  // header
                          0,    0, 0x05, 0x04, 0x0A, 0x0B, 0x0C, 0x0D}));
}

TEST_F(Requests, AWriteStoresTheValueThatTheCameraReports) {
    fake.silent = true;
    fake.on_request = [&](const SeenRequest& request) {
        const Bytes reply = Datagram(7, request.number, 1, {REG_GAIN * 4, 77});
        camera.OnRcv(0, reply.data(), static_cast<int>(reply.size()), 0);
    };
    uint32_t value = 5;
    EXPECT_EQ(camera.setRegisterValue(REG_GAIN, value), KELO_STATUS_SUCCESS);
    EXPECT_EQ(value, 77u);
}

TEST_F(Requests, MemoryReadOnTheWire) {
    fake.registers[100] = 7;
    fake.registers[101] = 0xFFFFFFFF;
    uint32_t count = 2;
    uint32_t values[128] = {};
    EXPECT_EQ(camera.readMemory(100, count, values), KELO_STATUS_SUCCESS);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(values[0], 7u);
    EXPECT_EQ(values[1], 0xFFFFFFFFu);
    EXPECT_THAT(fake.Requests().at(0).bytes,
                ElementsAreArray({0xAB, 0, 0,    0,    0, 8, 0, 0, 0, 2, 0, 0, 0, 1,  // header
                                  0,    0, 0x01, 0x90, 0, 0, 0, 2}));
}

TEST_F(Requests, MemoryWriteOnTheWire) {
    uint32_t count = 2;
    const uint32_t values[] = {0x01020304, 0xA0B0C0D0};
    EXPECT_EQ(camera.writeMemory(100, count, values, -1, nullptr), KELO_STATUS_SUCCESS);
    EXPECT_THAT(
        fake.Requests().at(0).bytes,
        ElementsAreArray({0xAB, 0, 0,    0,    0,    10,   0,    0,   0, 2, 0, 0, 0, 1,  // header
                          0,    0, 0x01, 0x90, 0,    0,    0,    2,                      //
                          1,    2, 3,    4,    0xA0, 0xB0, 0xC0, 0xD0}));
}

TEST_F(Requests, MemoryWriteOf128RegistersHas534BytesAndOf0Has22) {
    const std::vector<uint32_t> values(128);
    uint32_t count = 128;
    EXPECT_EQ(camera.writeMemory(0, count, values.data(), -1, nullptr), KELO_STATUS_SUCCESS);
    EXPECT_EQ(fake.Requests().at(0).bytes.size(), 534u);
    count = 0;
    EXPECT_EQ(camera.writeMemory(0, count, values.data(), -1, nullptr), KELO_STATUS_SUCCESS);
    EXPECT_EQ(fake.Requests().at(1).bytes.size(), 22u);
}

TEST_F(Requests, MemoryWriteOf129RegistersSendsNothing) {
    const std::vector<uint32_t> values(129);
    uint32_t count = 129;
    EXPECT_EQ(camera.writeMemory(0, count, values.data(), -1, nullptr), KELO_STATUS_ERROR);
    EXPECT_TRUE(fake.Requests().empty());
    EXPECT_EQ(log.Count("Error: KELOCamera::MemWrite register count too high: 129 > 128"), 1u);
}

TEST_F(Requests, MemoryWriteReportsTheCountThatTheCameraWrote) {
    fake.memory_count_lie = 1;
    uint32_t count = 2;
    const uint32_t values[] = {1, 2};
    EXPECT_EQ(camera.writeMemory(100, count, values, -1, nullptr), KELO_STATUS_SUCCESS);
    EXPECT_EQ(count, 1u);
}

TEST_F(Requests, MoreRegistersThanAskedForAreStoredWithAMessage) {
    fake.memory_count_lie = 6;
    for (uint32_t i = 0; i < 6; ++i)
        fake.registers[100 + i] = i + 1;
    uint32_t count = 4;
    uint32_t values[128] = {};
    EXPECT_EQ(camera.readMemory(100, count, values), KELO_STATUS_SUCCESS);
    EXPECT_EQ(count, 6u);
    EXPECT_EQ(values[5], 6u);
    EXPECT_EQ(log.Count("Bug?: ERROR: readMemory(uint32_t start_reg_num, uint32_t &count, "
                        "uint32_t values[] - response.Count > count"),
              1u);
}

TEST_F(Requests, TheThirdAttemptIsAnswered) {
    fake.requests_to_ignore = 2;
    fake.registers[REG_WIDTH] = 9;
    uint32_t value = 0;
    const auto begin = steady_clock::now();
    EXPECT_EQ(camera.getRegisterValue(REG_WIDTH, value), KELO_STATUS_SUCCESS);
    EXPECT_EQ(value, 9u);
    EXPECT_GE(steady_clock::now() - begin, milliseconds(740));
    const auto seen = fake.Requests();
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_THAT((std::vector{seen[0].number, seen[1].number, seen[2].number}),
                ElementsAre(2, 3, 4));
}

TEST_F(Requests, FourAttemptsAreLeftWithoutAnAnswer) {
    fake.silent = true;
    uint32_t value = 42;
    const auto begin = steady_clock::now();
    EXPECT_EQ(camera.setRegisterValue(REG_WIDTH, value), KELO_STATUS_NO_RESPONSE);
    EXPECT_GE(steady_clock::now() - begin, milliseconds(2490));
    EXPECT_EQ(fake.Requests().size(), 4u);
    EXPECT_EQ(value, 42u);
    EXPECT_EQ(log.Count("KELOCamera::setRegisterValue(reg_num 0x00000002, val 0x0000002A) error = "
                        "-4 (KELO_STATUS_NO_RESPONSE)"),
              1u);
}

struct ErrorReply {
    uint32_t wire;
    KELO_API_STATUS status;
    const char* text;
};

class ErrorReplies : public Requests, public testing::WithParamInterface<ErrorReply> {};

TEST_P(ErrorReplies, AreReturnedAtOnceAndLogged) {
    fake.statuses[REG_GAIN] = {GetParam().wire, GetParam().wire};
    uint32_t value = 0x10;
    EXPECT_EQ(camera.getRegisterValue(REG_GAIN, value), GetParam().status);
    EXPECT_EQ(camera.setRegisterValue(REG_GAIN, value), GetParam().status);
    EXPECT_EQ(value, 0x10u);
    EXPECT_EQ(fake.Requests().size(), 2u);
    const std::string ending =
        " error = " + std::to_string(GetParam().status) + " (" + GetParam().text + ")";
    EXPECT_EQ(log.Count("KELOCamera::getRegisterValue(reg_num 0x00000020)" + ending), 1u);
    EXPECT_EQ(
        log.Count("KELOCamera::setRegisterValue(reg_num 0x00000020, val 0x00000010)" + ending), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Statuses, ErrorReplies,
    testing::Values(ErrorReply{2, KELO_STATUS_ERROR, "KELO_STATUS_ERROR"},
                    ErrorReply{4, KELO_STATUS_ERROR, "KELO_STATUS_ERROR"},
                    ErrorReply{0xFFFFFFFF, KELO_STATUS_ERROR, "KELO_STATUS_ERROR"},
                    ErrorReply{3, KELO_STATUS_OUT_OF_RANGE, "KELO_STATUS_OUT_OF_RANGE"}));

TEST_F(Requests, AMemoryErrorIsReturnedWithoutALine) {
    fake.unmapped = {100};
    const size_t lines = log.Lines().size();
    uint32_t count = 1;
    uint32_t values[128] = {};
    EXPECT_EQ(camera.readMemory(100, count, values), KELO_STATUS_OUT_OF_RANGE);
    EXPECT_EQ(camera.writeMemory(100, count, values, -1, nullptr), KELO_STATUS_OUT_OF_RANGE);
    EXPECT_EQ(log.Lines().size(), lines);
    EXPECT_EQ(count, 1u);
}

TEST_F(Requests, ALateReplyIsDiscardedOnceTheNextAttemptIsOut) {
    fake.requests_to_ignore = 1;
    fake.on_request = [&](const SeenRequest& request) {
        if (request.number != 3) return;
        const Bytes late = Datagram(5, 2, 1, {8, 1111});
        camera.OnRcv(0, late.data(), static_cast<int>(late.size()), 0);
    };
    fake.registers[REG_WIDTH] = 5;
    uint32_t value = 0;
    EXPECT_EQ(camera.getRegisterValue(REG_WIDTH, value), KELO_STATUS_SUCCESS);
    EXPECT_EQ(value, 5u);
    EXPECT_EQ(log.Count("discarded message from camera our msg num != rcvd msg num 3 != 2"), 1u);
}

TEST_F(Requests, AnEndlessWaitWithAnAbortFlagIsUnsupported) {
    bool abort = false;
    try {
        camera.WaitForResponse(-1, &abort);
        FAIL() << "nothing was thrown";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Unsupported");
    }
}

TEST_F(Requests, NoTimeWithAnAbortFlagIsNoAnswerAtOnce) {
    bool abort = false;
    EXPECT_EQ(camera.WaitForResponse(0, &abort).Status, KELO_STATUS_NO_RESPONSE);
}

TEST_F(Requests, AnAbortEndsAWriteAtTheEndOfItsSlice) {
    fake.silent = true;
    std::atomic<bool> abort{true};
    uint32_t count = 1;
    const uint32_t values[] = {1};
    const auto begin = steady_clock::now();
    EXPECT_EQ(camera.writeMemory(100, count, values, 60000, &abort), KELO_STATUS_NO_RESPONSE);
    const auto elapsed = steady_clock::now() - begin;
    EXPECT_GE(elapsed, milliseconds(990));
    EXPECT_LT(elapsed, milliseconds(20000));
    EXPECT_EQ(fake.Requests().size(), 1u);
}

TEST_F(Requests, AnExplicitTimeoutIsOneAttempt) {
    fake.silent = true;
    uint32_t count = 1;
    const uint32_t values[] = {1};
    EXPECT_EQ(camera.writeMemory(100, count, values, 50, nullptr), KELO_STATUS_NO_RESPONSE);
    EXPECT_EQ(fake.Requests().size(), 1u);
}

TEST_F(Requests, AReplyThatClaimsTooManyRegistersIsAnAnswerLost) {
    fake.memory_count_lie = 129;
    uint32_t count = 4;
    uint32_t values[128] = {};
    fake.on_request = [&](const SeenRequest& request) {
        if (request.number == 3) fake.memory_count_lie.reset();
    };
    EXPECT_EQ(camera.readMemory(100, count, values), KELO_STATUS_SUCCESS);
    EXPECT_EQ(count, 4u);
    EXPECT_EQ(log.Count("VC_READMEMORY_REPLY got bad NL_number_of_registers"), 1u);
}

TEST_F(Requests, AWriteReplyToAReadStoresNothing) {
    fake.silent = true;
    fake.on_request = [&](const SeenRequest& request) {
        const Bytes reply = Datagram(11, request.number, 1, {0, 0x10000000});
        camera.OnRcv(0, reply.data(), static_cast<int>(reply.size()), 0);
    };
    uint32_t count = 1;
    uint32_t values[128] = {4711};
    EXPECT_EQ(camera.readMemory(100, count, values), KELO_STATUS_ERROR);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(values[0], 4711u);
}

TEST_F(Requests, AWriteReplyWithACountThatFitsStoresZeros) {
    fake.silent = true;
    fake.on_request = [&](const SeenRequest& request) {
        const Bytes reply = Datagram(11, request.number, 1, {0, 2});
        camera.OnRcv(0, reply.data(), static_cast<int>(reply.size()), 0);
    };
    uint32_t count = 2;
    uint32_t values[128] = {1, 2, 3};
    EXPECT_EQ(camera.readMemory(100, count, values), KELO_STATUS_SUCCESS);
    EXPECT_EQ(count, 2u);
    EXPECT_THAT(std::span(values).first(3), ElementsAre(0, 0, 3));
}

TEST(RequestsWithoutATransport, FailAtOnce) {
    KELOCamera camera(nullptr, 1, TestCamInfo(), nullptr);
    const LogCapture log;
    uint32_t value = 0;
    uint32_t count = 1;
    RepeatUntilInTime([&] {
        const Stopwatch time;
        EXPECT_EQ(camera.getRegisterValue(1, value), KELO_STATUS_ERROR);
        EXPECT_EQ(camera.setRegisterValue(1, value), KELO_STATUS_ERROR);
        EXPECT_EQ(camera.readMemory(1, count, &value), KELO_STATUS_ERROR);
        EXPECT_EQ(camera.writeMemory(1, count, &value, -1, nullptr), KELO_STATUS_ERROR);
        camera.vc_send(&value, sizeof(value));
        // Less than one of them would wait for an answer.
        return time.Elapsed() < milliseconds(200);
    });
}

}  // namespace
}  // namespace kelo::test
