#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// What run-length decoding consists of: a plain decoder that knows every rule, and vector loops
// that take the bulk of an image off it. For DecodeRLE, and for those who compare the loops.

// Where a decoding stands.
struct RunLengthCursor {
    uint8_t* output;
    size_t output_left;
    const uint8_t* input;
    size_t input_left;
};

// Decodes whole tokens until one needs the plain decoder: at an end marker, near either end, or
// because it breaks a rule. Reads and writes within the cursor's bounds, and leaves the output
// behind the cursor as it was.
using RunLengthLoop = void (*)(RunLengthCursor& at);

struct RunLengthVariant {
    const char* name;
    RunLengthLoop loop;  // null: the plain decoder alone
};

// Those that this processor can run, the fastest one last.
std::span<const RunLengthVariant> RunLengthVariants();

// DecodeRLE with the given loop.
int DecodeRLE(RunLengthLoop loop, void* pBuffer, const void* pRLEbuffer, int BufferSize,
              int RleMaxBufferSize);

#if defined(__x86_64__)
void DecodeRunLengthWithSse2(RunLengthCursor& at);
void DecodeRunLengthWithAvx2(RunLengthCursor& at);
#endif
