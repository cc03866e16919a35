#include "literal_run.h"

#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace {

size_t CopyOneByOne(uint8_t* output, const uint8_t* input, size_t limit) {
    size_t count = 0;
    while (count < limit && IsLiteral(input[count])) {
        output[count] = input[count];
        ++count;
    }
    return count;
}

// Copies less than 32 bytes by two stores of one width that overlap: no loop, no call.
inline void CopyShort(uint8_t* output, const uint8_t* input, size_t count) {
    const auto copy_both_ends = [&](auto unit) {
        auto front = unit;
        auto back = unit;
        std::memcpy(&front, input, sizeof(unit));
        std::memcpy(&back, input + count - sizeof(unit), sizeof(unit));
        std::memcpy(output, &front, sizeof(unit));
        std::memcpy(output + count - sizeof(unit), &back, sizeof(unit));
    };
    struct Sixteen {
        uint64_t halves[2];
    };
    if (count >= 16) {
        copy_both_ends(Sixteen{});
    } else if (count >= 8) {
        copy_both_ends(uint64_t{});
    } else if (count >= 4) {
        copy_both_ends(uint32_t{});
    } else if (count >= 2) {
        copy_both_ends(uint16_t{});
    } else if (count == 1) {
        *output = *input;
    }
}

#if defined(__x86_64__)

size_t CopyWithSse2(uint8_t* output, const uint8_t* input, size_t limit) {
    constexpr size_t kWidth = 16;
    const __m128i one = _mm_set1_epi8(1);
    const __m128i three = _mm_set1_epi8(3);
    size_t count = 0;
    while (limit - count >= kWidth) {
        const void* from = input + count;
        const __m128i bytes = _mm_loadu_si128(static_cast<const __m128i*>(from));
        const __m128i raised = _mm_add_epi8(bytes, one);
        const __m128i special = _mm_cmpeq_epi8(_mm_min_epu8(raised, three), raised);
        const auto mask = static_cast<unsigned>(_mm_movemask_epi8(special));
        if (mask != 0) {
            const auto literals = static_cast<size_t>(__builtin_ctz(mask));
            CopyShort(output + count, input + count, literals);
            return count + literals;
        }
        void* to = output + count;
        _mm_storeu_si128(static_cast<__m128i*>(to), bytes);
        count += kWidth;
    }
    return count + CopyOneByOne(output + count, input + count, limit - count);
}

__attribute__((target("avx2"))) size_t CopyWithAvx2(uint8_t* output, const uint8_t* input,
                                                    size_t limit) {
    constexpr size_t kWidth = 32;
    const __m256i one = _mm256_set1_epi8(1);
    const __m256i three = _mm256_set1_epi8(3);
    size_t count = 0;
    while (limit - count >= kWidth) {
        const void* from = input + count;
        const __m256i bytes = _mm256_loadu_si256(static_cast<const __m256i*>(from));
        const __m256i raised = _mm256_add_epi8(bytes, one);
        const __m256i special = _mm256_cmpeq_epi8(_mm256_min_epu8(raised, three), raised);
        const auto mask = static_cast<unsigned>(_mm256_movemask_epi8(special));
        if (mask != 0) {
            const auto literals = static_cast<size_t>(__builtin_ctz(mask));
            CopyShort(output + count, input + count, literals);
            return count + literals;
        }
        void* to = output + count;
        _mm256_storeu_si256(static_cast<__m256i*>(to), bytes);
        count += kWidth;
    }
    return count + CopyWithSse2(output + count, input + count, limit - count);
}

#endif

using Copier = size_t (*)(uint8_t*, const uint8_t*, size_t);

Copier ChooseCopier() {
#if defined(__x86_64__)
    return __builtin_cpu_supports("avx2") != 0 ? CopyWithAvx2 : CopyWithSse2;
#else
    return CopyOneByOne;
#endif
}

}  // namespace

size_t CopyLiterals(uint8_t* output, const uint8_t* input, size_t limit) {
    static const Copier copy = ChooseCopier();
    return copy(output, input, limit);
}
