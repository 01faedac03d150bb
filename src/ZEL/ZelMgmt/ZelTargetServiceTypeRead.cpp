// Listing target service types.  Types are eTargetServiceType entries in the
// Zel database, each naming the identifiers its services carry.  A security
// domain's own types ("Web Resource", "Resource Group") are built in and have
// no entry, so such a session lists the database's types when it knows the
// database, and none otherwise.
#include <cstring>
#include <string>

#include "ZelEntry.h"
#include "ZelHolders.h"
#include "ZelRoutines.h"
#include "ZelSearch.h"
#include "ZelSession.h"
#include "ZelStatus.h"
#include "ZelText.h"
#include "ZelTrace.h"

namespace {

using TypeListHolder = zel::Owned<ZelTargetServiceTypeList, Zel_freeTargetServiceTypes>;

void free_identifier_names(ZelTargetServiceType *t) {
    if (t->identifierNames) {
        for (int32_t i = 0; i < t->identifierCount; ++i) std::free(t->identifierNames[i]);
        std::free(t->identifierNames);
    }
    t->identifierNames = nullptr;
    t->identifierCount = 0;
}

void free_type(ZelTargetServiceType *t) {
    if (t == nullptr) return;
    std::free(t->typeName);
    free_identifier_names(t);
    std::free(t);
}

ZelRC set_identifier_names(ZelTargetServiceType *t, char **values) {
    free_identifier_names(t);
    int count = ldap_count_values(values);
    if (count <= 0) return 0;
    t->identifierNames = static_cast<char **>(std::calloc(count, sizeof(char *)));
    if (t->identifierNames == nullptr) return ZEL_RC_NO_MEMORY;
    t->identifierCount = count;
    for (int i = 0; i < count; ++i)
        if ((t->identifierNames[i] = strdup(values[i])) == nullptr) return ZEL_RC_NO_MEMORY;
    return 0;
}

ZelRC dissect_type(ZelSession *s, LDAPMessage *entry, ZelTargetServiceType *t) {
    return zel::walk_attributes(s->ld, entry, [t](const char *attr, char **strings, struct berval **) -> ZelRC {
        if (zel::same_text(attr, "tsType")) return zel::replace_text(t->typeName, strings[0]);
        if (zel::same_text(attr, "reqIdentifierName")) return set_identifier_names(t, strings);
        return 0;
    });
}

// Every type entry of the Zel database, page by page; a database entry that
// is gone holds none.
ZelRC list_types(ZelSession *s, zel::SearchPages &res) {
    static char kName[] = "tsType", kIdentifiers[] = "reqIdentifierName";
    char *attrs[] = {kName, kIdentifiers, nullptr};
    int lrc = zel::search_all(s, s->database_dn, LDAP_SCOPE_SUBTREE, "(&(objectClass=eTargetServiceType)(tsType=*))",
                              attrs, res);
    if (lrc == LDAP_SUCCESS || lrc == LDAP_NO_SUCH_OBJECT) return 0;
    return check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_search_ext_s()");
}

ZelRC get_all_target_service_types(ZelSession *s, ZelTargetServiceTypeList **out) {
    ZelRC rc = 0;
    if (out == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
    *out = nullptr;
    TypeListHolder list(static_cast<ZelTargetServiceTypeList *>(std::calloc(1, sizeof(ZelTargetServiceTypeList))));
    if (!list) return rc = ZEL_RC_NO_MEMORY;
    if (zel::first_generation(s) && (rc = zel::ensure_database_dn(s)) != 0) return rc;

    zel::SearchPages res;
    if (s->database_dn && (rc = list_types(s, res)) != 0) return rc;
    int total = res.count(s->ld);
    if (total <= 0) return rc = ZEL_RC_TST_NOT_FOUND;
    list->types = static_cast<ZelTargetServiceType **>(std::calloc(total, sizeof(ZelTargetServiceType *)));
    if (list->types == nullptr) return rc = ZEL_RC_NO_MEMORY;
    list->count = total;
    int32_t next = 0;
    rc = res.each_entry(s->ld, [&](LDAPMessage *e) -> ZelRC {
        if (next >= list->count) return 0;
        auto *t = static_cast<ZelTargetServiceType *>(std::calloc(1, sizeof(ZelTargetServiceType)));
        if (t == nullptr) return ZEL_RC_NO_MEMORY;
        list->types[next++] = t;
        return dissect_type(s, e, t);
    });
    if (rc != 0) return rc;
    list->count = next;
    zel::trace_line(s, zel::kTraceProgress, "zelmgmt:Were able get all Target Service Types successfully!");
    *out = list.release();
    return rc;
}

}  // namespace

extern "C" {

ZEL_API ZelRC Zel_getAllTargetServiceType(ZelSession *s, ZelTargetServiceTypeList **out) {
    return zel::call(s, "Zel_getAllTargetServiceType", [&] { return get_all_target_service_types(s, out); });
}

ZEL_API void Zel_freeTargetServiceTypes(ZelTargetServiceTypeList *l) {
    if (l == nullptr) return;
    if (l->types) {
        for (int32_t i = 0; i < l->count; ++i) free_type(l->types[i]);
        std::free(l->types);
    }
    std::free(l);
}

}  // extern "C"
