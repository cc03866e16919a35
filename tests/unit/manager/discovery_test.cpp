#include <thread>

#include <netinet/in.h>

#include "UDPSocket.h"
#include "manager_fixture.h"
#include "wait_readable.h"

namespace kelo::test {
namespace {

// Who else than the library hears the broadcasts: a socket at the cameras' port.
class Discovery : public ManagerTest {
protected:
    Bytes NextDatagram(uint32_t* from_ip = nullptr, uint16_t* from_port = nullptr) {
        Bytes datagram(1000);
        uint32_t ip = 0;
        uint16_t port = 0;
        if (WaitReadable(listener, 20000) <= 0) return {};
        const ssize_t count = listener.receive(datagram.data(), datagram.size(), &ip, &port);
        datagram.resize(static_cast<size_t>(std::max<ssize_t>(count, 0)));
        if (from_ip != nullptr) *from_ip = ip;
        if (from_port != nullptr) *from_port = port;
        return datagram;
    }

    UDPSocket listener{INADDR_BROADCAST, 6061};
};

TEST_F(Discovery, SendsTheBareHeaderOnEveryInterface) {
    if (InPrivateNetwork()) Ip("address add 127.1.2.3/8 dev lo");
    manager->Discover(0, 0);
    uint32_t from_ip = 0;
    uint16_t first_port = 0;
    EXPECT_THAT(NextDatagram(&from_ip, &first_port),
                testing::ElementsAre(0xAB, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1));
    EXPECT_EQ(from_ip, 0x7F000001u);
    if (!InPrivateNetwork()) return;
    uint16_t second_port = 0;
    EXPECT_EQ(NextDatagram(&from_ip, &second_port).size(), 14u);
    EXPECT_EQ(from_ip, 0x7F010203u);
    EXPECT_EQ(first_port, second_port);
    EXPECT_TRUE(log.ContainsPrefix("  Found interface: index=["));
    Ip("address del 127.1.2.3/8 dev lo");
}

TEST_F(Discovery, LogsWhatItFinds) {
    manager->Discover(0, 0);
    EXPECT_EQ(log.Lines().front(), "Discover");
    EXPECT_EQ(log.Count("Discover: Got 0 responses."), 1u);
    EXPECT_EQ(log.Count("Discover: Detected 0 cameras."), 1u);
    Receive(DiscoveryReply(kCamera, "A camera with a description of32"));
    manager->Discover(0, 0);
    EXPECT_EQ(log.Count("Discover: Got 1 response."), 1u);
    EXPECT_EQ(log.Count("Discover: Detected 1 camera."), 1u);
    char line[200];
    snprintf(line, sizeof(line),
             "Camera 0 (handle 0x%08x): A camera with a description of32 @ 127.0.0.11",
             Handles().at(0));
    EXPECT_EQ(log.Count(line), 1u);
}

TEST_F(Discovery, AReplyBetweenTwoDiscoveriesCountsForTheNext) {
    EXPECT_EQ(manager->Discover(0, 0), 0u);
    Receive(DiscoveryReply(kCamera, "Late"));
    EXPECT_EQ(manager->Discover(0, 0), 1u);
}

TEST_F(Discovery, ACameraThatDoesNotAnswerIsDropped) {
    Receive(DiscoveryReply(kCamera, "Camera"));
    ASSERT_EQ(manager->Discover(0, 0), 1u);
    const auto held = manager->FindIp(kCamera);
    EXPECT_EQ(manager->Discover(0, 0), 0u);
    EXPECT_EQ(manager->FindIp(kCamera), nullptr);
    EXPECT_EQ(held->GetIP(), kCamera);
}

TEST_F(Discovery, AKnownCameraKeepsItsSession) {
    Receive(DiscoveryReply(kCamera, "Camera"));
    manager->Discover(0, 0);
    const auto session = manager->FindIp(kCamera);
    Receive(DiscoveryReply(kCamera, "Camera"));
    manager->Discover(0, 0);
    EXPECT_EQ(manager->FindIp(kCamera), session);
}

// A reply needs the registry's lock to find its session: a discovery that waited for the session
// while it holds that lock would make every request under way fail.
TEST_F(Discovery, DoesNotWaitForASessionWithARequestUnderWay) {
    UDPSocket camera(kCamera, 6061);
    const Bytes identity = DiscoveryReply(kCamera, "Camera");
    std::atomic<bool> found{false};
    std::thread answer([&] {
        while (!found) {
            if (WaitReadable(listener, 10) <= 0) continue;
            uint32_t ip = 0;
            uint16_t port = 0;
            NextDatagram(&ip, &port);
            camera.sendto(identity.data(), identity.size(), ip, port);
        }
    });
    // Until an answer has come while it listened.
    EXPECT_TRUE(WaitFor([&] { return manager->Discover(0, 200) == 1; }));
    found = true;
    answer.join();
    const auto session = manager->FindIp(kCamera);
    ASSERT_NE(session, nullptr);

    uint32_t value = 0;
    KELO_API_STATUS status = KELO_STATUS_ERROR;
    std::atomic<bool> answered{false};
    std::thread reader([&] {
        status = session->getRegisterValue(2, value);
        answered = true;
    });
    // The session waits for its answer from here on.
    EXPECT_EQ(WaitReadable(camera, 20000), 1);
    Receive(identity);
    EXPECT_EQ(manager->Discover(0, 0), 1u);
    // On a busy machine an attempt may have timed out meanwhile: the one under way is answered.
    EXPECT_TRUE(WaitFor([&] {
        Bytes reply = Header(5, session->Intake()->LastMessageNumber());
        Append32(reply, 8);
        Append32(reply, 4711);
        Receive(reply);
        return answered.load();
    }));
    reader.join();
    EXPECT_EQ(status, KELO_STATUS_SUCCESS);
    EXPECT_EQ(value, 4711u);
}

struct Change {
    const char* description;
    uint32_t mask;
    uint8_t mac;
};

class ChangedCamera : public Discovery, public testing::WithParamInterface<Change> {};

TEST_P(ChangedCamera, IsDroppedAndAddedUnderANewHandle) {
    Receive(DiscoveryReply(kCamera, "Camera"));
    manager->Discover(0, 0);
    const CAM_HANDLE before = Handles().at(0);
    Receive(DiscoveryReply(kCamera, GetParam().description, GetParam().mask, GetParam().mac));
    EXPECT_EQ(manager->Discover(0, 0), 1u);
    EXPECT_EQ(manager->FindHandle(before), nullptr);
    EXPECT_NE(Handles().at(0), before);
}

INSTANTIATE_TEST_SUITE_P(Fields, ChangedCamera,
                         testing::Values(Change{"Another", 0xFF000000, 1},
                                         Change{"Camera", 0xFFFF0000, 1},
                                         Change{"Camera", 0xFF000000, 2}));

TEST_F(Discovery, TwoRepliesFromOneAddressAreOneCamera) {
    Receive(DiscoveryReply(kCamera, "First"));
    Receive(DiscoveryReply(kCamera, "Second"));
    EXPECT_EQ(manager->Discover(0, 0), 1u);
    // Without a transport of the camera's own subnet the first stays.
    EXPECT_STREQ(manager->FindIp(kCamera)->camInfo()->hardware_description, "First");
}

TEST_F(Discovery, AtMost1024CamerasAreKept) {
    for (uint32_t i = 0; i < 1024; ++i)
        Receive(DiscoveryReply(0x0A000000 + i, "Camera"));
    ASSERT_EQ(manager->Discover(0, 0), 1024u);
    for (uint32_t i = 0; i < 1024; ++i)
        Receive(DiscoveryReply(0x0A000000 + i, "Camera"));
    Receive(DiscoveryReply(0x0B000000, "One too many"));
    EXPECT_EQ(manager->Discover(0, 0), 1024u);
    EXPECT_EQ(manager->FindIp(0x0B000000), nullptr);
}

// Whoever fills the list of replies keeps new cameras out, but closes no session.
TEST_F(Discovery, MadeUpRepliesCrowdOutNoKnownCamera) {
    constexpr uint32_t kMoreThanAreKept = 5000;
    Receive(DiscoveryReply(kCamera, "Camera"));
    ASSERT_EQ(manager->Discover(0, 0), 1u);
    const auto session = manager->FindIp(kCamera);
    for (uint32_t i = 0; i < kMoreThanAreKept; ++i)
        Receive(DiscoveryReply(0x0A000000 + i, "Made up"));
    Receive(DiscoveryReply(kCamera, "Camera"));
    EXPECT_EQ(manager->Discover(0, 0), 1024u);
    EXPECT_EQ(manager->FindIp(kCamera), session);
}

TEST_F(Discovery, SetIpOfAnUnknownHandleSendsNothing) {
    EXPECT_EQ(manager->setCameraIP(1, 2, 3), KELO_STATUS_ERROR);
    EXPECT_EQ(WaitReadable(listener, 0), 0);
}

TEST_F(Discovery, SetIpBroadcastsTheCommandAndForgetsTheCamera) {
    Receive(DiscoveryReply(kCamera, "Camera", 0xFF000000, 9));
    ASSERT_EQ(manager->Discover(0, 0), 1u);
    ASSERT_EQ(NextDatagram().size(), 14u);
    const CAM_HANDLE handle = Handles().at(0);
    EXPECT_EQ(manager->setCameraIP(handle, 0xC0A80105, 0xFFFFFF00), KELO_STATUS_SUCCESS);
    EXPECT_EQ(manager->FindHandle(handle), nullptr);
    EXPECT_THAT(NextDatagram(),
                testing::ElementsAre(0xAB, 0, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0, 1,  //
                                     2, 0, 0, 0, 0, 9, 0, 0,                       //
                                     127, 0, 0, 11,                                //
                                     192, 168, 1, 5, 255, 255, 255, 0));
    EXPECT_EQ(manager->setCameraIP(handle, 0xC0A80105, 0xFFFFFF00), KELO_STATUS_ERROR);
}

// Counts what it is given; takes or refuses.
class CountingTransport : public TPacketCommunicator {
public:
    explicit CountingTransport(ssize_t sent) : TPacketCommunicator(nullptr), sent_(sent) {}
    void StartRxThread() override {}
    void StopRxThread() override {}
    bool IsInitialized() override { return true; }
    ssize_t Send(uint32_t ip, int port, const void*, int length) override {
        EXPECT_EQ(ip, 0xFFFFFFFFu);
        EXPECT_EQ(port, 6061);
        EXPECT_EQ(length, 34);
        return sent_;
    }
    unsigned short GetSocketPort() override { return 0; }
    unsigned int GetSocketIp() override { return 0; }
    const char* GetDescription() override { return ""; }

private:
    ssize_t sent_;
};

TEST(SendSetIp, SucceedsWhenAll34BytesWentOut) {
    const uint8_t mac[6] = {};
    CountingTransport all(34);
    CountingTransport some(33);
    CountingTransport none(-1);
    EXPECT_TRUE(KELOManager::SendSetIP(all, mac, 1, 2, 3));
    EXPECT_FALSE(KELOManager::SendSetIP(some, mac, 1, 2, 3));
    EXPECT_FALSE(KELOManager::SendSetIP(none, mac, 1, 2, 3));
}

class TwoInterfaces : public Discovery {
protected:
    // The camera says the same over both interfaces: first on loopback, then on its own subnet,
    // then on loopback again. Whether what it said on its own subnet is what was kept.
    bool OwnSubnetWins(std::chrono::milliseconds pause) {
        while (WaitReadable(listener, 0) == 1)
            NextDatagram();
        uint32_t found = 0;
        const auto listen_ms = static_cast<uint32_t>(10 * pause.count());
        std::thread discovery([&] { found = manager->Discover(0, listen_ms); });
        uint32_t from_ip = 0;
        uint16_t port = 0;
        EXPECT_EQ(NextDatagram(&from_ip, &port).size(), 14u);
        // The transports of both interfaces are there once the second broadcast was heard.
        EXPECT_EQ(NextDatagram().size(), 14u);
        UDPSocket camera(0x0A070001, 0);
        const auto say = [&](uint32_t to, const char* what) {
            const Bytes reply = DiscoveryReply(0x0A070002, what);
            EXPECT_GT(camera.sendto(reply.data(), reply.size(), to, port), 0);
            // In order: each one has been taken before the next goes out.
            std::this_thread::sleep_for(pause);
        };
        say(0x7F000001, "Loopback first");
        say(0x0A070001, "Own subnet");
        say(0x7F000001, "Loopback again");
        discovery.join();
        const auto session = manager->FindIp(0x0A070002);
        return found == 1 && session != nullptr &&
               session->camInfo()->hardware_description == std::string("Own subnet");
    }
};

TEST_F(TwoInterfaces, TheReplyOverTheCamerasOwnSubnetWins) {
    if (!InPrivateNetwork()) GTEST_SKIP() << "needs an interface of its own";
    Ip("link add veth-a type veth peer name veth-b");
    Ip("address add 10.7.0.1/24 dev veth-a");
    Ip("link set veth-a up");
    Ip("link set veth-b up");
    // Who answers last counts as last only if it was taken last. Once more with far longer pauses,
    // should the short ones not have been enough.
    const bool own_subnet_won =
        OwnSubnetWins(std::chrono::milliseconds(50)) || OwnSubnetWins(std::chrono::seconds(2));
    EXPECT_TRUE(own_subnet_won);
}

}  // namespace
}  // namespace kelo::test
