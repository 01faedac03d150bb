// Reading and removing a user's target records.  A security domain session
// that knows the Zel database also sees the user's first-generation records.
#include <cstring>

#include "ZelEntry.h"
#include "ZelTargetRecord.h"
#include "ZelClient.h"
#include "ZelHolders.h"
#include "ZelRoutines.h"
#include "ZelSearch.h"
#include "ZelSession.h"
#include "ZelStatus.h"
#include "ZelTrace.h"

namespace {

using RecordHolder = zel::Owned<ZelTargetRecord, Zel_freeTargetRecord>;
using RecordListHolder = zel::Owned<ZelTargetRecordList, Zel_freeTargetRecords>;

// The user's one record for `target`, in the session's form and then, where
// the Zel database is known, among the first-generation records.  Two
// records for one target are as good as none.  `dn_only` asks for the entry
// without its attributes.
// The user is resolved once for both forms; a removal asks the directory,
// never the session's cache.
ZelRC find_one_record(ZelSession *s, const char *user, const char *target, zel::Message &res, LDAPMessage *&entry,
                      bool cached = true, bool dn_only = false) {
    entry = nullptr;
    char *no_attributes[] = {const_cast<char *>(LDAP_NO_ATTRS), nullptr};
    auto attributes = [&](int32_t mode) { return dn_only ? no_attributes : zel::record_attributes(mode); };
    zel::UserLookup users(s, user, cached);
    const int32_t mode = zel::session_mode(s);
    ZelRC rc = zel::find_user_records(s, users.form(mode), target, mode, res, attributes(mode));
    if (!zel::search_made(rc)) return rc;
    if (!zel::first_generation(s) && s->database_dn && zel::entry_count(s->ld, res.get()) == 0) {
        rc = zel::find_user_records(s, users.form(zel::kFirstGenerationMode), target, zel::kFirstGenerationMode, res,
                                    attributes(zel::kFirstGenerationMode));
        if (rc != 0 && rc != ZEL_RC_ACCOUNT_INVALID) return rc;
    }
    if (zel::entry_count(s->ld, res.get()) != 1) return ZEL_RC_TR_NOT_FOUND;
    entry = ldap_first_entry(s->ld, res.get());
    return 0;
}

ZelRC get_target_record(ZelSession *s, const char *user, const char *target, ZelTargetRecord **out) {
    ZelRC rc = 0;
    if (out) *out = nullptr;
    if (user == nullptr || target == nullptr || out == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
    RecordHolder record(static_cast<ZelTargetRecord *>(std::calloc(1, sizeof(ZelTargetRecord))));
    if (!record) return rc = ZEL_RC_NO_MEMORY;

    zel::Message res;
    LDAPMessage *entry = nullptr;
    if ((rc = find_one_record(s, user, target, res, entry)) != 0) return rc;
    if ((rc = dissect_TR(s, entry, record.get())) != 0) return rc;
    zel::trace_line(s, zel::kTraceProgress, "zelmgmt:Were able retrieve Target Record successfully!");
    *out = record.release();
    return rc;
}

// Every record of one form, or none: a user who is not (yet) a Zel user in
// that form has no records there.
ZelRC every_record(ZelSession *s, zel::UserLookup &users, int32_t mode, zel::SearchPages &res) {
    ZelRC rc = zel::list_user_records(s, users.form(mode), mode, res, zel::record_attributes(mode));
    return zel::search_made(rc) ? 0 : rc;
}

ZelRC fill_records(ZelSession *s, const zel::SearchPages &res, ZelTargetRecordList *list, int32_t &next) {
    return res.each_entry(s->ld, [&](LDAPMessage *e) -> ZelRC {
        if (next >= list->count) return 0;
        auto *record = static_cast<ZelTargetRecord *>(std::calloc(1, sizeof(ZelTargetRecord)));
        if (record == nullptr) return ZEL_RC_NO_MEMORY;
        list->records[next++] = record;
        return dissect_TR(s, e, record);
    });
}

ZelRC get_all_target_records(ZelSession *s, const char *user, ZelTargetRecordList **out) {
    ZelRC rc = 0;
    if (out) *out = nullptr;
    if (user == nullptr || out == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
    RecordListHolder list(static_cast<ZelTargetRecordList *>(std::calloc(1, sizeof(ZelTargetRecordList))));
    if (!list) return rc = ZEL_RC_NO_MEMORY;

    bool v1 = zel::first_generation(s);
    zel::SearchPages first_gen, domain;
    zel::UserLookup users(s, user);
    if ((v1 || s->database_dn) && (rc = every_record(s, users, zel::kFirstGenerationMode, first_gen)) != 0) return rc;
    if (!v1 && (rc = every_record(s, users, zel::kDomainMode, domain)) != 0) return rc;

    int total = first_gen.count(s->ld) + domain.count(s->ld);
    if (total < 1) return rc = ZEL_RC_TR_NOT_FOUND;
    list->records = static_cast<ZelTargetRecord **>(std::calloc(total, sizeof(ZelTargetRecord *)));
    if (list->records == nullptr) return rc = ZEL_RC_NO_MEMORY;
    list->count = total;
    int32_t next = 0;
    if ((rc = fill_records(s, first_gen, list.get(), next)) != 0) return rc;
    if ((rc = fill_records(s, domain, list.get(), next)) != 0) return rc;
    list->count = next;

    zel::trace_line(s, zel::kTraceProgress, "zelmgmt:Were able retrieve all Target Records successfully!");
    *out = list.release();
    return rc;
}

ZelRC remove_target_record(ZelSession *s, const char *user, const char *target) {
    ZelRC rc = 0;
    if (user == nullptr || target == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;

    zel::Message res;
    LDAPMessage *entry = nullptr;
    if ((rc = find_one_record(s, user, target, res, entry, false, true)) != 0) return rc;
    zel::LdapText dn(ldap_get_dn(s->ld, entry));
    if (!dn) return rc = ZEL_RC_TR_NOT_FOUND;
    int lrc = plat::ldap_delete_ext_s(s->ld, dn.get(), nullptr, nullptr);
    if (lrc != LDAP_SUCCESS) {
        rc = check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_delete_ext_s()");
        zel::trace_line(s, zel::kTraceProgress, "zelmgmt:Were unable to remove Target Record.");
    } else {
        zel::trace_line(s, zel::kTraceProgress, "zelmgmt:Were able to remove Target Record successfully!");
    }
    return rc;
}

}  // namespace

extern "C" {

ZEL_API ZelRC Zel_getTargetRecord(ZelSession *s, const char *user, const char *target, ZelTargetRecord **out) {
    return zel::read_call(
        s, "Zel_getTargetRecord", {user, target}, [&] { return get_target_record(s, user, target, out); },
        [&] {
            Zel_freeTargetRecord(*out);
            *out = nullptr;
        });
}

ZEL_API ZelRC Zel_getAllTargetRecord(ZelSession *s, const char *user, ZelTargetRecordList **out) {
    return zel::read_call(
        s, "Zel_getAllTargetRecord", {user}, [&] { return get_all_target_records(s, user, out); },
        [&] {
            Zel_freeTargetRecords(*out);
            *out = nullptr;
        });
}

ZEL_API ZelRC Zel_removeTargetRecord(ZelSession *s, const char *user, const char *target) {
    return zel::write_call(s, "Zel_removeTargetRecord", {user, target},
                           [&] { return remove_target_record(s, user, target); });
}

}  // extern "C"
