// Zel domains (resource groups): the records handed to callers, reading
// entries of both storage forms into them, the domain search, and removal.
// A security domain session that knows the Zel database reads
// first-generation domains as well.
#include <cstring>
#include <string>

#include "ZelEntry.h"
#include "ZelDomain.h"
#include "ZelIdentifierText.h"
#include "platform/dn_escape.h"
#include "platform/filter_format.h"
#include "ZelClient.h"
#include "ZelHolders.h"
#include "ZelRoutines.h"
#include "ZelSearch.h"
#include "ZelSession.h"
#include "ZelStatus.h"
#include "ZelText.h"
#include "ZelTrace.h"
#include "ZelWellKnownDns.h"

namespace zel {

// First-generation member prefixes, compared ignoring case.
namespace {

struct LocationPrefix {
    const char *prefix;
    const char *type;
};
constexpr LocationPrefix kLocationPrefixes[] = {
    {"T", "resourceName"}, {"D", "Domain"}, {"A", "Application"}, {"H", "Host"}, {"AI", "ApplicationInstance"}};

}  // namespace

ZelRC split_target_location(const char *stored, ZelDomainLocation *loc) {
    const char *p = stored + std::strspn(stored, ":");
    size_t prefix_length = std::strcspn(p, ":");
    std::string prefix(p, prefix_length);
    const char *type = nullptr;
    for (const LocationPrefix &known : kLocationPrefixes)
        if (!prefix.empty() && zel::same_text(prefix.c_str(), known.prefix)) type = known.type;
    if (type == nullptr) return 0;
    if ((loc->type = strdup(type)) == nullptr) return ZEL_RC_NO_MEMORY;
    const char *name = p + prefix_length;
    name += std::strspn(name, ":");
    if (*name != '\0' && (loc->value = strdup(name)) == nullptr) return ZEL_RC_NO_MEMORY;
    return 0;
}

ZelRC member_service_name(const char *member, char *&out) {
    LDAPDN dn = nullptr;
    if (ldap_str2dn(member, &dn, LDAP_DN_FORMAT_LDAPV3) == LDAP_SUCCESS && dn && dn[0] && dn[0][0]) {
        const struct berval &v = dn[0][0]->la_value;
        // "cn=" parses with no value at all: no name.
        const bool named = v.bv_len > 0;
        out = named ? strndup(v.bv_val, v.bv_len) : nullptr;
        ldap_dnfree(dn);
        return out || !named ? 0 : ZEL_RC_NO_MEMORY;
    }
    if (dn) ldap_dnfree(dn);
    const char *p = member + std::strspn(member, "=");
    p += std::strcspn(p, "=");
    if (*p == '=') ++p;
    p += std::strspn(p, ",");
    size_t length = std::strcspn(p, ",");
    if (length == 0) return 0;
    out = strndup(p, length);
    return out ? 0 : ZEL_RC_NO_MEMORY;
}

}  // namespace zel

