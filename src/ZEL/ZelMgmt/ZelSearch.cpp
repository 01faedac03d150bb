// One directory search as the library makes it: no time limit, the result
// message kept in an owner whatever the outcome.
#include <string>

#include "platform/filter_format.h"
#include "zel_internal.h"

namespace zel {

int search(ZelSession *s, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
           int size_limit, Message &out) {
    struct timeval tv = no_time_limit();
    LDAPMessage *raw = nullptr;
    int lrc = plat::ldap_search_ext_s(s->ld, base, scope, filter, attrs, attrsonly, nullptr, nullptr, &tv,
                                      size_limit, &raw);
    out.reset(raw);
    return lrc;
}

ZelRC search_mapped(ZelSession *s, const char *base, int scope, const char *filter, char **attrs,
                    int attrsonly, int size_limit, ZelRC default_code, Message &out) {
    int lrc = search(s, base, scope, filter, attrs, attrsonly, size_limit, out);
    if (lrc == LDAP_SUCCESS) return 0;
    out.reset();
    return check_LDAP_rc(s, static_cast<uint32_t>(lrc), default_code, "ldap_search_ext_s()");
}

bool format_filter(char *dst, const char *fmt, const char *value) {
    const std::string escaped = plat::escape_filter_value(value);
    return format_into(dst, kFilterSize, fmt, escaped.c_str());
}

}  // namespace zel
