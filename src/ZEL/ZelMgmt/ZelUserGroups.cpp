// Access-group membership of Zel users, finding and verifying a user's
// profile, and removing it.
#include <cstring>
#include <string>

#include "ZelEntry.h"
#include "ZelUserAccess.h"
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

constexpr size_t kUserTypeSize = 30;

// Applies the prepared "member" modification to one group; only when that
// succeeds does eDirectory also record the membership on the member's own
// entry.  The raw LDAP result is returned: callers decide which results
// count as success, once every step is done.
int edit_group(ZelSession *s, const std::string &group_dn, const char *person_dn, LDAPMod **mods,
               ZelRC (*nds_edit)(ZelSession *, const char *, const char *)) {
    int lrc = plat::ldap_modify_ext_s(s->ld, group_dn.c_str(), mods, nullptr, nullptr);
    if (lrc == LDAP_SUCCESS && s->dir_kind == ZEL_DIR_EDIRECTORY)
        lrc = static_cast<int>(nds_edit(s, group_dn.c_str(), person_dn));
    return lrc;
}

// The DN of the first entry of a search result, or "" when it has none.
std::string first_dn(LDAP *ld, const zel::Message &res) {
    LDAPMessage *e = res ? ldap_first_entry(ld, res.get()) : nullptr;
    zel::LdapText dn(e ? ldap_get_dn(ld, e) : nullptr);
    return dn ? std::string(dn.get()) : std::string();
}

// The first "userType" value of the profile; values that cannot be one of
// the known types (too long) leave it empty.
ZelRC read_user_type(LDAP *ld, const zel::Message &res, char *type) {
    for (LDAPMessage *e = ldap_first_entry(ld, res.get()); e; e = ldap_next_entry(ld, e)) {
        bool found = false;
        ZelRC rc = zel::walk_attributes(ld, e, [&](const char *name, char **values, struct berval **) -> ZelRC {
            if (found || !zel::same_text(name, "userType")) return 0;
            if (!values) return ZEL_RC_NO_MEMORY;  // the values were there: only memory was missing
            found = true;
            zel::copy_into(type, kUserTypeSize, values[0]);
            return 0;
        });
        if (rc != 0 || found) return rc;
    }
    return 0;
}

// Without the trailing ":" the entry no longer answers the profile search:
// the person keeps the entry, the Zel profile is gone.
ZelRC release_domain_user(ZelSession *s, const std::string &user_dn) {
    // Everything is measured and built before the first deletion.
    std::string authority = s->domain_name ? s->domain_name : "";
    std::string records_dn;
    if (authority.size() >= zel::kShortValueSize) return ZEL_RC_INVALID_ARGUMENT;
    if (ZelRC rc = zel::credentials_container_dn(user_dn, records_dn)) return rc;
    zel::ModList mods(2);
    if (!mods.ok()) return ZEL_RC_NO_MEMORY;
    ZelRC rc = mods.add(LDAP_MOD_REPLACE, "secAuthority", {authority.c_str()});
    if (rc != 0) return rc;
    // The records may already be gone: the directory's answer does not
    // matter here, running out of memory does (the entry would keep them).
    if (delete_tree(s, records_dn.c_str()) == ZEL_RC_NO_MEMORY) return ZEL_RC_NO_MEMORY;
    int lrc = plat::ldap_modify_ext_s(s->ld, user_dn.c_str(), mods.get(), nullptr, nullptr);
    return lrc == LDAP_SUCCESS ? 0 : check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_modify_ext_s()");
}

}  // namespace

