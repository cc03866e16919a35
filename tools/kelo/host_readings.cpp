#include "host_readings.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

#include <ifaddrs.h>
#include <linux/ethtool.h>
#include <linux/if_link.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <pthread.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kelotool {
namespace {

std::vector<std::string> Words(const std::string& line) {
    std::istringstream stream(line);
    return {std::istream_iterator<std::string>(stream), {}};
}

template <typename Number>
Number ToNumber(const std::string& text, int base = 10) {
    Number number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number, base);
    return number;
}

// The inodes of this process's sockets.
std::vector<uint64_t> OwnSocketInodes() {
    std::vector<uint64_t> inodes;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
        // A descriptor may be closed while the list is read.
        std::error_code gone;
        const std::string target = std::filesystem::read_symlink(entry.path(), gone).string();
        if (target.starts_with("socket:[")) inodes.push_back(ToNumber<uint64_t>(target.substr(8)));
    }
    return inodes;
}

// A socket to ask drivers by.
class Asker {
public:
    explicit Asker(const std::string& card) : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        card.copy(request_.ifr_name, IFNAMSIZ - 1);
    }
    ~Asker() {
        if (fd_ >= 0) close(fd_);
    }
    Asker(const Asker&) = delete;
    Asker& operator=(const Asker&) = delete;

    const ifreq* Ask(unsigned long what) {
        return ioctl(fd_, what, &request_) == 0 ? &request_ : nullptr;
    }
    // Fills one of the driver's records, which begins with its command.
    template <typename Record>
    bool AskDriver(Record& record) {
        request_.ifr_data = reinterpret_cast<char*>(&record);
        return ioctl(fd_, SIOCETHTOOL, &request_) == 0;
    }

private:
    int fd_;
    ifreq request_{};
};

void ReadDriver(Asker& asker, Card& card) {
    ethtool_ringparam ring{.cmd = ETHTOOL_GRINGPARAM};
    if (asker.AskDriver(ring) && ring.rx_max_pending != 0) {
        card.ring = ring.rx_pending;
        card.ring_max = ring.rx_max_pending;
    }
    ethtool_value merging{.cmd = ETHTOOL_GGRO, .data = 0};
    if (asker.AskDriver(merging)) card.merges_packets = merging.data != 0;
    ethtool_cmd link{.cmd = ETHTOOL_GSET};
    if (!asker.AskDriver(link)) return;
    const uint32_t speed = ethtool_cmd_speed(&link);
    if (speed == 0 || speed >= static_cast<uint32_t>(SPEED_UNKNOWN)) return;
    card.speed_mbits = speed;
    card.half_duplex = link.duplex == DUPLEX_HALF;
}

// By way of the address list, which is that of the process's network; files in /sys/class/net may
// show another one's cards inside a container.
void ReadCounters(Card& card) {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_PACKET) continue;
        if (entry->ifa_data == nullptr || card.name != entry->ifa_name) continue;
        rtnl_link_stats statistics{};
        std::memcpy(&statistics, entry->ifa_data, sizeof statistics);
        card.counters = {.packets = statistics.rx_packets,
                         .errors = statistics.rx_crc_errors + statistics.rx_frame_errors +
                                   statistics.rx_length_errors,
                         .dropped = statistics.rx_dropped,
                         .missed = statistics.rx_missed_errors,
                         .fifo = statistics.rx_fifo_errors + statistics.rx_over_errors};
    }
    freeifaddrs(list);
}

}  // namespace

std::string ReadText(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::optional<int64_t> ReadNumber(const std::string& path) {
    const std::string text = ReadText(path);
    if (text.empty()) return std::nullopt;
    return ToNumber<int64_t>(text);
}

uint64_t ProtocolCounter(const std::string& contents, const std::string& protocol,
                         const std::string& field) {
    std::istringstream lines(contents);
    // Pairs of lines: names, then numbers, both behind "Protocol:".
    for (std::string names_line, numbers_line;
         std::getline(lines, names_line) && std::getline(lines, numbers_line);) {
        const auto names = Words(names_line);
        const auto numbers = Words(numbers_line);
        if (names.empty() || names[0] != protocol + ":") continue;
        const auto found = std::find(names.begin(), names.end(), field);
        const auto index = static_cast<size_t>(found - names.begin());
        return index < numbers.size() ? ToNumber<uint64_t>(numbers[index]) : 0;
    }
    return 0;
}

uint64_t SocketDrops(const std::string& udp_table, const std::vector<uint64_t>& inodes) {
    constexpr size_t INODE = 9;
    constexpr size_t DROPS = 12;
    uint64_t drops = 0;
    std::istringstream lines(udp_table);
    for (std::string line; std::getline(lines, line);) {
        const auto words = Words(line);
        if (words.size() <= DROPS) continue;
        const auto inode = ToNumber<uint64_t>(words[INODE]);
        const bool own = std::find(inodes.begin(), inodes.end(), inode) != inodes.end();
        if (own) drops += ToNumber<uint64_t>(words[DROPS]);
    }
    return drops;
}

uint64_t OwnSocketDrops() {
    return SocketDrops(ReadText("/proc/net/udp"), OwnSocketInodes());
}

uint64_t BacklogDrops(const std::string& softnet_table) {
    uint64_t drops = 0;
    std::istringstream lines(softnet_table);
    for (std::string line; std::getline(lines, line);) {
        const auto words = Words(line);
        if (words.size() > 1) drops += ToNumber<uint64_t>(words[1], 16);
    }
    return drops;
}

std::optional<Card> ReadCard(const std::string& name) {
    Asker asker(name);
    Card card{.name = name};
    const ifreq* flags = asker.Ask(SIOCGIFFLAGS);
    if (flags == nullptr) return std::nullopt;
    card.up = (flags->ifr_flags & IFF_UP) != 0;
    card.running = (flags->ifr_flags & IFF_RUNNING) != 0;
    card.loopback = (flags->ifr_flags & IFF_LOOPBACK) != 0;
    if (const ifreq* mtu = asker.Ask(SIOCGIFMTU)) card.mtu = mtu->ifr_mtu;
    ReadDriver(asker, card);
    ReadCounters(card);
    return card;
}

int64_t GrantedReceiveBuffer(int wanted) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return 0;
    // As the library asks: beyond the limit first, which takes a privilege.
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &wanted, sizeof wanted) != 0) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &wanted, sizeof wanted);
    }
    int granted = 0;
    socklen_t length = sizeof granted;
    getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &granted, &length);
    close(fd);
    // The kernel doubles it for its own book-keeping.
    return granted / 2;
}

bool MayRunInRealTime() {
    bool may = false;
    // On a thread of its own, which takes the priority with it.
    std::thread([&may] {
        sched_param parameters{};
        parameters.sched_priority = sched_get_priority_max(SCHED_RR);
        may = pthread_setschedparam(pthread_self(), SCHED_RR, &parameters) == 0;
    }).join();
    return may;
}

int64_t RealTimePriorityLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_RTPRIO, &limit) != 0) return 0;
    return limit.rlim_cur == RLIM_INFINITY ? -1 : static_cast<int64_t>(limit.rlim_cur);
}

}  // namespace kelotool
