// See terminal_text.h.
#include "terminal_text.h"

#include "utf8_sequence.h"
#include "zelctl.h"

namespace zelctl {

namespace {

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
        const size_t length = utf8_sequence(text, code);
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
