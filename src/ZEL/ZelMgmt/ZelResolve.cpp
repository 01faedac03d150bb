// Finding one entry across the session's suffixes, and the lookups built on
// it: the Zel database entry, a person by user id, a person from its profile.
#include <cstring>
#include <string>

#include "ZelEntry.h"
#include "ZelClient.h"
#include "ZelHolders.h"
#include "ZelRoutines.h"
#include "ZelSearch.h"
#include "ZelSession.h"
#include "ZelStatus.h"
#include "ZelText.h"
#include "ZelTrace.h"

namespace {

// Results under which a suffix simply counts as holding nothing.
bool suffix_holds_nothing(int ldap_rc) {
    switch (ldap_rc) {
    case LDAP_OPERATIONS_ERROR:
    case LDAP_NO_SUCH_ATTRIBUTE:
    case LDAP_NO_SUCH_OBJECT:
    case LDAP_INSUFFICIENT_ACCESS:
    case LDAP_BUSY:
    case LDAP_UNWILLING_TO_PERFORM:
        return true;
    default:
        return false;
    }
}

// Copies an entry's DN into a 1000-byte buffer.
ZelRC copy_entry_dn(LDAP *ld, LDAPMessage *entry, char *dn) {
    const char *text = zel::entry_dn(ld, entry);
    if (!text) return ZEL_RC_ENTRY_NOT_FOUND;
    return zel::copy_into(dn, zel::kDnSize, text) ? 0 : ZEL_RC_LIMIT_EXCEEDED;
}

// determine_DN's body: a function of its own rather than the routine's
// lambda, so that its arguments stay in registers instead of being read
// through the closure at every use.
ZelRC find_entry_dn(ZelSession *s, ZelSuffixNode *suffixes, const char *filter, char *dn, LDAPMessage **result) {
    ZelRC rc = 0;
    if (result) *result = nullptr;
    // No filter is a malformed request: refused here, never sent.
    if (filter == nullptr || *filter == '\0') return ZEL_RC_INVALID_ARGUMENT;
    if (suffixes == nullptr || suffixes->suffix == nullptr) return ZEL_RC_ENTRY_NOT_FOUND;

    zel::Message kept;
    bool found = false;
    for (ZelSuffixNode *node = suffixes; node && node->suffix && !found && rc == 0; node = node->next) {
        zel::tracef(s, zel::kTraceProgress, "zelmgmt:Suffix being searched: %s\n", node->suffix);
        LDAPMessage *raw = nullptr;
        // A caller that keeps no result needs the DN alone.
        char *dn_only[] = {const_cast<char *>(LDAP_NO_ATTRS), nullptr};
        int lrc = plat::ldap_search_plain(s->ld, node->suffix, LDAP_SCOPE_SUBTREE, filter, result ? nullptr : dn_only,
                                          result ? 0 : 1, 2, &raw);
        zel::Message res(raw);
        if (lrc != LDAP_SUCCESS) {
            if (suffix_holds_nothing(lrc)) continue;
            // (a server that did not answer in time answers 1015: it has
            // said nothing about the entry, and the look-ups built on this
            // walk pass that on rather than report the entry missing)
            rc = check_LDAP_rc(s, static_cast<uint32_t>(lrc), ZEL_RC_ENTRY_NOT_FOUND, "ldap_search_ext_s()");
            break;
        }
        int count = ldap_count_entries(s->ld, res.get());
        if (count == 1) {
            rc = copy_entry_dn(s->ld, ldap_first_entry(s->ld, res.get()), dn);
            found = rc == 0;
            kept = std::move(res);
        } else if (count >= 2) {
            rc = ZEL_RC_ENTRY_NOT_FOUND;
        }
    }
    if (rc == 0 && !found) rc = ZEL_RC_ENTRY_NOT_FOUND;
    if (rc == 0 && result) *result = kept.release();
    return rc;
}

}  // namespace

namespace zel {

ZelRC ensure_database_dn(ZelSession *s) {
    if (s->database_dn) return 0;
    s->database_dn = static_cast<char *>(std::calloc(1, kDnSize));
    if (!s->database_dn) return ZEL_RC_NO_MEMORY;
    ZelRC rc = locate_ZEL_database(s, s->suffixes, s->database_dn);
    if (rc != 0) {
        std::free(s->database_dn);
        s->database_dn = nullptr;
    }
    return rc;
}

}  // namespace zel

