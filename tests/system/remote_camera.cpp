#include "remote_camera.h"

#include <cstdlib>
#include <stdexcept>
#include <string>

#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "kelosim/simulator.h"
#include "network_namespace.h"

namespace kelo::test {
namespace {

void WaitForByte(int fd) {
    char byte = 0;
    if (read(fd, &byte, 1) != 1) throw std::runtime_error("the other process is gone");
}

void SendByte(int fd) {
    if (write(fd, "", 1) != 1) throw std::runtime_error("the other process is gone");
}

// The child: only calls what a process with one thread may call behind a fork.
[[noreturn]] void RunCamera(int from_parent, int to_parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    try {
        if (unshare(CLONE_NEWNET) != 0) throw std::runtime_error("no namespace");
        SendByte(to_parent);
        WaitForByte(from_parent);  // the cable is here now
        if (std::system("ip link set lo up && ip address add 10.9.0.2/24 broadcast + dev camera && "
                        "ip link set camera up") != 0) {
            throw std::runtime_error("the cable cannot be set up");
        }
        kelosim::Simulator simulator;
        kelosim::CameraConfig config;
        config.address = RemoteCamera::kAddress;
        config.subnet_mask = 0xFFFFFF00;
        config.heartbeat_timeout_ms = 100000;
        config.streams = {RemoteCamera::Stream()};
        simulator.Add(config);
        simulator.Start();
        SendByte(to_parent);
        WaitForByte(from_parent);
        simulator.Stop();
    } catch (...) {
        _exit(1);
    }
    _exit(0);
}

}  // namespace

kelosim::StreamConfig RemoteCamera::Stream() {
    kelosim::StreamConfig stream;
    stream.source = kelosim::MakeTestChart8(320, 240);
    stream.frame_rate = 50;
    return stream;
}

RemoteCamera::RemoteCamera(uint32_t mtu) {
    int to_child[2];
    int to_parent[2];
    if (pipe(to_child) != 0 || pipe(to_parent) != 0) throw std::runtime_error("no pipe");
    child_ = fork();
    // The destructor's signal to -1 would end every process there is.
    if (child_ < 0) throw std::runtime_error("no process");
    if (child_ == 0) RunCamera(to_child[0], to_parent[1]);
    WaitForByte(to_parent[0]);
    const std::string size = std::to_string(mtu);
    Ip(std::string("link add ") + kCable + " mtu " + size + " type veth peer name camera mtu " +
       size + " netns " + std::to_string(child_));
    Ip(std::string("address add 10.9.0.1/24 broadcast + dev ") + kCable);
    Ip(std::string("link set ") + kCable + " up");
    SendByte(to_child[1]);
    WaitForByte(to_parent[0]);
}

RemoteCamera::~RemoteCamera() {
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
    // The namespace, and the cable with it, goes at a time of the kernel's choice.
    (void)std::system((std::string("ip link del ") + kCable + " 2>/dev/null").c_str());
}

void RemoteCamera::SetCable(bool up) {
    Ip(std::string("link set ") + kCable + (up ? " up" : " down"));
}

}  // namespace kelo::test
