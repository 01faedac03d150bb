// UTF-8 comparison and search on ICU.  See utf8_text.h.
#include "platform/utf8_text.h"

#include <unicode/casemap.h>
#include <unicode/stringoptions.h>
#include <unicode/utf8.h>

#include <climits>
#include <cstring>
#include <new>
#include <string>

namespace zel::platform {

namespace {

// Only the UTF-8 code page exists; the handle identifies it and carries
// nothing the functions need.
struct CodePage {
    const char *name;
};
const CodePage kUtf8CodePage{"UTF-8"};

unsigned char ascii_fold(unsigned char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c - 'A' + 'a') : c;
}

// Byte order with ASCII letters folded; used for pure ASCII and for text
// that is not valid UTF-8.
int compare_ascii_folded(const char *a, const char *b) {
    const auto *x = reinterpret_cast<const unsigned char *>(a);
    const auto *y = reinterpret_cast<const unsigned char *>(b);
    for (;; ++x, ++y) {
        unsigned char cx = ascii_fold(*x);
        unsigned char cy = ascii_fold(*y);
        if (cx != cy) return cx < cy ? -1 : 1;
        if (cx == 0) return 0;
    }
}

bool is_ascii(const char *text, size_t &length) {
    const char *p = text;
    bool ascii = true;
    for (; *p != '\0'; ++p) {
        if (static_cast<unsigned char>(*p) >= 0x80) ascii = false;
    }
    length = static_cast<size_t>(p - text);
    return ascii;
}

// Strict: overlong forms, surrogates and code points past U+10FFFF fail.
bool is_valid_utf8(const char *text, int32_t length) {
    const auto *s = reinterpret_cast<const uint8_t *>(text);
    int32_t i = 0;
    while (i < length) {
        UChar32 c;
        U8_NEXT(s, i, length, c);
        if (c < 0) return false;
    }
    return true;
}

// Full Unicode case folding (ß -> ss, ς -> σ).  The stack buffer serves short
// text; longer text is folded into `heap`.
class FoldedText {
public:
    bool fold(const char *text, int32_t length) {
        UErrorCode status = U_ZERO_ERROR;
        int32_t needed = icu::CaseMap::utf8Fold(U_FOLD_CASE_DEFAULT, text, length, stack_,
                                                sizeof stack_, nullptr, status);
        if (U_SUCCESS(status)) {
            data_ = stack_;
            length_ = needed;
            return true;
        }
        if (status != U_BUFFER_OVERFLOW_ERROR) return false;
        heap_.resize(static_cast<size_t>(needed));
        status = U_ZERO_ERROR;
        needed = icu::CaseMap::utf8Fold(U_FOLD_CASE_DEFAULT, text, length, heap_.data(),
                                        static_cast<int32_t>(heap_.size()), nullptr, status);
        if (U_FAILURE(status)) return false;
        data_ = heap_.data();
        length_ = needed;
        return true;
    }
    const char *data() const { return data_; }
    size_t length() const { return static_cast<size_t>(length_); }

private:
    char stack_[256];
    std::string heap_;
    const char *data_ = nullptr;
    int32_t length_ = 0;
};

// Byte order of UTF-8 is code point order.
int compare_bytes(const char *a, size_t a_length, const char *b, size_t b_length) {
    size_t common = a_length < b_length ? a_length : b_length;
    int rc = std::memcmp(a, b, common);
    if (rc != 0) return rc < 0 ? -1 : 1;
    if (a_length == b_length) return 0;
    return a_length < b_length ? -1 : 1;
}

}  // namespace

Utf8Handle zgetUTF8Handle() {
    return &kUtf8CodePage;
}

int zstricmp(Utf8Handle /*h*/, const char *a, const char *b) {
    if (a == nullptr || b == nullptr) {
        if (a == b) return 0;
        return a == nullptr ? -1 : 1;
    }
    // Attribute names and most values are ASCII: while both sides are, the
    // first differing folded byte decides exactly as full folding would.
    const auto *x = reinterpret_cast<const unsigned char *>(a);
    const auto *y = reinterpret_cast<const unsigned char *>(b);
    for (; *x < 0x80 && *y < 0x80; ++x, ++y) {
        unsigned char cx = ascii_fold(*x);
        unsigned char cy = ascii_fold(*y);
        if (cx != cy) return cx < cy ? -1 : 1;
        if (cx == 0) return 0;
    }

    size_t a_length = 0;
    size_t b_length = 0;
    bool a_ascii = is_ascii(a, a_length);
    bool b_ascii = is_ascii(b, b_length);
    if (a_ascii && b_ascii) return compare_ascii_folded(a, b);

    if (a_length > INT32_MAX || b_length > INT32_MAX) return compare_ascii_folded(a, b);
    auto a_len = static_cast<int32_t>(a_length);
    auto b_len = static_cast<int32_t>(b_length);
    if (!is_valid_utf8(a, a_len) || !is_valid_utf8(b, b_len)) return compare_ascii_folded(a, b);

    try {
        FoldedText folded_a;
        FoldedText folded_b;
        if (!folded_a.fold(a, a_len) || !folded_b.fold(b, b_len)) return compare_ascii_folded(a, b);
        return compare_bytes(folded_a.data(), folded_a.length(), folded_b.data(), folded_b.length());
    } catch (const std::bad_alloc &) {
        // No memory to fold long text: the ASCII-folded order is the best left.
        return compare_ascii_folded(a, b);
    }
}

const char *zstrstr(Utf8Handle /*h*/, const char *haystack, const char *needle) {
    if (haystack == nullptr || needle == nullptr) return nullptr;
    // UTF-8 is self-synchronising: an exact match of valid text starts on a
    // code point boundary, so a byte search is enough.
    return std::strstr(haystack, needle);
}

}  // namespace zel::platform
