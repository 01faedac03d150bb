// Bounded writes into the fixed buffers of the stored forms, and the text
// comparisons every family uses.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>

#include "ZelAttributes.h"
#include "zelmgmt.h"

namespace zel {

// Fixed sizes of the stored forms.  They are limits: a value that would not
// fit is refused, never written past.
constexpr size_t kDnSize = 1000;
constexpr size_t kFilterSize = 600;
constexpr size_t kHostSize = 256;
constexpr size_t kAclSize = 2000;
constexpr size_t kShortValueSize = 256;

// Fixed buffers are limits: these write nothing and answer false when the
// text (with its NUL) would not fit.
bool copy_into(char *dst, size_t size, const char *text);
bool format_into(char *dst, size_t size, const char *fmt, ...) ZEL_PRINTF(3, 4);
bool vformat_into(char *dst, size_t size, const char *fmt, va_list ap) ZEL_PRINTF(3, 0);
// The same into a string: `out` holds the text when it fits a buffer of
// `size` bytes, and is left as it was when not.
bool format_text(std::string &out, size_t size, const char *fmt, ...) ZEL_PRINTF(3, 4);
bool vformat_text(std::string &out, size_t size, const char *fmt, va_list ap) ZEL_PRINTF(3, 0);

// Appends the parts in one step: filters and DNs are built of many short
// pieces on every read, and one growth of `out` serves them all.
inline void append_text(std::string &out, std::initializer_list<std::string_view> parts) {
    size_t at = out.size(), total = at;
    for (std::string_view p : parts) total += p.size();
    out.resize(total);
    for (std::string_view p : parts) {
        std::memcpy(&out[at], p.data(), p.size());
        at += p.size();
    }
}

// Replaces a record field with a private copy of value (not null); the
// earlier copy is released.  1012 when memory runs out, the field unchanged.
ZelRC replace_text(char *&field, const char *value);

// Attribute names and values compared as the directory does: ignoring case.
bool same_text_folded(const char *a, const char *b);
// Names are ASCII and are compared in place, most often against the very
// spelling they were written in; full folding takes over from the first
// byte past ASCII (an ASCII prefix folds to itself, so the rest decides).
inline bool same_text(const char *a, const char *b) {
    if (a == nullptr || b == nullptr) return a == b;
    if (std::strcmp(a, b) == 0) return true;
    for (;; ++a, ++b) {
        unsigned x = static_cast<unsigned char>(*a), y = static_cast<unsigned char>(*b);
        if ((x | y) >= 0x80) return same_text_folded(a, b);
        if (x != y && ((x | 0x20) != (y | 0x20) || (x | 0x20) - 'a' > 25u)) return false;
        if (x == 0) return true;
    }
}
bool contains(const char *haystack, const char *needle);

}  // namespace zel
