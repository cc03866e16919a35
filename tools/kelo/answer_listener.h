#pragma once

#include <cstdint>
#include <set>

namespace kelotool {

// Hears the cameras' answers as they come from the card, before anything on this machine can drop
// them. Takes the privilege to see all packets (root).
class AnswerListener {
public:
    AnswerListener();
    ~AnswerListener();
    AnswerListener(const AnswerListener&) = delete;
    AnswerListener& operator=(const AnswerListener&) = delete;

    bool Permitted() const { return fd_ >= 0; }
    // The addresses that have answered since it was made, in host byte order.
    std::set<uint32_t> Heard();

private:
    int fd_ = -1;
    std::set<uint32_t> heard_;
};

}  // namespace kelotool
