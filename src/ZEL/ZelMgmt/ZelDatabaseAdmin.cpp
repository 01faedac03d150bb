// Person entries, and the person of a new database's first senior
// administrator.
#include <cstring>
#include <memory>
#include <string>

#include "ZelEntry.h"
#include "ZelDatabase.h"
#include "platform/ad_account.h"
#include "platform/dn_escape.h"
#include "platform/filter_format.h"
#include "platform/person_password.h"
#include "ZelClient.h"
#include "ZelHolders.h"
#include "ZelRoutines.h"
#include "ZelSearch.h"
#include "ZelSession.h"
#include "ZelStatus.h"
#include "ZelText.h"
#include "ZelTrace.h"

namespace {

constexpr const char *kDefaultAdmin = "Zel Sr Admin";
constexpr const char *kDefaultAdminDescription = "Zel Senior Administrator";
// The first administrator's password when the caller names none.
constexpr const char *kDefaultAdminPassword = "qim";
// userAccountControl of an enabled ordinary account.
constexpr const char *kAdEnabledAccount = "512";

// "cn=<cn>,<parent>", the cn escaped as a DN value.
std::string person_dn(const char *cn, const char *parent) {
    return "cn=" + plat::escape_dn_value(cn) + "," + parent;
}

// Whether that DN fits a DN buffer, measured with the cn as given.
bool person_dn_fits(const char *cn, const char *parent) {
    return zel::db::fits_dn("cn=" + std::string(cn) + "," + parent);
}

// The profile Zel_addZelUser will write for a person must fit before the
// person is written: nothing is left half-made.
ZelRC check_profile_fits(ZelSession *s, const char *user_name, const std::string &dn) {
    if (zel::first_generation(s)) {
        if (ZelRC rc = zel::ensure_database_dn(s)) return rc;
        return zel::db::fits_dn("cn=" + std::string(user_name) + "," + dn) ? 0 : ZEL_RC_INVALID_ARGUMENT;
    }
    if (s->domain_dn == nullptr) return ZEL_RC_INVALID_ARGUMENT;
    return zel::db::fits_dn("principalName=" + std::string(user_name) + ",cn=Users," + s->domain_dn)
               ? 0
               : ZEL_RC_INVALID_ARGUMENT;
}

// The password of a person just added, given to a server that hashes it;
// when that fails the person, whom nobody could sign on as, is taken away.
ZelRC set_new_person_password(ZelSession *s, const std::string &dn, const char *password) {
    int lrc = plat::set_password(s->ld, dn.c_str(), password);
    ZelRC rc = 0;
    // A Netscape-kind server takes the operation only over an encrypted
    // connection, but hashes a userPassword written in clear itself.
    if (lrc == LDAP_CONFIDENTIALITY_REQUIRED && s->dir_kind == ZEL_DIR_NETSCAPE) {
        zel::ModList change(2);
        rc = change.ok() ? change.add(LDAP_MOD_REPLACE, "userPassword", {password}) : ZEL_RC_NO_MEMORY;
        if (rc == 0) lrc = plat::ldap_modify_ext_s(s->ld, dn.c_str(), change.get(), nullptr, nullptr);
    }
    if (rc == 0 && lrc == LDAP_SUCCESS) return 0;
    if (rc == 0) rc = check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_passwd_s()");
    plat::ldap_delete_ext_s(s->ld, dn.c_str(), nullptr, nullptr);
    return rc;
}

ZelRC add_person(ZelSession *s, const ZelPerson *p, const char *user_type) {
    if (p == nullptr || p->parentDN == nullptr || p->cn == nullptr || p->sn == nullptr)
        return ZEL_RC_INVALID_ARGUMENT;
    if (!person_dn_fits(p->cn, p->parentDN)) return ZEL_RC_INVALID_ARGUMENT;
    const std::string dn = person_dn(p->cn, p->parentDN);
    const char *user_name = p->uid ? p->uid : p->cn;
    ZelRC rc = 0;
    if (user_type != nullptr) {
        if (!zel::known_user_type(user_type)) return ZEL_RC_INVALID_ARGUMENT;
        if ((rc = check_profile_fits(s, user_name, dn)) != 0) return rc;
    }

    // On AD a person is an account: its name is the user name, its password
    // the account's own (never a readable userPassword), set only over an
    // encrypted connection, and with a password it is enabled.
    const bool ad = s->dir_kind == ZEL_DIR_ACTIVE_DIRECTORY;
    std::unique_ptr<plat::WipedBytes> ad_password;
    if (ad && p->password) {
        if (!plat::connection_encrypted(s->ld)) {
            zel::trace_line(s, zel::kTraceFailures,
                            "zelmgmt:Active Directory takes a password only over an encrypted connection.");
            ZelRC refused = check_LDAP_rc(s, LDAP_CONFIDENTIALITY_REQUIRED, 0, "ldap_add_ext_s()");
            zel::set_error_detail("Active Directory sets an account's password only over an encrypted connection");
            return refused;
        }
        ad_password = plat::ad_password_value(p->password);
        if (!ad_password) return ZEL_RC_INVALID_ARGUMENT;
    }
    // Elsewhere the password is never stored as given: the server hashes it
    // when it offers Password Modify (set once the person exists), else the
    // entry carries a salted hash made here.
    const bool server_hashes = !ad && p->password && plat::offers_password_modify(s->ld);
    std::string salted;
    if (!ad && p->password && !server_hashes) {
        salted = plat::salted_password_value(p->password);
        if (salted.empty()) return ZEL_RC_SYSTEM_ERROR;
    }
    struct berval password_value{};
    if (ad_password) {
        password_value.bv_len = ad_password->size();
        password_value.bv_val = ad_password->text();
    }

    zel::ModList mods(7 + (p->description ? 1 : 0) + (p->uid ? 1 : 0) + (p->password ? 1 : 0));
    if (!mods.ok()) return ZEL_RC_NO_MEMORY;
    if ((rc = mods.add(LDAP_MOD_ADD, "objectClass",
                       {"top", "Person", "organizationalPerson", "inetOrgPerson", "ePerson"})) ||
        (rc = mods.add(LDAP_MOD_ADD, "cn", {p->cn})) || (rc = mods.add(LDAP_MOD_ADD, "sn", {p->sn})) ||
        (p->description && (rc = mods.add(LDAP_MOD_ADD, "description", {p->description}))) ||
        (p->uid && (rc = mods.add(LDAP_MOD_ADD, "uid", {p->uid}))) ||
        (ad && (rc = mods.add(LDAP_MOD_ADD, "sAMAccountName", {user_name}))) ||
        (ad_password && ((rc = mods.add_binary(LDAP_MOD_ADD, "unicodePwd", {&password_value})) ||
                         (rc = mods.add(LDAP_MOD_ADD, "userAccountControl", {kAdEnabledAccount})))) ||
        (!salted.empty() && (rc = mods.add(LDAP_MOD_ADD, "userPassword", {salted.c_str()}))))
        return rc;
    // A person that exists already is taken as it is.
    int lrc = plat::ldap_add_ext_s(s->ld, dn.c_str(), mods.get(), nullptr, nullptr);
    if (lrc != LDAP_SUCCESS && lrc != LDAP_ALREADY_EXISTS)
        return check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_add_ext_s()");
    if (server_hashes && lrc == LDAP_SUCCESS && (rc = set_new_person_password(s, dn, p->password)) != 0) return rc;
    if (user_type == nullptr) return 0;

    ZelUser user{};
    user.userName = const_cast<char *>(user_name);
    user.userType = const_cast<char *>(user_type);
    user.description = p->description;
    user.enabled = 1;
    user.personDN = const_cast<char *>(dn.c_str());
    return Zel_addZelUser(s, &user);
}

// The administrator's person entry must exist when it is named by DN.
ZelRC check_admin_exists(ZelSession *s, const char *admin) {
    struct timeval tv = zel::no_time_limit();
    LDAPMessage *raw = nullptr;
    int lrc = plat::ldap_search_ext_s(s->ld, admin, LDAP_SCOPE_BASE, "objectClass=*", nullptr, 1, nullptr, nullptr,
                                      &tv, 2, &raw);
    zel::Message res(raw);
    if (lrc == LDAP_NO_SUCH_OBJECT) return ZEL_RC_NO_SUCH_OBJECT;
    return lrc == LDAP_SUCCESS ? 0 : check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_search_ext_s()");
}

// An administrator named by common name is the ePerson of that name, or a
// new person of that name directly below the suffix (`dn` holds that DN).
ZelRC find_or_add_admin(ZelSession *s, const char *name, const char *suffix, const char *uid, const char *password,
                        char *dn) {
    std::string filter;
    if (!zel::format_filter(filter, "(&(objectClass=ePerson)(cn=%s))", name)) return ZEL_RC_INVALID_ARGUMENT;
    std::string new_dn = dn;
    ZelRC rc = determine_DN(s, s->suffixes, filter.c_str(), dn, nullptr);
    if (rc != ZEL_RC_ENTRY_NOT_FOUND) return rc;

    std::strcpy(dn, new_dn.c_str());
    ZelPerson person{};
    person.parentDN = const_cast<char *>(suffix);
    person.cn = person.sn = const_cast<char *>(name);
    person.uid = const_cast<char *>(uid);
    person.password = const_cast<char *>(password);
    return Zel_create_ePerson(s, &person, nullptr);
}

ZelRC add_default_admin(ZelSession *s, const char *suffix, const char *uid, const char *password) {
    ZelPerson person{};
    person.parentDN = const_cast<char *>(suffix);
    person.cn = person.sn = const_cast<char *>(kDefaultAdmin);
    person.description = const_cast<char *>(kDefaultAdminDescription);
    person.uid = const_cast<char *>(uid ? uid : kDefaultAdmin);
    person.password = const_cast<char *>(password ? password : kDefaultAdminPassword);
    // Kept for callers written against it; the words say so, never the password.
    if (password == nullptr)
        zel::trace_line(s, zel::kTraceFailures,
                        "zelmgmt:Warning: the first administrator gets the well-known default password; "
                        "name a password, or change it at once.");
    return Zel_create_ePerson(s, &person, nullptr);
}

}  // namespace

