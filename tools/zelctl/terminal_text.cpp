// See terminal_text.h.
#include "terminal_text.h"

#include <cstdint>

#include "zelctl.h"

namespace zelctl {

namespace {

// The length of the UTF-8 sequence starting `text` and its code point; 0
// for a byte that starts none (a stray continuation, an overlong form, a
// surrogate, beyond U+10FFFF, or cut short).
size_t decode(std::string_view text, uint32_t &code) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    size_t length;
    uint32_t min;
    if (lead < 0x80) {
        code = lead;
        return 1;
    } else if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2, code = lead & 0x1F, min = 0x80;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3, code = lead & 0x0F, min = 0x800;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4, code = lead & 0x07, min = 0x10000;
    } else {
        return 0;
    }
    if (text.size() < length) return 0;
    for (size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80) return 0;
        code = code << 6 | (byte(i) & 0x3F);
    }
    if (code < min || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
    return length;
}

bool acted_on(uint32_t code) {
    return code < 0x20 || (code >= 0x7F && code <= 0x9F) || (code >= 0x202A && code <= 0x202E) ||
           (code >= 0x2066 && code <= 0x2069);
}

void append_escaped(std::string &out, std::string_view bytes) {
    static const char kHex[] = "0123456789abcdef";
    for (unsigned char b : bytes) {
        const char escaped[] = {'\\', 'x', kHex[b >> 4], kHex[b & 0x0F]};
        out.append(escaped, sizeof escaped);
    }
}

}  // namespace

std::string terminal_text(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        uint32_t code = 0;
        const size_t length = decode(text, code);
        const std::string_view piece = text.substr(0, length ? length : 1);
        if (length == 0 || acted_on(code))
            append_escaped(out, piece);
        else
            out.append(piece);
        text.remove_prefix(piece.size());
    }
    return out;
}

namespace detail {

Shown::Shown(const char *text) : text_(terminal_text(text ? text : "")) {}

Shown::~Shown() { forget_secret(text_); }

}  // namespace detail

}  // namespace zelctl
