// The datagram socket and the list of the host's interfaces, on a loopback interface of their own.

#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include "NetworkInterfaces.h"
#include "UDPSocket.h"
#include "log_capture.h"
#include "network_namespace.h"
#include "socket_options.h"
#include "wait_for.h"
#include "wait_readable.h"
#include "waiting_call.h"

using kelo::test::Address;
using kelo::test::LogCapture;
using kelo::test::StreamCapture;
using kelo::test::WaitingCall;
using testing::ElementsAre;
using testing::IsEmpty;

using kelo::test::reported_receive_buffer;
using kelo::test::shorten_socket_options;

// Stands in front of the C library's function: a system whose options have an odd length, or that
// grants little.
extern "C" int getsockopt(int fd, int level, int name, void* value, socklen_t* length) noexcept {
    const auto result = static_cast<int>(syscall(SYS_getsockopt, fd, level, name, value, length));
    if (shorten_socket_options) *length = 2;
    if (name == SO_RCVBUF && reported_receive_buffer.has_value()) {
        std::memcpy(value, &*reported_receive_buffer, sizeof(int));
    }
    return result;
}

namespace {

constexpr uint32_t kLoopback = Address(127, 0, 0, 1);

// While it lives, the process gets no further descriptor.
class NoDescriptors {
public:
    NoDescriptors() {
        getrlimit(RLIMIT_NOFILE, &limit_);
        const rlimit none{.rlim_cur = 0, .rlim_max = limit_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &limit_); }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

private:
    rlimit limit_{};
};

UDPSocket SocketThatCouldNotBeMade() {
    const NoDescriptors none;
    return UDPSocket(kLoopback, 0);
}

int Option(UDPSocket& socket, int name) {
    int value = -1;
    socklen_t length = sizeof(value);
    getsockopt(socket.getNativeHandle(), SOL_SOCKET, name, &value, &length);
    return value;
}

sockaddr_in LocalAddress(UDPSocket& socket) {
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    getsockname(socket.getNativeHandle(), reinterpret_cast<sockaddr*>(&address), &length);
    return address;
}

// The peer that a connected socket has, as "address:port"; empty without one.
std::string Peer(UDPSocket& socket) {
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (getpeername(socket.getNativeHandle(), generic, &length) != 0) return "";
    return std::string(inet_ntoa(address.sin_addr)) + ":" + std::to_string(ntohs(address.sin_port));
}

class UDPSocketTest : public testing::Test {
protected:
    // The next datagram's text, with what became of the sender's address and port.
    std::string Receive(uint32_t* ip = nullptr, uint16_t* port = nullptr) {
        char text[100];
        if (kelo::test::WaitReadable(receiver, 20000) != 1) return "nothing came";
        const ssize_t count = receiver.receive(text, sizeof(text), ip, port);
        return count < 0 ? "receive failed" : std::string(text, static_cast<size_t>(count));
    }

