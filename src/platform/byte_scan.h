// Finding the first byte of a text that needs escaping, sixteen bytes at a
// time where the machine compares them at once.  Names, DNs and filter
// values are read on every call and almost never hold such a byte, so the
// scan is the whole cost of escaping them.
#pragma once

#include <cstddef>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace zel::platform {

#if defined(__SSE2__)
// A block test: the bits of a 16-byte block's bytes that need escaping.
using Block = __m128i;

inline unsigned block_bits(Block hits) { return static_cast<unsigned>(_mm_movemask_epi8(hits)); }

// Bytes equal to c.
inline Block bytes_equal(Block v, char c) { return _mm_cmpeq_epi8(v, _mm_set1_epi8(c)); }

// Bytes in [low, low + span]: unsigned, so UTF-8 never reads as a control.
inline Block bytes_within(Block v, unsigned char low, unsigned char span) {
    const Block shifted = _mm_sub_epi8(v, _mm_set1_epi8(static_cast<char>(low)));
    return _mm_cmpeq_epi8(_mm_min_epu8(shifted, _mm_set1_epi8(static_cast<char>(span))), shifted);
}
#endif

// The offset of the first byte of text[0, n) that `Bytes` marks, or n when
// there is none.  `Bytes::special(c)` tells one byte; with SSE2,
// `Bytes::block(v)` gives the hits of a 16-byte Block at once.  Short texts
// are scanned from a zero-padded copy and long ones end with a load that
// overlaps what was already passed, so no byte is read outside the text and
// none is read one at a time.
template <class Bytes>
[[gnu::always_inline]] inline size_t first_special(const char *text, size_t n) {
#if defined(__SSE2__)
    if (n < 16) {
        if (n == 0) return 0;
        alignas(16) char padded[16] = {};
        std::memcpy(padded, text, n);
        const unsigned bits = block_bits(Bytes::block(_mm_load_si128(reinterpret_cast<const Block *>(padded)))) &
                              ((1u << n) - 1);
        return bits ? static_cast<size_t>(__builtin_ctz(bits)) : n;
    }
    size_t at = 0;
    for (; at + 16 <= n; at += 16)
        if (unsigned bits = block_bits(Bytes::block(_mm_loadu_si128(reinterpret_cast<const Block *>(text + at)))))
            return at + static_cast<size_t>(__builtin_ctz(bits));
    if (at == n) return n;
    const size_t last = n - 16;
    const unsigned bits = block_bits(Bytes::block(_mm_loadu_si128(reinterpret_cast<const Block *>(text + last))));
    return bits ? last + static_cast<size_t>(__builtin_ctz(bits)) : n;
#else
    for (size_t at = 0; at < n; ++at)
        if (Bytes::special(static_cast<unsigned char>(text[at]))) return at;
    return n;
#endif
}

}  // namespace zel::platform
