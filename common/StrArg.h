#pragma once

#include <string>

// A text argument that does not own its text: valid as long as what it was made from.
struct StrArg {
    const char* ptr;

    // Implicit on purpose: functions take a StrArg so that callers may pass either kind of text.
    StrArg(const std::string& text) : ptr(text.c_str()) {}
    StrArg(const char* text) : ptr(text) {}

    operator const char*() const { return ptr; }
    const char* c_str() const { return ptr; }
};
