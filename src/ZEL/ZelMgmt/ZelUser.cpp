// Zel user profiles: creation and update in both storage forms.
#include <cstring>
#include <string>
#include <vector>

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

constexpr int32_t kCreate = 1;
constexpr int32_t kUpdate = 2;

constexpr const char *kLoginType = "Default:LDAP";

// The derived values a profile is written with.
struct ProfilePlanValues {
    const char *authority;
    const char *state;
};

// A first-generation profile must be named after its user.
ZelRC check_profile_name(const char *user_dn, const char *name) {
    size_t dn_len = std::strlen(user_dn), name_len = std::strlen(name);
    zel::CText dn_copy = zel::zeroed_buffer(3 * dn_len + 1);
    zel::CText name_copy = zel::zeroed_buffer(3 * name_len + 1);
    if (!dn_copy || !name_copy) return ZEL_RC_NO_MEMORY;
    std::memcpy(dn_copy.get(), user_dn, dn_len);
    std::memcpy(name_copy.get(), name, name_len);
    zel::Values parts(ldap_explode_dn(dn_copy.get(), 1));
    if (!parts || !parts.get()[0]) return ZEL_RC_INVALID_ARGUMENT;
    return zel::same_text(parts.get()[0], name_copy.get()) ? 0 : ZEL_RC_CONFLICT;
}

// Runs verify_ZEL_user and keeps the profile DN it names.  An inactive
// account is a found profile here: an update is how it is enabled again.
ZelRC verify_into(ZelSession *s, const char *person_dn, int32_t mode, std::string &profile_dn) {
    char *raw = nullptr;
    ZelRC rc = verify_ZEL_user(s, person_dn, &raw, mode);
    zel::CText found(raw);
    if (rc == ZEL_RC_ACCOUNT_INVALID) rc = 1;
    if (rc == 1) {
        if (!found) return ZEL_RC_USER_NOT_FOUND;
        profile_dn = found.get();
    }
    return rc;
}

// Finds the profile an update applies to.  A version-2 session whose user
// is known only to the Zel database gets a security domain profile created
// instead (the mode becomes kCreate).
ZelRC find_profile(ZelSession *s, const ZelUser *user, const char *person_dn, int32_t &mode,
                   std::string &user_dn) {
    const bool first_gen = zel::first_generation(s);
    if (s->database_dn != nullptr) {
        ZelRC rc = verify_into(s, person_dn, 1, user_dn);
        if (rc != 0 && rc != 1) return rc;
        if (rc == 1) {
            if (first_gen) return check_profile_name(user_dn.c_str(), user->userName);
            std::string domain_profile;
            ZelRC in_domain = verify_into(s, person_dn, 2, domain_profile);
            if (in_domain == 0) mode = kCreate;  // a failing check leaves the update as it is
            return zel::domain_user_dn(s, user->userName, user_dn);
        }
        if (first_gen) return ZEL_RC_USER_NOT_FOUND;
    }
    ZelRC rc = verify_into(s, person_dn, 2, user_dn);
    if (rc == 0) return ZEL_RC_USER_NOT_FOUND;
    return rc == 1 ? 0 : rc;
}

