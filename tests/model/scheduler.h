#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kelo::model {

struct Bounds {
    int preemptions = 3;  // switches away from a thread that could go on
    int timeouts = 1;     // waits that end by time although something else could happen first
};

struct Outcome {
    uint64_t schedules = 0;
    std::string failure;  // of the first schedule that failed: what, and who ran when
};

// Runs a scenario once for every order in which its threads can take their steps, within the
// bounds. A step is what stands between two uses of a mutex, a condition variable, an atomic or a
// thread; the model's own (primitives.h) tell the scheduler of each. The scenario is the first
// thread; it must be the same at each run, apart from the order of steps.
Outcome Explore(const Bounds& bounds, const std::function<void()>& scenario);

// Fails the schedule that runs, and does not return: its threads are left where they stand, and
// exploring ends.
[[noreturn]] void Fail(const std::string& what);
inline void Require(bool holds, const std::string& what) {
    if (!holds) Fail(what);
}
// Whether, so far, some thread could only go on because its time was over.
bool SomebodyWaitedForTime();

// What the primitives are made of. All are called by the scenario's threads.
class Scheduler {
public:
    struct Fiber;
    // A step ends here: others may run before the next one.
    static void Point();
    // Waits until wake(fiber) or, for a timed wait, until its time is over; false for the latter.
    static bool Block(bool timed);
    static Fiber* Current();
    static void Wake(Fiber* fiber);
    static Fiber* Start(std::function<void()> body);
    static void Join(Fiber* fiber);
    // Until nobody else can run without time passing.
    static void LetOthersRun();
};

}  // namespace kelo::model
