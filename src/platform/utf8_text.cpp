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

// The first place where needle occurs with ASCII letters folded.
const char *search_ascii_folded(const char *haystack, const char *needle) {
    for (const char *start = haystack;; ++start) {
        const char *h = start;
        const char *n = needle;
        while (*n != '\0' && ascii_fold(static_cast<unsigned char>(*h)) == ascii_fold(static_cast<unsigned char>(*n))) {
            ++h;
            ++n;
        }
        if (*n == '\0') return start;
        if (*start == '\0') return nullptr;
    }
}

// The first code point boundary of valid UTF-8 text from which whole code
// points fold to exactly `target`.  Matches never start or end inside a
// code point, nor inside the folding of one ("s" is not found in "ß").
const char *search_folded(const char *text, int32_t length, const std::string &target) {
    if (target.empty()) return text;
    const auto *bytes = reinterpret_cast<const uint8_t *>(text);
    std::string folded;
    for (int32_t start = 0, next = 0; start < length; start = next) {
        U8_FWD_1(bytes, next, length);
        folded.clear();
        for (int32_t end = start; end < length && folded.size() < target.size();) {
            int32_t from = end;
            U8_FWD_1(bytes, end, length);
            FoldedText piece;
            if (!piece.fold(text + from, end - from)) break;
            folded.append(piece.data(), piece.length());
            if (folded.size() > target.size() || target.compare(0, folded.size(), folded) != 0) break;
        }
        if (folded == target) return text + start;
    }
    return nullptr;
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

namespace {

// The text with its leading and trailing spaces dropped and each run of
// spaces inside reduced to one; spaces are the only insignificant ones.
std::string squeezed_spaces(const char *text) {
    std::string out;
    while (*text == ' ') ++text;
    for (; *text != '\0'; ++text) {
        if (*text == ' ' && (text[1] == ' ' || text[1] == '\0')) continue;
        out += *text;
    }
    return out;
}

bool has_insignificant_space(const char *text) {
    if (*text == ' ') return true;
    for (; *text != '\0'; ++text)
        if (*text == ' ' && (text[1] == ' ' || text[1] == '\0')) return true;
    return false;
}

}  // namespace

int zstricmp_spaced(Utf8Handle h, const char *a, const char *b) {
    if (a == nullptr || b == nullptr) return zstricmp(h, a, b);
    // A name is mostly matched back to the very text it was found by.
    if (std::strcmp(a, b) == 0) return 0;
    // Names rarely carry spaces that do not count: compare in place then.
    if (!has_insignificant_space(a) && !has_insignificant_space(b)) return zstricmp(h, a, b);
    try {
        return zstricmp(h, squeezed_spaces(a).c_str(), squeezed_spaces(b).c_str());
    } catch (const std::bad_alloc &) {
        return zstricmp(h, a, b);
    }
}

const char *zstrstr(Utf8Handle /*h*/, const char *haystack, const char *needle) {
    if (haystack == nullptr || needle == nullptr) return nullptr;
    size_t haystack_length = 0;
    size_t needle_length = 0;
    bool ascii = is_ascii(haystack, haystack_length) & is_ascii(needle, needle_length);
    if (ascii || haystack_length > INT32_MAX || needle_length > INT32_MAX) return search_ascii_folded(haystack, needle);
    auto h_len = static_cast<int32_t>(haystack_length);
    auto n_len = static_cast<int32_t>(needle_length);
    if (!is_valid_utf8(haystack, h_len) || !is_valid_utf8(needle, n_len)) return search_ascii_folded(haystack, needle);
    try {
        FoldedText folded_needle;
        if (!folded_needle.fold(needle, n_len)) return search_ascii_folded(haystack, needle);
        std::string target(folded_needle.data(), folded_needle.length());
        return search_folded(haystack, h_len, target);
    } catch (const std::bad_alloc &) {
        return search_ascii_folded(haystack, needle);
    }
}

}  // namespace zel::platform