namespace {

using DomainHolder = zel::Owned<ZelDomain, Zel_freeZelDomain>;
using DomainListHolder = zel::Owned<ZelDomainList, Zel_freeZelDomains>;

void free_locations(ZelDomain *d) {
    if (d->locations) {
        for (int32_t i = 0; i < d->locationCount; ++i) {
            ZelDomainLocation *loc = d->locations[i];
            if (loc == nullptr) continue;
            std::free(loc->type);
            std::free(loc->value);
            std::free(loc);
        }
        std::free(d->locations);
    }
    d->locations = nullptr;
    d->locationCount = 0;
}

// Replaces the record's locations with one per value, filled by read_one.
template <class ReadOne>
ZelRC set_locations(ZelDomain *d, char **values, ReadOne &&read_one) {
    free_locations(d);
    int count = ldap_count_values(values);
    if (count <= 0) return 0;
    d->locations = static_cast<ZelDomainLocation **>(std::calloc(count, sizeof(ZelDomainLocation *)));
    if (d->locations == nullptr) return ZEL_RC_NO_MEMORY;
    d->locationCount = count;
    for (int i = 0; i < count; ++i) {
        auto *loc = static_cast<ZelDomainLocation *>(std::calloc(1, sizeof(ZelDomainLocation)));
        if (loc == nullptr) return ZEL_RC_NO_MEMORY;
        d->locations[i] = loc;
        if (ZelRC rc = read_one(values[i], loc)) return rc;
    }
    return 0;
}

ZelRC read_domain_entry(ZelSession *s, LDAPMessage *entry, ZelDomain *d) {
    return zel::walk_attributes(s->ld, entry, [d](const char *attr, char **strings, struct berval **) -> ZelRC {
        // The binary values were there, so no string values means no memory.
        if (strings == nullptr || strings[0] == nullptr) return ZEL_RC_NO_MEMORY;
        if (zel::same_text(attr, "cn") || zel::same_text(attr, "secResGroupID")) return zel::replace_text(d->name, strings[0]);
        if (zel::same_text(attr, "description")) return zel::replace_text(d->description, strings[0]);
        if (zel::same_text(attr, "member"))
            return set_locations(d, strings, [](const char *value, ZelDomainLocation *loc) -> ZelRC {
                if ((loc->type = strdup("resourceName")) == nullptr) return ZEL_RC_NO_MEMORY;
                return zel::member_service_name(value, loc->value);
            });
        if (zel::same_text(attr, "targetLocation")) return set_locations(d, strings, zel::split_target_location);
        return 0;
    });
}

// Where the domains of one form lie and the filter that finds `name` among
// them (every domain for null), into a DN buffer and a filter.
ZelRC domain_query(ZelSession *s, const char *name, int32_t mode, char *base, std::string &filter) {
    bool first_gen = mode == zel::kFirstGenerationDomains;
    const char *container = first_gen ? s->database_dn : s->domain_dn;
    if (container == nullptr) return first_gen ? ZEL_RC_DATABASE_NOT_FOUND : ZEL_RC_SECURITY_DOMAIN_NOT_FOUND;
    const char *by_name = first_gen ? "(&(objectClass=eZelDomain)(cn=%s))" : "(&(objectClass=secResGroup)(secResGroupID=%s))";
    bool fits = (first_gen ? zel::copy_into(base, zel::kDnSize, container)
                           : zel::format_into(base, zel::kDnSize, "cn=ResourceGroups,%s", container)) &&
                (name ? zel::format_filter(filter, by_name, name)
                      : (filter = first_gen ? "(&(objectClass=eZelDomain)(cn=*))"
                                            : "(&(objectClass=secResGroup)(secResGroupID=*))",
                         true));
    return fits ? 0 : ZEL_RC_INVALID_ARGUMENT;
}

ZelRC locate_domains(ZelSession *s, const char *name, LDAPMessage **result, int32_t mode) {
    if (result == nullptr) return ZEL_RC_INVALID_ARGUMENT;
    *result = nullptr;
    zel::CText base = zel::zeroed_buffer(zel::kDnSize);
    if (!base) return ZEL_RC_NO_MEMORY;
    std::string filter;
    if (ZelRC rc = domain_query(s, name, mode, base.get(), filter)) return rc;
    bool first_gen = mode == zel::kFirstGenerationDomains;

    struct timeval tv = zel::no_time_limit();
    int size_limit = first_gen && name ? 2 : 0;
    int lrc = plat::ldap_search_ext_s(s->ld, base.get(), LDAP_SCOPE_SUBTREE, filter.c_str(), nullptr, 0, nullptr,
                                      nullptr, &tv, size_limit, result);
    if (lrc == LDAP_SUCCESS || lrc == LDAP_NO_SUCH_OBJECT) return static_cast<ZelRC>(lrc);
    return check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_search_ext_s()");
}

// Every domain of one form, page by page; a missing container holds none.
ZelRC list_domains(ZelSession *s, int32_t mode, zel::SearchPages &res) {
    ZelRC rc = 0;
    zel::RoutineTrace trace(s, "locate_ZEL_Domain", rc);
    char base[zel::kDnSize];
    std::string filter;
    if ((rc = domain_query(s, nullptr, mode, base, filter)) != 0) return rc;
    int lrc = zel::search_all(s, base, LDAP_SCOPE_SUBTREE, filter.c_str(), nullptr, res);
    if (lrc == LDAP_SUCCESS || lrc == LDAP_NO_SUCH_OBJECT) return rc;
    return rc = check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_search_ext_s()");
}

// A missing container holds no domains.
ZelRC search_or_none(ZelSession *s, const char *name, int32_t mode, zel::Message &res) {
    ZelRC rc = zel::search_domains(s, name, mode, res);
    return rc == ZEL_RC_ZEL_DOMAIN_NOT_FOUND ? 0 : rc;
}

ZelRC get_domain(ZelSession *s, const char *name, ZelDomain **out) {
    if (out) *out = nullptr;
    if (name == nullptr || out == nullptr) return ZEL_RC_INVALID_ARGUMENT;
    DomainHolder d(static_cast<ZelDomain *>(std::calloc(1, sizeof(ZelDomain))));
    if (!d) return ZEL_RC_NO_MEMORY;
    bool first_gen = zel::first_generation(s);
    if (first_gen) {
        if (ZelRC rc = zel::ensure_database_dn(s)) return rc;
    }

    zel::Message res;
    ZelRC rc = search_or_none(s, name, first_gen ? zel::kFirstGenerationDomains : zel::kSecurityDomainDomains, res);
    if (rc != 0) return rc;
    if (!first_gen && s->database_dn && zel::entry_count(s->ld, res.get()) == 0 &&
        (rc = search_or_none(s, name, zel::kFirstGenerationDomains, res)) != 0)
        return rc;

    if (zel::entry_count(s->ld, res.get()) != 1) return ZEL_RC_ZEL_DOMAIN_NOT_FOUND;
    if ((rc = dissect_ZelDomain(s, ldap_first_entry(s->ld, res.get()), d.get())) != 0) return rc;
    zel::trace_line(s, zel::kTraceProgress, "zelmgmt:Were able retrieve Zel Domain successfully!");
    *out = d.release();
    return 0;
}

// Reads the entries of a search result into list slots from *next on.
ZelRC fill_domains(ZelSession *s, const zel::SearchPages &res, ZelDomainList *list, int32_t &next) {
    return res.each_entry(s->ld, [&](LDAPMessage *e) -> ZelRC {
        if (next >= list->count) return 0;
        auto *d = static_cast<ZelDomain *>(std::calloc(1, sizeof(ZelDomain)));
        if (d == nullptr) return ZEL_RC_NO_MEMORY;
        list->domains[next++] = d;
        return dissect_ZelDomain(s, e, d);
    });
}

ZelRC get_all_domains(ZelSession *s, ZelDomainList **out) {
    if (out == nullptr) return ZEL_RC_INVALID_ARGUMENT;
    *out = nullptr;
    DomainListHolder list(static_cast<ZelDomainList *>(std::calloc(1, sizeof(ZelDomainList))));
    if (!list) return ZEL_RC_NO_MEMORY;
    bool first_gen = zel::first_generation(s);
    if (first_gen) {
        if (ZelRC rc = zel::ensure_database_dn(s)) return rc;
    }

    // First-generation domains come first.
    zel::SearchPages older, current;
    if (s->database_dn) {
        if (ZelRC rc = list_domains(s, zel::kFirstGenerationDomains, older)) return rc;
    }
    if (!first_gen) {
        if (ZelRC rc = list_domains(s, zel::kSecurityDomainDomains, current)) return rc;
    }

    int total = older.count(s->ld) + current.count(s->ld);
    if (total < 1) return ZEL_RC_ZEL_DOMAIN_NOT_FOUND;
    list->count = total;
    list->domains = static_cast<ZelDomain **>(std::calloc(total, sizeof(ZelDomain *)));
    if (list->domains == nullptr) return ZEL_RC_NO_MEMORY;
    int32_t next = 0;
    if (ZelRC rc = fill_domains(s, older, list.get(), next)) return rc;
    if (ZelRC rc = fill_domains(s, current, list.get(), next)) return rc;
    list->count = next;

    zel::trace_line(s, zel::kTraceProgress, "zelmgmt:Were able retrieve all Zel Domains successfully!");
    *out = list.release();
    return 0;
}

// Only the domain's entry goes; the services it names stay.  A domain that
// does not exist is reported as removed and answers 32.
ZelRC remove_domain(ZelSession *s, const char *name) {
    if (name == nullptr) return ZEL_RC_INVALID_ARGUMENT;
    bool first_gen = zel::first_generation(s);
    if (first_gen) {
        if (ZelRC rc = zel::ensure_database_dn(s)) return rc;
    }
    std::string dn;
    if (!first_gen && s->database_dn) {
        if (ZelRC rc = zel::first_generation_domain_exists(s, name, first_gen)) return rc;
    }
    if (ZelRC rc = zel::domain_entry_dn(s, name, first_gen, dn)) return rc;

    int lrc = plat::ldap_delete_ext_s(s->ld, dn.c_str(), nullptr, nullptr);
    if (lrc != LDAP_SUCCESS && lrc != LDAP_NO_SUCH_OBJECT)
        return check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_delete_ext_s()");
    zel::trace_line(s, zel::kTraceProgress, "zelmgmt:Were able remove Zel Domain successfully!");
    return static_cast<ZelRC>(lrc);
}

}  // namespace

