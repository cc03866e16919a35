#include "run_length_variants.h"

#if defined(__x86_64__)

#include <immintrin.h>

#include "run_length_vector.h"

namespace {

struct Sse2 {
    using Bytes = __m128i;
    static constexpr size_t kWidth = sizeof(Bytes);
    static constexpr size_t kFillMax = 0;  // memset has wider stores

    static Bytes Load(const void* from) { return _mm_loadu_si128(static_cast<const Bytes*>(from)); }
    static void Store(void* to, Bytes bytes) { _mm_storeu_si128(static_cast<Bytes*>(to), bytes); }
    // Cheaper than spreading a byte, which SSE2 cannot do at once.
    static Bytes Fill(uint8_t value) { return _mm_set1_epi32(-static_cast<int>(value & 1)); }
    static unsigned Specials(Bytes bytes) {
        // Adding 0x81 makes them the four lowest of all signed bytes.
        const Bytes moved = _mm_add_epi8(bytes, _mm_set1_epi8(-127));
        const Bytes specials = _mm_cmpgt_epi8(_mm_set1_epi8(-124), moved);
        return static_cast<unsigned>(_mm_movemask_epi8(specials));
    }
};

}  // namespace

void DecodeRunLengthWithSse2(RunLengthCursor& at) {
    RunLengthVectorDecoder<Sse2>(at).Decode();
}

#endif
