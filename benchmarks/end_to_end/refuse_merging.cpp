#include "refuse_merging.h"

#include <atomic>
#include <cerrno>

#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

std::atomic<bool> merging_refused{false};

}  // namespace

// Stands in front of the C library's function, also for the shared library that is measured.
extern "C" int setsockopt(int fd, int level, int name, const void* value,
                          socklen_t length) noexcept {
    if (merging_refused && level == IPPROTO_UDP && name == UDP_GRO) {
        errno = ENOPROTOOPT;
        return -1;
    }
    return static_cast<int>(syscall(SYS_setsockopt, fd, level, name, value, length));
}

namespace kelo::bench {

void RefuseMerging() {
    merging_refused = true;
}

}  // namespace kelo::bench
