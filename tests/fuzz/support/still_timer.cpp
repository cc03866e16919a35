// A timer that never calls, in place of the library's: time passes when an input says so.

#include "Timer.h"

Timer::~Timer() = default;

void Timer::start(const std::chrono::milliseconds&, const std::function<void()>&) {}

void Timer::stop() {}
