#include "platform/dn_escape.h"

#include <cstring>

namespace zel::platform {

std::string escape_dn_value(std::string_view value) {
    std::string out;
    out.reserve(value.size());
    for (size_t i = 0; i < value.size(); ++i) {
        char c = value[i];
        bool edge_space = c == ' ' && (i == 0 || i + 1 == value.size());
        if (c == '\0') {
            out += "\\00";
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