namespace zel::db {

ZelRC plan_admin(const char *admin, const char *suffix, std::string &uid, std::string &dn) {
    if (admin == nullptr) {
        uid = kDefaultAdmin;
        dn = person_dn(kDefaultAdmin, suffix);
    } else if (contains(admin, "=")) {
        Values rdns(ldap_explode_dn(admin, 1));
        if (!rdns || !rdns.get()[0]) return ZEL_RC_INVALID_ARGUMENT;
        uid = rdns.get()[0];
        dn = admin;
    } else {
        uid = admin;
        dn = person_dn(admin, suffix);
    }
    bool fits = uid.size() < kAdminUidSize && fits_dn(dn) && fits_dn("cn=" + uid + "," + dn);
    return fits ? 0 : ZEL_RC_INVALID_ARGUMENT;
}

}  // namespace zel::db

extern "C" {

ZelRC determine_initial_ZelAdmin(ZelSession *s, const char *admin, const char *suffix, const char *uid,
                                 const char *password, char **uid_out, char **dn_out) {
    ZelRC rc = 0;
    return zel::routine(s, "determine_initial_ZelAdmin", [&]() -> ZelRC {
        if (uid_out == nullptr || dn_out == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
        *uid_out = *dn_out = nullptr;
        if (suffix == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
        zel::CText dn = zel::zeroed_buffer(zel::kDnSize);
        zel::CText user_id = zel::zeroed_buffer(zel::db::kAdminUidSize);
        if (!dn || !user_id) return rc = ZEL_RC_NO_MEMORY;
        std::string planned_uid, planned_dn;
        if ((rc = zel::db::plan_admin(admin, suffix, planned_uid, planned_dn)) != 0) return rc;
        std::strcpy(user_id.get(), planned_uid.c_str());
        std::strcpy(dn.get(), planned_dn.c_str());
        if (admin == nullptr)
            rc = add_default_admin(s, suffix, uid, password);
        else if (zel::contains(admin, "="))
            rc = check_admin_exists(s, admin);
        else
            rc = find_or_add_admin(s, admin, suffix, uid, password, dn.get());
        if (rc == 0) {
            *uid_out = user_id.release();
            *dn_out = dn.release();
        }
        return rc;
    });
}

ZEL_API ZelRC Zel_create_ePerson(ZelSession *s, const ZelPerson *p, const char *userType) {
    ZelRC rc = 0;
    return zel::user_write_call(s, "Zel_create_ePerson", {p ? p->cn : nullptr, p ? p->parentDN : nullptr}, [&]() -> ZelRC {
        return rc = add_person(s, p, userType);
    });
}

}  // extern "C"
