// The filter-quoting formatter.  See filter_format.h.
#include "platform/filter_format.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "platform/byte_scan.h"

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

struct FilterBytes {
    static bool special(unsigned char c) { return kReserved[c]; }
#if defined(__SSE2__)
    static Block block(Block v) {
        // '(' and ')' differ in the lowest bit only.
        return _mm_or_si128(_mm_or_si128(bytes_equal(v, '\0'), bytes_equal(v, '*')),
                            _mm_or_si128(bytes_equal(v, '\\'), bytes_equal(_mm_or_si128(v, _mm_set1_epi8(1)), ')')));
    }
#endif
};

}  // namespace

std::string escape_filter_value(std::string_view value) {
    std::string out;
    append_filter_value(out, value);
    return out;
}

bool filter_value_is_plain(std::string_view value) {
    return first_special<FilterBytes>(value.data(), value.size()) == value.size();
}

namespace {

// The value from its first byte to escape, `at`, on: kept out of line, so
// that the plain values most calls bring pay for none of it.
[[gnu::noinline]] void append_escaped(std::string &out, std::string_view value, size_t at) {
    static const char hex[] = "0123456789ABCDEF";
    out.reserve(out.size() + value.size() + 8);
    const unsigned char *p = reinterpret_cast<const unsigned char *>(value.data());
    size_t run = 0;
    for (; at < value.size(); ++at) {
        if (!kReserved[p[at]]) continue;
        out.append(value.data() + run, at - run);
        const char escaped[3] = {'\\', hex[p[at] >> 4], hex[p[at] & 0x0F]};
        out.append(escaped, 3);
        run = at + 1;
    }
    out.append(value.data() + run, value.size() - run);
}

}  // namespace

void append_filter_value(std::string &out, std::string_view value) {
    // Most values hold nothing to escape: one scan, one copy.
    const size_t at = first_special<FilterBytes>(value.data(), value.size());
    if (at == value.size())
        out.append(value.data(), value.size());
    else
        append_escaped(out, value, at);
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
