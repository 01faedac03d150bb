// Directory discovery: what the server is (root DSE), where its data lies
// (the suffix list) and which security domain the session works in.
#include <cstdlib>
#include <cstring>
#include <string>

#include <strings.h>

#include "ZelEntry.h"
#include "ZelClient.h"
#include "ZelHolders.h"
#include "ZelRoutines.h"
#include "ZelSearch.h"
#include "ZelSession.h"
#include "ZelSessionTexts.h"
#include "ZelStatus.h"
#include "ZelText.h"
#include "ZelTrace.h"

namespace {

// Names never taken as suffixes.
bool excluded_suffix(const char *name, bool naming_context) {
    for (const char *x : {"CN=SCHEMA", "CN=LOCALHOST", "CN=CHANGELOG"})
        if (zel::same_text(name, x)) return true;
    return naming_context && zel::same_text(name, "cn=deleted objects");
}

// AD's configuration partition and its schema partition below it: they
// hold the forest's settings and class definitions, never Zel entries, and
// every look-up walks every suffix.
bool ad_configuration_partition(const char *name) {
    for (const char *head : {"CN=Configuration,", "CN=Schema,CN=Configuration,"})
        if (strncasecmp(name, head, std::strlen(head)) == 0) return true;
    return false;
}

void drop_ad_configuration_partitions(ZelSuffixNode **head) {
    while (*head) {
        ZelSuffixNode *node = *head;
        if (!ad_configuration_partition(node->suffix)) {
            head = &node->next;
            continue;
        }
        *head = node->next;
        std::free(node->suffix);
        std::free(node);
    }
}

// Leading decimal digits; text that is not a number reads as 0.
long leading_number(const char *text) { return std::strtol(text, nullptr, 10); }

}  // namespace