namespace zel {

ZelRC search_domains(ZelSession *s, const char *name, int32_t mode, Message &res) {
    LDAPMessage *raw = nullptr;
    ZelRC rc = locate_ZEL_Domain(s, name, &raw, mode);
    res.reset(raw);
    return rc;
}

ZelRC first_generation_domain_exists(ZelSession *s, const char *name, bool &exists) {
    Message res;
    ZelRC rc = search_domains(s, name, kFirstGenerationDomains, res);
    exists = rc == 0 && entry_count(s->ld, res.get()) > 0;
    return rc;
}

ZelRC domain_entry_dn(const ZelSession *s, const char *name, bool first_gen, std::string &dn) {
    const char *container = first_gen ? s->database_dn : s->domain_dn;
    if (container == nullptr) return first_gen ? ZEL_RC_DATABASE_NOT_FOUND : ZEL_RC_SECURITY_DOMAIN_NOT_FOUND;
    return first_gen ? child_dn("cn", name, std::string("cn=Zel Domains,") + container, dn)
                     : child_dn("secResGroupID", name, std::string("cn=ResourceGroups,") + container, dn);
}

}  // namespace zel

extern "C" {

// Mode 1 searches first-generation domains, any other mode the security
// domain's.  32 (a missing base) comes back as it stands, with the result.
ZelRC locate_ZEL_Domain(ZelSession *s, const char *name, LDAPMessage **result, int32_t mode) {
    return zel::routine(s, "locate_ZEL_Domain", [&] { return locate_domains(s, name, result, mode); });
}

ZelRC dissect_ZelDomain(ZelSession *s, LDAPMessage *entry, ZelDomain *record) {
    return zel::routine(s, "dissect_ZelDomain", [&]() -> ZelRC {
        if (entry == nullptr || record == nullptr) return ZEL_RC_INVALID_ARGUMENT;
        return read_domain_entry(s, entry, record);
    });
}

ZEL_API ZelRC Zel_getZelDomain(ZelSession *s, const char *name, ZelDomain **out) {
    return zel::call(s, "Zel_getZelDomain", [&] { return get_domain(s, name, out); });
}

ZEL_API ZelRC Zel_getAllZelDomain(ZelSession *s, ZelDomainList **out) {
    return zel::call(s, "Zel_getAllZelDomain", [&] { return get_all_domains(s, out); });
}

ZEL_API ZelRC Zel_removeZelDomain(ZelSession *s, const char *name) {
    return zel::write_call(s, "Zel_removeZelDomain", {nullptr, name}, [&] { return remove_domain(s, name); });
}

ZEL_API void Zel_freeZelDomain(ZelDomain *d) {
    if (d == nullptr) return;
    std::free(d->name);
    std::free(d->description);
    free_locations(d);
    std::free(d);
}

ZEL_API void Zel_freeZelDomains(ZelDomainList *l) {
    if (l == nullptr) return;
    if (l->domains) {
        for (int32_t i = 0; i < l->count; ++i) Zel_freeZelDomain(l->domains[i]);
        std::free(l->domains);
    }
    std::free(l);
}

}  // extern "C"
