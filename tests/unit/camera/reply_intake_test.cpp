#include "reply_intake.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake_camera.h"
#include "log_capture.h"

namespace kelo::test {
namespace {

class Intake : public testing::Test {
protected:
    Intake() { number = intake.BeginRequest(); }

    void Receive(const Bytes& datagram) { intake.OnRcv(datagram.data(), datagram.size()); }
    bool Next(TResponse& next) { return intake.Get(0, next, nullptr); }

    LogCapture log;
    ReplyIntake intake{1};
    uint32_t number = 0;
    TResponse response;
};

TEST_F(Intake, NumbersStartBehindOne) {
    EXPECT_EQ(number, 2u);
    EXPECT_EQ(intake.BeginRequest(), 3u);
}

TEST_F(Intake, RegisterRepliesCarryAValue) {
    for (const uint32_t command : {5u, 7u}) {
        Receive(Datagram(command, number, 1, {4, 0xCAFE}));
        ASSERT_TRUE(Next(response));
        EXPECT_EQ(response.Status, KELO_STATUS_SUCCESS);
        EXPECT_EQ(response.Value, 0xCAFEu);
    }
}

TEST_F(Intake, AMemoryReadReplyCarriesValues) {
    Receive(Datagram(9, number, 1, {4, 3, 10, 20, 30}));
    ASSERT_TRUE(Next(response));
    EXPECT_EQ(response.Count, 3u);
    EXPECT_EQ(response.Values[2], 30u);
}

// Every open camera keeps a ring of 1,024 of them.
TEST_F(Intake, AReplyTakesLittleRoomUnlessItHasValues) {
    static_assert(sizeof(TResponse) <= 64);
    Receive(Datagram(5, number, 1, {4, 0xCAFE}));
    ASSERT_TRUE(Next(response));
    EXPECT_EQ(response.Values.capacity(), 0u);
}

TEST_F(Intake, AMemoryReadErrorCarriesNoValuesWhateverItClaims) {
    Receive(Datagram(9, number, 2, {4, 500, 1}));
    ASSERT_TRUE(Next(response));
    EXPECT_EQ(response.Status, KELO_STATUS_ERROR);
    EXPECT_EQ(response.Count, 0u);
}

TEST_F(Intake, AMemoryWriteReplyCarriesACount) {
    Receive(Datagram(11, number, 1, {4, 17}));
    ASSERT_TRUE(Next(response));
    EXPECT_EQ(response.Count, 17u);
}

TEST_F(Intake, ReadsNothingBehindAShortDatagram) {
    // On the heap and of exact size, so that a sanitizer sees every byte too many.
    Bytes shortest = Datagram(9, number, 1, {});
    shortest.push_back(0);
    shortest.shrink_to_fit();
    Receive(shortest);
    ASSERT_TRUE(Next(response));
    EXPECT_EQ(response.Count, 0u);

    Bytes claims = Datagram(9, number, 1, {4, 128, 5});
    claims.shrink_to_fit();
    Receive(claims);
    ASSERT_TRUE(Next(response));
    EXPECT_EQ(response.Count, 128u);
    EXPECT_EQ(response.Values[0], 5u);
    EXPECT_EQ(response.Values[1], 0u);

    for (size_t length = 0; length < 14; ++length) {
        const Bytes stump(claims.begin(), claims.begin() + static_cast<std::ptrdiff_t>(length));
        Receive(stump);
    }
}

TEST_F(Intake, AWrongMagicIsIgnoredSilently) {
    Bytes datagram = Datagram(5, number, 1, {4, 1});
    datagram[0] = 0xAC;
    Receive(datagram);
    EXPECT_FALSE(Next(response));
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(Intake, AWrongNumberIsDiscardedWithALine) {
    Receive(Datagram(5, number + 7, 1, {4, 1}));
    EXPECT_FALSE(Next(response));
    EXPECT_EQ(log.Count("discarded message from camera our msg num != rcvd msg num 2 != 9"), 1u);
}

TEST_F(Intake, ADiscoveryReplyIsOnlyLogged) {
    Receive(Datagram(2, number, 1, {4, 1}));
    EXPECT_FALSE(Next(response));
    EXPECT_EQ(log.Count("got VC_DISCOVER_REPLY"), 1u);
}

TEST_F(Intake, OtherCommandsChangeNothing) {
    for (const uint32_t command : {0u, 1u, 3u, 4u, 6u, 8u, 10u, 12u, 13u, 0xFFFFFFFFu}) {
        Receive(Datagram(command, number, 1, {4, 1}));
        EXPECT_FALSE(Next(response)) << command;
    }
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(Intake, ACameraThatRepeatsItselfDoesNotBlockTheReceiveThread) {
    for (int i = 0; i < 3000; ++i)
        Receive(Datagram(5, number, 1, {4, 1}));
    ASSERT_TRUE(Next(response));
    // A new request begins with an empty queue.
    intake.BeginRequest();
    EXPECT_FALSE(Next(response));
}

TEST_F(Intake, AwaitsOnlyTheNumberInFlight) {
    EXPECT_TRUE(intake.Awaits(number));
    EXPECT_FALSE(intake.Awaits(number + 1));
    intake.EndRequest();
    EXPECT_FALSE(intake.Awaits(number));
}

TEST_F(Intake, AbandoningEndsAWaitWithoutALimit) {
    std::thread waiter([&] { EXPECT_FALSE(intake.Get(-1, response, nullptr)); });
    intake.Abandon();
    waiter.join();
    EXPECT_FALSE(intake.Get(-1, response, nullptr));
    EXPECT_TRUE(intake.IsAbandoned());
}

TEST(Directory, FindsTheSessionThatAwaitsANumber) {
    SessionDirectory directory;
    const auto a = std::make_shared<ReplyIntake>(1);
    const auto b = std::make_shared<ReplyIntake>(1);
    directory.Add(a);
    directory.Add(b);
    b->BeginRequest();
    EXPECT_EQ(directory.FindAwaiting(1, 2), b);
    EXPECT_EQ(directory.FindAwaiting(2, 2), nullptr);
    EXPECT_EQ(directory.FindAwaiting(1, 3), nullptr);
    directory.Remove(b.get());
    EXPECT_EQ(directory.FindAwaiting(1, 2), nullptr);
    directory.AbandonAll();
    EXPECT_TRUE(a->IsAbandoned());
    EXPECT_FALSE(b->IsAbandoned());
}

}  // namespace
}  // namespace kelo::test