extern "C" {

ZelRC determine_suffixes(ZelSession *s) {
    ZelRC rc = 0;
    return zel::routine(s, "determine_suffixes", [&]() -> ZelRC {
        const char *attrs[] = {"namingcontexts", "orvdirectoryversion", "netscapemdsuffix", "vendorName",
                               "vendorVersion", "forestFunctionality", "rootDomainNamingContext", "supportedControl",
                               nullptr};
        struct timeval tv = zel::no_time_limit();
        LDAPMessage *raw = nullptr;
        int lrc = plat::ldap_search_ext_s(s->ld, "", LDAP_SCOPE_BASE, "objectClass=*", const_cast<char **>(attrs), 0,
                                          nullptr, nullptr, &tv, 2, &raw);
        zel::Message res(raw);
        if (lrc != LDAP_SUCCESS) {
            zel::tracef(s, zel::kTraceFailures, "zelmgmt:Base DSE ldap_search_ext_s() failed with rc: x%x\n", lrc);
            rc = static_cast<ZelRC>(lrc);
            if (lrc == LDAP_INSUFFICIENT_ACCESS) {
                s->dir_kind = ZEL_DIR_NDS;
                rc = get_novell_suffixes(s);
            }
            if (rc != 0) rc = check_LDAP_rc(s, rc, ZEL_RC_ROOT_DSE_FAILED, "ldap_search_ext_s()");
            return rc;
        }

        s->dir_kind = ZEL_DIR_GENERIC;
        if (ldap_count_entries(s->ld, res.get()) != 1) return rc = ZEL_RC_ROOT_DSE_FAILED;
        bool novell = false, novell_version = false;
        LDAPMessage *entry = ldap_first_entry(s->ld, res.get());

        BerElement *ber_raw = nullptr;
        zel::LdapText name(ldap_first_attribute(s->ld, entry, &ber_raw));
        zel::Ber ber(ber_raw);
        for (; name; name.reset(ldap_next_attribute(s->ld, entry, ber_raw))) {
            const char *a = name.get();
            if (zel::same_text(a, "namingcontexts")) {
                zel::Bervals bv(ldap_get_values_len(s->ld, entry, a));
                zel::Values sv(ldap_get_values(s->ld, entry, a));
                if (!bv || !bv.get()[0]) {
                    zel::trace_line(s, zel::kTraceProgress, "zelmgmt:No attribute values returned from ldap_get_values().");
                    continue;
                }
                for (size_t i = 0; bv.get()[i]; ++i) {
                    const struct berval *v = bv.get()[i];
                    const char *text = sv && sv.get()[i] ? sv.get()[i] : v->bv_val;
                    size_t length = sv && sv.get()[i] ? std::strlen(sv.get()[i]) : v->bv_len;
                    std::string value(text, length);
                    if (excluded_suffix(value.c_str(), true)) continue;
                    if (zel::append_suffix(&s->suffixes, text, length) != 0) rc = ZEL_RC_NO_MEMORY;
                }
                continue;
            }
            zel::Values sv(ldap_get_values(s->ld, entry, a));
            const char *first = sv && sv.get()[0] ? sv.get()[0] : nullptr;
            if (zel::same_text(a, "orvdirectoryversion")) {
                s->dir_kind = ZEL_DIR_ORV;
                if (first && std::strncmp(first, "Tessan", 6) == 0) s->host_kind = ZEL_HOST_TESSAN;
                else if (first && std::strncmp(first, "Kelmar", 6) == 0) s->host_kind = ZEL_HOST_KELMAR;
            } else if (zel::same_text(a, "netscapemdsuffix")) {
                s->dir_kind = ZEL_DIR_NETSCAPE;
            } else if (zel::same_text(a, "vendorName")) {
                if (first && zel::same_text(first, "Novell, Inc.")) novell = true;
            } else if (zel::same_text(a, "vendorVersion")) {
                if (first && leading_number(first) > 84) novell_version = true;
            } else if (zel::same_text(a, "forestFunctionality")) {
                s->dir_kind = ZEL_DIR_ACTIVE_DIRECTORY;
            } else if (zel::same_text(a, "supportedControl")) {
                // Lists page through what a server caps unpaged answers at.
                for (char **v = sv.get(); v && *v; ++v)
                    if (std::strcmp(*v, LDAP_CONTROL_PAGEDRESULTS) == 0) s->paged_results = 1;
            }
        }
        if (novell && novell_version) s->dir_kind = ZEL_DIR_EDIRECTORY;
        if (s->dir_kind == ZEL_DIR_ACTIVE_DIRECTORY) drop_ad_configuration_partitions(&s->suffixes);
        if (s->dir_kind == ZEL_DIR_EDIRECTORY) rc = get_novell_suffixes(s);
        return rc;
    });
}

ZelRC get_novell_suffixes(ZelSession *s) {
    ZelRC rc = 0;
    return zel::routine(s, "get_novell_suffixes", [&]() -> ZelRC {
        const char *attrs[] = {"1.1", nullptr};
        struct timeval tv = zel::no_time_limit();
        LDAPMessage *raw = nullptr;
        int lrc = plat::ldap_search_ext_s(s->ld, "", LDAP_SCOPE_ONELEVEL, "objectClass=*", const_cast<char **>(attrs),
                                          0, nullptr, nullptr, &tv, 0, &raw);
        zel::Message res(raw);
        if (lrc != LDAP_SUCCESS) {
            zel::tracef(s, zel::kTraceFailures, "zelmgmt:Base DSE ldap_search_ext_s() failed with rc: x%x\n", lrc);
            return rc = check_LDAP_rc(s, static_cast<uint32_t>(lrc), ZEL_RC_ROOT_DSE_FAILED, "ldap_search_ext_s()");
        }
        if (ldap_count_entries(s->ld, res.get()) < 1) return rc = ZEL_RC_ROOT_DSE_FAILED;

        // The partitions below the root replace whatever the naming contexts gave.
        zel::free_suffixes(s->suffixes);
        s->suffixes = nullptr;
        for (LDAPMessage *e = ldap_first_entry(s->ld, res.get()); e; e = ldap_next_entry(s->ld, e)) {
            zel::LdapText dn(ldap_get_dn(s->ld, e));
            if (!dn || excluded_suffix(dn.get(), false)) continue;
            if (zel::append_suffix(&s->suffixes, dn.get(), std::strlen(dn.get())) != 0) rc = ZEL_RC_NO_MEMORY;
        }
        return rc;
    });
}

ZelRC get_domain(ZelSession *s, const char *name) {
    ZelRC rc = 0;
    return zel::routine(s, "get_domain", [&]() -> ZelRC {
        std::string filter;
        char *domain_dn = static_cast<char *>(std::calloc(1, zel::kDnSize));
        if (!domain_dn) {
            std::free(domain_dn);
            return rc = ZEL_RC_NO_MEMORY;
        }
        std::free(s->domain_dn);
        s->domain_dn = domain_dn;
        zel::forget_session_texts(s);
        const char *format = s->dir_kind == ZEL_DIR_ORV
                                 ? "(&(secAuthority=%s)(objectClass=secAuthorityInfo)(version=*))"
                                 : "(&(secAuthority=%s)(objectClass=secAuthorityInfo))";
        if (!zel::format_filter(filter, format, name)) return rc = ZEL_RC_INVALID_ARGUMENT;

        LDAPMessage *raw = nullptr;
        rc = determine_DN(s, s->suffixes, filter.c_str(), domain_dn, &raw);
        zel::Message res(raw);
        if (rc == ZEL_RC_NOT_UNIQUE || rc == ZEL_RC_ENTRY_NOT_FOUND) {
            zel::tracef(s, zel::kTraceProgress, "zelmgmt:Velmar domain \"%s\" not found.\n", name);
            return rc = ZEL_RC_SECURITY_DOMAIN_NOT_FOUND;
        }
        if (rc != 0) return rc;

        s->domain_name = strdup(name);
        if (!s->domain_name) return rc = ZEL_RC_NO_MEMORY;
        for (LDAPMessage *e = ldap_first_entry(s->ld, res.get()); e; e = ldap_next_entry(s->ld, e)) {
            zel::walk_attributes(s->ld, e, [&](const char *attr, char **values, struct berval **) -> ZelRC {
                if (zel::same_text(attr, "version") && values && values[0]) {
                    s->domain_version = static_cast<int32_t>(leading_number(values[0]));
                    zel::tracef(s, zel::kTraceProgress, "zelmgmt:Velmar domain \"%s\" version: %d.\n", name,
                                s->domain_version);
                }
                return 0;
            });
        }
        return rc;
    });
}

}  // extern "C"
