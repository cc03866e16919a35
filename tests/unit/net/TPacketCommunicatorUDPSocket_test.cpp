#include "TPacketCommunicatorUDPSocket.h"

#include <filesystem>
#include <latch>
#include <new>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "in_time.h"
#include "log_capture.h"
#include "network_namespace.h"
#include "socket_options.h"
#include "thread_state.h"
#include "wait_for.h"
#include "wait_readable.h"

using kelo::test::Address;
using kelo::test::LogCapture;
using kelo::test::RepeatUntilInTime;
using kelo::test::Stopwatch;
using kelo::test::ThreadState;
using kelo::test::WaitFor;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// How many of the thread's next allocations fail.
thread_local int failing_allocations = 0;

// How often threads gave their core away, and for how long they do.
std::atomic<int> yields{0};
std::atomic<int> yield_ms{0};

}  // namespace

// Takes the place of the system's.
extern "C" int sched_yield() noexcept {
    ++yields;
    if (yield_ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(yield_ms));
    return static_cast<int>(syscall(SYS_sched_yield));
}

// The system's operator new, which the linker replaces (--wrap) in this executable.
extern "C" void* __real__Znwm(size_t size);
extern "C" void* __wrap__Znwm(size_t size) {
    if (failing_allocations > 0) {
        --failing_allocations;
        throw std::bad_alloc();
    }
    return __real__Znwm(size);
}

namespace {

constexpr uint32_t kLoopback = Address(127, 0, 0, 1);
constexpr int kControlSize = 534;

// Keeps every datagram, and may do something of its own with each.
class Recorder : public IPacketReceiver {
public:
    struct Packet {
        TPacketCommunicator* from;
        uint32_t ip;
        std::string text;
        unsigned short port;
    };

    void OnRcv(TPacketCommunicator* from, uint32_t ip, const void* data, int length,
               unsigned short port) override {
        {
            const std::lock_guard lock(mutex_);
            packets_.push_back(
                {from, ip, std::string(static_cast<const char*>(data), static_cast<size_t>(length)),
                 port});
        }
        if (action) action(*from);
    }

    size_t Count() const {
        const std::lock_guard lock(mutex_);
        return packets_.size();
    }
    std::vector<Packet> Packets() const {
        const std::lock_guard lock(mutex_);
        return packets_;
    }
    std::vector<std::string> Texts() const {
        std::vector<std::string> texts;
        for (const auto& packet : Packets())
            texts.push_back(packet.text);
        return texts;
    }

    std::function<void(TPacketCommunicator&)> action;

private:
    mutable std::mutex mutex_;
    std::vector<Packet> packets_;
};

size_t ThreadsOfThisProcess() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
}

// A socket that shares its port with nobody.
class PortHolder {
public:
    PortHolder() : fd_(socket(AF_INET, SOCK_DGRAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(kLoopback);
        socklen_t length = sizeof(address);
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        if (bind(fd_, generic, length) == 0 && getsockname(fd_, generic, &length) == 0) {
            port_ = ntohs(address.sin_port);
        }
    }
    ~PortHolder() { close(fd_); }
    PortHolder(const PortHolder&) = delete;
    PortHolder& operator=(const PortHolder&) = delete;
    int Port() const { return port_; }

private:
    int fd_;
    int port_ = 0;
};

class CommunicatorTest : public testing::Test {
protected:
    std::unique_ptr<TPacketCommunicatorUDPSocket> Make(int port = 0, uint32_t ip = kLoopback,
                                                       int max_size = kControlSize) {
        return std::make_unique<TPacketCommunicatorUDPSocket>(&receiver, port, max_size, ip);
    }
    std::unique_ptr<TPacketCommunicatorUDPSocket> Started() {
        auto communicator = Make();
        communicator->StartRxThread();
        return communicator;
    }
    void SendTo(TPacketCommunicator& communicator, const std::string& text) {
        EXPECT_EQ(static_cast<ssize_t>(text.size()),
                  peer.sendto(text.data(), text.size(), kLoopback, communicator.GetSocketPort()));
    }
    // Sends and waits until it is there.
    void Deliver(TPacketCommunicator& communicator, const std::string& text) {
        const size_t before = receiver.Count();
        SendTo(communicator, text);
        ASSERT_TRUE(WaitFor([&] { return receiver.Count() == before + 1; })) << text;
    }

