#include "answer_listener.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kelotool {
namespace {

constexpr uint16_t CONTROL_PORT = 6061;

// Lets UDP datagrams from the cameras' port through: a busy machine must not fill the buffer.
bool KeepAnswersOnly(int fd) {
    sock_filter code[] = {BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 9),  // the protocol
                          BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_UDP, 0, 4),
                          BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, 0),  // the length of the IP header
                          BPF_STMT(BPF_LD | BPF_H | BPF_IND, 0),   // the source port
                          BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, CONTROL_PORT, 0, 1),
                          BPF_STMT(BPF_RET | BPF_K, sizeof(iphdr)),
                          BPF_STMT(BPF_RET | BPF_K, 0)};
    const sock_fprog program{.len = sizeof code / sizeof *code, .filter = code};
    return setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) == 0;
}

}  // namespace

AnswerListener::AnswerListener() {
    // Nothing comes before the filter is there: the protocol is named by the bind.
    fd_ = socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd_ < 0) return;
    sockaddr_ll all{};
    all.sll_family = AF_PACKET;
    all.sll_protocol = htons(ETH_P_IP);
    if (KeepAnswersOnly(fd_) && bind(fd_, reinterpret_cast<sockaddr*>(&all), sizeof all) == 0) {
        return;
    }
    close(fd_);
    fd_ = -1;
}

AnswerListener::~AnswerListener() {
    if (fd_ >= 0) close(fd_);
}

std::set<uint32_t> AnswerListener::Heard() {
    iphdr header{};
    sockaddr_ll from{};
    socklen_t length = sizeof from;
    while (fd_ >= 0 && recvfrom(fd_, &header, sizeof header, 0, reinterpret_cast<sockaddr*>(&from),
                                &length) >= static_cast<ssize_t>(sizeof header)) {
        if (from.sll_pkttype != PACKET_OUTGOING) heard_.insert(ntohl(header.saddr));
        length = sizeof from;
    }
    return heard_;
}

}  // namespace kelotool
