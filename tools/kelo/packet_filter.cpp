#include "packet_filter.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <span>

#include <arpa/inet.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kelotool {
namespace {

using Bytes = std::span<const uint8_t>;

constexpr size_t Aligned(size_t length) {
    return (length + 3) & ~size_t{3};
}

template <typename Record>
bool Read(Bytes bytes, Record& record) {
    if (bytes.size() < sizeof record) return false;
    std::memcpy(&record, bytes.data(), sizeof record);
    return true;
}

void ForEachAttribute(Bytes bytes, const std::function<void(int type, Bytes value)>& body) {
    nlattr header{};
    while (Read(bytes, header) && header.nla_len >= sizeof header &&
           header.nla_len <= bytes.size()) {
        body(header.nla_type & NLA_TYPE_MASK,
             bytes.subspan(sizeof header, header.nla_len - sizeof header));
        bytes = bytes.subspan(std::min(Aligned(header.nla_len), bytes.size()));
    }
}

// The first attribute of that type; empty when there is none.
Bytes Attribute(Bytes bytes, int type) {
    Bytes found;
    ForEachAttribute(bytes, [&](int its_type, Bytes value) {
        if (its_type == type && found.empty()) found = value;
    });
    return found;
}

std::string TextOf(Bytes bytes) {
    const auto end = std::find(bytes.begin(), bytes.end(), uint8_t{0});
    return {bytes.begin(), end};
}

std::optional<uint32_t> NumberOf(Bytes bytes) {
    uint32_t number = 0;
    if (!Read(bytes, number)) return std::nullopt;
    return ntohl(number);
}

// Asks the kernel for all chains or all rules and hands out the attributes of each.
class FilterReader {
public:
    using Body = std::function<void(int family, Bytes attributes)>;

    FilterReader() : fd_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER)) {
        // A kernel that does not answer is none that we wait for.
        const timeval limit{.tv_sec = 1, .tv_usec = 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }
    ~FilterReader() {
        if (fd_ >= 0) close(fd_);
    }
    FilterReader(const FilterReader&) = delete;
    FilterReader& operator=(const FilterReader&) = delete;

    // False when it is refused.
    bool ForEach(uint16_t what, const Body& body) {
        struct {
            nlmsghdr header;
            nfgenmsg family;
        } request{};
        request.header.nlmsg_len = sizeof request;
        request.header.nlmsg_type = static_cast<uint16_t>(NFNL_SUBSYS_NFTABLES << 8 | what);
        request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
        request.family.nfgen_family = NFPROTO_UNSPEC;
        if (send(fd_, &request, sizeof request, 0) != static_cast<ssize_t>(sizeof request)) {
            return false;
        }
        while (true) {
            const ssize_t length = recv(fd_, buffer_.data(), buffer_.size(), 0);
            if (length <= 0) return false;
            const auto end = Messages(Bytes(buffer_).first(static_cast<size_t>(length)), body);
            if (end) return *end;
        }
    }

private:
    // Whether that was the end, and whether it was a good one.
    static std::optional<bool> Messages(Bytes bytes, const Body& body) {
        nlmsghdr header{};
        while (Read(bytes, header) && header.nlmsg_len >= sizeof header &&
               header.nlmsg_len <= bytes.size()) {
            if (header.nlmsg_type == NLMSG_DONE) return true;
            if (header.nlmsg_type == NLMSG_ERROR) return false;
            const Bytes contents = bytes.subspan(sizeof header, header.nlmsg_len - sizeof header);
            nfgenmsg family{};
            if (Read(contents, family)) body(family.nfgen_family, contents.subspan(sizeof family));
            bytes = bytes.subspan(std::min(Aligned(header.nlmsg_len), bytes.size()));
        }
        return std::nullopt;
    }

    int fd_;
    std::array<uint8_t, 65536> buffer_{};
};

const char* FamilyName(int family) {
    return family == NFPROTO_INET     ? "inet"
           : family == NFPROTO_IPV4   ? "ip"
           : family == NFPROTO_NETDEV ? "netdev"
                                      : nullptr;
}

// Whether IPv4 packets for this machine pass here.
bool IsOnTheWayIn(int family, uint32_t hook) {
    if (family == NFPROTO_NETDEV) return hook == NF_NETDEV_INGRESS;
    return hook == NF_INET_PRE_ROUTING || hook == NF_INET_LOCAL_IN || hook == NF_INET_INGRESS;
}

void AddChain(int family, Bytes attributes, std::vector<FilterChain>& chains) {
    const auto hook =
        NumberOf(Attribute(Attribute(attributes, NFTA_CHAIN_HOOK), NFTA_HOOK_HOOKNUM));
    const char* const name = FamilyName(family);
    if (!hook || name == nullptr || !IsOnTheWayIn(family, *hook)) return;
    chains.push_back(
        {.family = name,
         .table = TextOf(Attribute(attributes, NFTA_CHAIN_TABLE)),
         .chain = TextOf(Attribute(attributes, NFTA_CHAIN_NAME)),
         .drops_by_default = NumberOf(Attribute(attributes, NFTA_CHAIN_POLICY)) == NF_DROP});
}

bool Drops(Bytes expression) {
    const std::string name = TextOf(Attribute(expression, NFTA_EXPR_NAME));
    if (name == "reject") return true;
    if (name != "immediate") return false;
    const Bytes data = Attribute(Attribute(expression, NFTA_EXPR_DATA), NFTA_IMMEDIATE_DATA);
    return NumberOf(Attribute(Attribute(data, NFTA_DATA_VERDICT), NFTA_VERDICT_CODE)) == NF_DROP;
}

void CountRule(int family, Bytes attributes, std::vector<FilterChain>& chains) {
    bool drops = false;
    ForEachAttribute(Attribute(attributes, NFTA_RULE_EXPRESSIONS),
                     [&](int, Bytes expression) { drops = drops || Drops(expression); });
    const char* const name = FamilyName(family);
    if (!drops || name == nullptr) return;
    const std::string table = TextOf(Attribute(attributes, NFTA_RULE_TABLE));
    for (FilterChain& chain : chains) {
        if (chain.family == name && chain.table == table) ++chain.dropping_rules;
    }
}

}  // namespace

std::optional<std::vector<FilterChain>> ReadPacketFilter() {
    FilterReader reader;
    std::vector<FilterChain> chains;
    const bool chains_read = reader.ForEach(
        NFT_MSG_GETCHAIN, [&](int family, Bytes chain) { AddChain(family, chain, chains); });
    if (!chains_read) return std::nullopt;
    const bool rules_read = reader.ForEach(
        NFT_MSG_GETRULE, [&](int family, Bytes rule) { CountRule(family, rule, chains); });
    return rules_read ? std::optional(chains) : std::nullopt;
}

}  // namespace kelotool
