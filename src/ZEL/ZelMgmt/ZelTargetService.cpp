// Target services and their types: the records handed to callers, reading
// entries of both storage forms into them, and the two searches that the
// maintenance calls share.
//
// First generation: eTargetService entries anywhere below the Zel database
// entry, named by tsName.  Security domain form: secResource entries below
// cn=Resources of the domain, named by secResourceID; such a session reads
// first-generation entries as well when it knows the Zel database.
#include <cstring>
#include <string>

#include "ZelEntry.h"
#include "ZelIdentifierText.h"
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

bool builtin_service_type(const char *type) {
    return same_text(type, "Web Resource") || same_text(type, "Resource Group");
}

ZelRC split_identifier(const char *stored, ZelReqIdentifier *pair) {
    char **fields[] = {&pair->name, &pair->value};
    const char *p = stored;
    for (char **field : fields) {
        while (*p == '=') ++p;
        if (*p == '\0') break;
        const char *end = std::strchr(p, '=');
        size_t length = end ? static_cast<size_t>(end - p) : std::strlen(p);
        if ((*field = strndup(p, length)) == nullptr) return ZEL_RC_NO_MEMORY;
        p += length;
    }
    return 0;
}

}  // namespace zel

namespace {

using ServiceHolder = zel::Owned<ZelTargetService, Zel_freeTargetService>;
using ServiceListHolder = zel::Owned<ZelTargetServiceList, Zel_freeTargetServices>;

const char *type_of_sec_type(const char *value) {
    if (std::strcmp(value, "1") == 0) return "Web Resource";
    if (std::strcmp(value, "2") == 0) return "Resource Group";
    return "Unknown";
}

void free_identifiers(ZelTargetService *ts) {
    if (ts->reqIdentifiers) {
        for (int32_t i = 0; i < ts->reqIdentifierCount; ++i) {
            ZelReqIdentifier *pair = ts->reqIdentifiers[i];
            if (pair == nullptr) continue;
            std::free(pair->name);
            std::free(pair->value);
            std::free(pair);
        }
        std::free(ts->reqIdentifiers);
    }
    ts->reqIdentifiers = nullptr;
    ts->reqIdentifierCount = 0;
}

ZelRC set_identifiers(ZelTargetService *ts, char **values) {
    free_identifiers(ts);
    int count = ldap_count_values(values);
    if (count <= 0) return 0;
    ts->reqIdentifiers = static_cast<ZelReqIdentifier **>(std::calloc(count, sizeof(ZelReqIdentifier *)));
    if (ts->reqIdentifiers == nullptr) return ZEL_RC_NO_MEMORY;
    ts->reqIdentifierCount = count;
    for (int i = 0; i < count; ++i) {
        ZelReqIdentifier *pair = static_cast<ZelReqIdentifier *>(std::calloc(1, sizeof(ZelReqIdentifier)));
        if (pair == nullptr) return ZEL_RC_NO_MEMORY;
        ts->reqIdentifiers[i] = pair;
        if (ZelRC rc = zel::split_identifier(values[i], pair)) return rc;
    }
    return 0;
}

// The filters of a first-generation service search (the name escaped, or
// the library's own "*") and of every resource of a security domain.
constexpr const char *kFirstGenerationServices = "(&(objectClass=eTargetService)(tsName=%s))";
constexpr const char *kDomainServices = "(objectClass=secResource)";

// Every service of one storage form, page by page; a missing container or
// database entry holds none.
ZelRC list_services(ZelSession *s, int32_t mode, zel::SearchPages &res) {
    std::string base, filter;
    if (mode == 1) {
        if (s->database_dn == nullptr) return ZEL_RC_DATABASE_NOT_FOUND;
        base = s->database_dn;
        if (!zel::format_text(filter, zel::kFilterSize, kFirstGenerationServices, "*")) return ZEL_RC_INVALID_ARGUMENT;
    } else {
        if (ZelRC rc = zel::resources_container_dn(s, base)) return rc;
        filter = kDomainServices;
    }
    int lrc = zel::search_all(s, base.c_str(), LDAP_SCOPE_SUBTREE, filter.c_str(), nullptr, res);
    if (lrc == LDAP_SUCCESS || lrc == LDAP_NO_SUCH_OBJECT) return 0;
    return check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_search_ext_s()");
}

// Runs one target service search; what the directory handed back goes to
// *result, also when the search failed.
ZelRC run_service_search(ZelSession *s, const char *base, const char *filter, char **attrs, int size_limit,
                         LDAPMessage **result) {
    zel::Message res;
    int lrc = zel::search(s, base, LDAP_SCOPE_SUBTREE, filter, attrs, 0, size_limit, res);
    *result = res.release();
    if (lrc == LDAP_SUCCESS) return 0;
    // A missing Resources container (or database entry) holds no services.
    if (lrc == LDAP_NO_SUCH_OBJECT) return ZEL_RC_TS_NOT_FOUND;
    return check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_search_ext_s()");
}

// Reads the entries of a search result into list slots from *next on.
ZelRC fill_services(ZelSession *s, const zel::SearchPages &res, ZelTargetServiceList *list, int32_t &next) {
    return res.each_entry(s->ld, [&](LDAPMessage *e) -> ZelRC {
        if (next >= list->count) return 0;
        auto *ts = static_cast<ZelTargetService *>(std::calloc(1, sizeof(ZelTargetService)));
        if (ts == nullptr) return ZEL_RC_NO_MEMORY;
        list->services[next++] = ts;
        return dissect_TS(s, e, ts);
    });
}

ZelRC get_all_target_services(ZelSession *s, ZelTargetServiceList **out) {
    ZelRC rc = 0;
    if (out == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
    *out = nullptr;
    ServiceListHolder list(static_cast<ZelTargetServiceList *>(std::calloc(1, sizeof(ZelTargetServiceList))));
    if (!list) return rc = ZEL_RC_NO_MEMORY;

    bool v1 = zel::first_generation(s);
    if (v1 && (rc = zel::ensure_database_dn(s)) != 0) return rc;

    zel::SearchPages first_gen, domain;
    if (s->database_dn && (rc = list_services(s, 1, first_gen)) != 0) return rc;
    if (!v1 && (rc = list_services(s, 2, domain)) != 0) return rc;

    int total = first_gen.count(s->ld) + domain.count(s->ld);
    if (total <= 0) return rc = ZEL_RC_TS_NOT_FOUND;
    list->count = total;
    list->services = static_cast<ZelTargetService **>(std::calloc(total, sizeof(ZelTargetService *)));
    if (list->services == nullptr) return rc = ZEL_RC_NO_MEMORY;

    int32_t next = 0;
    if ((rc = fill_services(s, first_gen, list.get(), next)) != 0) return rc;
    if ((rc = fill_services(s, domain, list.get(), next)) != 0) return rc;
    list->count = next;

    zel::trace_line(s, zel::kTraceProgress, "zelmgmt:Were able get all Target Services successfully!");
    *out = list.release();
    return rc;
}

ZelRC get_target_service(ZelSession *s, const char *name, ZelTargetService **out) {
    ZelRC rc = 0;
    if (out) *out = nullptr;
    if (name == nullptr || out == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
    ServiceHolder ts(static_cast<ZelTargetService *>(std::calloc(1, sizeof(ZelTargetService))));
    if (!ts) return rc = ZEL_RC_NO_MEMORY;

    zel::Message res;
    if (zel::first_generation(s)) {
        if ((rc = zel::ensure_database_dn(s)) != 0) return rc;
        rc = zel::search_services(s, name, nullptr, 1, res);
        if (rc != 0) return rc;
    } else {
        rc = zel::search_services(s, name, nullptr, 2, res);
        if (rc == ZEL_RC_TS_NOT_FOUND) rc = 0;
        if (rc != 0) return rc;
        // Not among the domain's resources: a first-generation entry of that
        // name serves when the session knows the Zel database.
        if (zel::entry_count(s->ld, res.get()) == 0 && s->database_dn && res) {
            rc = zel::search_services(s, name, nullptr, 1, res);
            if (rc != 0) return rc;
        }
    }

    // The search stops at two entries: more than one means the name is ambiguous.
    if (zel::entry_count(s->ld, res.get()) != 1) return rc = ZEL_RC_TS_NOT_FOUND;
    if ((rc = dissect_TS(s, ldap_first_entry(s->ld, res.get()), ts.get())) != 0) return rc;
    zel::trace_line(s, zel::kTraceProgress, "zelmgmt:Were able retrieve Target Service successfully!");
    *out = ts.release();
    return rc;
}

}  // namespace

namespace zel {

ZelRC search_services(ZelSession *s, const char *name, const char *type, int32_t mode, Message &res) {
    LDAPMessage *raw = nullptr;
    ZelRC rc = locate_ZEL_TS(s, name, type, &raw, mode);
    res.reset(raw);
    return rc;
}

}  // namespace zel

extern "C" {

ZelRC dissect_TS(ZelSession *s, LDAPMessage *entry, ZelTargetService *record) {
    ZelRC rc = 0;
    return zel::routine(s, "dissect_TS", [&]() -> ZelRC {
        if (entry == nullptr || record == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
        return rc = zel::walk_attributes(s->ld, entry, [record](const char *attr, char **strings,
                                                                struct berval **) -> ZelRC {
            // The binary values were there, so no string values means no memory.
            if (strings == nullptr || strings[0] == nullptr) return ZEL_RC_NO_MEMORY;
            // Names are ASCII: one of another length is passed over unread.
            // A name spelled as the schema spells it matches in one comparison.
            auto is = [attr](const char *name, size_t n) {
                return std::memcmp(attr, name, n) == 0 || zel::same_text(attr, name);
            };
            switch (std::strlen(attr)) {
            case 6:
                if (is("tsName", 6)) return zel::replace_text(record->name, strings[0]);
                if (is("tsType", 6)) return zel::replace_text(record->type, strings[0]);
                return 0;
            case 13:
                if (is("secResourceID", 13) || is("secResGroupID", 13)) return zel::replace_text(record->name, strings[0]);
                if (is("reqIdentifier", 13)) return set_identifiers(record, strings);
                return 0;
            case 7:
                if (is("secType", 7)) return zel::replace_text(record->type, type_of_sec_type(strings[0]));
                return 0;
            case 11:
                if (is("description", 11)) return zel::replace_text(record->description, strings[0]);
                return 0;
            default: return 0;
            }
        });
    });
}

// Mode 1 searches first-generation entries, any other mode the security
// domain's resources.  The name is matched as it stands (escaped); with a
// name the size limit of 2 tells one match from several.  Whatever the search
// handed back is passed on in *result, also when it failed (the caller frees
// it): a missing Resources container still yields its result message.
ZelRC locate_ZEL_TS(ZelSession *s, const char *name, const char *type, LDAPMessage **result,
                    int32_t mode) {
    ZelRC rc = 0;
    return zel::routine(s, "locate_ZEL_TS", [&]() -> ZelRC {
        if (result == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
        *result = nullptr;
        bool v1 = mode == 1;
        std::string filter;

        static char kServiceAttrs[][16] = {"tsName", "tsType", "description", "reqIdentifier"};
        char *service_attrs[] = {kServiceAttrs[0], kServiceAttrs[1], kServiceAttrs[2], kServiceAttrs[3], nullptr};
        char **attrs = nullptr;
        int size_limit = name ? 2 : 0;
        const char *search_base = nullptr;
        std::string container;
        bool fits = true;
        if (v1) {
            if (s->database_dn == nullptr) return rc = ZEL_RC_DATABASE_NOT_FOUND;
            search_base = s->database_dn;
            const char *by_name = "(&(objectClass=eTargetService)(tsName=%s))";
            fits = name ? zel::format_filter(filter, by_name, name)
                        : (filter = "(&(objectClass=eTargetService)(tsName=*))", true);
            if (name) attrs = service_attrs;
        } else {
            if ((rc = zel::resources_container_dn(s, container)) != 0) return rc;
            search_base = container.c_str();
            // A security domain knows only its two built-in types: another
            // type would leave no filter at all, which the server rejects as
            // malformed (and may drop the connection for).  Nothing is sent.
            if (type != nullptr && !zel::builtin_service_type(type)) return rc = ZEL_RC_TST_NOT_FOUND;
            const char *by_id = "(&(objectClass=secResource)(secResourceID=%s))";
            if (name)
                fits = zel::format_filter(filter, by_id, name);
            else
                filter = type ? "(&(objectClass=secResource)(secResourceID=*))" : "(objectClass=secResource)";
        }
        if (!fits) return rc = ZEL_RC_INVALID_ARGUMENT;
        return rc = run_service_search(s, search_base, filter.c_str(), attrs, size_limit, result);
    });
}

ZelRC locate_ZEL_TST(ZelSession *s, const char *type, LDAPMessage **result) {
    ZelRC rc = 0;
    return zel::routine(s, "locate_ZEL_TST", [&]() -> ZelRC {
        if (result == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
        *result = nullptr;
        if (s->database_dn == nullptr) return rc = ZEL_RC_DATABASE_NOT_FOUND;
        std::string filter = "(&(objectClass=eTargetServiceType)(tsType=*))";
        if (type && !zel::format_filter(filter, "(&(objectClass=eTargetServiceType)(tsType=%s))", type))
            return rc = ZEL_RC_INVALID_ARGUMENT;

        static char kTypeAttr[] = "reqIdentifierName";
        char *type_attrs[] = {kTypeAttr, nullptr};
        struct timeval tv = zel::no_time_limit();
        int lrc = plat::ldap_search_ext_s(s->ld, s->database_dn, LDAP_SCOPE_SUBTREE, filter.c_str(),
                                          type ? type_attrs : nullptr, 0, nullptr, nullptr, &tv,
                                          type ? 2 : 0, result);
        if (lrc != LDAP_SUCCESS) rc = check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_search_ext_s()");
        return rc;
    });
}

ZEL_API ZelRC Zel_getAllTargetService(ZelSession *s, ZelTargetServiceList **out) {
    return zel::call(s, "Zel_getAllTargetService", [&] { return get_all_target_services(s, out); });
}

ZEL_API ZelRC Zel_getTargetService(ZelSession *s, const char *name, ZelTargetService **out) {
    return zel::call(s, "Zel_getTargetService", [&] { return get_target_service(s, name, out); });
}

ZEL_API void Zel_freeTargetService(ZelTargetService *ts) {
    if (ts == nullptr) return;
    std::free(ts->name);
    std::free(ts->type);
    std::free(ts->description);
    free_identifiers(ts);
    std::free(ts);
}

ZEL_API void Zel_freeTargetServices(ZelTargetServiceList *l) {
    if (l == nullptr) return;
    if (l->services) {
        for (int32_t i = 0; i < l->count; ++i) Zel_freeTargetService(l->services[i]);
        std::free(l->services);
    }
    std::free(l);
}

}  // extern "C"