ZelRC fill_create_mods(ZelSession *s, const ZelUser *user, const char *person_dn, const char *state,
                       const std::string &authority, const std::vector<zel::AccessValues> &access,
                       zel::ModList &mods) {
    ZelRC rc = 0;
    if (zel::first_generation(s)) {
        if ((rc = mods.add(LDAP_MOD_ADD, "objectClass", {"top", "cimManagedElement", "eUser", "eZelUser"})) ||
            (rc = mods.add(LDAP_MOD_ADD, "cn", {user->userName})) ||
            (rc = mods.add(LDAP_MOD_ADD, "associatedName", {person_dn})) ||
            (rc = mods.add(LDAP_MOD_ADD, "userType", {user->userType})) ||
            (rc = mods.add(LDAP_MOD_ADD, "userState", {state})))
            return rc;
    } else {
        if ((rc = mods.add(LDAP_MOD_ADD, "objectClass", {"top", "cimManagedElement", "eUser", "secUser"})) ||
            (rc = mods.add(LDAP_MOD_ADD, "principalName", {user->userName})) ||
            (rc = mods.add(LDAP_MOD_ADD, "secDN", {person_dn})) ||
            (rc = mods.add(LDAP_MOD_ADD, "secAuthority", {authority.c_str()})) ||
            (rc = mods.add(LDAP_MOD_ADD, "secLoginType", {kLoginType})) ||
            (rc = mods.add(LDAP_MOD_ADD, "secAcctValid", {state})))
            return rc;
    }
    if (zel::writes_description(s, user->description) &&
        (rc = mods.add(LDAP_MOD_ADD, "description", {user->description})))
        return rc;
    for (const zel::AccessValues &a : access) {
        std::vector<const char *> values;
        for (const std::string &v : a.values) values.push_back(v.c_str());
        if ((rc = mods.add(LDAP_MOD_ADD, a.type, static_cast<int32_t>(values.size()),
                           const_cast<char *const *>(values.data()))))
            return rc;
    }
    return rc;
}

ZelRC fill_update_mods(ZelSession *s, const ZelUser *user, const char *state, zel::ModList &mods) {
    ZelRC rc = mods.add(LDAP_MOD_REPLACE, zel::first_generation(s) ? "userState" : "secAcctValid", {state});
    if (rc != 0 || user->description == nullptr) return rc;
    // Directories that refuse empty values lose the description instead.
    if (!zel::writes_description(s, user->description)) return mods.add(LDAP_MOD_DELETE, "description", {});
    return mods.add(LDAP_MOD_REPLACE, "description", {user->description});
}

// The value of a DN's first RDN ("jo" of "principalName=jo,cn=Users,..."),
// or the DN itself when it does not parse.
std::string first_rdn_value(const std::string &dn) {
    zel::Values parts(ldap_explode_dn(dn.c_str(), 1));
    return parts && parts.get()[0] ? std::string(parts.get()[0]) : dn;
}

// A person has at most one profile in a storage form: a second one would
// hide the first from every look-up that starts at the person.
ZelRC check_person_free(ZelSession *s, const char *person_dn) {
    std::string held;
    ZelRC rc = verify_into(s, person_dn, zel::first_generation(s) ? 1 : 2, held);
    if (rc != 1) return rc;
    zel::set_error_detail("%s already has a profile: Zel user %s", person_dn, first_rdn_value(held).c_str());
    return ZEL_RC_ALREADY_EXISTS;
}

// The authority values of an existing domain profile and the person it names.
ZelRC read_domain_profile(ZelSession *s, const std::string &user_dn, std::vector<std::string> &authorities,
                          std::string &person) {
    char *attrs[] = {const_cast<char *>("secAuthority"), const_cast<char *>("secDN"), nullptr};
    zel::Message res;
    ZelRC rc = zel::search_mapped(s, user_dn.c_str(), LDAP_SCOPE_BASE, "(objectClass=*)", attrs, 0, 2, 0, res);
    LDAPMessage *e = rc == 0 && res ? ldap_first_entry(s->ld, res.get()) : nullptr;
    if (rc != 0 || e == nullptr) return rc != 0 ? rc : ZEL_RC_USER_NOT_FOUND;
    return zel::walk_attributes(s->ld, e, [&](const char *name, char **values, struct berval **) -> ZelRC {
        if (zel::same_text(name, "secAuthority"))
            for (char **v = values; *v; ++v) authorities.emplace_back(*v);
        else if (zel::same_text(name, "secDN"))
            person = values[0];
        return 0;
    });
}

