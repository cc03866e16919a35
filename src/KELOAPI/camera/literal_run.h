#pragma once

#include <cstddef>
#include <cstdint>

// Whether a byte stands for itself: 0xFF, 0, 1 and 2 become 0 to 3 when one is added, and all
// others stay above.
constexpr bool IsLiteral(uint8_t byte) {
    return static_cast<uint8_t>(byte + 1) > 3;
}

// Copies the literals at the beginning of input, at most limit, and returns how many there were.
// Writes exactly those bytes. The widest vectors that the processor has are chosen when the program
// runs.
size_t CopyLiterals(uint8_t* output, const uint8_t* input, size_t limit);
