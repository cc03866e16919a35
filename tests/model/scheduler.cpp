#include "scheduler.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <exception>

#include <cxxabi.h>
#include <ucontext.h>

namespace kelo::model {

// What the C++ runtime keeps for each thread of the system: the exceptions that are being handled.
constexpr size_t kExceptionStateBytes = sizeof(void*) + sizeof(unsigned);

struct Scheduler::Fiber {
    enum class State { kReady, kBlocked, kBlockedTimed, kLettingOthersRun, kEnded };

    ucontext_t context{};
    std::vector<char> stack = std::vector<char>(size_t{256} * 1024);
    std::function<void()> body;
    State state = State::kReady;
    bool timed_out = false;
    std::vector<Fiber*> joiners;
    size_t number = 0;
    std::array<std::byte, kExceptionStateBytes> exceptions{};  // while another thread runs
};

namespace {

using Fiber = Scheduler::Fiber;
using State = Fiber::State;

constexpr size_t kStepsMax = 20000;  // of one schedule: a scenario must come to an end

// One decision: which of so many possible ways the schedule went.
struct Choice {
    size_t taken = 0;
    size_t ways = 0;
};

struct World {
    Bounds bounds;
    std::vector<Choice> choices;
    size_t depth = 0;
    int preemptions = 0;
    int timeouts = 0;
    bool waited_for_time = false;
    bool over = false;
    size_t steps = 0;
    std::string failure;
    std::string trace;
    std::vector<std::unique_ptr<Fiber>> fibers;
    std::vector<std::unique_ptr<Fiber>> spare;  // ended ones, whose stacks are used again
    Fiber* current = nullptr;
    ucontext_t explorer{};
};
World* world = nullptr;

// Follows the schedule that is repeated, then takes the first way.
size_t Choose(size_t ways) {
    if (ways == 1) return 0;
    if (world->depth == world->choices.size()) world->choices.push_back({.taken = 0, .ways = ways});
    return world->choices[world->depth++].taken;
}

// Who may run next: the current thread first, then, while the bounds allow it, the others.
std::vector<Fiber*> Candidates() {
    std::vector<Fiber*> ready;
    Fiber* const current = world->current;
    const bool goes_on = current != nullptr && current->state == State::kReady;
    if (goes_on) ready.push_back(current);
    const bool may_switch = !goes_on || world->preemptions < world->bounds.preemptions;
    for (const auto& fiber : world->fibers) {
        if (fiber.get() == current || !may_switch) continue;
        const bool time_over =
            fiber->state == State::kBlockedTimed && world->timeouts < world->bounds.timeouts;
        if (fiber->state == State::kReady || time_over) ready.push_back(fiber.get());
    }
    // That time must pass is another matter than that it may.
    const bool somebody = std::any_of(ready.begin(), ready.end(), [](const Fiber* fiber) {
        return fiber->state == State::kReady;
    });
    if (!somebody) ready.clear();
    return ready;
}

// Nobody can run: time passes, for somebody who waits for it.
Fiber* LetTimePass() {
    std::vector<Fiber*> waiting;
    for (const auto& fiber : world->fibers) {
        if (fiber->state == State::kBlockedTimed) waiting.push_back(fiber.get());
    }
    if (waiting.empty()) return nullptr;
    world->waited_for_time = true;
    return waiting[Choose(waiting.size())];
}

Fiber* PickNext() {
    const std::vector<Fiber*> candidates = Candidates();
    if (candidates.empty()) {
        for (const auto& fiber : world->fibers) {
            if (fiber->state == State::kLettingOthersRun) return fiber.get();
        }
        return LetTimePass();
    }
    Fiber* const next = candidates[Choose(candidates.size())];
    if (next != world->current && world->current != nullptr &&
        world->current->state == State::kReady) {
        ++world->preemptions;
    }
    if (next->state == State::kBlockedTimed) ++world->timeouts;
    return next;
}

void SwitchTo(Fiber* next) {
    Fiber* const previous = world->current;
    if (next->state == State::kBlockedTimed) {
        next->timed_out = true;
        next->state = State::kReady;
    }
    world->current = next;
    if (next == previous) return;
    world->trace += " " + std::to_string(next->number);
    if (previous == nullptr) {
        swapcontext(&world->explorer, &next->context);
        return;
    }
    std::memcpy(previous->exceptions.data(), abi::__cxa_get_globals(), kExceptionStateBytes);
    std::memcpy(abi::__cxa_get_globals(), next->exceptions.data(), kExceptionStateBytes);
    swapcontext(&previous->context, &next->context);
}

bool AllEnded() {
    return std::all_of(world->fibers.begin(), world->fibers.end(),
                       [](const auto& fiber) { return fiber->state == State::kEnded; });
}

// The end of a step of the current thread, whatever its state is now.
void Yield() {
    if (++world->steps > kStepsMax) Fail("no end in sight");
    Fiber* const next = PickNext();
    if (next != nullptr) {
        SwitchTo(next);
        return;
    }
    if (!AllEnded()) Fail("a deadlock");
    setcontext(&world->explorer);
}

void RunFiber() {
    Fiber* const fiber = world->current;
    try {
        fiber->body();
    } catch (const std::exception& exception) {
        Fail(std::string("an exception leaves a thread: ") + exception.what());
    }
    fiber->body = nullptr;
    fiber->state = State::kEnded;
    for (Fiber* joiner : fiber->joiners)
        Scheduler::Wake(joiner);
    fiber->joiners.clear();
    Yield();
}

// The next schedule in depth-first order; false when there is none.
bool Advance() {
    auto& choices = world->choices;
    while (!choices.empty() && choices.back().taken + 1 == choices.back().ways)
        choices.pop_back();
    if (choices.empty()) return false;
    ++choices.back().taken;
    return true;
}

void RunOnce(const std::function<void()>& scenario) {
    for (auto& fiber : world->fibers)
        world->spare.push_back(std::move(fiber));
    world->fibers.clear();
    world->depth = 0;
    world->preemptions = 0;
    world->timeouts = 0;
    world->waited_for_time = false;
    world->steps = 0;
    world->trace.clear();
    world->current = nullptr;
    SwitchTo(Scheduler::Start(scenario));
}

}  // namespace

Outcome Explore(const Bounds& bounds, const std::function<void()>& scenario) {
    World here;
    here.bounds = bounds;
    world = &here;
    Outcome outcome;
    do {
        RunOnce(scenario);
        ++outcome.schedules;
    } while (!here.over && Advance());
    outcome.failure = here.failure;
    world = nullptr;
    return outcome;
}

void Fail(const std::string& what) {
    world->over = true;
    world->failure = what + "; threads by step:" + world->trace;
    setcontext(&world->explorer);
    std::abort();
}

bool SomebodyWaitedForTime() {
    return world->waited_for_time;
}

void Scheduler::Point() {
    Yield();
}

bool Scheduler::Block(bool timed) {
    Fiber* const self = world->current;
    self->timed_out = false;
    self->state = timed ? State::kBlockedTimed : State::kBlocked;
    Yield();
    self->state = State::kReady;
    return !self->timed_out;
}

void Scheduler::LetOthersRun() {
    Fiber* const self = world->current;
    self->state = State::kLettingOthersRun;
    Yield();
    self->state = State::kReady;
}

Scheduler::Fiber* Scheduler::Current() {
    return world->current;
}

void Scheduler::Wake(Fiber* fiber) {
    if (fiber->state != State::kEnded) fiber->state = State::kReady;
}

Scheduler::Fiber* Scheduler::Start(std::function<void()> body) {
    std::unique_ptr<Fiber> fiber;
    if (world->spare.empty()) {
        fiber = std::make_unique<Fiber>();
    } else {
        fiber = std::move(world->spare.back());
        world->spare.pop_back();
    }
    fiber->body = std::move(body);
    fiber->state = State::kReady;
    fiber->number = world->fibers.size();
    fiber->exceptions = {};
    getcontext(&fiber->context);
    fiber->context.uc_stack.ss_sp = fiber->stack.data();
    fiber->context.uc_stack.ss_size = fiber->stack.size();
    fiber->context.uc_link = nullptr;
    makecontext(&fiber->context, RunFiber, 0);
    world->fibers.push_back(std::move(fiber));
    return world->fibers.back().get();
}

void Scheduler::Join(Fiber* fiber) {
    Point();
    while (fiber->state != State::kEnded) {
        fiber->joiners.push_back(world->current);
        Block(false);
    }
}

}  // namespace kelo::model