// The name's entry is there already.  One this domain released (removal
// keeps the entry on later domain versions, without its records) is taken
// back and given what the caller asked for, as a fresh add would write it;
// an entry that a domain still claims is another user's and stays as it is.
ZelRC reclaim_profile(ZelSession *s, const ZelUser *user, const char *person_dn, const std::string &user_dn,
                      const ProfilePlanValues &plan) {
    std::vector<std::string> authorities;
    std::string holder;
    if (ZelRC rc = read_domain_profile(s, user_dn, authorities, holder)) return rc;
    const std::string released = s->domain_name ? s->domain_name : "";
    for (const std::string &a : authorities) {
        if (zel::same_text(a.c_str(), released.c_str())) continue;
        zel::set_error_detail("Zel user %s already exists%s%s", user->userName, holder.empty() ? "" : " for ",
                              holder.c_str());
        return ZEL_RC_ALREADY_EXISTS;
    }
    zel::ModList mods(5);
    if (!mods.ok()) return ZEL_RC_NO_MEMORY;
    ZelRC rc = 0;
    if ((rc = mods.add(LDAP_MOD_REPLACE, "secAuthority", {plan.authority})) ||
        (rc = mods.add(LDAP_MOD_REPLACE, "secDN", {person_dn})) ||
        (rc = mods.add(LDAP_MOD_REPLACE, "secAcctValid", {plan.state})))
        return rc;
    rc = zel::writes_description(s, user->description) ? mods.add(LDAP_MOD_REPLACE, "description", {user->description})
                                                        : mods.add(LDAP_MOD_DELETE, "description", {});
    if (rc != 0) return rc;
    int lrc = zel::modify_clearing(s, user_dn.c_str(), mods.get());
    return lrc == LDAP_SUCCESS ? 0 : check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_modify_ext_s()");
}

ZelRC add_profile(ZelSession *s, const ZelUser *user, const char *person_dn, const std::string &user_dn,
                  const ProfilePlanValues &plan, LDAPMod **mods) {
    int lrc = plat::ldap_add_ext_s(s->ld, user_dn.c_str(), mods, nullptr, nullptr);
    if (lrc == LDAP_SUCCESS) return 0;
    ZelRC rc = check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_add_ext_s()");
    if (rc != ZEL_RC_ALREADY_EXISTS) return rc;
    if (!zel::first_generation(s)) return reclaim_profile(s, user, person_dn, user_dn, plan);

    // A first-generation profile a new database's administrator already has
    // (database removal keeps it below the person) is claimed as it is.
    zel::ModList repoint(2);
    if (!repoint.ok()) return ZEL_RC_NO_MEMORY;
    if ((rc = repoint.add(LDAP_MOD_REPLACE, "secAuthority", {plan.authority})) != 0) return rc;
    lrc = plat::ldap_modify_ext_s(s->ld, user_dn.c_str(), repoint.get(), nullptr, nullptr);
    return lrc == LDAP_SUCCESS ? 0 : check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_modify_ext_s()");
}

// The container that will hold a version-2 user's target records.
ZelRC add_credentials_container(ZelSession *s, const std::string &user_dn) {
    std::string dn;
    if (ZelRC rc = zel::credentials_container_dn(user_dn, dn)) return rc;
    zel::ModList mods(3);
    if (!mods.ok()) return ZEL_RC_NO_MEMORY;
    ZelRC rc = 0;
    if ((rc = mods.add(LDAP_MOD_ADD, "objectClass", {"top", "container"})) ||
        (rc = mods.add(LDAP_MOD_ADD, "cn", {"ResCreds"})))
        return rc;
    int lrc = plat::ldap_add_ext_s(s->ld, dn.c_str(), mods.get(), nullptr, nullptr);
    return lrc == LDAP_SUCCESS ? 0 : check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_add_ext_s()");
}

// What a creation or update writes, worked out and measured before the
// first directory write.
struct ProfilePlan {
    int32_t mode = kCreate;   // an update of a domain user unknown to the domain creates
    std::string user_dn;
    std::vector<zel::AccessValues> access;
    std::string authority;    // the secAuthority value: the domain name and ":"
    const char *state = nullptr;
};

