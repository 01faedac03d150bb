#include "platform/dn_escape.h"

#include <cstring>

namespace zel::platform {

std::string escape_dn_value(std::string_view value) {
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

}  // namespace zel::platform
