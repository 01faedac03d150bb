// Adding and updating target records.  The target service must exist (and
// be of the kind the record names); the password is stored masked with its
// NUL.  A security domain session adds in its own form, registering a
// person known only by a first-generation profile as an "XR User" first, and
// updates a record that exists only in the first-generation form in place.
#include <cstdio>
#include <cstring>
#include <string>

#include "ZelEntry.h"
#include "ZelTargetRecord.h"
#include "ZelClient.h"
#include "ZelHolders.h"
#include "ZelRoutines.h"
#include "ZelSearch.h"
#include "ZelSession.h"
#include "ZelStatus.h"
#include "ZelText.h"
#include "ZelTrace.h"
#include "ZelWellKnownDns.h"

namespace {

constexpr int32_t kAdd = 1;
constexpr int32_t kUpdate = 2;

// Finds the record's target service and checks the kind the record names
// against it; hands back the kind as stored ("tsType", or "secType" 1/2).
ZelRC check_target_service(ZelSession *s, const ZelTargetRecord *r, std::string &stored_kind) {
    bool v1 = zel::first_generation(s);
    zel::Message res;
    ZelRC rc = zel::search_services(s, r->targetServiceName, nullptr, v1 ? 1 : 2, res);
    if (rc == ZEL_RC_USER_NOT_FOUND || rc == ZEL_RC_TS_NOT_FOUND) rc = 0;
    if (rc != 0) return rc;
    if (!v1 && s->database_dn && zel::entry_count(s->ld, res.get()) == 0 &&
        (rc = zel::search_services(s, r->targetServiceName, nullptr, 1, res)) != 0)
        return rc;
    if (zel::entry_count(s->ld, res.get()) != 1) return ZEL_RC_TS_NOT_FOUND;

    // The search matched the name against every value of the naming
    // attribute: the one entry it found is the service, whichever value named it.
    rc = zel::walk_attributes(s->ld, ldap_first_entry(s->ld, res.get()),
                              [&](const char *attr, char **values, struct berval **) -> ZelRC {
        if (values == nullptr) return ZEL_RC_NO_MEMORY;
        bool ts_type = zel::same_text(attr, "tsType");
        if (!ts_type && !zel::same_text(attr, "secType")) return 0;
        stored_kind = values[0];
        if (r->targetServiceType == nullptr) return 0;
        const char *kind = ts_type ? values[0] : std::strcmp(values[0], "1") == 0 ? "Web Resource" : "Resource Group";
        return zel::same_text(r->targetServiceType, kind) ? 0 : ZEL_RC_CONFLICT;
    });
    return rc;
}

// The account attribute of a first-generation record on this directory kind.
const char *first_generation_uid_attribute(const ZelSession *s) {
    switch (s->dir_kind) {
    case ZEL_DIR_ORV:
    case ZEL_DIR_NDS:
    case ZEL_DIR_EDIRECTORY:
    case ZEL_DIR_GENERIC:
    case ZEL_DIR_ACTIVE_DIRECTORY:
        return "uid";
    case ZEL_DIR_NETSCAPE:
        return "principalName";
    default:
        return nullptr;
    }
}

// The values a write sends beside the record's own texts.
struct StoredValues {
    std::string stored_kind;
    std::string target_service;  // "tsName=<service>"
    zel::CText secret_buffer;    // masked password (or, on Orv, the clear one)
    struct berval secret {};
    char length[20] = {};