// Reads only: finds or names the profile and builds every value that is
// derived from the caller's text, refusing with 1005 what would not fit.
ZelRC plan_profile(ZelSession *s, const ZelUser *user, const char *person_dn, int32_t mode, ProfilePlan &plan) {
    if (mode != kCreate && mode != kUpdate) return ZEL_RC_UNSUPPORTED_OPERATION;
    if (user == nullptr || user->userName == nullptr || person_dn == nullptr) return ZEL_RC_INVALID_ARGUMENT;
    const bool first_gen = zel::first_generation(s);
    if (first_gen && user->userType == nullptr && mode == kCreate) return ZEL_RC_INVALID_ARGUMENT;
    ZelRC rc = 0;
    if (first_gen && (rc = zel::ensure_database_dn(s)) != 0) return rc;

    plan.mode = mode;
    if (mode == kCreate)
        rc = first_gen ? zel::child_dn("cn", user->userName, person_dn, plan.user_dn)
                       : zel::domain_user_dn(s, user->userName, plan.user_dn);
    else
        rc = find_profile(s, user, person_dn, plan.mode, plan.user_dn);
    if (rc != 0) return rc;
    // A domain profile's records container must fit as well, measured with
    // the name as given.
    if (!first_gen && plan.mode == kCreate &&
        std::strlen("cn=ResCreds,principalName=,cn=Users,") + std::strlen(user->userName) +
                std::strlen(s->domain_dn) >= zel::kDnSize)
        return ZEL_RC_INVALID_ARGUMENT;

    if (first_gen && (rc = zel::profile_access(s, user->userType, person_dn, plan.user_dn.c_str(), plan.access)) != 0)
        return rc;
    plan.authority = std::string(s->domain_name ? s->domain_name : "") + ":";
    if (plan.authority.size() >= zel::kShortValueSize) return ZEL_RC_INVALID_ARGUMENT;
    plan.state = user->enabled == 1 ? (first_gen ? "Active" : "TRUE") : (first_gen ? "Inactive" : "FALSE");
    return 0;
}

void report(ZelSession *s, ZelRC rc, const char *failed, const char *succeeded) {
    if (rc != 0) {
        zel::trace_line(s, zel::kTraceProgress, failed);
        zel::tracef(s, zel::kTraceProgress, "zelmgmt:Zel Mgmt error code: x%x\n", rc);
    } else {
        zel::trace_line(s, zel::kTraceProgress, succeeded);
    }
}

}  // namespace

