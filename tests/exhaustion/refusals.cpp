#include "refusals.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>

#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>

// A sanitizer owns malloc. Of gcc's, which are shared libraries, operator new may be taken; clang
// links its own into the executable, where there is room for one only.
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define REFUSES_NOTHING 1
#endif
#endif
#if !defined(REFUSES_NOTHING)
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define REFUSES_OPERATOR_NEW 1
#else
#define REFUSES_MALLOC 1
#endif
#endif

namespace kelo::test {
namespace {

// What one thread is refused of one kind. Constant-initialised: a thread's first request must not
// make a second one.
struct Plan {
    int countdown = 0;  // 0: nothing is refused
    Extent extent = Extent::kOne;
    bool happened = false;

    void Begin(int nth, Extent how_much) {
        happened = false;
        extent = how_much;
        countdown = nth;
    }
    bool Refuses() {
        if (countdown == 0) return false;
        if (countdown > 1) {
            --countdown;
            return false;
        }
        if (extent == Extent::kOne) countdown = 0;
        happened = true;
        return true;
    }
};

thread_local constinit Plan memory_plan;
thread_local constinit Plan thread_plan;
thread_local constinit bool exempt = false;
constinit std::atomic<bool> others_get_none{false};
constinit std::atomic<int> others_refused{0};

constinit std::atomic<bool> interrupting{false};
constinit std::atomic<int> interruptions{0};
enum Interruptible { kPoll, kRecv, kRecvmmsg, kSend, kSendto, kInterruptibles };
thread_local constinit bool interrupted_last[kInterruptibles] = {};

// Whether this call of the function is interrupted; the next one is not.
bool Interrupts(Interruptible function) {
    if (!interrupting) return false;
    bool& interrupted = interrupted_last[function];
    interrupted = !interrupted;
    if (interrupted) {
        ++interruptions;
        errno = EINTR;
    }
    return interrupted;
}

[[maybe_unused]] bool RefusesMemory() {
    if (others_get_none && !exempt) {
        ++others_refused;
        return true;
    }
    return memory_plan.Refuses();
}

}  // namespace

bool MemoryCanBeRefused() {
#if defined(REFUSES_NOTHING)
    return false;
#else
    return true;
#endif
}

NoMemory::NoMemory(int nth, Extent extent) {
    memory_plan.Begin(nth, extent);
}
NoMemory::~NoMemory() {
    memory_plan.countdown = 0;
}
bool NoMemory::Happened() {
    return memory_plan.happened;
}

NoMemoryForOthers::NoMemoryForOthers() {
    exempt = true;
    others_refused = 0;
    others_get_none = true;
}
NoMemoryForOthers::~NoMemoryForOthers() {
    others_get_none = false;
    exempt = false;
}
int NoMemoryForOthers::Count() {
    return others_refused;
}

NoThread::NoThread(int nth, Extent extent) {
    thread_plan.Begin(nth, extent);
}
NoThread::~NoThread() {
    thread_plan.countdown = 0;
}
bool NoThread::Happened() {
    return thread_plan.happened;
}

Interruptions::Interruptions() {
    interruptions = 0;
    interrupting = true;
}
Interruptions::~Interruptions() {
    interrupting = false;
}
int Interruptions::Count() {
    return interruptions;
}

}  // namespace kelo::test

// What stands in the executable goes before the system's libraries, for them as well.

extern "C" {

using CreateFunction = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

// A sanitizer that is linked into the executable has its own under this name.
__attribute__((weak)) CreateFunction __interceptor_pthread_create;

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                   void* argument) {
    if (kelo::test::thread_plan.Refuses()) return EAGAIN;
    CreateFunction* next = __interceptor_pthread_create;
    if (next == nullptr)
        next = reinterpret_cast<CreateFunction*>(dlsym(RTLD_NEXT, "pthread_create"));
    return next(thread, attributes, function, argument);
}

}  // extern "C"

namespace {

// The function that the system, or a sanitizer, has under the name.
template <typename Function>
Function* Next(Function* of_sanitizer, const char* name) {
    if (of_sanitizer != nullptr) return of_sanitizer;
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

using PollFunction = int(pollfd*, nfds_t, int);
using RecvFunction = ssize_t(int, void*, size_t, int);
using RecvmmsgFunction = int(int, mmsghdr*, unsigned, int, timespec*);
using SendFunction = ssize_t(int, const void*, size_t, int);
using SendtoFunction = ssize_t(int, const void*, size_t, int, const sockaddr*, socklen_t);

__attribute__((weak)) PollFunction __interceptor_poll;
__attribute__((weak)) RecvFunction __interceptor_recv;
__attribute__((weak)) RecvmmsgFunction __interceptor_recvmmsg;
__attribute__((weak)) SendFunction __interceptor_send;
__attribute__((weak)) SendtoFunction __interceptor_sendto;

int poll(pollfd* descriptors, nfds_t count, int timeout) {
    static PollFunction* const next = Next(__interceptor_poll, "poll");
    return kelo::test::Interrupts(kelo::test::kPoll) ? -1 : next(descriptors, count, timeout);
}

ssize_t recv(int fd, void* buffer, size_t size, int flags) {
    static RecvFunction* const next = Next(__interceptor_recv, "recv");
    return kelo::test::Interrupts(kelo::test::kRecv) ? -1 : next(fd, buffer, size, flags);
}

int recvmmsg(int fd, mmsghdr* messages, unsigned count, int flags, timespec* timeout) {
    static RecvmmsgFunction* const next = Next(__interceptor_recvmmsg, "recvmmsg");
    return kelo::test::Interrupts(kelo::test::kRecvmmsg)
               ? -1
               : next(fd, messages, count, flags, timeout);
}

ssize_t send(int fd, const void* data, size_t size, int flags) {
    static SendFunction* const next = Next(__interceptor_send, "send");
    return kelo::test::Interrupts(kelo::test::kSend) ? -1 : next(fd, data, size, flags);
}

ssize_t sendto(int fd, const void* data, size_t size, int flags, const sockaddr* address,
               socklen_t address_size) {
    static SendtoFunction* const next = Next(__interceptor_sendto, "sendto");
    return kelo::test::Interrupts(kelo::test::kSendto)
               ? -1
               : next(fd, data, size, flags, address, address_size);
}

}  // extern "C"

#if defined(REFUSES_MALLOC)

extern "C" {

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);

void* malloc(size_t size) {
    if (!kelo::test::RefusesMemory()) return __libc_malloc(size);
    errno = ENOMEM;
    return nullptr;
}

void* calloc(size_t count, size_t size) {
    if (!kelo::test::RefusesMemory()) return __libc_calloc(count, size);
    errno = ENOMEM;
    return nullptr;
}

void* realloc(void* block, size_t size) {
    if (!kelo::test::RefusesMemory()) return __libc_realloc(block, size);
    errno = ENOMEM;
    return nullptr;
}

}  // extern "C"

#elif defined(REFUSES_OPERATOR_NEW)

void* operator new(size_t size) {
    void* block = kelo::test::RefusesMemory() ? nullptr : std::malloc(size);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}
void* operator new[](size_t size) {
    return operator new(size);
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return kelo::test::RefusesMemory() ? nullptr : std::malloc(size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return operator new(size, std::nothrow);
}
void operator delete(void* block) noexcept {
    std::free(block);
}
void operator delete[](void* block) noexcept {
    std::free(block);
}
void operator delete(void* block, size_t) noexcept {
    std::free(block);
}
void operator delete[](void* block, size_t) noexcept {
    std::free(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
    std::free(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
    std::free(block);
}

#endif