    Recorder receiver;
    UDPSocket peer{kLoopback, 0};
};

TEST_F(CommunicatorTest, ConstructionOpensTheSocketButStartsNoThread) {
    const size_t threads = ThreadsOfThisProcess();
    const auto communicator = Make();
    EXPECT_TRUE(communicator->IsInitialized());
    EXPECT_NE(0, communicator->GetSocketPort());
    EXPECT_EQ(kLoopback, communicator->GetSocketIp());
    EXPECT_FALSE(communicator->IsReadyToReceive());
    EXPECT_LE(ThreadsOfThisProcess(), threads);
}

TEST_F(CommunicatorTest, ReportsTheRequestedAddress) {
    EXPECT_EQ(0u, Make(0, 0)->GetSocketIp());
    EXPECT_EQ(Address(127, 0, 0, 9), Make(0, Address(127, 0, 0, 9))->GetSocketIp());
}

TEST_F(CommunicatorTest, DeliversADatagramWithItsSendersAddressAndItsOwnPort) {
    UDPSocket sender(Address(127, 0, 0, 11), 6061);
    const auto communicator = Started();
    sender.sendto("reply", 5, kLoopback, communicator->GetSocketPort());
    ASSERT_TRUE(WaitFor([&] { return receiver.Count() == 1; }));
    const auto packet = receiver.Packets().front();
    EXPECT_EQ(communicator.get(), packet.from);
    EXPECT_EQ(Address(127, 0, 0, 11), packet.ip);
    EXPECT_EQ("reply", packet.text);
    EXPECT_EQ(communicator->GetSocketPort(), packet.port) << "the local port, not the sender's";
}

TEST_F(CommunicatorTest, DatagramsThatCameBeforeTheThreadAreDelivered) {
    const auto communicator = Make();
    SendTo(*communicator, "early");
    communicator->StartRxThread();
    EXPECT_TRUE(WaitFor([&] { return receiver.Count() == 1; }));
}

TEST_F(CommunicatorTest, DeliversManyInOrder) {
    const auto communicator = Started();
    std::vector<std::string> sent;
    for (int i = 0; i < 100; ++i) {
        sent.push_back(std::to_string(i));
        SendTo(*communicator, sent.back());
    }
    ASSERT_TRUE(WaitFor([&] { return receiver.Count() == sent.size(); }));
    EXPECT_EQ(sent, receiver.Texts());
}

// A thousand cameras answer a discovery at once, at a moment when nobody listens.
TEST_F(CommunicatorTest, HoldsTheAnswersOfAThousandCameras) {
    constexpr size_t kAnswers = 1024;
    constexpr int kBytesNeeded = 1 << 20;
    // What the system grants is twice what it was asked for.
    if (peer.requestReceiveBuffer(kBytesNeeded) < 2 * kBytesNeeded)
        GTEST_SKIP() << "the system does not grant the buffer";
    const auto communicator = Make();
    for (size_t i = 0; i < kAnswers; ++i)
        SendTo(*communicator, std::string(78, 'x'));
    communicator->StartRxThread();
    EXPECT_TRUE(WaitFor([&] { return receiver.Count() == kAnswers; }));
}

TEST_F(CommunicatorTest, CutsDatagramsToTheMaximumSize) {
    const auto communicator = Make(0, kLoopback, 10);
    communicator->StartRxThread();
    Deliver(*communicator, "0123456789");
    Deliver(*communicator, "0123456789A");
    Deliver(*communicator, "xyz");
    EXPECT_THAT(receiver.Texts(), ElementsAre("0123456789", "0123456789", "xyz"));
}

TEST_F(CommunicatorTest, DeliversAnEmptyDatagram) {
    const auto communicator = Started();
    Deliver(*communicator, "");
    Deliver(*communicator, "next");
    EXPECT_THAT(receiver.Texts(), ElementsAre("", "next"));
}

TEST_F(CommunicatorTest, AMaximumSizeOfZeroDeliversEveryDatagramEmpty) {
    const auto communicator = Make(0, kLoopback, 0);
    communicator->StartRxThread();
    Deliver(*communicator, "gone");
    EXPECT_THAT(receiver.Texts(), ElementsAre(""));
}

TEST_F(CommunicatorTest, IsReadyOnceItsThreadRunsAndStaysSo) {
    const auto communicator = Started();
    EXPECT_TRUE(WaitFor([&] { return communicator->IsReadyToReceive(); }));
    communicator->StopRxThread();
    EXPECT_TRUE(communicator->IsReadyToReceive());
}

TEST_F(CommunicatorTest, APortHeldByAnotherSocketIsABadPort) {
    const PortHolder holder;
    ASSERT_NE(0, holder.Port());
    const size_t threads = ThreadsOfThisProcess();
    const auto communicator = Make(holder.Port());
    EXPECT_FALSE(communicator->IsInitialized());
    EXPECT_EQ(0, communicator->GetSocketPort());
    communicator->StartRxThread();
    EXPECT_LE(ThreadsOfThisProcess(), threads);
    EXPECT_FALSE(communicator->IsReadyToReceive());
    communicator->StopRxThread();
}

TEST_F(CommunicatorTest, AnAddressThatTheHostDoesNotHaveIsABadPort) {
    const auto communicator = Make(0, Address(192, 0, 2, 1));
    EXPECT_FALSE(communicator->IsInitialized());
    EXPECT_EQ(0, communicator->GetSocketPort());
}

TEST_F(CommunicatorTest, ARestartFindsAPortThatHasBecomeFree) {
    auto holder = std::make_unique<PortHolder>();
    const int port = holder->Port();
    const auto communicator = Make(port);
    ASSERT_FALSE(communicator->IsInitialized());
    holder.reset();
    communicator->RestartSocket();
    EXPECT_TRUE(communicator->IsInitialized());
    EXPECT_EQ(port, communicator->GetSocketPort());
    Deliver(*communicator, "back");
}

TEST_F(CommunicatorTest, ARestartReceivesAgain) {
    const auto communicator = Started();
    Deliver(*communicator, "before");
    communicator->RestartSocket();
    Deliver(*communicator, "after");
    EXPECT_EQ(communicator->GetSocketPort(), receiver.Packets().back().port);
}

TEST_F(CommunicatorTest, ARestartWithAFixedPortKeepsIt) {
    int port = 0;
    { port = PortHolder().Port(); }
    const auto communicator = Make(port);
    communicator->StartRxThread();
    communicator->RestartSocket();
    EXPECT_EQ(port, communicator->GetSocketPort());
    Deliver(*communicator, "same port");
}

TEST_F(CommunicatorTest, StopWithoutAThreadDoesNothing) {
    const auto communicator = Make();
    communicator->StopRxThread();
    communicator->StopRxThread();
    EXPECT_TRUE(communicator->IsInitialized());
}

TEST_F(CommunicatorTest, StopEndsAnIdleThreadSoonAndLeavesTheSocketOpen) {
    const auto communicator = Started();
    ASSERT_TRUE(WaitFor([&] { return communicator->IsReadyToReceive(); }));
    const auto begin = std::chrono::steady_clock::now();
    communicator->StopRxThread();
    // 100 ms on a machine that has nothing else to do.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
    EXPECT_NE(0, communicator->GetSocketPort());
    SendTo(*communicator, "not received");
    EXPECT_EQ(0u, receiver.Count());
}

TEST_F(CommunicatorTest, StopEndsAThreadThatHasAlwaysSomethingToReceive) {
    const auto communicator = Started();
    std::atomic<bool> done{false};
    std::atomic<size_t> sent{0};
    std::thread flood([&] {
        while (!done) {
            peer.sendto("flood", 5, kLoopback, communicator->GetSocketPort());
            ++sent;
        }
    });
    EXPECT_TRUE(WaitFor([&] { return receiver.Count() > 100; }));
    communicator->StopRxThread();
    const size_t count = receiver.Count();
    EXPECT_TRUE(WaitFor([&, before = sent.load()] { return sent > before + 100; }));
    EXPECT_EQ(count, receiver.Count());
    done = true;
    flood.join();
}

TEST_F(CommunicatorTest, CanBeStartedAgainAfterAStop) {
    const auto communicator = Started();
    Deliver(*communicator, "first");
    communicator->StopRxThread();
    SendTo(*communicator, "meanwhile");
    communicator->StartRxThread();
    EXPECT_TRUE(WaitFor([&] { return receiver.Count() == 2; }));
    EXPECT_THAT(receiver.Texts(), ElementsAre("first", "meanwhile"));
}

TEST_F(CommunicatorTest, DestructionEndsTheThread) {
    // A sanitizer starts a thread of its own together with the first one.
    std::thread([] {}).join();
    const size_t threads = ThreadsOfThisProcess();
    Started().reset();
    // The system forgets a thread a moment after it could be joined.
    EXPECT_TRUE(WaitFor([&] { return ThreadsOfThisProcess() <= threads; }));
}

// A receiver that sends on the transport that is being stopped, from the thread that is waited for.
class SendingReceiverTest : public CommunicatorTest {
protected:
    // Runs stop while OnRcv is about to send.
    void StopWhileSending(const std::function<void(TPacketCommunicatorUDPSocket&)>& stop) {
        const pid_t stopper = gettid();
        std::latch received(1);
        std::atomic<bool> stopping{false};
        std::atomic<bool> sent{false};
        receiver.action = [&](TPacketCommunicator& from) {
            received.count_down();
            // Until the other thread has got to where it waits for this one.
            WaitFor([&] { return stopping && ThreadState(stopper) == 'S'; });
            sent = from.Send(kLoopback, peer.getPort(), "answer", 6) == 6;
        };
        const auto communicator = Started();
        SendTo(*communicator, "question");
        received.wait();
        stopping = true;
        stop(*communicator);
        EXPECT_TRUE(sent);
        receiver.action = nullptr;
    }
};

TEST_F(SendingReceiverTest, StopWaitsForIt) {
    StopWhileSending([](TPacketCommunicatorUDPSocket& it) { it.StopRxThread(); });
}

TEST_F(SendingReceiverTest, RetiringWaitsForIt) {
    StopWhileSending([](TPacketCommunicatorUDPSocket& it) { it.Retire(); });
}

TEST_F(SendingReceiverTest, ARestartWaitsForIt) {
    StopWhileSending([](TPacketCommunicatorUDPSocket& it) {
        it.RestartSocket();
        it.StopRxThread();
    });
}

TEST_F(CommunicatorTest, RetiredItNeverReceivesAgainButStillSends) {
    const auto communicator = Started();
    Deliver(*communicator, "before");
    communicator->Retire();
    const size_t threads = ThreadsOfThisProcess();
    communicator->StartRxThread();
    communicator->RestartSocket();
    EXPECT_LE(ThreadsOfThisProcess(), threads);
    SendTo(*communicator, "after");
    EXPECT_EQ(4, communicator->Send(kLoopback, peer.getPort(), "last", 4));
    EXPECT_EQ(1, kelo::test::WaitReadable(peer, 20000));
    EXPECT_THAT(receiver.Texts(), ElementsAre("before"));
}

TEST_F(CommunicatorTest, SendsFromItsOwnPort) {
    const auto communicator = Make();
    EXPECT_EQ(7, communicator->Send(kLoopback, peer.getPort(), "request", 7));
    char text[20];
    uint32_t ip = 0;
    uint16_t port = 0;
    ASSERT_EQ(1, kelo::test::WaitReadable(peer, 20000));
    EXPECT_EQ(7, peer.receive(text, sizeof(text), &ip, &port));
    EXPECT_EQ("request", std::string(text, 7));
    EXPECT_EQ(communicator->GetSocketPort(), port);
}

TEST_F(CommunicatorTest, AnAddressOfAllOnesIsABroadcast) {
    UDPSocket anywhere(0, 0);
    UDPSocket also_there(0, anywhere.getPort());
    const auto communicator = Make();
    EXPECT_EQ(4, communicator->Send(0xFFFFFFFF, anywhere.getPort(), "find", 4));
    // Only a broadcast reaches every socket on the port.
    EXPECT_EQ(1, kelo::test::WaitReadable(anywhere, 20000));
    EXPECT_EQ(1, kelo::test::WaitReadable(also_there, 20000));
}

TEST_F(CommunicatorTest, ASendThatTheSystemRefusesGivesMinusOneAndNoMessage) {
    const auto communicator = Make();
    const std::string text(70000, 'x');
    const LogCapture log;
    EXPECT_EQ(-1, communicator->Send(kLoopback, peer.getPort(), text.data(), 70000));
    EXPECT_THAT(log.Lines(), IsEmpty());
    EXPECT_TRUE(communicator->IsInitialized());
}

TEST_F(CommunicatorTest, SendsOfManyThreadsAllArrive) {
    const auto communicator = Make();
    Recorder other;
    TPacketCommunicatorUDPSocket target(&other, 0, kControlSize, kLoopback, 1 << 20);
    target.StartRxThread();
    std::vector<std::thread> threads;
    for (int id = 0; id < 4; ++id) {
        threads.emplace_back([&] {
            for (int i = 0; i < 25; ++i) {
                communicator->Send(kLoopback, target.GetSocketPort(), "x", 1);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_TRUE(WaitFor([&] { return other.Count() == 100; }));
}

TEST_F(CommunicatorTest, ASocketThatCouldNotBeMadeIsABadPort) {
    failing_allocations = 1;
    TPacketCommunicatorUDPSocket communicator(&receiver, 0, kControlSize, kLoopback);
    EXPECT_FALSE(communicator.IsInitialized());
    EXPECT_EQ(0, communicator.GetSocketPort());
    communicator.StartRxThread();
    EXPECT_TRUE(communicator.IsInitialized()) << "starting opens the socket that is missing";
    Deliver(communicator, "received");
}

TEST_F(CommunicatorTest, SendWithoutASocketReportsABugAndRestarts) {
    failing_allocations = 1;
    TPacketCommunicatorUDPSocket communicator(&receiver, 0, kControlSize, kLoopback);
    const LogCapture log;
    EXPECT_EQ(-1, communicator.Send(kLoopback, peer.getPort(), "x", 1));
    EXPECT_THAT(log.Lines(), ElementsAre("Bug?: TPacketCommunicatorUDPSocket::Send"));
    EXPECT_TRUE(communicator.IsInitialized());
    EXPECT_EQ(1, communicator.Send(kLoopback, peer.getPort(), "x", 1));
    Deliver(communicator, "received");
}

TEST_F(CommunicatorTest, AFailedReceiveIsLoggedAndReceptionGoesOn) {
    // The descriptor that the communicator's socket will have.
    const int descriptor = dup(STDIN_FILENO);
    close(descriptor);
    const auto communicator = Make();

    // In its place, a socket whose peer has refused a datagram: the next receive fails, once.
    UDPSocket refused(kLoopback, 0);
    const uint16_t peer_port = peer.getPort();
    peer = UDPSocket(kLoopback, 0);
    refused.setDestination(kLoopback, peer_port);
    refused.send("x", 1);
    ASSERT_EQ(1, kelo::test::WaitReadable(refused, 20000));
    ASSERT_EQ(descriptor, dup2(refused.getNativeHandle(), descriptor));

    const std::string failed =
        "TPacketCommunicatorUDPSocket::RxThreadFunc :: count < 0, RxThreadStopWanted == false, "
        "recvfrom socket failed.";
    const LogCapture log;
    communicator->StartRxThread();
    ASSERT_TRUE(WaitFor([&] { return log.Contains(failed); }));
    peer = UDPSocket(kLoopback, peer_port);
    peer.sendto("later", 5, kLoopback, refused.getPort());
    EXPECT_TRUE(WaitFor([&] { return receiver.Count() == 1; }));
    communicator->StopRxThread();
    EXPECT_THAT(receiver.Texts(), ElementsAre("later"));
    EXPECT_THAT(log.Lines(), ElementsAre(failed));
}

// Where the system grants less than was asked for, images are lost that a limit would have saved.
TEST_F(CommunicatorTest, ASmallReceiveBufferForImagesIsLoggedWithItsCure) {
    constexpr int kWantedBytes = 32 << 20;
    const LogCapture log;
    kelo::test::reported_receive_buffer = 425984;
    { TPacketCommunicatorUDPSocket limited(&receiver, 0, 16384, kLoopback, kWantedBytes); }
    EXPECT_THAT(log.Lines(),
                ElementsAre("The system limits the receive buffer for images to 208 KiB, below the "
                            "4096 KiB that bridge a stalled reception: images may be lost. Cure: "
                            "sysctl -w net.core.rmem_max=33554432"));
    { TPacketCommunicatorUDPSocket control(&receiver, 0, kControlSize, kLoopback); }
    kelo::test::reported_receive_buffer = 8 << 20;
    { TPacketCommunicatorUDPSocket enough(&receiver, 0, 16384, kLoopback, kWantedBytes); }
    kelo::test::reported_receive_buffer = std::nullopt;
    EXPECT_EQ(1u, log.Lines().size());
}

// The receiver allows pauses all the time; what came before the stop must still be delivered.
TEST_F(CommunicatorTest, DatagramsThatGatherInAPauseAreDelivered) {
    class Patient : public Recorder {
    public:
        TOutlook OnRcvBatch(TPacketCommunicator* from, std::span<const TDatagram> datagrams,
                            unsigned short port) override {
            IPacketReceiver::OnRcvBatch(from, datagrams, port);
            return {.until_wanted = UINT32_MAX};
        }
    } patient;
    TPacketCommunicatorUDPSocket bulk(&patient, 0, 16384, kLoopback, 4 << 20);
    bulk.StartRxThread();
    std::vector<std::string> sent;
    for (int i = 0; i < 1000; ++i) {
        sent.push_back(std::to_string(i));
        bulk.Send(kLoopback, bulk.GetSocketPort(), sent.back().data(),
                  static_cast<int>(sent.back().size()));
        std::this_thread::sleep_for(5us);
    }
    EXPECT_TRUE(WaitFor([&] { return patient.Count() == sent.size(); }));
    EXPECT_EQ(sent, patient.Texts());
}

// Says of every batch that it woke somebody.
class Waking : public Recorder {
public:
    explicit Waking(bool wakes) : wakes_(wakes) {}
    TOutlook OnRcvBatch(TPacketCommunicator* from, std::span<const TDatagram> datagrams,
                        unsigned short port) override {
        IPacketReceiver::OnRcvBatch(from, datagrams, port);
        return {.wakes = wakes_};
    }

private:
    const bool wakes_;
};

class CoreOfferTest : public CommunicatorTest {
protected:
    ~CoreOfferTest() override { yield_ms = 0; }

    // How often the receive thread gives its core away while it receives that many datagrams, which
    // wait for it or come one after the other.
    int YieldsWith(bool wakes, size_t waiting, size_t coming) {
        Waking waking(wakes);
        TPacketCommunicatorUDPSocket bulk(&waking, 0, 16384, kLoopback, 4 << 20);
        const auto send = [&] { bulk.Send(kLoopback, bulk.GetSocketPort(), "x", 1); };
        for (size_t i = 0; i < waiting; ++i)
            send();
        const int before = yields;
        bulk.StartRxThread();
        for (size_t i = 0; i < coming; ++i) {
            send();
            EXPECT_TRUE(WaitFor([&] { return waking.Count() == waiting + i + 1; }));
        }
        EXPECT_TRUE(WaitFor([&] { return waking.Count() == waiting + coming; }));
        bulk.StopRxThread();
        return yields - before;
    }
};

TEST_F(CoreOfferTest, WhoeverIsWokenIsGivenTheCoreWhileThereIsMoreToReceive) {
    EXPECT_GE(YieldsWith(true, 200, 0), 1);
}

TEST_F(CoreOfferTest, WhatCostsTheThreadItsShareIsLeftOutForASecond) {
    yield_ms = 1;
    RepeatUntilInTime([&] {
        const Stopwatch time;
        const int made = YieldsWith(true, 200, 0);
        if (time.Elapsed() > 900ms) return false;
        EXPECT_EQ(made, 1);
        return true;
    });
}

TEST_F(CoreOfferTest, WhereNobodyIsWokenTheCoreIsKept) {
    EXPECT_EQ(YieldsWith(false, 200, 0), 0);
}

TEST_F(CoreOfferTest, WhereNothingIsLeftToReceiveNoCoreIsGivenAway) {
    EXPECT_EQ(YieldsWith(true, 0, 20), 0);
}

TEST_F(CommunicatorTest, DescriptionShowsTheAddressAndThePortThatTheSystemChose) {
    if (!kelo::test::InPrivateNetwork()) GTEST_SKIP() << "needs a network of its own";
    kelo::test::Ip("address add 192.168.1.5/24 dev lo");
    const auto communicator = Make(0, Address(192, 168, 1, 5));
    kelo::test::Ip("address del 192.168.1.5/24 dev lo");
    EXPECT_EQ("[TPacketCommunicatorUDPSocket object (bound to 192.168.1.5:" +
                  std::to_string(communicator->GetSocketPort()) + ")]",
              communicator->GetDescription());
    EXPECT_NE(0, communicator->GetSocketPort());
}

TEST_F(CommunicatorTest, DescriptionOfABadPortShowsZero) {
    const auto communicator = Make(0, Address(192, 0, 2, 255));
    EXPECT_STREQ("[TPacketCommunicatorUDPSocket object (bound to 192.0.2.255:0)]",
                 communicator->GetDescription());
}

TEST_F(CommunicatorTest, DescriptionsOfTwoThreadsDoNotDisturbEachOther) {
    const auto one = Make(0, Address(192, 0, 2, 1));
    const auto other = Make(0, Address(192, 0, 2, 2));
    const char* text = one->GetDescription();
    std::thread([&] { other->GetDescription(); }).join();
    EXPECT_STREQ("[TPacketCommunicatorUDPSocket object (bound to 192.0.2.1:0)]", text);
}

TEST_F(CommunicatorTest, StatesHaveTheirFixedNumbers) {
    EXPECT_EQ(0, TPacketCommunicatorUDPSocket::UDPST_OK);
    EXPECT_EQ(1, TPacketCommunicatorUDPSocket::UDPST_ERROR);
    EXPECT_EQ(2, TPacketCommunicatorUDPSocket::UDPST_BAD_PORT);
}

}  // namespace