    UDPSocket receiver{kLoopback, 0};
    UDPSocket sender{kLoopback, 0};
};

TEST_F(UDPSocketTest, PortZeroLetsTheSystemChoose) {
    EXPECT_NE(0, receiver.getPort());
    EXPECT_NE(receiver.getPort(), sender.getPort());
    EXPECT_EQ(ntohs(LocalAddress(receiver).sin_port), receiver.getPort());
}

TEST_F(UDPSocketTest, IsBoundToTheAddressAndPortGiven) {
    const uint32_t ip = Address(127, 0, 0, 77);
    UDPSocket socket(ip, 6061);
    EXPECT_EQ(6061, socket.getPort());
    EXPECT_EQ(htonl(ip), LocalAddress(socket).sin_addr.s_addr);
}

TEST_F(UDPSocketTest, WithoutAnAddressIsBoundToAny) {
    UDPSocket socket(6061);
    EXPECT_EQ(6061, socket.getPort());
    EXPECT_EQ(htonl(INADDR_ANY), LocalAddress(socket).sin_addr.s_addr);
}

TEST_F(UDPSocketTest, IsADatagramSocketThatMayShareItsPortAndBroadcast) {
    EXPECT_EQ(SOCK_DGRAM, Option(receiver, SO_TYPE));
    EXPECT_EQ(1, Option(receiver, SO_REUSEPORT));
    EXPECT_EQ(1, Option(receiver, SO_BROADCAST));
    UDPSocket second(kLoopback, receiver.getPort());
    EXPECT_EQ(receiver.getPort(), second.getPort());
}

// With reuse allowed while it chooses, the system may give out a port that another such socket has,
// and the two would share each other's datagrams by chance.
TEST_F(UDPSocketTest, PortsThatTheSystemChoosesAreNeverShared) {
    if (!kelo::test::InPrivateNetwork()) GTEST_SKIP() << "narrows the choice of ports";
    std::ofstream range("/proc/sys/net/ipv4/ip_local_port_range");
    range << "40000 40003" << std::flush;
    if (!range) GTEST_SKIP() << "the choice of ports cannot be narrowed here";
    std::set<uint16_t> ports;
    std::vector<std::unique_ptr<UDPSocket>> sockets;
    for (int i = 0; i < 4; ++i) {
        sockets.push_back(std::make_unique<UDPSocket>(kLoopback, 0));
        ports.insert(sockets.back()->getPort());
    }
    EXPECT_THAT(ports, testing::ElementsAre(40000, 40001, 40002, 40003));
    EXPECT_EQ(0, UDPSocket(kLoopback, 0).getPort());
    // On purpose they are: by the same number on another address, and on the same.
    EXPECT_EQ(40001, UDPSocket(Address(127, 0, 0, 2), 40001).getPort());
    EXPECT_EQ(40001, UDPSocket(kLoopback, 40001).getPort());
    range.seekp(0);
    range << "32768 60999" << std::flush;
}

TEST_F(UDPSocketTest, BindReturnsTheSystemsResult) {
    EXPECT_EQ(-1, receiver.bind(kLoopback, 0)) << "it is bound already";
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(UDPSocketTest, PortIsZeroWhenBindingFailed) {
    const int holder = socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in address{.sin_family = AF_INET,
                              .sin_port = htons(6061),
                              .sin_addr = {.s_addr = htonl(kLoopback)},
                              .sin_zero = {}};
    ASSERT_EQ(0, ::bind(holder, reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
    UDPSocket second(kLoopback, 6061);
    EXPECT_EQ(0, second.getPort());
    EXPECT_LE(0, second.getNativeHandle());
    close(holder);
    EXPECT_EQ(0, second.bind(kLoopback, 6061)) << "the port is free now";
    EXPECT_EQ(6061, second.getPort());
}

TEST_F(UDPSocketTest, PortIsZeroForAnAddressThatTheHostDoesNotHave) {
    EXPECT_EQ(0, UDPSocket(Address(192, 0, 2, 1), 0).getPort());
}

TEST_F(UDPSocketTest, ClosesItsDescriptor) {
    int descriptor = -1;
    {
        UDPSocket socket(kLoopback, 0);
        descriptor = socket.getNativeHandle();
        EXPECT_NE(-1, fcntl(descriptor, F_GETFD));
    }
    EXPECT_EQ(-1, fcntl(descriptor, F_GETFD));
}

TEST_F(UDPSocketTest, IsNotInheritedByOtherPrograms) {
    EXPECT_NE(0, fcntl(receiver.getNativeHandle(), F_GETFD) & FD_CLOEXEC);
}

TEST_F(UDPSocketTest, SendsToTheConnectedDestination) {
    EXPECT_TRUE(sender.setDestination(kLoopback, receiver.getPort()));
    EXPECT_EQ(5, sender.send("hello", 5));
    EXPECT_EQ("hello", Receive());
}

TEST_F(UDPSocketTest, TheDestinationMayBeAText) {
    EXPECT_TRUE(sender.setDestination("127.0.0.1", receiver.getPort()));
    EXPECT_EQ("127.0.0.1:" + std::to_string(receiver.getPort()), Peer(sender));
    EXPECT_EQ(2, sender.send("ok", 2));
    EXPECT_EQ("ok", Receive());
}

TEST_F(UDPSocketTest, SettingAnUnreachableDestinationIsTrueToo) {
    // A socket bound to loopback has no way there.
    EXPECT_TRUE(sender.setDestination(Address(192, 0, 2, 1), 1));
    EXPECT_EQ("", Peer(sender));
}

struct BadAddressTest : UDPSocketTest, testing::WithParamInterface<const char*> {};

TEST_P(BadAddressTest, IsRefusedAndLeavesTheSocketAlone) {
    EXPECT_FALSE(sender.setDestination(GetParam(), receiver.getPort()));
    EXPECT_EQ("", Peer(sender));
    sender.setDestination(kLoopback, 1234);
    EXPECT_FALSE(sender.setDestination(GetParam(), receiver.getPort()));
    EXPECT_EQ("127.0.0.1:1234", Peer(sender));
}

INSTANTIATE_TEST_SUITE_P(Texts, BadAddressTest,
                         testing::Values("256.1.1.1", "abc", "", "1.2.3", "1.2.3.4 ", "::1",
                                         nullptr));

TEST_F(UDPSocketTest, SendWithoutADestinationFails) {
    EXPECT_EQ(-1, sender.send("x", 1));
    EXPECT_EQ(EDESTADDRREQ, errno);
}

TEST_F(UDPSocketTest, SendsToAGivenAddress) {
    EXPECT_EQ(3, sender.sendto("one", 3, kLoopback, receiver.getPort()));
    EXPECT_EQ("one", Receive());
}

TEST_F(UDPSocketTest, AnOversizeDatagramIsNotSent) {
    const std::string text(70000, 'x');
    EXPECT_EQ(-1, sender.sendto(text.data(), text.size(), kLoopback, receiver.getPort()));
    EXPECT_EQ(EMSGSIZE, errno);
}

TEST_F(UDPSocketTest, BroadcastsToEverySocketOnThePort) {
    receiver = UDPSocket(0);
    EXPECT_EQ(4, sender.sendBroadcast("find", 4, receiver.getPort()));
    uint32_t ip = 0;
    EXPECT_EQ("find", Receive(&ip));
    EXPECT_EQ(kLoopback, ip);
}

TEST_F(UDPSocketTest, SendsAScatteredMessageWhole) {
    char head[] = "head ";
    char body[] = "body";
    iovec pieces[] = {{.iov_base = head, .iov_len = 5}, {.iov_base = body, .iov_len = 4}};
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = 2;
    EXPECT_EQ(-1, sender.sendmsg(&message)) << "it names no destination";
    sender.setDestination(kLoopback, receiver.getPort());
    EXPECT_EQ(9, sender.sendmsg(&message));
    EXPECT_EQ("head body", Receive());
}

TEST_F(UDPSocketTest, ReceiveTellsTheSender) {
    sender.sendto("x", 1, kLoopback, receiver.getPort());
    uint32_t ip = 0;
    uint16_t port = 0;
    EXPECT_EQ("x", Receive(&ip, &port));
    EXPECT_EQ(kLoopback, ip);
    EXPECT_EQ(sender.getPort(), port);
}

TEST_F(UDPSocketTest, ReceiveWithoutAnAddressLeavesThePortUntouched) {
    sender.sendto("x", 1, kLoopback, receiver.getPort());
    uint16_t port = 4242;
    EXPECT_EQ("x", Receive(nullptr, &port));
    EXPECT_EQ(4242, port);
}

TEST_F(UDPSocketTest, ReceiveMayAskForTheAddressAlone) {
    sender.sendto("x", 1, kLoopback, receiver.getPort());
    uint32_t ip = 0;
    EXPECT_EQ("x", Receive(&ip));
    EXPECT_EQ(kLoopback, ip);
}

TEST_F(UDPSocketTest, ReceiveGivesAnEmptyDatagramAsZero) {
    EXPECT_EQ(0, sender.sendto("", 0, kLoopback, receiver.getPort()));
    ASSERT_EQ(1, kelo::test::WaitReadable(receiver, 20000));
    char byte = 0;
    EXPECT_EQ(0, receiver.receive(&byte, 1, nullptr, nullptr));
}

TEST_F(UDPSocketTest, ReceiveCutsALongDatagram) {
    sender.sendto("12345", 5, kLoopback, receiver.getPort());
    ASSERT_EQ(1, kelo::test::WaitReadable(receiver, 20000));
    char text[3] = {};
    EXPECT_EQ(2, receiver.receive(text, 2, nullptr, nullptr));
    EXPECT_STREQ("12", text);
}

TEST_F(UDPSocketTest, ReceiveWaitsUnlessSetNonBlocking) {
    const int handle = receiver.getNativeHandle();
    const int flags = fcntl(handle, F_GETFL);
    EXPECT_EQ(0, flags & O_NONBLOCK);
    fcntl(handle, F_SETFL, flags | O_APPEND);
    receiver.setNonBlocking(true);
    EXPECT_EQ(flags | O_APPEND | O_NONBLOCK, fcntl(handle, F_GETFL)) << "other flags are kept";
    char byte = 0;
    uint32_t ip = 4242;
    EXPECT_EQ(-1, receiver.receive(&byte, 1, &ip, nullptr));
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_EQ(4242u, ip) << "nobody sent anything";
    receiver.setNonBlocking(false);
    EXPECT_EQ(flags | O_APPEND, fcntl(handle, F_GETFL));

    WaitingCall<ssize_t> receive([&] { return receiver.receive(&byte, 1, nullptr, nullptr); });
    receive.AwaitSleep();
    sender.sendto("x", 1, kLoopback, receiver.getPort());
    EXPECT_EQ(1, receive.Get());
}

TEST_F(UDPSocketTest, AReceiveWaitsNoLongerThanItsTimeout) {
    receiver.setReceiveTimeout(20);
    char byte = 0;
    std::chrono::steady_clock::duration waited{};
    do {
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(-1, receiver.receive(&byte, 1, nullptr, nullptr));
        waited = std::chrono::steady_clock::now() - begin;
    } while (errno == EINTR);  // a process that was stopped, or a machine that slept
    EXPECT_EQ(EAGAIN, errno);
    // The kernel's clock of time-outs may tick a little before ours.
    EXPECT_GE(waited, std::chrono::milliseconds(19));
}

TEST_F(UDPSocketTest, ARefusedDatagramShowsAsAnErrorOnReceive) {
    uint16_t port = 0;
    {
        UDPSocket gone(kLoopback, 0);
        port = gone.getPort();
    }
    receiver.setDestination(kLoopback, port);
    receiver.send("x", 1);
    ASSERT_EQ(1, kelo::test::WaitReadable(receiver, 20000));
    char byte = 0;
    EXPECT_EQ(-1, receiver.receive(&byte, 1, nullptr, nullptr));
    EXPECT_EQ(ECONNREFUSED, errno);
}

TEST_F(UDPSocketTest, BufferSizeIsThatOfTheSendBuffer) {
    const int receive_buffer = Option(receiver, SO_RCVBUF);
    receiver.setBufferSize(20000);
    // The kernel doubles it for its own bookkeeping.
    EXPECT_EQ(40000, receiver.getBufferSize());
    EXPECT_EQ(40000, Option(receiver, SO_SNDBUF));
    EXPECT_EQ(receive_buffer, Option(receiver, SO_RCVBUF));
}

TEST_F(UDPSocketTest, TheReceiveBufferIsAskedForSeparately) {
    const int send_buffer = Option(receiver, SO_SNDBUF);
    const StreamCapture errors(STDERR_FILENO);
    EXPECT_EQ(60000, receiver.requestReceiveBuffer(30000));
    EXPECT_EQ(60000, Option(receiver, SO_RCVBUF));
    EXPECT_EQ(send_buffer, Option(receiver, SO_SNDBUF));
    receiver.requestReceiveBuffer(1 << 30);
    EXPECT_LT(60000, Option(receiver, SO_RCVBUF)) << "at least the system's limit";
    EXPECT_EQ("", errors.Text());
}

TEST_F(UDPSocketTest, AnOptionOfAnotherLengthIsPrintedWithoutANumber) {
    const StreamCapture output(STDOUT_FILENO);
    shorten_socket_options = true;
    receiver.getBufferSize();
    shorten_socket_options = false;
    EXPECT_EQ("error - getsockopt returned 2 bytes\n", output.Text());
}

TEST(UDPSocketWithoutDescriptorTest, EveryOperationFailsWithoutHarm) {
    UDPSocket socket = SocketThatCouldNotBeMade();
    EXPECT_EQ(-1, socket.getNativeHandle());
    EXPECT_EQ(0, socket.getPort());
    EXPECT_EQ(-1, socket.bind(kLoopback, 0));
    EXPECT_TRUE(socket.setDestination(kLoopback, 1));
    EXPECT_EQ(-1, socket.send("x", 1));
    EXPECT_EQ(-1, socket.sendto("x", 1, kLoopback, 1));
    EXPECT_EQ(-1, socket.sendBroadcast("x", 1, 1));
    const msghdr message{};
    EXPECT_EQ(-1, socket.sendmsg(&message));
    char byte = 0;
    uint32_t ip = 0;
    EXPECT_EQ(-1, socket.receive(&byte, 1, &ip, nullptr));
    socket.setReceiveTimeout(1);
    EXPECT_FALSE(socket.allowMerging());
    socket.setNonBlocking(true);
    socket.setReusePort();
    socket.setBroadcast();
    EXPECT_EQ(0, socket.requestReceiveBuffer(1000));
}

TEST(UDPSocketWithoutDescriptorTest, BufferSizeFailuresArePrinted) {
    UDPSocket socket = SocketThatCouldNotBeMade();
    const StreamCapture errors(STDERR_FILENO);
    EXPECT_EQ(0, socket.getBufferSize());
    socket.setBufferSize(1000);
    EXPECT_EQ("getBufferSize:: Bad file descriptor\nsetBufferSize:: Bad file descriptor\n",
              errors.Text());
}

class InterfacesTest : public testing::Test {
protected:
    void SetUp() override {
        if (!kelo::test::InPrivateNetwork()) GTEST_SKIP() << "needs a network of its own";
        kelo::test::Ip("address flush dev lo");
        kelo::test::Ip("address add 127.0.0.1/8 dev lo");
        kelo::test::Ip("link set lo up");
    }
    void TearDown() override {
        if (kelo::test::InPrivateNetwork()) kelo::test::Ip("link set lo up");
    }

    static std::vector<uint32_t> Addresses() {
        std::vector<uint32_t> addresses;
        for (const auto& interface : GetNetworkInterfaceInfos(false)) {
            addresses.push_back(interface.addr);
        }
        return addresses;
    }
};

TEST_F(InterfacesTest, AHostWithOnlyLoopbackHasOneEntry) {
    const auto interfaces = GetNetworkInterfaceInfos(false);
    ASSERT_EQ(1u, interfaces.size());
    EXPECT_EQ("lo", interfaces[0].name);
    EXPECT_EQ(kLoopback, interfaces[0].addr);
    EXPECT_EQ(Address(255, 0, 0, 0), interfaces[0].netmask);
    EXPECT_EQ(if_nametoindex("lo"), interfaces[0].index);
    EXPECT_NE(0u, interfaces[0].index);
}

TEST_F(InterfacesTest, EachAddressOfAnInterfaceIsAnEntryOfItsOwn) {
    kelo::test::Ip("address add 127.0.0.11/8 dev lo");
    kelo::test::Ip("address add 192.168.7.5/24 broadcast 192.168.7.255 dev lo");
    EXPECT_THAT(Addresses(), testing::UnorderedElementsAre(kLoopback, Address(127, 0, 0, 11),
                                                           Address(192, 168, 7, 5)));
    for (const auto& interface : GetNetworkInterfaceInfos(false)) {
        if (interface.addr != Address(192, 168, 7, 5)) continue;
        EXPECT_EQ(Address(255, 255, 255, 0), interface.netmask);
        EXPECT_EQ(Address(192, 168, 7, 255), interface.broadcast);
    }
}

TEST_F(InterfacesTest, InterfacesThatAreDownAreListed) {
    kelo::test::Ip("link set lo down");
    EXPECT_THAT(Addresses(), ElementsAre(kLoopback));
}

TEST_F(InterfacesTest, AddressesOfOtherFamiliesAreNotListed) {
    kelo::test::Ip("address flush dev lo");
    EXPECT_THAT(Addresses(), IsEmpty());
}

TEST_F(InterfacesTest, EntriesAreLoggedWordForWord) {
    kelo::test::Ip("address flush dev lo");
    kelo::test::Ip("address add 192.168.7.5/20 broadcast 192.168.15.255 dev lo");
    const LogCapture log;
    GetNetworkInterfaceInfos(true);
    EXPECT_THAT(log.Lines(),
                ElementsAre("  Found interface: index=[" + std::to_string(if_nametoindex("lo")) +
                            "] name=[lo] desc=[unavailable] address=[192.168.7.5] "
                            "netmask=[255.255.240.0] broadcastAddr=[192.168.15.255]"));
    EXPECT_THAT(log.Text(), testing::MatchesRegex("[0-9]+:   Found interface: (.|\n)*"))
        << "three blanks after the colon";
}

TEST_F(InterfacesTest, NothingIsLoggedUnlessAskedFor) {
    const LogCapture log;
    GetNetworkInterfaceInfos(false);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(InterfacesTest, TheListIsEmptyWhenTheSystemCannotTell) {
    const LogCapture log;
    const NoDescriptors none;
    EXPECT_THAT(GetNetworkInterfaceInfos(true), IsEmpty());
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(InterfaceDescriptionTest, IsBuiltFromItsFieldsInOrder) {
    const interface_description interface("eth7", 1, 2, 3, 4);
    EXPECT_EQ("eth7", interface.name);
    EXPECT_EQ(1u, interface.addr);
    EXPECT_EQ(2u, interface.netmask);
    EXPECT_EQ(3u, interface.broadcast);
    EXPECT_EQ(4u, interface.index);
}

}  // namespace
