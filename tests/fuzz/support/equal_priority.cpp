// Refuses real-time priority, as most systems do. A thread that has it would spin in the locks of
// the address sanitizer while the thread that holds them does not get the processor.

#include <cerrno>

#include <pthread.h>

extern "C" int pthread_setschedparam(pthread_t, int, const sched_param*) noexcept {
    return EPERM;
}
