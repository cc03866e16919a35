#include "library.h"

#include <chrono>
#include <mutex>
#include <system_error>
#include <thread>

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

struct State {
    std::mutex mutex;
    std::shared_ptr<KELOManager> manager;  // guarded by mutex
};

// Never destroyed: threads of the application may still call while the process exits.
State& TheState() {
    static auto* const state = new State;
    return *state;
}

// For a release that a close callback calls: the manager waits for this very thread to end, so
// another one has to take it down.
void DestroyElsewhere(std::shared_ptr<KELOManager> manager) {
    auto* const last = new std::shared_ptr<KELOManager>(std::move(manager));
    try {
        std::thread([last] { delete last; }).detach();
    } catch (const std::system_error&) {
        // Without a thread to be had it stays as it is, out of reach of any call.
        kelo::Log("The library could not be taken down: no thread is to be had.\n");
    }
}

void WaitForCallsToLeave(const std::shared_ptr<KELOManager>& manager) {
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
    if (state.manager == nullptr) state.manager = std::make_shared<KELOManager>();
}

void DestroyManager() {
    State& state = TheState();
    std::shared_ptr<KELOManager> manager;
    {
        const std::lock_guard lock(state.mutex);
        manager.swap(state.manager);
    }
    if (manager == nullptr) return;
    manager->BeginRelease();
    if (manager->IsCallbackThread()) {
        DestroyElsewhere(std::move(manager));
        return;
    }
    WaitForCallsToLeave(manager);
}

}  // namespace kelo
