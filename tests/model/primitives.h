#pragma once

#include <algorithm>
#include <chrono>
#include <concepts>
#include <memory>
#include <mutex>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

#include "scheduler.h"

// What stands in for the standard library's types in the code under test: the same uses, with a
// point of the scheduler in front of each.
namespace kelo::model {

class Mutex {
public:
    explicit Mutex(bool recursive = false) : recursive_(recursive) {}
    ~Mutex() { alive_ = false; }
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() {
        Scheduler::Point();
        Acquire();
    }
    void unlock() {
        Require(alive_, "a lock is released that is gone");
        Require(owner_ == Scheduler::Current(), "somebody else's lock is released");
        if (--depth_ > 0) return;
        owner_ = nullptr;
        for (auto* fiber : waiting_)
            Scheduler::Wake(fiber);
        waiting_.clear();
    }
    // Without a point: of a condition variable's wait.
    void Acquire() {
        Scheduler::Fiber* const self = Scheduler::Current();
        Require(alive_, "a lock is used that is gone");
        if (owner_ == self && depth_ > 0) Require(recursive_, "a lock is taken twice");
        while (depth_ > 0 && owner_ != self) {
            waiting_.push_back(self);
            Scheduler::Block(false);
        }
        owner_ = self;
        ++depth_;
    }

private:
    const bool recursive_;
    bool alive_ = true;  // for scenarios that keep the memory of what is gone
    Scheduler::Fiber* owner_ = nullptr;
    int depth_ = 0;
    std::vector<Scheduler::Fiber*> waiting_;
};

class RecursiveMutex : public Mutex {
public:
    RecursiveMutex() : Mutex(true) {}
};

// Time stands still unless somebody's time is over; then it was.
struct Clock {
    using duration = std::chrono::nanoseconds;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::time_point<Clock>;
    static constexpr bool is_steady = true;
    static time_point now() { return {}; }
};

class ConditionVariable {
public:
    template <typename Predicate>
    void wait(std::unique_lock<Mutex>& lock, Predicate predicate) {
        while (!predicate())
            Wait(lock, false);
    }
    template <typename TimePoint, typename Predicate>
    bool wait_until(std::unique_lock<Mutex>& lock, const TimePoint&, Predicate predicate) {
        while (!predicate()) {
            if (!Wait(lock, true)) return predicate();
        }
        return true;
    }
    template <typename Duration, typename Predicate>
    bool wait_for(std::unique_lock<Mutex>& lock, const Duration&, Predicate predicate) {
        return wait_until(lock, 0, predicate);
    }
    void notify_one() {
        Scheduler::Point();
        if (waiting_.empty()) return;
        Scheduler::Wake(waiting_.front());
        waiting_.erase(waiting_.begin());
    }
    void notify_all() {
        Scheduler::Point();
        for (auto* fiber : waiting_)
            Scheduler::Wake(fiber);
        waiting_.clear();
    }

private:
    // False when the time is over.
    bool Wait(std::unique_lock<Mutex>& lock, bool timed) {
        Scheduler::Point();
        Scheduler::Fiber* const self = Scheduler::Current();
        waiting_.push_back(self);
        lock.mutex()->unlock();
        const bool woken = Scheduler::Block(timed);
        waiting_.erase(std::remove(waiting_.begin(), waiting_.end(), self), waiting_.end());
        lock.mutex()->Acquire();
        return woken;
    }

    std::vector<Scheduler::Fiber*> waiting_;
};

template <typename Value>
class Atomic {
public:
    static constexpr bool is_always_lock_free = true;

    Atomic() = default;
    Atomic(Value value) : value_(value) {}
    Atomic(const Atomic&) = delete;
    Atomic& operator=(const Atomic&) = delete;

    Value load() const {
        Scheduler::Point();
        return value_;
    }
    void store(Value value) {
        Scheduler::Point();
        value_ = value;
    }
    operator Value() const { return load(); }
    Value operator=(Value value) {
        store(value);
        return value;
    }

private:
    Value value_{};
};

class Thread {
public:
    Thread() = default;
    template <typename Body>
    requires(!std::same_as<std::remove_cvref_t<Body>, Thread>) explicit Thread(Body&& body) {
        // A function object that may hold what cannot be copied.
        auto shared = std::make_shared<std::remove_cvref_t<Body>>(std::forward<Body>(body));
        fiber_ = Scheduler::Start([shared = std::move(shared)] { (*shared)(); });
        Scheduler::Point();
    }
    Thread(Thread&& other) noexcept : fiber_(std::exchange(other.fiber_, nullptr)) {}
    Thread& operator=(Thread&& other) noexcept {
        Require(fiber_ == nullptr, "a thread that was not joined is replaced");
        fiber_ = std::exchange(other.fiber_, nullptr);
        return *this;
    }
    ~Thread() {
        if (fiber_ != nullptr) Fail("a thread that was not joined goes");
    }

    bool joinable() const { return fiber_ != nullptr; }
    void join() {
        Require(fiber_ != nullptr, "a thread is joined twice");
        if (fiber_ == Scheduler::Current()) {
            throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur));
        }
        Scheduler::Join(std::exchange(fiber_, nullptr));
    }

private:
    Scheduler::Fiber* fiber_ = nullptr;
};

}  // namespace kelo::model