    ~StoredValues() {
        if (secret_buffer) std::memset(secret_buffer.get(), 0, secret.bv_len);
    }
};

ZelRC prepare_secret(ZelSession *s, const ZelTargetRecord *r, bool first_gen, StoredValues &v) {
    if (r->password == nullptr) return 0;
    if (first_gen && zel::clear_secret_key(s)) {
        // Orv keeps first-generation passwords as they are, without a NUL.
        v.secret_buffer.reset(strdup(r->password));
        if (!v.secret_buffer) return ZEL_RC_NO_MEMORY;
        v.secret.bv_len = std::strlen(r->password);
    } else {
        int32_t length = 0;
        char *raw = nullptr;
        ZelRC rc = mask_password(s, r->password, &length, &raw, zel::kMask);
        v.secret_buffer.reset(raw);
        if (rc != 0) return rc;
        v.secret.bv_len = static_cast<ber_len_t>(length);  // the NUL is stored too
    }
    v.secret.bv_val = v.secret_buffer.get();
    std::snprintf(v.length, sizeof v.length, "%d", static_cast<int>(v.secret.bv_len));
    return 0;
}

ZelRC add_secret(zel::ModList &mods, int op, const char *type, StoredValues &v) {
    return mods.add_binary(op, type, {&v.secret});
}

// The account name.  Active Directory keeps no empty value: there an empty
// account is no attribute (an add leaves it out, an update removes it).
ZelRC account_mods(const ZelSession *s, const ZelTargetRecord *r, int32_t op, const char *type, zel::ModList &mods) {
    if (r->userId == nullptr) return 0;
    if (s->dir_kind == ZEL_DIR_ACTIVE_DIRECTORY && r->userId[0] == '\0')
        return op == kUpdate ? mods.add(LDAP_MOD_DELETE, type, {}) : 0;
    return mods.add(op == kAdd ? LDAP_MOD_ADD : LDAP_MOD_REPLACE, type, {r->userId});
}

ZelRC domain_mods(ZelSession *s, const ZelTargetRecord *r, int32_t op, StoredValues &v, zel::ModList &mods) {
    ZelRC rc = 0;
    if (op == kAdd) {
        bool web = v.stored_kind == "1" || zel::same_text(v.stored_kind.c_str(), "Web Resource");
        if ((rc = mods.add(LDAP_MOD_ADD, "objectClass", {"top", "secResCreds"})) ||
            (rc = mods.add(LDAP_MOD_ADD, "secResCredsID", {r->targetRecordId})) ||
            (rc = mods.add(LDAP_MOD_ADD, "secType", {web ? "1" : "2"})) ||
            (rc = mods.add(LDAP_MOD_ADD, "secValid", {"TRUE"})))
            return rc;
    }
    int write = op == kAdd ? LDAP_MOD_ADD : LDAP_MOD_REPLACE;
    if (zel::writes_description(s, r->description) && (rc = mods.add(write, "description", {r->description})))
        return rc;
    if ((rc = account_mods(s, r, op, "secUid", mods))) return rc;
    if (r->password && ((rc = add_secret(mods, write, "secAuthnData", v)) ||
                        (rc = mods.add(write, "secAuthnLength", {v.length})) ||
                        (rc = mods.add(write, "secAuthnType", {"2"}))))
        return rc;
    return rc;
}

ZelRC first_generation_mods(ZelSession *s, const ZelTargetRecord *r, int32_t op, StoredValues &v,
                            zel::ModList &mods) {
    ZelRC rc = 0;
    int write = op == kAdd ? LDAP_MOD_ADD : LDAP_MOD_REPLACE;
    if (op == kAdd && ((rc = mods.add(LDAP_MOD_ADD, "objectClass",
                                      {"top", "cimManagedElement", "cimSetting", "eTargetRecord"})) ||
                       (rc = mods.add(LDAP_MOD_ADD, "cn", {r->targetRecordId}))))
        return rc;
    if ((rc = mods.add(write, "targetService", {v.target_service.c_str()})) ||
        (rc = mods.add(write, "tsType", {v.stored_kind.c_str()})))
        return rc;
    if (op == kAdd && (rc = mods.add(LDAP_MOD_ADD, "launchable", {"false"}))) return rc;
    if (zel::writes_description(s, r->description))
        rc = mods.add(write, "description", {r->description});
    else if (op == kUpdate && r->description)
        rc = mods.add(LDAP_MOD_DELETE, "description", {});
    if (rc != 0) return rc;
    const char *uid = first_generation_uid_attribute(s);
    if (uid && (rc = account_mods(s, r, op, uid, mods))) return rc;
    if (r->password) rc = add_secret(mods, write, "secretKey", v);
    return rc;
}

// "cn=<id>,<profile>" or "secResCredsId=<id>,cn=ResCreds,<user>".
ZelRC record_dn(const ZelTargetRecord *r, bool first_gen, const char *user_dn, std::string &dn) {
    return first_gen ? zel::child_dn("cn", r->targetRecordId, user_dn, dn)
                     : zel::child_dn("secResCredsId", r->targetRecordId, std::string("cn=ResCreds,") + user_dn, dn);
}

// Whether a resolved profile is the security domain's own entry (and not a
// first-generation profile the domain does not know yet).
bool domain_profile(const ZelSession *s, const char *user_dn) {
    if (s->domain_dn == nullptr) return false;
    size_t n = std::strlen(user_dn), tail = std::strlen(s->domain_dn);
    return n > tail && user_dn[n - tail - 1] == ',' && zel::same_text(user_dn + n - tail, s->domain_dn);
}

// The name a person registered on demand gets: a profile DN's first value,
// or the user name as given.
std::string registered_name(const char *user) {
    return zel::contains(user, "=") ? zel::token(std::strchr(user, '=') + 1, ',', 0) : std::string(user);
}

// Resolves the user into `user_dn`; 19 when no user entry is named.
ZelRC resolve_user(ZelSession *s, const char *user, int32_t mode, zel::CText &user_dn) {
    char *raw = nullptr;
    ZelRC rc = get_verify_User_Profile(s, user, &raw, mode);
    user_dn.reset(raw);
    if (rc == ZEL_RC_ACCOUNT_INVALID) rc = 0;  // an inactive account still gets its records
    return rc == 0 && !user_dn ? ZEL_RC_USER_NOT_FOUND : rc;
}

// Registers the person as a Zel user of type "XR User" in the security domain.
ZelRC register_xr_user(ZelSession *s, const char *user) {
    zel::CText person_dn = zel::zeroed_buffer(zel::kDnSize);
    if (!person_dn) return ZEL_RC_NO_MEMORY;
    std::string short_name = registered_name(user);
    ZelRC rc = zel::contains(user, "=") ? construct_ePersonDN_from_UP(s, user, person_dn.get())
                                        : locate_ePerson(s, user, s->suffixes, person_dn.get());
    if (rc != 0) return rc;
    ZelUser xr{};
    xr.userName = short_name.data();
    xr.userType = const_cast<char *>("XR User");
    xr.enabled = 1;
    rc = create_update_ZelUser(s, &xr, person_dn.get(), 1);
    return rc == ZEL_RC_ALREADY_EXISTS ? 0 : rc;
}

// Sends the add or modify.  With `may_register`, an add whose parent is
// missing sets `no_parent` instead of reporting a failure.
ZelRC write_entry(ZelSession *s, int32_t op, const std::string &dn, LDAPMod **mods, bool may_register,
                  bool &no_parent) {
    no_parent = false;
    if (op == kUpdate) {
        int lrc = zel::modify_clearing(s, dn.c_str(), mods);
        return lrc == LDAP_SUCCESS ? 0 : check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_modify_ext_s()");
    }
    int lrc = plat::ldap_add_ext_s(s->ld, dn.c_str(), mods, nullptr, nullptr);
    if (lrc == LDAP_SUCCESS) return 0;
    no_parent = may_register && lrc == LDAP_NO_SUCH_OBJECT;
    return no_parent ? ZEL_RC_NO_SUCH_OBJECT : check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_add_ext_s()");
}

ZelRC create_update(ZelSession *s, const char *user, const ZelTargetRecord *r, int32_t op) {
    if (op != kAdd && op != kUpdate) return ZEL_RC_UNSUPPORTED_OPERATION;
    if (user == nullptr || r == nullptr || r->targetServiceName == nullptr || r->targetRecordId == nullptr)
        return ZEL_RC_INVALID_ARGUMENT;
    bool first_gen = zel::first_generation(s);

    // A person with no profile in either form is no user to write for.
    zel::CText user_dn;
    ZelRC rc = resolve_user(s, user, 0, user_dn);
    if (rc != 0) return rc;

    StoredValues v;
    rc = check_target_service(s, r, v.stored_kind);
    // The domain form's update writes no kind, so it needs no service when
    // the record names its own ("T:wiki" for wiki): a user whose access rules
    // hide the catalogue still changes their own record.  Any other service
    // must be found, and the first-generation form rewrites the kind.
    const char *own = std::strchr(r->targetRecordId, ':');
    bool unseen_service = rc == ZEL_RC_TS_NOT_FOUND && op == kUpdate && !first_gen && own &&
                          zel::same_text(own + 1, r->targetServiceName);
    if (rc != 0 && !unseen_service) return rc;
    rc = 0;

    if (op == kUpdate && !first_gen && s->database_dn) {
        // A record known only in the first-generation form is updated there.
        zel::Message old;
        rc = zel::find_records(s, r->targetRecordId, user, zel::kFirstGenerationMode, old);
        if (rc != 0 && rc != ZEL_RC_USER_NOT_FOUND && rc != ZEL_RC_ACCOUNT_INVALID) return rc;
        if (zel::entry_count(s->ld, old.get()) > 0) {
            first_gen = true;
            if ((rc = resolve_user(s, user, zel::kFirstGenerationMode, user_dn)) != 0) return rc;
        }
    }
    if (first_gen && unseen_service) return ZEL_RC_TS_NOT_FOUND;
    // Only the first-generation form stores the service as "tsName=<name>".
    v.target_service = std::string("tsName") + "=" + r->targetServiceName;
    if (first_gen && v.target_service.size() >= zel::kShortValueSize) return ZEL_RC_INVALID_ARGUMENT;

    bool description = r->description != nullptr, uid = r->userId != nullptr, password = r->password != nullptr;
    zel::ModList mods(first_gen ? 6 + description + uid + password : 5 + description + uid + 3 * password);
    if (!mods.ok()) return ZEL_RC_NO_MEMORY;
    if ((rc = prepare_secret(s, r, first_gen, v)) != 0) return rc;
    rc = first_gen ? first_generation_mods(s, r, op, v, mods) : domain_mods(s, r, op, v, mods);
    if (rc != 0) return rc;

    std::string dn;
    bool may_register = !first_gen && op == kAdd, no_parent = false;
    if ((rc = record_dn(r, first_gen, user_dn.get(), dn)) != 0) return rc;
    if (may_register && !domain_profile(s, user_dn.get())) {
        // A first-generation profile: the add will register the person in
        // the domain and retry there, so that DN must fit before anything
        // is written.
        std::string registered_dn, retry_dn;
        if ((rc = zel::domain_user_dn(s, registered_name(user).c_str(), registered_dn)) != 0 ||
            (rc = record_dn(r, false, registered_dn.c_str(), retry_dn)) != 0)
            return rc;
    }
    rc = write_entry(s, op, dn, mods.get(), may_register, no_parent);
    if (!no_parent) return rc;

    // No cn=ResCreds container: the person is no Zel user of the domain yet.
    if ((rc = register_xr_user(s, user)) != 0) return rc;
    if ((rc = resolve_user(s, user, zel::kDomainMode, user_dn)) != 0) return rc;
    if ((rc = record_dn(r, false, user_dn.get(), dn)) != 0) return rc;
    return write_entry(s, op, dn, mods.get(), false, no_parent);
}

// Both public writes: the same checks, the worker, and their report.
ZelRC write_record(ZelSession *s, const char *user, const ZelTargetRecord *r, int32_t op) {
    ZelRC rc = 0;
    if (user == nullptr || r == nullptr || r->targetServiceName == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
    if (zel::first_generation(s) && (rc = zel::ensure_database_dn(s)) != 0) return rc;
    rc = create_update_TargetRecord(s, user, r, op);
    if (op == kAdd && rc == 0)
        zel::trace_line(s, zel::kTraceProgress, "zelmgmt:Were able to add Target Record successfully!");
    else if (op == kAdd)
        zel::tracef(s, zel::kTraceProgress, "zelmgmt:Were unable to add Target Record. Return Code: x%x\n", rc);
    else if (rc == 0)
        zel::trace_line(s, zel::kTraceProgress, "zelmgmt:Were able update Target Record successfully!");
    else
        zel::tracef(s, zel::kTraceProgress, "zelmgmt:Were unable to update Target Record. Return Code: x%x\n", rc);
    return rc;
}

}  // namespace

extern "C" {

ZelRC create_update_TargetRecord(ZelSession *s, const char *user, const ZelTargetRecord *record, int32_t operation) {
    ZelRC rc = 0;
    return zel::routine(s, "create_update_TargetRecord", [&]() -> ZelRC {
        return rc = create_update(s, user, record, operation);
    });
}

ZEL_API ZelRC Zel_addTargetRecord(ZelSession *s, const char *user, const ZelTargetRecord *r) {
    return zel::user_write_call(s, "Zel_addTargetRecord", {user, r ? r->targetRecordId : nullptr},
                                [&] { return write_record(s, user, r, kAdd); });
}

ZEL_API ZelRC Zel_updateTargetRecord(ZelSession *s, const char *user, const ZelTargetRecord *r) {
    return zel::user_write_call(s, "Zel_updateTargetRecord", {user, r ? r->targetRecordId : nullptr},
                                [&] { return write_record(s, user, r, kUpdate); });
}

}  // extern "C"
