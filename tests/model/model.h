#pragma once

// For the tests: what every scenario needs, in front of the code that is taken over.

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "primitives.h"
#include "scheduler.h"
#include "utils.h"

namespace kelo::model {

// The scenario holds in every schedule, and says how many there are. KELO_MODEL_MORE=1 in the
// environment allows one switch more, which takes some ten times as long.
inline void ExpectToHold(Bounds bounds, const std::function<void()>& scenario) {
    if (const char* more = std::getenv("KELO_MODEL_MORE"); more != nullptr) {
        bounds.preemptions += std::atoi(more);
    }
    kelo::Logging(false);
    const Outcome outcome = Explore(bounds, scenario);
    EXPECT_EQ(outcome.failure, "") << "in schedule " << outcome.schedules;
    testing::Test::RecordProperty("schedules", std::to_string(outcome.schedules));
    std::printf("    %lu schedules\n", static_cast<unsigned long>(outcome.schedules));
    EXPECT_GT(outcome.schedules, 10u);
}

// A fault is found: the scenario fails in some schedule, by the text.
inline void ExpectToFail(const Bounds& bounds, const std::function<void()>& scenario,
                         const std::string& text) {
    kelo::Logging(false);
    const Outcome outcome = Explore(bounds, scenario);
    EXPECT_NE(outcome.failure.find(text), std::string::npos)
        << "'" << outcome.failure << "' after " << outcome.schedules << " schedules";
    std::printf("    found in schedule %lu\n", static_cast<unsigned long>(outcome.schedules));
}

}  // namespace kelo::model
