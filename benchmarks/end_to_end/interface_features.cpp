#include "interface_features.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <vector>

#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kelo::bench {
namespace {

class Ethtool {
public:
    explicit Ethtool(const std::string& interface)
        : interface_(interface), fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
    ~Ethtool() { close(fd_); }
    Ethtool(const Ethtool&) = delete;
    Ethtool& operator=(const Ethtool&) = delete;

    bool Call(void* command) const {
        ifreq request{};
        interface_.copy(request.ifr_name, sizeof request.ifr_name - 1);
        request.ifr_data = static_cast<char*>(command);
        return ioctl(fd_, SIOCETHTOOL, &request) == 0;
    }

private:
    const std::string interface_;
    const int fd_;
};

// The records of this interface end in arrays of a length that only the kernel knows.
template <typename Head>
class Record {
public:
    explicit Record(size_t tail_bytes)
        : words_((sizeof(Head) + tail_bytes) / sizeof(uint64_t) + 1) {}
    Head* operator->() { return reinterpret_cast<Head*>(words_.data()); }
    void* Data() { return words_.data(); }
    std::byte* Tail() { return reinterpret_cast<std::byte*>(words_.data()) + sizeof(Head); }

private:
    std::vector<uint64_t> words_;
};

uint32_t FeatureCount(const Ethtool& ethtool) {
    Record<ethtool_sset_info> info(sizeof(uint32_t));
    info->cmd = ETHTOOL_GSSET_INFO;
    info->sset_mask = uint64_t{1} << ETH_SS_FEATURES;
    if (!ethtool.Call(info.Data()) || info->sset_mask == 0) return 0;
    uint32_t count = 0;
    std::memcpy(&count, info.Tail(), sizeof count);
    return count;
}

std::optional<uint32_t> FeatureIndex(const Ethtool& ethtool, const std::string& feature,
                                     uint32_t count) {
    Record<ethtool_gstrings> names(size_t{count} * ETH_GSTRING_LEN);
    names->cmd = ETHTOOL_GSTRINGS;
    names->string_set = ETH_SS_FEATURES;
    names->len = count;
    if (!ethtool.Call(names.Data())) return std::nullopt;
    for (uint32_t i = 0; i < count; ++i) {
        char name[ETH_GSTRING_LEN + 1] = {};
        std::memcpy(name, names.Tail() + size_t{i} * ETH_GSTRING_LEN, ETH_GSTRING_LEN);
        if (feature == name) return i;
    }
    return std::nullopt;
}

}  // namespace

bool SetInterfaceFeature(const std::string& interface, const std::string& feature, bool on) {
    const Ethtool ethtool(interface);
    const uint32_t count = FeatureCount(ethtool);
    const std::optional<uint32_t> index = FeatureIndex(ethtool, feature, count);
    if (!index) return false;
    const uint32_t blocks = (count + 31) / 32;
    Record<ethtool_sfeatures> change(blocks * sizeof(ethtool_set_features_block));
    change->cmd = ETHTOOL_SFEATURES;
    change->size = blocks;
    const uint32_t bit = uint32_t{1} << (*index % 32);
    const ethtool_set_features_block block = {bit, on ? bit : 0};
    std::memcpy(change.Tail() + *index / 32 * sizeof block, &block, sizeof block);
    return ethtool.Call(change.Data());
}

}  // namespace kelo::bench
