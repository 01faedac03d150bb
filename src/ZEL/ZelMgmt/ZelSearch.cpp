// One directory search as the library makes it: no time limit, the result
// message kept in an owner whatever the outcome.
#include <cstring>
#include <string>

#include "platform/filter_format.h"
#include "zel_internal.h"

namespace zel {

namespace {
constexpr int kFilterError = 87;  // the client's "bad search filter"
}  // namespace

int search(ZelSession *s, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
           int size_limit, Message &out) {
    out.reset();
    // The server answers a missing filter with a protocol error and drops
    // the connection: the session must outlive a bad request, so it is
    // refused here as the client refuses a malformed filter.
    if (filter == nullptr || *filter == '\0') return kFilterError;
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

bool format_filter(std::string &out, const char *fmt, const char *value) {
    // Measured with the value as given: what its escaping adds never makes a
    // name that fits the filter buffer behave differently from a short one.
    std::string measured;
    if (!format_text(measured, kFilterSize, fmt, value)) return false;
    const char *slot = std::strstr(fmt, "%s");
    out.assign(fmt, static_cast<size_t>(slot - fmt));
    out += plat::escape_filter_value(value);
    out += slot + 2;
    return true;
}

}  // namespace zel
