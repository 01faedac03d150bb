// Bounded writes into the fixed buffers of the stored forms, and the text
// comparisons every family uses.
#include <cstdarg>
#include <cstdio>
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "platform/utf8_text.h"
#include "ZelPlatform.h"
#include "ZelText.h"

namespace zel {

bool copy_into(char *dst, size_t size, const char *text) {
    size_t n = std::strlen(text);
    if (n >= size) return false;
    std::memcpy(dst, text, n + 1);
    return true;
}

bool vformat_into(char *dst, size_t size, const char *fmt, va_list ap) {
    // The stored forms' buffers fit on the stack: format once there and copy
    // only what fits, so a refused text leaves dst as it was.
    char local[kAclSize + 1];
    if (size > sizeof local) {
        va_list probe;
        va_copy(probe, ap);
        int needed = std::vsnprintf(nullptr, 0, fmt, probe);
        va_end(probe);
        bool fits = needed >= 0 && static_cast<size_t>(needed) < size;
        if (fits) std::vsnprintf(dst, size, fmt, ap);
        return fits;
    }
    int needed = std::vsnprintf(local, size, fmt, ap);
    bool fits = needed >= 0 && static_cast<size_t>(needed) < size;
    if (fits) std::memcpy(dst, local, static_cast<size_t>(needed) + 1);
    return fits;
}

bool vformat_text(std::string &out, size_t size, const char *fmt, va_list ap) {
    std::string text(size, '\0');
    if (!vformat_into(text.data(), size, fmt, ap)) return false;
    out.assign(text.c_str());
    return true;
}

bool format_text(std::string &out, size_t size, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    bool fits = vformat_text(out, size, fmt, ap);
    va_end(ap);
    return fits;
}

bool format_into(char *dst, size_t size, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    bool fits = vformat_into(dst, size, fmt, ap);
    va_end(ap);
    return fits;
}

// Reached at the first byte past ASCII; see same_text.
bool same_text_folded(const char *a, const char *b) {
    return plat::zstricmp(plat::zgetUTF8Handle(), a, b) == 0;
}

ZelRC replace_text(char *&field, const char *value) {
    char *copy = strdup(value);
    if (copy == nullptr) return ZEL_RC_NO_MEMORY;
    std::free(field);
    field = copy;
    return 0;
}

bool contains(const char *haystack, const char *needle) {
    // A needle of ASCII without letters ("=", "@") has no other case: no
    // folded form of any text holds it where the text itself does not.
    bool caseless = needle != nullptr && haystack != nullptr;
    for (const char *p = needle; caseless && *p; ++p) {
        unsigned char c = static_cast<unsigned char>(*p);
        caseless = c < 0x80 && !std::isalpha(c);
    }
    if (caseless) return std::strstr(haystack, needle) != nullptr;
    return plat::zstrstr(plat::zgetUTF8Handle(), haystack, needle) != nullptr;
}

}  // namespace zel
