#pragma once

// What every fuzz target uses. A target is a file with LLVMFuzzerTestOneInput; it must do the same
// for the same bytes, however often and in whatever order it is called.

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
// Silences the library: a target says nothing unless it fails.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace kelo::fuzz {

// Ends the process with the text.
[[noreturn]] void Fail(const std::string& text);

inline void Require(bool holds, const char* what) {
    if (!holds) Fail(what);
}

template <typename Got, typename Expected>
void RequireEqual(const Got& got, const Expected& expected, const char* what) {
    if (got == expected) return;
    Fail(std::string(what) + ": " + std::to_string(got) + " in place of " +
         std::to_string(expected));
}

}  // namespace kelo::fuzz
