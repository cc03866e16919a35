#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <thread>

#include "kelo_registers.h"
#include "kelosim/camera.h"

namespace kelo::test {

// Ends a firmware run that is lost in its read-back. When an answer comes too late there, the run
// may go on with old answers, by design: it compares nothing any more and ends only after two
// million steps. The guard notices by the number of requests that the camera gets, and lets the
// camera answer what fails the run at once. Made in front of one run, and there until it is over.
class ReadBackGuard {
public:
    ReadBackGuard(kelosim::Camera& camera, size_t image_bytes)
        : camera_(camera),
          requests_max_(camera.counters().requests + kRequestsPerRun * image_bytes / kPieceBytes),
          thread_([this] { Watch(); }) {}
    ~ReadBackGuard() {
        over_ = true;
        thread_.join();
        if (run_was_lost_) camera_.UpdateFaults([](auto& faults) { faults.replies.clear(); });
    }
    ReadBackGuard(const ReadBackGuard&) = delete;
    ReadBackGuard& operator=(const ReadBackGuard&) = delete;

    // Then the run has failed for that reason.
    bool RunWasLost() const { return run_was_lost_; }

private:
    static constexpr size_t kPieceBytes = 504;
    // Each piece is written and read back; some of that is asked for again.
    static constexpr size_t kRequestsPerRun = 3;

    void Watch() {
        while (!over_ && camera_.counters().requests <= requests_max_)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (over_) return;
        run_was_lost_ = true;
        // Shorter than the address of a piece.
        kelosim::ReplyLie lie;
        lie.only_register = KELO_CMD_FIRMWARE;
        lie.registers = 1;
        camera_.UpdateFaults([&](auto& faults) { faults.replies = {lie}; });
    }

    kelosim::Camera& camera_;
    const uint64_t requests_max_;
    std::atomic<bool> over_{false};
    std::atomic<bool> run_was_lost_{false};
    std::thread thread_;
};

}  // namespace kelo::test
