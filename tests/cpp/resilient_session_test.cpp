// A session that finds its camera again.

#include "cpp_fixture.h"

namespace kelo::test {
namespace {

class Resilient : public CppTest {
protected:
    static ResilientOptions Quick() {
        ResilientOptions options;
        options.discovery = kListen;
        options.check_after = milliseconds(200);
        return options;
    }
    static kelosim::StreamConfig Numbered() { return Chart(50); }
    // The camera, which has just been lost, counts its images from 1001 when it is opened again, as
    // one that counts on does. An image that it still sends must not count on.
    static void CountOn(kelosim::Camera& camera) {
        EXPECT_TRUE(WaitFor([&] { return !camera.acquiring(); }));
        camera.UpdateFaults([](kelosim::Faults& faults) { faults.jumps = {{1, 1000}}; });
    }
    // Takes images until one comes behind a reconnection; returns the number in front of it.
    static std::uint32_t TakeUntilReconnected(ResilientSession& session) {
        std::uint32_t before = 0;
        for (Image& image : session.stream(0, seconds(60))) {
            if (session.gap() && session.gap()->reconnected) {
                EXPECT_EQ(session.gap()->number_after, image.number());
                return before;
            }
            before = image.number();
        }
        ADD_FAILURE() << "no image came any more";
        return 0;
    }
    void ExpectCountedGap(const Gap& gap, std::uint32_t before) {
        EXPECT_TRUE(gap.reconnected);
        EXPECT_EQ(gap.number_before, before);
        EXPECT_EQ(gap.number_after, 1001u);
        EXPECT_EQ(gap.images_missed, 1000 - before);
        EXPECT_GT(gap.duration.count(), 0);
    }
};

TEST_F(Resilient, FindsItsCameraByItsMac) {
    simulator.AddMany(3, Config(Numbered()));
    simulator.Start();
    ResilientSession session(library, MacOf(simulator[1]), Quick());
    EXPECT_EQ(session.camera(), nullptr);
    ASSERT_TRUE(session.next(0, kPatience));
    EXPECT_EQ(session.camera()->info().address.value, simulator[1].address());
    EXPECT_FALSE(session.gap());
    EXPECT_EQ(session.connections(), 1u);
}

TEST_F(Resilient, ReturnsWithoutAnImageWhenThereIsNoCamera) {
    ResilientSession session(library, MacAddress{}, Quick());
    EXPECT_FALSE(session.next(0, milliseconds(1)));
    EXPECT_EQ(session.camera(), nullptr);
}

TEST_F(Resilient, CountsImagesThatAreLostOnTheWay) {
    kelosim::CameraConfig config = Config(Numbered());
    config.faults.packets = {{kelosim::PacketFault::Kind::kDrop, 3, {}, {}},
                             {kelosim::PacketFault::Kind::kDrop, 4, {}, {}}};
    std::vector<Gap> gaps;
    ResilientOptions options = Quick();
    options.on_gap = [&](const Gap& gap) { gaps.push_back(gap); };
    ResilientSession session(library, MacOf(StartOne(config)), options);
    for (Image& image : session.stream(0, kPatience)) {
        if (image.number() >= 6) break;
    }
    ASSERT_EQ(gaps.size(), 1u);
    EXPECT_FALSE(gaps[0].reconnected);
    EXPECT_EQ(gaps[0].number_before, 2u);
    EXPECT_EQ(gaps[0].number_after, 5u);
    EXPECT_EQ(gaps[0].images_missed, 2u);
    EXPECT_FALSE(session.gap()) << "the gap was in front of another image";
}

TEST_F(Resilient, GoesOnAfterAReboot) {
    kelosim::Camera& camera = StartOne(Config(Numbered()));
    ResilientOptions options = Quick();
    options.configure = [](Camera& opened) { opened.set(reg::exposure_time, 4321); };
    ResilientSession session(library, MacOf(camera), options);
    ASSERT_TRUE(session.next(0, kPatience));
    camera.Reboot();
    CountOn(camera);
    const std::uint32_t before = TakeUntilReconnected(session);
    ExpectCountedGap(session.gap().value(), before == 0 ? 1 : before);
    EXPECT_EQ(camera.GetRegister(REG_EXPOSURETIME), 4321u) << "set anew";
    EXPECT_EQ(session.connections(), 2u);
}

TEST_F(Resilient, DoesNotGuessWhenTheCameraCountsAnew) {
    kelosim::Camera& camera = StartOne(Config(Numbered()));
    ResilientSession session(library, MacOf(camera), Quick());
    for (Image& image : session.stream(0, kPatience)) {
        if (image.number() >= 5) break;
    }
    camera.Reboot();
    TakeUntilReconnected(session);
    EXPECT_EQ(session.gap()->number_after, 1u);
    EXPECT_FALSE(session.gap()->images_missed);
}

TEST_F(Resilient, FollowsToAnotherAddress) {
    kelosim::Camera& camera = StartOne(Config(Numbered()));
    ResilientSession session(library, MacOf(camera), Quick());
    ASSERT_TRUE(session.next(0, kPatience));
    library.set_address(session.camera()->handle(), Ipv4Address(127, 0, 0, 40),
                        Ipv4Address(255, 0, 0, 0));
    CountOn(camera);
    const std::uint32_t before = TakeUntilReconnected(session);
    ExpectCountedGap(session.gap().value(), before == 0 ? 1 : before);
    EXPECT_EQ(session.gap()->address_before, Ipv4Address(127, 0, 0, 11));
    EXPECT_EQ(session.gap()->address_after, Ipv4Address(127, 0, 0, 40));
}

// Takes about 8 s: the library tells a camera that does not answer twice that it is closed, for 2.5
// s each time.
TEST_F(Resilient, FindsACameraThatWasAwayAtAnotherAddress) {
    kelosim::CameraConfig config = Config(Numbered());
    config.heartbeat_timeout_ms = 300;
    kelosim::Camera& camera = StartOne(config);
    ResilientSession session(library, MacOf(camera), Quick());
    ASSERT_TRUE(session.next(0, kPatience));
    camera.PowerOff();
    CountOn(camera);
    std::uint32_t before = 1;
    while (const std::optional<Image> image = session.next(0, milliseconds(0)))
        before = image->number();
    EXPECT_TRUE(WaitFor([&] { return log.ContainsPrefix("heartbeat missing"); }));
    EXPECT_FALSE(session.next(0, milliseconds(1)));
    camera.PowerOn();
    camera.SetAddress(kelosim::Ipv4(127, 0, 0, 77), kelosim::Ipv4(255, 0, 0, 0));
    TakeUntilReconnected(session);
    ASSERT_TRUE(session.gap());
    ExpectCountedGap(*session.gap(), before);
    EXPECT_EQ(session.gap()->address_after, Ipv4Address(127, 0, 0, 77));
}

TEST_F(Resilient, SomebodyElseMayLoseTheCameraForIt) {
    kelosim::Camera& camera = StartOne(Config(Numbered()));
    ResilientSession session(library, MacOf(camera), Quick());
    ASSERT_TRUE(session.next(0, kPatience));
    Lose(camera, session.camera()->handle());
    CountOn(camera);
    const std::uint32_t before = TakeUntilReconnected(session);
    ExpectCountedGap(session.gap().value(), before == 0 ? 1 : before);
}

TEST_F(Resilient, AnImageThatIsHeldIsAMisuse) {
    ResilientSession session(library, MacOf(StartOne(Config(Numbered()))), Quick());
    const std::optional<Image> image = session.next(0, kPatience);
    ASSERT_TRUE(image);
    EXPECT_FALSE(session.try_next(0, milliseconds(1)));
    EXPECT_THROW((void)session.next(0, milliseconds(1)), Error);
    EXPECT_TRUE(image->valid());
}

TEST_F(Resilient, WhatTheConfigurationThrowsLeaves) {
    ResilientOptions options = Quick();
    options.configure = [](Camera&) { throw std::runtime_error("no"); };
    ResilientSession session(library, MacOf(StartOne()), options);
    EXPECT_THROW(while (!session.next(0, milliseconds(1))){}, std::runtime_error);
    EXPECT_FALSE(simulator[0].used());
}

}  // namespace
}  // namespace kelo::test
