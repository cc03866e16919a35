#include "network_path.h"

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include "../../tests/support/network_namespace.h"
#include "interface_features.h"
#include "merge_probe.h"

namespace kelo::bench {
namespace {

using test::Ip;

constexpr uint32_t VETH_CAMERA = test::Address(10, 77, 0, 1);
constexpr uint32_t VETH_RECEIVER = test::Address(10, 77, 0, 2);

[[noreturn]] void Fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// A pair receives in NAPI only what its other end does not hold back for TCP.
void SwitchTcpOffloadOff(const std::string& interface) {
    for (const char* feature :
         {"tx-tcp-segmentation", "tx-tcp6-segmentation", "tx-tcp-ecn-segmentation",
          "tx-tcp-mangleid-segmentation", "tx-tcp-accecn-segmentation"}) {
        // Kernels do not know all of them.
        SetInterfaceFeature(interface, feature, false);
    }
}

class NetworkHandle {
public:
    NetworkHandle() : fd_(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC)) {
        if (fd_ < 0) Fail("network namespace");
    }
    ~NetworkHandle() { close(fd_); }
    NetworkHandle(const NetworkHandle&) = delete;
    NetworkHandle& operator=(const NetworkHandle&) = delete;

    void Enter() const {
        if (setns(fd_, CLONE_NEWNET) != 0) Fail("entering a network namespace");
    }

private:
    const int fd_;
};

// The view of /sys follows the network in which it was mounted.
void MountOwnSys() {
    if (unshare(CLONE_NEWNS) != 0 ||
        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("sysfs", "/sys", "sysfs", 0, nullptr) != 0) {
        Fail("/sys of the receiver's network");
    }
}

std::vector<pid_t> ProcessesNamed(const std::string& prefix) {
    std::vector<pid_t> found;
    for (const auto& process : std::filesystem::directory_iterator("/proc")) {
        std::string name;
        std::ifstream(process.path() / "comm") >> name;
        if (name.starts_with(prefix)) found.push_back(std::stoi(process.path().filename()));
    }
    return found;
}

}  // namespace

NetworkPath::NetworkPath(Way way) : way_(way) {
    const bool is_private = test::EnterPrivateNetwork();
    if (!is_private) {
        if (way != Way::LOOPBACK) {
            throw std::runtime_error("needs a network of its own, which is not allowed here");
        }
        note_ = "on the machine's own loopback: no private network is allowed here";
    }
    if (IsVeth()) {
        first_camera_ = VETH_CAMERA;
        receiver_address_ = VETH_RECEIVER;
    } else {
        PrepareLoopback();
    }
}

void NetworkPath::PrepareLoopback() {
    const Merge merge = ProbeLoopbackMerge();
    if (merge == Merge::REFUSED) {
        kernel_splits_ = false;
        note_ += "; each datagram is sent as a message of its own";
    } else if (merge == Merge::UNMERGED) {
        note_ += "; this machine's loopback merges nothing";
    }
    if (note_.starts_with("; ")) note_.erase(0, 2);
}

void NetworkPath::EnterReceiverSide(pid_t cameras, int receiver_core) {
    if (!IsVeth()) return;
    const std::string number = std::to_string(getpid() % 100'000);
    veth_ = "k" + number;
    veth_camera_ = "c" + number;
    SetUpVeth(cameras);
    MountOwnSys();
    std::ofstream threaded("/sys/class/net/" + veth_ + "/threaded");
    threaded << "1" << std::flush;
    if (!threaded) throw std::runtime_error("the system refuses threaded NAPI on a veth pair");
    PinReceivingThreads(receiver_core);
}

void NetworkPath::SetUpVeth(pid_t cameras) {
    const NetworkHandle camera_network;
    if (unshare(CLONE_NEWNET) != 0) Fail("a network for the receiver");
    const NetworkHandle receiver_network;
    Ip("link set lo up");
    Ip("link add " + veth_ + " type veth peer name " + veth_camera_ + " netns " +
       std::to_string(cameras));
    Ip("addr add 10.77.0.2/24 dev " + veth_);
    // With this the pair receives in NAPI, as a card's driver does.
    if (!SetInterfaceFeature(veth_, "rx-gro", true)) {
        throw std::runtime_error("the system refuses to merge packets on a veth pair");
    }
    Ip("link set " + veth_ + " up");

    camera_network.Enter();
    Ip("addr add 10.77.0.1/24 dev " + veth_camera_);
    SwitchTcpOffloadOff(veth_camera_);
    if (way_ == Way::VETH_UNMERGED &&
        !SetInterfaceFeature(veth_camera_, "tx-udp-segmentation", false)) {
        throw std::runtime_error("the system refuses to split messages before a veth pair");
    }
    Ip("link set " + veth_camera_ + " up");
    receiver_network.Enter();
}

void NetworkPath::PinReceivingThreads(int core) {
    const std::string prefix = "napi/" + veth_ + "-";
    for (int i = 0; i < 100 && kernel_threads_.empty(); ++i) {
        kernel_threads_ = ProcessesNamed(prefix);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (kernel_threads_.empty()) throw std::runtime_error("no kernel thread receives for the veth");
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<unsigned>(core), &set);
    for (const pid_t thread : kernel_threads_) {
        if (sched_setaffinity(thread, sizeof set, &set) != 0) {
            Fail("pinning the kernel's receiving thread");
        }
    }
}

double NetworkPath::KernelThreadSeconds() const {
    double sum_ns = 0;
    for (const pid_t thread : kernel_threads_) {
        double ns = 0;
        std::ifstream("/proc/" + std::to_string(thread) + "/schedstat") >> ns;
        sum_ns += ns;
    }
    return sum_ns / 1e9;
}

}  // namespace kelo::bench
