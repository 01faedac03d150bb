// Bounded writes into the fixed buffers of the stored forms, and the text
// comparisons every family uses.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "platform/utf8_text.h"
#include "zel_internal.h"

namespace zel {

bool copy_into(char *dst, size_t size, const char *text) {
    size_t n = std::strlen(text);
    if (n >= size) return false;
    std::memcpy(dst, text, n + 1);
    return true;
}

bool vformat_into(char *dst, size_t size, const char *fmt, va_list ap) {
    va_list probe;
    va_copy(probe, ap);
    int needed = std::vsnprintf(nullptr, 0, fmt, probe);
    va_end(probe);
    bool fits = needed >= 0 && static_cast<size_t>(needed) < size;
    if (fits) std::vsnprintf(dst, size, fmt, ap);
    return fits;
}

bool format_into(char *dst, size_t size, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    bool fits = vformat_into(dst, size, fmt, ap);
    va_end(ap);
    return fits;
}

bool same_text(const char *a, const char *b) {
    return plat::zstricmp(plat::zgetUTF8Handle(), a, b) == 0;
}

bool builtin_service_type(const char *type) {
    return same_text(type, "Web Resource") || same_text(type, "Resource Group");
}

bool contains(const char *haystack, const char *needle) {
    return plat::zstrstr(plat::zgetUTF8Handle(), haystack, needle) != nullptr;
}

}  // namespace zel
