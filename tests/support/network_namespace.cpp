#include "network_namespace.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <unistd.h>

namespace kelo::test {
namespace {

bool in_private_network = false;

void WriteFile(const char* path, const std::string& text) {
    std::ofstream(path) << text;
}

bool Unshare() {
    if (unshare(CLONE_NEWNET) == 0) return true;
    const uid_t user = getuid();
    const gid_t group = getgid();
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) return false;
    WriteFile("/proc/self/setgroups", "deny");
    WriteFile("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
    WriteFile("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
    return true;
}

void TakeMachineWideLock() {
    // Left open on purpose: the lock lives as long as the process.
    const int lock = open("/tmp/kelo-network-tests.lock", O_CREAT | O_RDWR | O_CLOEXEC, 0666);
    if (lock >= 0) flock(lock, LOCK_EX);
}

}  // namespace

bool EnterPrivateNetwork() {
    if (Unshare()) {
        in_private_network = true;
        Ip("link set lo up");
    } else {
        TakeMachineWideLock();
    }
    return in_private_network;
}

bool InPrivateNetwork() {
    return in_private_network;
}

void Ip(const std::string& arguments) {
    if (!in_private_network) throw std::logic_error("refused: ip " + arguments);
    if (std::system(("ip " + arguments).c_str()) != 0) {
        throw std::runtime_error("failed: ip " + arguments);
    }
}

}  // namespace kelo::test
