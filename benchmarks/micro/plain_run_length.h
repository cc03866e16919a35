#pragma once

#include <cstdint>

// The floor of run-length decoding: the format's rules, byte by byte, with every check that the
// library makes. Always compiled at -O2, where the loops that write runs have become fills already.
int DecodePlainly(uint8_t* output, const uint8_t* input, uint32_t output_size, uint32_t input_size);
