// Directory searches as the library makes them, and walking what they found.
#pragma once

#include <string>
#include <vector>

#include "ZelHolders.h"
#include "zelmgmt.h"

namespace zel {

// A zero time-out: the directory client reads it as "no limit".
inline struct timeval no_time_limit() { return {0, 0}; }

// One search with no time limit and no controls.  The result message, if
// the directory sent one, is in `out` whatever the outcome; the answer is
// the LDAP result as it stands.
int search(ZelSession *s, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
           int size_limit, Message &out);
// The same, mapped: 0, or check_LDAP_rc(result, default_code,
// "ldap_search_ext_s()") with `out` emptied.
ZelRC search_mapped(ZelSession *s, const char *base, int scope, const char *filter, char **attrs,
                    int attrsonly, int size_limit, ZelRC default_code, Message &out);

// A filter from a format with exactly one "%s" (and no other conversion),
// which receives the caller's value escaped as an assertion value; false
// (`out` untouched) when the format with the value as given would not fit a
// 600-byte filter buffer.
bool format_filter(std::string &out, const char *fmt, const char *value);

// Entries in a search result; 0 for none or no result.
inline int entry_count(LDAP *ld, LDAPMessage *res) {
    int n = res ? ldap_count_entries(ld, res) : 0;
    return n > 0 ? n : 0;
}

// The result messages of one search read page by page: one message when
// the server offers no paging.  Entries keep the server's order across pages.
class SearchPages {
public:
    std::vector<Message> pages;
    int count(LDAP *ld) const;
    LDAPMessage *first_entry(LDAP *ld) const;
    // fn(entry) for every entry in order; a non-zero status ends the walk.
    // `ld` is taken by reference (pass s->ld): a write made by fn may
    // reconnect the session, and the walk must go on with the live handle.
    template <class Fn>
    ZelRC each_entry(LDAP *const &ld, Fn &&fn) const {
        for (const Message &m : pages)
            for (LDAPMessage *e = m ? ldap_first_entry(ld, m.get()) : nullptr; e; e = ldap_next_entry(ld, e))
                if (ZelRC rc = fn(e)) return rc;
        return 0;
    }
};
inline int entry_count(LDAP *ld, const SearchPages &res) { return res.count(ld); }

// Entries in one page of a paged search.
constexpr int kPageSize = 500;

// A search for every entry that matches, whatever the server's own size
// limit for unpaged answers: where the session found the paged-results
// control in the root DSE the search goes page by page, else it is one
// search as `search` makes it.  No size limit is asked for.  `out` holds
// the pages read, also when a later page failed; the answer is the LDAP
// result of the first page that failed, else that of the last one.
int search_all(ZelSession *s, const char *base, int scope, const char *filter, char **attrs, SearchPages &out);

// The entry's DN, read in place: valid while the entry's result lives;
// null when the entry cannot be decoded.  Nothing is allocated.
inline const char *entry_dn(LDAP *ld, LDAPMessage *entry) {
    struct berval dn{0, nullptr};
    return ldap_get_dn_ber(ld, entry, nullptr, &dn) == LDAP_SUCCESS ? dn.bv_val : nullptr;
}

// Walks an entry's attributes in the order the server returned them and
// calls fn(name, values) for each that has values, with the values as the
// client decoded them in place (each NUL-terminated; the list ends with a
// null bv_val); a non-zero status from fn ends the walk and is returned.
// `dn_out` as for walk_attributes.  The lean form of the walk below, for
// the read paths that look at a value or two.
template <class Fn>
ZelRC walk_values(LDAP *ld, LDAPMessage *entry, Fn &&fn, const char **dn_out = nullptr) {
    BerElement *raw = nullptr;
    struct berval dn{0, nullptr};
    const int dn_rc = ldap_get_dn_ber(ld, entry, &raw, &dn);
    Ber ber(raw);
    if (dn_out) *dn_out = dn_rc == LDAP_SUCCESS ? dn.bv_val : nullptr;
    if (dn_rc != LDAP_SUCCESS) return 0;
    for (;;) {
        struct berval name{0, nullptr};
        BerVarray list = nullptr;
        if (ldap_get_attribute_ber(ld, entry, ber.get(), &name, &list) != LDAP_SUCCESS || !name.bv_val) {
            ldap_memfree(list);
            return 0;
        }
        std::unique_ptr<struct berval, LdapMemFree> values(list);
        if (!list || !list[0].bv_val) continue;
        if (ZelRC rc = fn(name.bv_val, static_cast<const struct berval *>(list))) return rc;
    }
}

// Walks an entry's attributes in the order the server returned them and calls
// fn(name, strings, bervals) for each attribute that has values; a non-zero
// status from fn ends the walk and is returned.  The names and values are
// read in place (the client NUL-terminates each inside the result, so the
// string form points into the same bytes): pointers into them stay valid
// while the entry's result lives, and one list is allocated per attribute.
// The walk reads the entry's DN on its way; `dn_out`, when given, receives
// it as entry_dn would (null when the entry cannot be decoded).
template <class Fn>
ZelRC walk_attributes(LDAP *ld, LDAPMessage *entry, Fn &&fn, const char **dn_out = nullptr) {
    constexpr size_t kInline = 8;
    char *inline_strings[kInline + 1];
    struct berval *inline_bervals[kInline + 1];
    return walk_values(
        ld, entry,
        [&](const char *name, const struct berval *list) -> ZelRC {
            size_t n = 1;
            while (list[n].bv_val) ++n;
            std::unique_ptr<char *[]> heap_strings(n > kInline ? new char *[n + 1] : nullptr);
            std::unique_ptr<struct berval *[]> heap_bervals(n > kInline ? new struct berval *[n + 1] : nullptr);
            char **strings = heap_strings ? heap_strings.get() : inline_strings;
            struct berval **bervals = heap_bervals ? heap_bervals.get() : inline_bervals;
            for (size_t i = 0; i < n; ++i) {
                strings[i] = list[i].bv_val;
                bervals[i] = const_cast<struct berval *>(&list[i]);
            }
            strings[n] = nullptr;
            bervals[n] = nullptr;
            return fn(name, strings, bervals);
        },
        dn_out);
}

}  // namespace zel
