#include "platform/dn_escape.h"

#include <array>
#include <cstring>

#include "platform/byte_scan.h"

namespace zel::platform {

namespace {

// Bytes escaped wherever they stand; a space and '#' only at the edges.
constexpr std::array<bool, 256> special_in_dn() {
    std::array<bool, 256> table{};
    for (int c = 0; c < 0x20; ++c) table[c] = true;
    table[0x7F] = true;
    for (char c : {'"', '+', ',', ';', '<', '>', '\\', '='}) table[static_cast<unsigned char>(c)] = true;
    return table;
}
constexpr std::array<bool, 256> kSpecial = special_in_dn();

struct DnBytes {
    static bool special(unsigned char c) { return kSpecial[c]; }
#if defined(__SSE2__)
    static Block block(Block v) {
        // Controls, DEL, '"', '+' ',', ';' '<' '=' '>', '\\'.
        return _mm_or_si128(_mm_or_si128(_mm_or_si128(bytes_within(v, 0, 0x1F), bytes_equal(v, 0x7F)),
                                         _mm_or_si128(bytes_equal(v, '"'), bytes_equal(v, '\\'))),
                            _mm_or_si128(bytes_within(v, '+', 1), bytes_within(v, ';', 3)));
    }
#endif
};

// What a DN escapes and what a filter escapes besides: '(' ')' '*' (the NUL
// and '\\' a DN escapes too).
struct DnOrFilterBytes {
    static bool special(unsigned char c) { return DnBytes::special(c) || c == '(' || c == ')' || c == '*'; }
#if defined(__SSE2__)
    static Block block(Block v) { return _mm_or_si128(DnBytes::block(v), bytes_within(v, '(', 2)); }
#endif
};

// A leading ' ' or '#' and a trailing ' ' are escaped wherever else they may stand.
bool plain_edges(std::string_view value) {
    return value.empty() || (value.front() != ' ' && value.front() != '#' && value.back() != ' ');
}

}  // namespace

bool plain_in_dn_and_filter(std::string_view value) {
    return plain_edges(value) && first_special<DnOrFilterBytes>(value.data(), value.size()) == value.size();
}

std::string escape_dn_value(std::string_view value) {
    // Most names hold nothing to escape: one scan, one copy.
    if (plain_edges(value) && first_special<DnBytes>(value.data(), value.size()) == value.size())
        return std::string(value);
    std::string out;
    out.reserve(value.size());
    for (size_t i = 0; i < value.size(); ++i) {
        char c = value[i];
        bool edge_space = c == ' ' && (i == 0 || i + 1 == value.size());
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
            // Control bytes as hex pairs: a parser would drop a tab or line
            // break at either end as white space.
            static const char hex[] = "0123456789ABCDEF";
            out += '\\';
            out += hex[static_cast<unsigned char>(c) >> 4];
            out += hex[c & 0x0F];
        } else if (edge_space || (c == '#' && i == 0) || std::strchr("\"+,;<>\\=", c)) {
            out += '\\';
            out += c;
        } else {
            out += c;
        }
    }
    return out;
}

bool plain_first_rdn(const char *dn, std::string_view &type, std::string_view &value, const char *&parent) {
    // The RDN's end, its '=' and what a DN escapes or quotes, found by the
    // C library's set scan: the type runs to the first '=', the value to the
    // ',' after it, and any other of these bytes on the way sends the DN to
    // the full parse.
    static const char kStops[] = ",=\\+\";<>";
    const char *equals = dn + std::strcspn(dn, kStops);
    if (*equals != '=' || equals == dn) return false;
    const char *p = equals + 1 + std::strcspn(equals + 1, kStops);
    if (*p != ',' || equals + 1 == p) return false;
    if (dn[0] == ' ' || equals[-1] == ' ' || equals[1] == ' ' || equals[1] == '#' || p[-1] == ' ') return false;
    type = std::string_view(dn, static_cast<size_t>(equals - dn));
    value = std::string_view(equals + 1, static_cast<size_t>(p - equals - 1));
    parent = p + 1;
    return true;
}

const char *dn_parent(const char *dn) {
    for (const char *p = dn; *p != '\0'; ++p) {
        if (*p == '\\') {
            if (*++p == '\0') return nullptr;
        } else if (*p == '"') {
            return nullptr;
        } else if (*p == ',') {
            return p + 1;
        }
    }
    return nullptr;
}

bool dn_text_within(std::string_view dn, std::string_view base) {
    if (base.empty() || dn.size() < base.size() || dn.compare(dn.size() - base.size(), base.size(), base) != 0)
        return false;
    if (dn.size() == base.size()) return true;
    // The ',' before `base` separates RDNs only when no backslash escapes it.
    size_t at = dn.size() - base.size() - 1, escapes = 0;
    if (dn[at] != ',') return false;
    while (escapes < at && dn[at - 1 - escapes] == '\\') ++escapes;
    return escapes % 2 == 0;
}

}  // namespace zel::platform
