#pragma once

#include <chrono>
#include <thread>

namespace kelo::test {

// Polls until the condition holds; false when it still does not after a generous time.
template <typename Condition>
bool WaitFor(const Condition& condition,
             std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace kelo::test
