// The filter-quoting formatter.  See filter_format.h.
#include "platform/filter_format.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

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
            out += escape_filter_value(text);
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

std::string escape_filter_value(std::string_view value) {
    static const char hex[] = "0123456789ABCDEF";
    // Only what the filter syntax itself reserves; UTF-8 stands as it is,
    // so a name's filter is as long as the name.
    static const auto reserved = [] {
        std::array<bool, 256> table{};
        for (unsigned char c : {'\0', '*', '(', ')', '\\'}) table[c] = true;
        return table;
    }();
    std::string out;
    out.reserve(value.size());
    const char *p = value.data();
    const size_t n = value.size();
    // Runs between reserved characters are copied whole: most values have
    // none, and a credential query escapes several DNs.
    for (size_t run = 0, i = 0; i <= n; ++i) {
        if (i < n && !reserved[static_cast<unsigned char>(p[i])]) continue;
        out.append(p + run, i - run);
        if (i < n) {
            const unsigned char c = static_cast<unsigned char>(p[i]);
            const char escaped[3] = {'\\', hex[c >> 4], hex[c & 0x0F]};
            out.append(escaped, 3);
        }
        run = i + 1;
    }
    return out;
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
