#include "library.h"

#include <atomic>
#include <chrono>
#include <exception>
#include <mutex>
#include <new>
#include <thread>

#include <pthread.h>

#include "utils.h"

namespace kelo {
namespace {

// How long a release waits for calls that are still inside. The application promises that there are
// none; a wait for an image, which a release ends, takes a moment to return. A call that takes
// longer keeps the manager until it returns, and destroys it then.
//
// A close callback is waited for however long it takes, as the manager's destruction waits for it
// anyway: if its call were the last to leave, the callback thread would have to join itself.
constexpr auto kLeaveTimeMax = std::chrono::milliseconds(250);
constexpr auto kLeavePoll = std::chrono::microseconds(200);

using ManagerPtr = std::shared_ptr<KELOManager>;

struct State {
    std::mutex mutex;
    // Guarded by mutex.
    ManagerPtr manager;
    // Room for one more holder of the manager, made along with it: a release must not need memory.
    std::unique_ptr<ManagerPtr> last_holder;

    State* inherited = nullptr;  // what a forked process has from its parent
};

// Never destroyed: threads of the application may still call while the process exits.
std::atomic<State*>& TheStatePointer() {
    static std::atomic<State*> state = new State;
    return state;
}

State& TheState() {
    return *TheStatePointer();
}

// A forked process has none of the library's threads, and perhaps some of its locks: it begins
// without the library, and never touches what belongs to its parent's cameras.
void BeginAnewInForkedProcess() {
    auto* const fresh = new (std::nothrow) State;
    if (fresh == nullptr) return;
    fresh->inherited = TheStatePointer().exchange(fresh);
}

void ForgetManagerInForkedProcesses() {
    static const int registered = pthread_atfork(nullptr, nullptr, BeginAnewInForkedProcess);
    (void)registered;
}

// For a release that a close callback calls: the manager waits for this very thread to end, so
// another one has to take it down.
void DestroyElsewhere(std::unique_ptr<ManagerPtr> last_holder) {
    ManagerPtr* const last = last_holder.release();
    try {
        std::thread([last] { delete last; }).detach();
    } catch (const std::exception&) {
        // Without a thread to be had it stays as it is, out of reach of any call.
        kelo::Log("The library could not be taken down: no thread is to be had.\n");
    }
}

void WaitForCallsToLeave(const ManagerPtr& manager) {
    const auto deadline = std::chrono::steady_clock::now() + kLeaveTimeMax;
    const auto may_wait = [&] {
        return std::chrono::steady_clock::now() < deadline || manager->IsInCallback();
    };
    while (manager.use_count() > 1 && may_wait()) {
        std::this_thread::sleep_for(kLeavePoll);
    }
}

}  // namespace

std::shared_ptr<KELOManager> CurrentManager() {
    State& state = TheState();
    const std::lock_guard lock(state.mutex);
    return state.manager;
}

void CreateManager() {
    State& state = TheState();
    const std::lock_guard lock(state.mutex);
    if (state.manager != nullptr) return;
    ForgetManagerInForkedProcesses();
    auto last_holder = std::make_unique<ManagerPtr>();
    state.manager = std::make_shared<KELOManager>();
    state.last_holder = std::move(last_holder);
}

void DestroyManager() {
    State& state = TheState();
    ManagerPtr manager;
    std::unique_ptr<ManagerPtr> last_holder;
    {
        const std::lock_guard lock(state.mutex);
        manager.swap(state.manager);
        last_holder.swap(state.last_holder);
    }
    if (manager == nullptr) return;
    manager->BeginRelease();
    if (manager->IsCallbackThread()) {
        *last_holder = std::move(manager);
        DestroyElsewhere(std::move(last_holder));
        return;
    }
    WaitForCallsToLeave(manager);
}

}  // namespace kelo
