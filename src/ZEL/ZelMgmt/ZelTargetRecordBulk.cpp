// Every target record the session sees with the Zel user it belongs to, in a
// few paged searches for the whole directory.  Read user by user, each user
// costs three searches (person, profile, records); a tool comparing thousands
// of records against a document reads them all at once instead.  A record
// belongs to the Zel user entry it lies below.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "ZelEntry.h"
#include "ZelTargetRecord.h"
#include "platform/filter_format.h"
#include "ZelHolders.h"
#include "ZelPlatform.h"
#include "ZelRoutines.h"
#include "ZelSearch.h"
#include "ZelSession.h"
#include "ZelStatus.h"

namespace {

using ListHolder = zel::Owned<ZelUserTargetRecordList, Zel_freeUserTargetRecords>;

// Zel user entry DN -> user name.
using Owners = std::unordered_map<std::string, std::string>;

ZelRC search_or_none(ZelSession *s, const std::string &base, int scope, const char *filter, char **attrs,
                     zel::SearchPages &res) {
    int lrc = zel::search_all(s, base.c_str(), scope, filter, attrs, res);
    // A container that does not exist holds nothing.
    if (lrc == LDAP_SUCCESS || lrc == LDAP_NO_SUCH_OBJECT) return 0;
    return check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_search_ext_s()");
}

ZelRC add_owners(ZelSession *s, const zel::SearchPages &users, const char *name_attr, Owners &owners) {
    return users.each_entry(s->ld, [&](LDAPMessage *e) -> ZelRC {
        zel::LdapText dn(ldap_get_dn(s->ld, e));
        zel::Values names(ldap_get_values(s->ld, e, name_attr));
        if (!dn) return ZEL_RC_NO_MEMORY;
        if (names && names.get()[0]) owners.emplace(dn.get(), names.get()[0]);
        return 0;
    });
}

// The user whose entry a record lies below: the nearest ancestor that is a
// listed user entry.  Null when there is none.
const std::string *owner_of(const Owners &owners, const char *record_dn) {
    for (const char *p = record_dn; *p; ++p) {
        if (*p == '\\' && p[1]) {
            ++p;  // an escaped character is part of its value
        } else if (*p == ',') {
            auto it = owners.find(p + 1);
            if (it != owners.end()) return &it->second;
        }
    }
    return nullptr;
}

void free_item(ZelUserTargetRecord *r) {
    if (r == nullptr) return;
    std::free(r->userName);
    Zel_freeTargetRecord(r->record);
    std::free(r);
}

// What has been read so far; released unless handed out.
struct Collected {
    std::vector<ZelUserTargetRecord *> items;
    ~Collected() {
        for (ZelUserTargetRecord *r : items) free_item(r);
    }
};

ZelRC add_records(ZelSession *s, const zel::SearchPages &records, const Owners &owners, int32_t form,
                  Collected &out) {
    return records.each_entry(s->ld, [&](LDAPMessage *e) -> ZelRC {
        zel::LdapText dn(ldap_get_dn(s->ld, e));
        if (!dn) return ZEL_RC_NO_MEMORY;
        const std::string *owner = owner_of(owners, dn.get());
        if (owner == nullptr) return 0;  // not below a Zel user of this form
        out.items.push_back(nullptr);  // the slot first: a failed push_back leaks nothing
        auto *item = static_cast<ZelUserTargetRecord *>(std::calloc(1, sizeof(ZelUserTargetRecord)));
        if (item == nullptr) return ZEL_RC_NO_MEMORY;
        out.items.back() = item;
        item->form = form;
        if ((item->userName = strdup(owner->c_str())) == nullptr) return ZEL_RC_NO_MEMORY;
        item->record = static_cast<ZelTargetRecord *>(std::calloc(1, sizeof(ZelTargetRecord)));
        if (item->record == nullptr) return ZEL_RC_NO_MEMORY;
        // One record that cannot be read is marked, not the whole list failed.
        ZelRC rc = dissect_TR(s, e, item->record);
        if (rc == ZEL_RC_DECODE_FAILED) item->unreadable = 1;
        return rc == ZEL_RC_DECODE_FAILED ? 0 : rc;
    });
}

ZelRC domain_records(ZelSession *s, Collected &out) {
    if (zel::first_generation(s) || s->domain_dn == nullptr || *s->domain_dn == '\0' || s->domain_name == nullptr)
        return 0;
    const std::string base = std::string("cn=Users,") + s->domain_dn;
    const std::string users_filter = "(&(objectClass=secUser)(secAuthority=" +
                                     plat::escape_filter_value(std::string(s->domain_name) + ":") + "))";
    static char kName[] = "principalName";
    char *name_attrs[] = {kName, nullptr};
    zel::SearchPages users, records;
    Owners owners;
    ZelRC rc = search_or_none(s, base, LDAP_SCOPE_ONELEVEL, users_filter.c_str(), name_attrs, users);
    if (rc == 0) rc = add_owners(s, users, kName, owners);
    if (rc != 0 || owners.empty()) return rc;
    users.pages.clear();
    rc = search_or_none(s, base, LDAP_SCOPE_SUBTREE, "(objectClass=secResCreds)", nullptr, records);
    return rc != 0 ? rc : add_records(s, records, owners, ZEL_FORM_SECURITY_DOMAIN, out);
}

// First-generation profiles lie below their persons, anywhere in the suffixes.
ZelRC first_generation_records(ZelSession *s, Collected &out) {
    if (zel::first_generation(s)) {
        ZelRC rc = zel::ensure_database_dn(s);
        if (rc == ZEL_RC_DATABASE_NOT_FOUND) return 0;  // no database, no first-generation records
        if (rc != 0) return rc;
    }
    if (s->database_dn == nullptr) return 0;
    static char kName[] = "cn";
    char *name_attrs[] = {kName, nullptr};
    for (ZelSuffixNode *n = s->suffixes; n != nullptr; n = n->next) {
        zel::SearchPages users, records;
        Owners owners;
        ZelRC rc = search_or_none(s, n->suffix, LDAP_SCOPE_SUBTREE, "(objectClass=eZelUser)", name_attrs, users);
        if (rc == 0) rc = add_owners(s, users, kName, owners);
        if (rc != 0) return rc;
        if (owners.empty()) continue;
        users.pages.clear();
        rc = search_or_none(s, n->suffix, LDAP_SCOPE_SUBTREE, "(objectClass=eTargetRecord)", nullptr, records);
        if (rc == 0) rc = add_records(s, records, owners, ZEL_FORM_FIRST_GENERATION, out);
        if (rc != 0) return rc;
    }
    return 0;
}

ZelRC all_user_records(ZelSession *s, ZelUserTargetRecordList **out) {
    ZelRC rc = 0;
    if (out == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
    *out = nullptr;
    Collected collected;
    if ((rc = domain_records(s, collected)) != 0 || (rc = first_generation_records(s, collected)) != 0) return rc;

    ListHolder list(static_cast<ZelUserTargetRecordList *>(std::calloc(1, sizeof(ZelUserTargetRecordList))));
    if (!list) return rc = ZEL_RC_NO_MEMORY;
    if (!collected.items.empty()) {
        list->records = static_cast<ZelUserTargetRecord **>(std::calloc(collected.items.size(), sizeof(void *)));
        if (list->records == nullptr) return rc = ZEL_RC_NO_MEMORY;
        for (ZelUserTargetRecord *&item : collected.items) {
            list->records[list->count++] = item;
            item = nullptr;
        }
    }
    *out = list.release();
    return rc;
}

}  // namespace

extern "C" {

ZEL_API ZelRC Zel_getAllUserTargetRecord(ZelSession *s, ZelUserTargetRecordList **out) {
    return zel::read_call(
        s, "Zel_getAllUserTargetRecord", {}, [&] { return all_user_records(s, out); },
        [&] {
            Zel_freeUserTargetRecords(*out);
            *out = nullptr;
        });
}

ZEL_API void Zel_freeUserTargetRecords(ZelUserTargetRecordList *l) {
    if (l == nullptr) return;
    for (int32_t i = 0; i < l->count; ++i) free_item(l->records[i]);
    std::free(l->records);
    std::free(l);
}

}  // extern "C"
