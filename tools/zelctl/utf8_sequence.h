// One UTF-8 sequence read as the export document and the terminal both need
// it: well-formed only, with no overlong form, no surrogate and nothing above
// U+10FFFF.
#pragma once

#include <cstdint>
#include <string_view>

namespace zelctl {

// The length of the sequence `text` starts with, and its code point; 0 for a
// byte that starts none (a stray continuation, an overlong form, a surrogate,
// beyond U+10FFFF, or cut short).
inline size_t utf8_sequence(std::string_view text, uint32_t &code) {
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

}  // namespace zelctl
