// One directory search as the library makes it: no time limit, the result
// message kept in an owner whatever the outcome; and the same search read
// page by page where the server caps unpaged answers.
#include <cstring>
#include <string>
#include <string_view>

#include "ZelFailover.h"
#include "platform/filter_format.h"
#include "ZelClient.h"
#include "ZelHolders.h"
#include "ZelSearch.h"
#include "ZelSession.h"
#include "ZelStatus.h"
#include "ZelText.h"
#include "ZelTrace.h"

namespace zel {

namespace {
constexpr int kFilterError = 87;  // the client's "bad search filter"
constexpr int kListRestarts = 3;  // a list that meets more moves than this fails

unsigned moves_of(const ZelSession *s) { return s->failover ? s->failover->moves() : 0; }
}  // namespace

namespace {

// search() itself, for search_mapped() too.
[[gnu::always_inline]] inline int search_into(ZelSession *s, const char *base, int scope, const char *filter,
                                              char **attrs, int attrsonly, int size_limit, Message &out) {
    // The server answers a missing filter with a protocol error and drops
    // the connection: the session must outlive a bad request, so it is
    // refused here as the client refuses a malformed filter.
    if (filter == nullptr || *filter == '\0') {
        out.reset();
        return kFilterError;
    }
    LDAPMessage *raw = nullptr;   // `out` keeps its earlier result until this one comes
    int lrc = plat::ldap_search_plain(s->ld, base, scope, filter, attrs, attrsonly, size_limit, &raw);
    out.reset(raw);
    return lrc;
}

}  // namespace

int search(ZelSession *s, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
           int size_limit, Message &out) {
    return search_into(s, base, scope, filter, attrs, attrsonly, size_limit, out);
}

ZelRC search_mapped(ZelSession *s, const char *base, int scope, const char *filter, char **attrs,
                    int attrsonly, int size_limit, ZelRC default_code, Message &out) {
    int lrc = search_into(s, base, scope, filter, attrs, attrsonly, size_limit, out);
    if (lrc == LDAP_SUCCESS) return 0;
    out.reset();
    return check_LDAP_rc(s, static_cast<uint32_t>(lrc), default_code, "ldap_search_ext_s()");
}

int SearchPages::count(LDAP *ld) const {
    int n = 0;
    for (const Message &m : pages) n += entry_count(ld, m.get());
    return n;
}

LDAPMessage *SearchPages::first_entry(LDAP *ld) const {
    for (const Message &m : pages)
        if (LDAPMessage *e = m ? ldap_first_entry(ld, m.get()) : nullptr) return e;
    return nullptr;
}

namespace {

// The server's cookie for the next page; empty when the last page came.
class Cookie {
public:
    Cookie() = default;
    ~Cookie() { ber_memfree(value_.bv_val); }
    Cookie(const Cookie &) = delete;
    Cookie &operator=(const Cookie &) = delete;
    struct berval *get() { return &value_; }
    bool more() const { return value_.bv_len > 0; }
    void clear() {
        ber_memfree(value_.bv_val);
        value_ = {0, nullptr};
    }
    // Takes the cookie of a page's result; false when the server sent none.
    bool take_from(LDAP *ld, LDAPMessage *res) {
        ber_memfree(value_.bv_val);
        value_ = {0, nullptr};
        LDAPControl **raw = nullptr;
        int err = 0;
        if (ldap_parse_result(ld, res, &err, nullptr, nullptr, nullptr, &raw, 0) != LDAP_SUCCESS) return false;
        std::unique_ptr<LDAPControl *, ControlsFree> controls(raw);
        LDAPControl *page = ldap_control_find(LDAP_CONTROL_PAGEDRESULTS, controls.get(), nullptr);
        ber_int_t estimate = 0;
        return page && ldap_parse_pageresponse_control(ld, page, &estimate, &value_) == LDAP_SUCCESS;
    }

private:
    struct berval value_ {0, nullptr};
};

}  // namespace

int search_all(ZelSession *s, const char *base, int scope, const char *filter, char **attrs, SearchPages &out) {
    out.pages.clear();
    if (!s->paged_results) {
        Message res;
        int lrc = search(s, base, scope, filter, attrs, 0, 0, res);
        if (res) out.pages.push_back(std::move(res));
        return lrc;
    }
    Cookie cookie;
    int restarts = 0;
    for (;;) {
        LDAPControl *raw_control = nullptr;
        // Not critical: a server that turns the control down answers unpaged.
        int lrc = ldap_create_page_control(s->ld, kPageSize, cookie.get(), 0, &raw_control);
        if (lrc != LDAP_SUCCESS) return plat::classic_result(lrc);
        std::unique_ptr<LDAPControl, ControlFree> control(raw_control);
        LDAPControl *controls[] = {control.get(), nullptr};
        struct timeval tv = no_time_limit();
        LDAPMessage *raw = nullptr;
        const unsigned moves = moves_of(s);
        lrc = plat::ldap_search_ext_s(s->ld, base, scope, filter, attrs, 0, controls, nullptr, &tv, 0, &raw);
        Message res(raw);
        // A cookie belongs to the connection that handed it out: after the
        // session moved to another one, the list starts again from its first
        // page, so that it is whole or fails.
        if (moves_of(s) != moves && cookie.more() && restarts++ < kListRestarts) {
            trace_line(s, kTraceProgress, "zelmgmt:The connection changed between pages; the list starts again.");
            out.pages.clear();
            cookie.clear();
            continue;
        }
        bool more = lrc == LDAP_SUCCESS && res && cookie.take_from(s->ld, res.get()) && cookie.more();
        if (res) out.pages.push_back(std::move(res));
        if (!more) return lrc;
    }
}

bool format_filter(std::string &out, const char *fmt, const char *value) {
    // Measured with the value as given: what its escaping adds never makes a
    // name that fits the filter buffer behave differently from a short one.
    // With "%s" the only conversion, that is the format's text and the value.
    const char *slot = std::strchr(fmt, '%');
    if (slot != nullptr && slot[1] == 's' && std::strchr(slot + 2, '%') == nullptr) {
        const size_t head = static_cast<size_t>(slot - fmt), tail = std::strlen(slot + 2), given = std::strlen(value);
        if (head + tail + given >= kFilterSize) return false;
        out.reserve(head + tail + given + 16);
        out.assign(fmt, head);
        plat::append_filter_value(out, std::string_view(value, given));
        out.append(slot + 2, tail);
        return true;
    }
    std::string measured;
    if (!format_text(measured, kFilterSize, fmt, value)) return false;
    slot = std::strstr(fmt, "%s");
    if (slot == nullptr) return false;
    out.assign(fmt, static_cast<size_t>(slot - fmt));
    plat::append_filter_value(out, value);
    out += slot + 2;
    return true;
}

}  // namespace zel