extern "C" {

ZelRC determine_DN(ZelSession *s, ZelSuffixNode *suffixes, const char *filter, char *dn,
                   LDAPMessage **result) {
    return zel::routine(s, "determine_DN", [&] { return find_entry_dn(s, suffixes, filter, dn, result); });
}

ZelRC determine_unique_DN(ZelSession *s, ZelSuffixNode *suffixes, const char *filter, char *dn,
                          LDAPMessage **result) {
    ZelRC rc = 0;
    return zel::routine(s, "determine_unique_DN", [&]() -> ZelRC {
        if (result) *result = nullptr;
        if (suffixes == nullptr || suffixes->suffix == nullptr) return rc = ZEL_RC_ENTRY_NOT_FOUND;

        zel::Message match;
        char candidate[zel::kDnSize];
        for (ZelSuffixNode *node = suffixes; node && node->suffix && rc == 0; node = node->next) {
            ZelSuffixNode one{node->suffix, nullptr};
            LDAPMessage *raw = nullptr;
            std::memset(candidate, 0, sizeof candidate);
            ZelRC found = determine_DN(s, &one, filter, candidate, &raw);
            zel::Message res(raw);
            if (found == 0) {
                if (match) {
                    rc = ZEL_RC_NOT_UNIQUE;
                } else {
                    match = std::move(res);
                    std::memcpy(dn, candidate, sizeof candidate);
                }
            } else if (found != ZEL_RC_ENTRY_NOT_FOUND) {
                rc = found;  // several under one suffix (1004) count as none here
            }
        }
        if (rc == 0 && !match) rc = ZEL_RC_ENTRY_NOT_FOUND;
        if (rc == 0) {
            if (result) *result = match.release();
        } else {
            std::memset(dn, 0, zel::kDnSize);
        }
        return rc;
    });
}

ZelRC locate_ZEL_database(ZelSession *s, ZelSuffixNode *suffixes, char *dn) {
    ZelRC rc = 0;
    return zel::routine(s, "locate_ZEL_database", [&]() -> ZelRC {
        zel::CText filter = zel::zeroed_buffer(zel::kFilterSize);
        if (!filter) return rc = ZEL_RC_NO_MEMORY;
        std::strcat(filter.get(), "(&(");
        std::strcat(filter.get(), "objectClass");
        std::strcat(filter.get(), "=");
        std::strcat(filter.get(), "eApplicationSystem");
        std::strcat(filter.get(), ")(");
        std::strcat(filter.get(), "systemName");
        std::strcat(filter.get(), "=");
        std::strcat(filter.get(), "ORVZEL");
        std::strcat(filter.get(), "))");
        rc = determine_DN(s, suffixes, filter.get(), dn, nullptr);
        if (rc != 0 && rc != ZEL_RC_DIRECTORY_ERROR && rc != ZEL_RC_TIMEOUT) rc = ZEL_RC_DATABASE_NOT_FOUND;
        return rc;
    });
}

ZelRC locate_ePerson(ZelSession *s, const char *user, ZelSuffixNode *suffixes, char *dn) {
    ZelRC rc = 0;
    return zel::routine(s, "locate_ePerson", [&]() -> ZelRC {
        std::string filter;
        if (user == nullptr ||
            !zel::format_filter(filter, "(&(objectClass=Person)(uid=%s))", user))
            return rc = ZEL_RC_INVALID_ARGUMENT;
        rc = determine_DN(s, suffixes, filter.c_str(), dn, nullptr);
        if (rc != 0 && rc != ZEL_RC_DIRECTORY_ERROR && rc != ZEL_RC_TIMEOUT) rc = ZEL_RC_EPERSON_NOT_FOUND;
        return rc;
    });
}

ZelRC construct_ePersonDN_from_UP(ZelSession *s, const char *up_dn, char *dn) {
    ZelRC rc = 0;
    return zel::routine(s, "construct_ePersonDN_from_UP", [&]() -> ZelRC {
        std::memset(dn, 0, zel::kDnSize);
        if (up_dn == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
        size_t len = std::strlen(up_dn);
        zel::CText copy = zel::zeroed_buffer(3 * len + 1);
        zel::CText assembly = zel::zeroed_buffer(2 * zel::kDnSize);
        if (!copy || !assembly) return rc = ZEL_RC_NO_MEMORY;
        std::memcpy(copy.get(), up_dn, len);

        zel::Values rdns(ldap_explode_dn(copy.get(), 0));
        if (!rdns) return rc = ZEL_RC_INVALID_ARGUMENT;
        std::string parent;
        for (char **rdn = rdns.get() + (rdns.get()[0] ? 1 : 0); *rdn; ++rdn) {
            if (!parent.empty()) parent += ",";
            parent += *rdn;
        }
        if (!zel::copy_into(assembly.get(), 2 * zel::kDnSize, parent.c_str()) ||
            !zel::copy_into(dn, zel::kDnSize, assembly.get())) {
            std::memset(dn, 0, zel::kDnSize);
            return rc = ZEL_RC_INVALID_ARGUMENT;
        }
        return rc;
    });
}

}  // extern "C"
