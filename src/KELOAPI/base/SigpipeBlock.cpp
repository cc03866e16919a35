#include "SigpipeBlock.h"

#include <cerrno>
#include <ctime>

#include <pthread.h>

namespace kelo {
namespace {

sigset_t OnlySigpipe() {
    sigset_t set{};
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
}

}  // namespace

SigpipeBlock::SigpipeBlock() {
    const sigset_t sigpipe = OnlySigpipe();
    blocked_ =
        pthread_sigmask(SIG_BLOCK, &sigpipe, &before_) == 0 && sigismember(&before_, SIGPIPE) == 0;
}

// A write raises the signal for the writing thread only, so what is pending now is its own doing:
// it could not have become pending before, being unblocked.
SigpipeBlock::~SigpipeBlock() {
    if (!blocked_) return;
    const int error = errno;
    const sigset_t sigpipe = OnlySigpipe();
    const timespec now{};
    while (sigtimedwait(&sigpipe, nullptr, &now) < 0 && errno == EINTR) {
    }
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    errno = error;
}

}  // namespace kelo
