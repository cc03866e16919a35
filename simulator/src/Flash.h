#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "kelosim/firmware.h"

namespace kelosim {

// The camera's firmware memory behind its command register. Passive: no thread, lock or clock.
//
// A client writes payloads of bytes. They travel as register values; this camera is little-endian,
// so the bytes are those of the values, lowest first. A payload begins with a big-endian word: a
// command, or the flash offset of the data that follows.
//
// The register count of a payload is its length in bytes as long as that is below 128. From there
// on it says no more than that; the longer payload may then end in zeros that are no data. They are
// written and, once the image is complete, wiped again: the image's own emblem tells its length.
class Flash {
public:
    enum class Result {
        kDone,
        kRefused,   // answered with an error
        kNoAnswer,  // the camera says nothing any more
        kFinished,  // done, to be answered after the flash time
    };

    explicit Flash(const FirmwareConfig& config) : config_(config) {}

    void Configure(const FirmwareConfig& config) { config_ = config; }
    const FirmwareConfig& config() const { return config_; }

    // One payload. Event is set to a line for people when something of note happened.
    Result Write(std::span<const uint32_t> values, std::string& event);

    // Whether reads of the command register give pieces of the flash.
    bool Reading() const { return state_ == State::kReading; }
    // Whether a client is in the middle of programming.
    bool Programming() const { return state_ == State::kProgramming; }
    // The next piece as register values; nothing when the camera gives no answer.
    std::optional<std::vector<uint32_t>> Read();

    // Power-off ends a run, the contents stay.
    void EndRun() { state_ = State::kIdle; }
    std::vector<uint8_t> Contents(uint32_t length) const;

private:
    enum class State { kIdle, kProgramming, kFinished, kReading };

    Result Start();
    Result Data(uint32_t offset, std::span<const uint8_t> data);
    Result Finish(std::string& event);
    Result PrepareRead(uint32_t offset);
    // The image's length as its emblem tells it; nothing when there is no sound emblem.
    std::optional<uint32_t> ImageLength() const;
    uint32_t PieceLength(uint32_t offset) const;
    uint8_t ReadBackByte(uint32_t offset) const;

    FirmwareConfig config_;
    State state_ = State::kIdle;
    std::vector<uint8_t> bytes_;  // up to the last byte ever written; erased behind
    uint32_t read_offset_ = 0;
};

}  // namespace kelosim
