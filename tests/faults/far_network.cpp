#include "far_network.h"

#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

namespace kelo::test {
namespace {

constexpr const char* kHostEnd = "kelo-host";
constexpr const char* kFarEnd = "kelo-far";

void RunOnThread(const std::function<void()>& run) {
    std::exception_ptr failure;
    std::thread([&] {
        try {
            run();
        } catch (...) {
            failure = std::current_exception();
        }
    }).join();
    if (failure) std::rethrow_exception(failure);
}

std::string Dotted24(uint32_t address) {
    return kelosim::Ipv4Text(address) + "/24";
}

}  // namespace

FarNetwork::FarNetwork() {
    RunOnThread([this] {
        if (unshare(CLONE_NEWNET) != 0) throw std::runtime_error("no namespace");
        Ip("link set lo up");
        namespace_fd_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    });
    if (namespace_fd_ < 0) throw std::runtime_error("the namespace cannot be kept");
    LayCable();
}

FarNetwork::~FarNetwork() {
    simulator_.Stop();
    // The namespace, and the cable with it, goes at a time of the kernel's choice.
    (void)std::system((std::string("ip link del ") + kHostEnd + " 2>/dev/null").c_str());
    close(namespace_fd_);
}

kelosim::Camera& FarNetwork::StartCamera(kelosim::CameraConfig config) {
    config.address = kCamera;
    config.subnet_mask = 0xFFFFFF00;
    Inside([&] {
        simulator_.Add(config);
        simulator_.Start();
    });
    return simulator_[0];
}

void FarNetwork::LayCable() {
    Ip(std::string("link add ") + kHostEnd + " type veth peer name " + kFarEnd + " netns /proc/" +
       std::to_string(getpid()) + "/fd/" + std::to_string(namespace_fd_));
    Ip("address add " + Dotted24(kHost) + " broadcast + dev " + kHostEnd);
    Inside([] { Ip("address add " + Dotted24(kCamera) + " broadcast + dev " + kFarEnd); });
    PutBack(End::kFar);
    PutBack(End::kHost);
}

void FarNetwork::RemoveCable() {
    Ip(std::string("link del ") + kHostEnd);
}

void FarNetwork::SetCable(End end, bool up) const {
    const char* state = up ? " up" : " down";
    if (end == End::kHost) {
        Ip(std::string("link set ") + kHostEnd + state);
    } else {
        Inside([&] { Ip(std::string("link set ") + kFarEnd + state); });
    }
}

void FarNetwork::Inside(const std::function<void()>& run) const {
    RunOnThread([&] {
        if (setns(namespace_fd_, CLONE_NEWNET) != 0) throw std::runtime_error("no way in");
        run();
    });
}

}  // namespace kelo::test
