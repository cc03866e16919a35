#pragma once

// Writes inputs in the form in which the targets read them.

#include <string>

#include "stream_wire.h"
#include "targets/image_script.h"

namespace kelo::fuzz {

using test::Wire;

// A script for the target image_script.
class ImageScript {
public:
    ImageScript& Do(ScriptOp op) {
        wire_.U8(static_cast<uint8_t>(op));
        return *this;
    }
    ImageScript& Do8(ScriptOp op, uint32_t argument) {
        Do(op).wire_.U8(argument);
        return *this;
    }
    ImageScript& Do16(ScriptOp op, uint32_t argument) {
        Do(op).wire_.U16(argument);
        return *this;
    }
    ImageScript& Image(uint32_t number) {
        Do(ScriptOp::Image).wire_.U32(number);
        return *this;
    }
    ImageScript& Shape(uint32_t packets, uint32_t length, uint32_t last_length) {
        Do(ScriptOp::Shape).wire_.U16(packets).U8(length).U8(last_length);
        return *this;
    }
    ImageScript& Odd(uint32_t number, uint32_t count, uint32_t length) {
        Do(ScriptOp::Odd).wire_.U16(number).U16(count).U8(length);
        return *this;
    }
    operator std::string() const { return wire_; }

private:
    Wire wire_;
};

}  // namespace kelo::fuzz
