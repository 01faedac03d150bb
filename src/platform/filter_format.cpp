// The filter-quoting formatter.  See filter_format.h.
#include "platform/filter_format.h"

#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace zel::platform {

namespace {

void append_number(std::string &out, const char *format, unsigned value) {
    char digits[16];
    int n = std::snprintf(digits, sizeof digits, format, value);
    out.append(digits, static_cast<size_t>(n));
}

void append_number(std::string &out, int value) {
    char digits[16];
    int n = std::snprintf(digits, sizeof digits, "%d", value);
    out.append(digits, static_cast<size_t>(n));
}

// The formatted text, or false for a conversion it does not know or an
// argument it refuses.  Throws std::bad_alloc.
bool format_text(std::string &out, const char *format, va_list args) {
    for (const char *p = format; *p != '\0'; ++p) {
        if (*p != '%') {
            // Literal text up to the next conversion in one step.
            const char *end = std::strchr(p, '%');
            size_t n = end ? static_cast<size_t>(end - p) : std::strlen(p);
            out.append(p, n);
            p += n - 1;
            continue;
        }
        switch (*++p) {
        case 's': {
            const char *text = va_arg(args, const char *);
            out += text != nullptr ? text : "(null)";
            break;
        }
        case 'Q': {
            // A null value has no quoted form; quoting "(null)" would build a
            // filter that matches something else.
            const char *text = va_arg(args, const char *);
            if (text == nullptr) return false;
            append_filter_value(out, text);
            break;
        }
        case 'd':
        case 'i':
            append_number(out, va_arg(args, int));
            break;
        case 'u':
            append_number(out, "%u", va_arg(args, unsigned));
            break;
        case 'x':
            append_number(out, "%x", va_arg(args, unsigned));
            break;
        case 'c': {
            // A NUL would silently cut the text short.
            char c = static_cast<char>(va_arg(args, int));
            if (c == '\0') return false;
            out += c;
            break;
        }
        case '%':
            out += '%';
            break;
        default:   // includes a '%' that ends the format
            return false;
        }
    }
    return true;
}

}  // namespace

namespace {

// What the filter syntax itself reserves; UTF-8 stands as it is, so a name's
// filter is as long as the name.
constexpr std::array<bool, 256> reserved_in_filter() {
    std::array<bool, 256> table{};
    table['\0'] = table['*'] = table['('] = table[')'] = table['\\'] = true;
    return table;
}
constexpr std::array<bool, 256> kReserved = reserved_in_filter();

}  // namespace

std::string escape_filter_value(std::string_view value) {
    std::string out;
    append_filter_value(out, value);
    return out;
}

void append_filter_value(std::string &out, std::string_view value) {
    static const char hex[] = "0123456789ABCDEF";
    const unsigned char *p = reinterpret_cast<const unsigned char *>(value.data());
    const unsigned char *const end = p + value.size();
    // Most values hold nothing to escape: one scan, one copy.
    const unsigned char *q = p;
#if defined(__SSE2__)
    // Sixteen bytes at a time where the machine compares them at once.
    {
        const __m128i zero = _mm_setzero_si128(), star = _mm_set1_epi8('*'), back = _mm_set1_epi8('\\'),
                      one = _mm_set1_epi8(1), paren = _mm_set1_epi8(0x29);
        for (; end - q >= 16; q += 16) {
            __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(q));
            __m128i hit = _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(v, zero), _mm_cmpeq_epi8(v, star)),
                                       _mm_or_si128(_mm_cmpeq_epi8(v, back),
                                                    _mm_cmpeq_epi8(_mm_or_si128(v, one), paren)));
            if (_mm_movemask_epi8(hit) != 0) break;
        }
    }
#endif
    // Eight bytes at a time up to the word that holds a reserved byte.
    constexpr uint64_t kOnes = 0x0101010101010101ULL, kHigh = 0x8080808080808080ULL;
    auto any_zero = [](uint64_t v) { return (v - kOnes) & ~v & kHigh; };
    for (uint64_t w; end - q >= 8; q += 8) {
        std::memcpy(&w, q, 8);
        if (any_zero(w) | any_zero((w | kOnes) ^ (kOnes * 0x29)) | any_zero(w ^ (kOnes * '*')) |
            any_zero(w ^ (kOnes * '\\')))
            break;
    }
    while (q != end && !kReserved[*q]) ++q;
    if (q == end) {
        out.append(value.data(), value.size());
        return;
    }
    out.reserve(out.size() + value.size() + 8);
    const unsigned char *run = p;
    for (; q != end; ++q) {
        if (!kReserved[*q]) continue;
        out.append(reinterpret_cast<const char *>(run), static_cast<size_t>(q - run));
        const char escaped[3] = {'\\', hex[*q >> 4], hex[*q & 0x0F]};
        out.append(escaped, 3);
        run = q + 1;
    }
    out.append(reinterpret_cast<const char *>(run), static_cast<size_t>(end - run));
}

char *ku_mbs_sprintf(const char *format, ...) {
    if (format == nullptr) return nullptr;
    va_list args;
    va_start(args, format);
    char *result = nullptr;
    try {
        std::string text;
        text.reserve(128);  // a filter's usual length: no growth on the way
        if (format_text(text, format, args)) {
            result = static_cast<char *>(malloc(text.size() + 1));
            if (result != nullptr) std::memcpy(result, text.c_str(), text.size() + 1);
        }
    } catch (const std::bad_alloc &) {
        result = nullptr;
    }
    va_end(args);
    return result;
}

}  // namespace zel::platform
