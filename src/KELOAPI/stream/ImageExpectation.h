#pragma once

#include <chrono>
#include <cstdint>

// Tells a receiver when an image is nearly complete, so that whoever waits for it can be woken a
// little earlier than it is there; see ImageWatch for why.
//
// For one thread at a time.
class ImageExpectation {
public:
    using Clock = std::chrono::steady_clock;

    // The first packet of an image has come.
    void Begin(Clock::time_point now) {
        begun_ = now;
        told_ = false;
    }

    // Whether IsDue is worth being asked, and the clock for it. Both numbers are packets of the
    // image. Keeps what watching may cost in relation: it lasts for that part of the time at most.
    bool IsNear(uint32_t received, uint32_t to_come) const {
        return !told_ && to_come > 0 && to_come <= received / kPartOfImage;
    }

    // Whether the moment has come, once for each image, if the rest of it comes as fast as what is
    // there did.
    bool IsDue(Clock::time_point now, uint32_t received, uint32_t to_come) {
        const auto left = (now - begun_) * to_come / received;
        told_ = left <= kLead;
        return told_;
    }

private:
    static constexpr uint32_t kPartOfImage = 20;
    // The receive thread does not pause any more when an image's end is nearer than that.
    static constexpr std::chrono::microseconds kLead{200};

    Clock::time_point begun_{};
    bool told_ = true;
};