extern "C" {

int check_entry_exists(ZelSession *s, const char *dn) {
    return static_cast<int>(zel::routine(s, "check_entry_exists", [&]() -> ZelRC {
        zel::Message res;
        return static_cast<ZelRC>(zel::search(s, dn, LDAP_SCOPE_BASE, "(objectclass=*)", nullptr, 1, 2, res));
    }));
}

ZelRC form_UP_ePersonDN(ZelSession *s, const ZelUser *user, char **person_dn_out) {
    ZelRC rc = 0;
    return zel::routine(s, "form_UP_ePersonDN", [&]() -> ZelRC {
        if (person_dn_out == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
        *person_dn_out = nullptr;
        if (user == nullptr || (user->personDN == nullptr && user->userName == nullptr))
            return rc = ZEL_RC_INVALID_ARGUMENT;
        zel::CText dn = zel::zeroed_buffer(zel::kDnSize);
        if (!dn) return rc = ZEL_RC_NO_MEMORY;
        if (zel::first_generation(s) && (rc = zel::ensure_database_dn(s)) != 0) return rc;
        if (user->personDN != nullptr) {
            if (!zel::copy_into(dn.get(), zel::kDnSize, user->personDN)) return rc = ZEL_RC_INVALID_ARGUMENT;
        } else if ((rc = locate_ePerson(s, user->userName, s->suffixes, dn.get())) != 0) {
            return rc;
        }
        *person_dn_out = dn.release();
        return rc;
    });
}

ZelRC create_update_ZelUser(ZelSession *s, const ZelUser *user, const char *person_dn, int32_t mode) {
    ZelRC rc = 0;
    return zel::routine(s, "create_update_ZelUser", [&]() -> ZelRC {
        ProfilePlan plan;
        if ((rc = plan_profile(s, user, person_dn, mode, plan)) != 0) return rc;
        const bool first_gen = zel::first_generation(s);

        size_t slots = 7 + (user->description ? 1 : 0) + plan.access.size();
        if (plan.mode == kCreate) {
            {
                zel::ModList mods(slots);
                if (!mods.ok()) return rc = ZEL_RC_NO_MEMORY;
                if ((rc = fill_create_mods(s, user, person_dn, plan.state, plan.authority, plan.access, mods)) != 0)
                    return rc;
                rc = add_profile(s, user, person_dn, plan.user_dn, {plan.authority.c_str(), plan.state}, mods.get());
            }
            if (rc == 0 && !first_gen) rc = add_credentials_container(s, plan.user_dn);
            return rc;
        }

        zel::ModList mods(slots);
        if (!mods.ok()) return rc = ZEL_RC_NO_MEMORY;
        if ((rc = fill_update_mods(s, user, plan.state, mods)) != 0) return rc;
        int lrc = zel::modify_clearing(s, plan.user_dn.c_str(), mods.get());
        if (lrc != LDAP_SUCCESS) rc = check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_modify_ext_s()");
        return rc;
    });
}

ZelRC Zel_addZelUser(ZelSession *s, const ZelUser *u) {
    ZelRC rc = 0;
    return zel::user_write_call(s, "Zel_addZelUser", {u ? u->userName : nullptr}, [&]() -> ZelRC {
        if (u == nullptr || u->userType == nullptr || !zel::known_user_type(u->userType) ||
            u->userName == nullptr)
            return rc = ZEL_RC_INVALID_ARGUMENT;

        char *raw = nullptr;
        if ((rc = form_UP_ePersonDN(s, u, &raw)) != 0) return rc;
        zel::CText person_dn(raw);
        // Everything the profile derives from the caller's text is measured
        // before the membership is granted, and the profile DN the rollback
        // needs is in hand before anything is written.
        ProfilePlan plan;
        if ((rc = plan_profile(s, u, person_dn.get(), kCreate, plan)) != 0 ||
            (rc = check_person_free(s, person_dn.get())) != 0)
            return rc;
        if ((rc = add_ZelUser_to_group(s, person_dn.get(), u->userType)) != 0) return rc;

        rc = create_update_ZelUser(s, u, person_dn.get(), kCreate);
        // No profile, no membership: take back what was just granted.
        if (rc != 0 && zel::first_generation(s)) (void)remove_ZelUser_from_group(s, plan.user_dn.c_str(), u->userType);
        report(s, rc, "zelmgmt:Were unable to add Zel User Profile.",
               "zelmgmt:Were able add Zel User Profile successfully!");
        return rc;
    });
}

ZelRC Zel_updateZelUser(ZelSession *s, const ZelUser *u) {
    ZelRC rc = 0;
    return zel::user_write_call(s, "Zel_updateZelUser", {u ? u->userName : nullptr}, [&]() -> ZelRC {
        if (u == nullptr || u->userName == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;

        char *raw = nullptr;
        if ((rc = form_UP_ePersonDN(s, u, &raw)) != 0) return rc;
        zel::CText person_dn(raw);
        rc = create_update_ZelUser(s, u, person_dn.get(), kUpdate);
        report(s, rc, "zelmgmt:Were unable to update Zel User Profile.",
               "zelmgmt:Were able update Zel User Profile successfully!");
        return rc;
    });
}

}  // extern "C"
