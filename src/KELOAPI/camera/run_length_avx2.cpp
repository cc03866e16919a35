// Compiled for AVX2: nothing in here may run unless the processor has it.

#include "run_length_variants.h"

#if defined(__x86_64__)

#include <immintrin.h>

#include "run_length_vector.h"

namespace {

struct Avx2 {
    using Bytes = __m256i;
    static constexpr size_t kWidth = sizeof(Bytes);
    static constexpr size_t kFillMax = 4096;

    static Bytes Load(const void* from) {
        return _mm256_loadu_si256(static_cast<const Bytes*>(from));
    }
    static void Store(void* to, Bytes bytes) {
        _mm256_storeu_si256(static_cast<Bytes*>(to), bytes);
    }
    static Bytes Fill(uint8_t value) { return _mm256_set1_epi8(static_cast<char>(value)); }
    static unsigned Specials(Bytes bytes) {
        // Adding 0x81 makes them the four lowest of all signed bytes.
        const Bytes moved = _mm256_add_epi8(bytes, _mm256_set1_epi8(-127));
        const Bytes specials = _mm256_cmpgt_epi8(_mm256_set1_epi8(-124), moved);
        return static_cast<unsigned>(_mm256_movemask_epi8(specials));
    }
};

}  // namespace

void DecodeRunLengthWithAvx2(RunLengthCursor& at) {
    RunLengthVectorDecoder<Avx2>(at).Decode();
}

#endif
