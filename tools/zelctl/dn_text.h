// DNs as text, compared and taken apart without asking the directory.
#pragma once

#include <cctype>
#include <string>

namespace zelctl {

// DNs compared as the directory would, near enough: letter case and the
// spaces around separators do not count.
inline std::string dn_key(const std::string &dn) {
    std::string out;
    for (size_t i = 0; i < dn.size(); ++i) {
        char c = dn[i];
        if (c == ' ' && ((!out.empty() && (out.back() == ',' || out.back() == '=')) ||
                         (i + 1 < dn.size() && (dn[i + 1] == ',' || dn[i + 1] == '='))))
            continue;
        out.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
    }
    return out;
}

// The DN below which `dn` sits ("" for a single RDN); escaped commas stay.
inline std::string parent_dn(const std::string &dn) {
    for (size_t i = 0; i < dn.size(); ++i) {
        if (dn[i] == '\\') ++i;
        else if (dn[i] == ',') return dn.substr(i + 1 + (i + 1 < dn.size() && dn[i + 1] == ' '));
    }
    return "";
}

}  // namespace zelctl