extern "C" {

ZelRC add_ZelUser_to_group(ZelSession *s, const char *person_dn, const char *user_type) {
    ZelRC rc = 0;
    return zel::routine(s, "add_ZelUser_to_group", [&]() -> ZelRC {
        if (!zel::first_generation(s)) return rc;  // security domain users have no access groups
        if (person_dn == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
        if ((rc = zel::ensure_database_dn(s)) != 0) return rc;

        const char *first = nullptr, *second = nullptr;
        if (user_type == nullptr) return rc;
        if (zel::same_text(user_type, zel::kSeniorAdmin)) {
            first = zel::kAdministratorsGroup;
            second = zel::kSeniorAdministratorsGroup;
        } else if (zel::same_text(user_type, zel::kMiddleTierServer)) {
            first = zel::kMiddleTierServersGroup;
        } else if (zel::same_text(user_type, zel::kPlainUser)) {
            first = zel::kUsersGroup;
        } else {
            return rc;  // other types ("XR User") join no group
        }

        std::string first_dn, second_dn;
        if (!zel::form_group_dn(first_dn, first, s->database_dn) ||
            (second && !zel::form_group_dn(second_dn, second, s->database_dn)))
            return rc = ZEL_RC_INVALID_ARGUMENT;
        zel::ModList mods(2);
        if (!mods.ok()) return rc = ZEL_RC_NO_MEMORY;
        if ((rc = mods.add(LDAP_MOD_ADD, "member", {person_dn})) != 0) return rc;

        int lrc = edit_group(s, first_dn, person_dn, mods.get(), internal_nds_member_add);
        if (lrc == LDAP_SUCCESS && second) lrc = edit_group(s, second_dn, person_dn, mods.get(), internal_nds_member_add);
        // Already a member: nothing to do, and nothing that follows was done.
        if (lrc != LDAP_SUCCESS && lrc != LDAP_TYPE_OR_VALUE_EXISTS)
            rc = check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_modify_ext_s()");
        return rc;
    });
}

ZelRC remove_ZelUser_from_group(ZelSession *s, const char *user_dn, const char *user_type) {
    ZelRC rc = 0;
    return zel::routine(s, "remove_ZelUser_from_group", [&]() -> ZelRC {
        // Creation puts a user in its groups on every kind, so removal takes it out on every kind.
        if (s->database_dn == nullptr || user_dn == nullptr) return rc;

        zel::CText person_dn = zel::zeroed_buffer(zel::kDnSize);
        if (!person_dn) return rc = ZEL_RC_NO_MEMORY;
        if ((rc = construct_ePersonDN_from_UP(s, user_dn, person_dn.get())) != 0) return rc;

        std::string senior, admins, middle_tier, users;
        if (!zel::form_group_dn(senior, zel::kSeniorAdministratorsGroup, s->database_dn) ||
            !zel::form_group_dn(admins, zel::kAdministratorsGroup, s->database_dn) ||
            !zel::form_group_dn(middle_tier, zel::kMiddleTierServersGroup, s->database_dn) ||
            !zel::form_group_dn(users, zel::kUsersGroup, s->database_dn))
            return rc = ZEL_RC_INVALID_ARGUMENT;
        zel::ModList mods(2);
        if (!mods.ok()) return rc = ZEL_RC_NO_MEMORY;
        if ((rc = mods.add(LDAP_MOD_DELETE, "member", {person_dn.get()})) != 0) return rc;

        const char *person = person_dn.get();
        int lrc = LDAP_SUCCESS;
        if (user_type == nullptr) {
            // no type, no group
        } else if (zel::same_text(user_type, zel::kPlainUser)) {
            lrc = edit_group(s, users, person, mods.get(), internal_nds_member_rem);
        } else if (zel::same_text(user_type, zel::kMiddleTierServer)) {
            lrc = edit_group(s, middle_tier, person, mods.get(), internal_nds_member_rem);
        } else if (zel::same_text(user_type, zel::kSeniorAdmin)) {
            (void)edit_group(s, senior, person, mods.get(), internal_nds_member_rem);
            // On eDirectory the add helper follows here, not the removal one:
            // deliberate, existing directories depend on it.
            lrc = edit_group(s, admins, person, mods.get(), internal_nds_member_add);
        }
        // Not a member: nothing to take back.
        if (lrc != LDAP_SUCCESS && lrc != LDAP_NO_SUCH_ATTRIBUTE)
            rc = check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_modify_ext_s()");
        if (rc == 0)
            zel::trace_line(s, zel::kTraceProgress, "zelmgmt:Were able to remove the user from Zel groups successfully!");
        return rc;
    });
}

ZelRC locate_ZelUser(ZelSession *s, const char *name_or_dn, LDAPMessage **result, int32_t mode) {
    ZelRC rc = 0;
    return zel::routine(s, "locate_ZelUser", [&]() -> ZelRC {
        if (result) *result = nullptr;
        if (name_or_dn == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
        zel::CText dn = zel::zeroed_buffer(zel::kDnSize);
        if (!dn) return rc = ZEL_RC_NO_MEMORY;
        std::string filter;

        zel::Message res;
        if (zel::contains(name_or_dn, "=")) {
            // A DN: the entry itself.
            if (!zel::copy_into(dn.get(), zel::kDnSize, name_or_dn)) return rc = ZEL_RC_INVALID_ARGUMENT;
            filter = (mode == 1 ? "(objectClass=eZelUser)" : "objectClass=*");
            rc = zel::search_mapped(s, dn.get(), LDAP_SCOPE_BASE, filter.c_str(), nullptr, 0, 2, 0, res);
        } else if (mode == 1) {
            if (!zel::format_filter(filter, "(&(objectClass=eZelUser)(cn=%s))", name_or_dn))
                return rc = ZEL_RC_INVALID_ARGUMENT;
            LDAPMessage *raw = nullptr;
            rc = determine_DN(s, s->suffixes, filter.c_str(), dn.get(), &raw);
            res.reset(raw);
            if (rc == ZEL_RC_ENTRY_NOT_FOUND) rc = ZEL_RC_USER_NOT_FOUND;
        } else {
            if (s->domain_dn == nullptr) return rc = ZEL_RC_USER_NOT_FOUND;  // no domain, no domain user
            std::string user_dn;
            if ((rc = zel::domain_user_dn(s, name_or_dn, user_dn)) != 0) return rc;
            zel::copy_into(dn.get(), zel::kDnSize, user_dn.c_str());  // fits: measured above
            filter = ("objectClass=*");
            rc = zel::search_mapped(s, dn.get(), LDAP_SCOPE_BASE, filter.c_str(), nullptr, 0, 2, ZEL_RC_ENTRY_NOT_FOUND, res);
            if (rc == ZEL_RC_ENTRY_NOT_FOUND) rc = ZEL_RC_USER_NOT_FOUND;
        }
        if (rc == 0 && result) *result = res.release();
        return rc;
    });
}

ZelRC Zel_verifyZelUser(ZelSession *s, const char *personDN, char **userDN_out) {
    ZelRC rc = 0;
    return zel::call(s, "Zel_verifyZelUser", [&]() -> ZelRC {
        if (userDN_out) *userDN_out = nullptr;
        if (personDN == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
        // The buffer is the caller's from here on, whatever the answer.
        if (userDN_out && (*userDN_out = static_cast<char *>(std::calloc(1, zel::kDnSize))) == nullptr)
            return rc = ZEL_RC_NO_MEMORY;

        char *raw = nullptr;
        rc = verify_ZEL_user(s, personDN, &raw, 0);
        zel::CText found(raw);
        if (found && userDN_out && !zel::copy_into(*userDN_out, zel::kDnSize, found.get()))
            rc = ZEL_RC_LIMIT_EXCEEDED;
        if (rc == ZEL_RC_ACCOUNT_INVALID) rc = 1;  // a disabled profile is still a profile
        return rc;
    });
}

ZelRC Zel_removeZelUser(ZelSession *s, const char *nameOrDN) {
    ZelRC rc = 0;
    return zel::user_write_call(s, "Zel_removeZelUser", {nameOrDN}, [&]() -> ZelRC {
        if (nameOrDN == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;

        // First-generation profiles live in the Zel database, located lazily;
        // a directory without one holds no such profile.
        if (zel::first_generation(s) && (rc = zel::ensure_database_dn(s)) == ZEL_RC_DATABASE_NOT_FOUND) rc = 0;
        std::string v1_dn, v2_dn;
        zel::Message v1_res;
        if (rc == 0 && s->database_dn) {
            LDAPMessage *raw = nullptr;
            rc = locate_ZelUser(s, nameOrDN, &raw, 1);
            v1_res.reset(raw);
            if (rc == ZEL_RC_USER_NOT_FOUND) rc = 0;
            else if (rc == 0) v1_dn = first_dn(s->ld, v1_res);
        }
        if (rc == 0 && !zel::first_generation(s)) {
            LDAPMessage *raw = nullptr;
            rc = locate_ZelUser(s, nameOrDN, &raw, 2);
            zel::Message v2_res(raw);
            if (rc == ZEL_RC_USER_NOT_FOUND || rc == ZEL_RC_NO_SUCH_OBJECT) rc = 0;
            else if (rc == 0) v2_dn = first_dn(s->ld, v2_res);
        }
        if (rc == 0 && v1_dn.empty() && v2_dn.empty()) {
            zel::clear_error_detail();  // the searches' "no such entry" is the answer, not a failure
            rc = ZEL_RC_USER_NOT_FOUND;
        }

        zel::CText user_type;
        if (rc == 0 && !v1_dn.empty()) {
            user_type = zel::zeroed_buffer(kUserTypeSize);
            rc = user_type ? read_user_type(s->ld, v1_res, user_type.get()) : ZEL_RC_NO_MEMORY;
        }
        if (rc == 0) {
            // The first failure is the call's answer, never hidden by a later
            // step.  A profile that could not be deleted stops the removal
            // there (it keeps its groups); once it is gone its groups go too.
            if (!v1_dn.empty()) rc = delete_tree(s, v1_dn.c_str());
            const bool v1_gone = !v1_dn.empty() && rc == 0;
            if (rc == 0 && !v2_dn.empty())
                rc = s->domain_version < 6 ? delete_tree(s, v2_dn.c_str()) : release_domain_user(s, v2_dn);
            if (v1_gone) {
                ZelRC groups = remove_ZelUser_from_group(s, v1_dn.c_str(), user_type.get());
                if (rc == 0) rc = groups;
            }
        }

        if (rc != 0)
            zel::tracef(s, zel::kTraceProgress, "zelmgmt:Were unable to remove Zel User definition. RC: %d\n",
                        static_cast<int>(rc));
        else
            zel::trace_line(s, zel::kTraceProgress, "zelmgmt:Were able to remove Zel User definition successfully!");
        return rc;
    });
}

}  // extern "C"
