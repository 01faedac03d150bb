// Any text escaped for a DN parses back as exactly one attribute value,
// equal to what went in.
#include <ldap.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/dn_escape.h"

namespace {

// Well-formed UTF-8 (shortest forms, no surrogates); the DN parser refuses
// anything else whatever the escaping.
bool valid_utf8(const std::string &t) {
    for (size_t i = 0; i < t.size();) {
        const auto c = static_cast<unsigned char>(t[i]);
        size_t n = c < 0x80 ? 0 : c >= 0xC2 && c < 0xE0 ? 1 : c >= 0xE0 && c < 0xF0 ? 2 : c >= 0xF0 && c < 0xF5 ? 3 : 9;
        if (n == 9 || i + n >= t.size()) return false;
        unsigned cp = n == 0 ? c : c & (0x3F >> n);
        for (size_t k = 1; k <= n; ++k) {
            const auto d = static_cast<unsigned char>(t[i + k]);
            if ((d & 0xC0) != 0x80) return false;
            cp = cp << 6 | (d & 0x3F);
        }
        if ((n == 2 && (cp < 0x800 || (cp >= 0xD800 && cp < 0xE000))) || (n == 3 && (cp < 0x10000 || cp > 0x10FFFF)))
            return false;
        i += n + 1;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string value(reinterpret_cast<const char *>(data), size);
    value = value.substr(0, value.find('\0'));
    if (!valid_utf8(value)) return 0;
    const std::string dn = "cn=" + zel::platform::escape_dn_value(value) + ",o=acme";
    LDAPDN parsed = nullptr;
    if (ldap_str2dn(dn.c_str(), &parsed, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS) {
        if (!value.empty()) abort();  // an empty value is the only one a DN cannot hold
        return 0;
    }
    bool two_rdns = parsed[0] && parsed[1] && !parsed[2];
    bool one_ava = two_rdns && parsed[0][0] && !parsed[0][1];
    bool same = one_ava && std::string(parsed[0][0]->la_value.bv_val, parsed[0][0]->la_value.bv_len) == value;
    ldap_dnfree(parsed);
    if (!same) abort();
    return 0;
}
