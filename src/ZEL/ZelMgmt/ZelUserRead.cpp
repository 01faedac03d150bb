// Reading one Zel user's profile back, so that a tool can change one field
// of it without resetting the others (an update always writes the state).
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ZelEntry.h"
#include "platform/dn_escape.h"
#include "platform/filter_format.h"
#include "ZelClient.h"
#include "ZelHolders.h"
#include "ZelRoutines.h"
#include "ZelSearch.h"
#include "ZelSession.h"
#include "ZelStatus.h"
#include "ZelText.h"
#include "ZelWellKnownDns.h"

namespace {

using UserHolder = zel::Owned<ZelUser, Zel_freeZelUser>;

// The profile under the security domain: "principalName=<name>,cn=Users,<domain DN>".
// An entry whose secAuthority lacks the domain's "<name>:" mark is no
// longer a profile (removal releases such entries instead of deleting them).
ZelRC search_domain_profile(ZelSession *s, const char *name, zel::Message &res) {
    std::string dn, filter;
    if (ZelRC rc = zel::domain_user_dn(s, name, dn)) return rc;
    if (!zel::format_filter(filter, "(&(objectClass=secUser)(secAuthority=%s:))", s->domain_name))
        return ZEL_RC_INVALID_ARGUMENT;
    struct timeval tv = zel::no_time_limit();
    LDAPMessage *raw = nullptr;
    int lrc = plat::ldap_search_ext_s(s->ld, dn.c_str(), LDAP_SCOPE_BASE, filter.c_str(), nullptr, 0, nullptr,
                                      nullptr, &tv, 2, &raw);
    res.reset(raw);
    if (lrc == LDAP_NO_SUCH_OBJECT) return ZEL_RC_USER_NOT_FOUND;
    if (lrc != LDAP_SUCCESS) return check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_search_ext_s()");
    return zel::entry_count(s->ld, res.get()) > 0 ? 0 : ZEL_RC_USER_NOT_FOUND;
}

// A first-generation profile lies below its person, anywhere in the suffixes.
ZelRC search_database_profile(ZelSession *s, const char *name, zel::Message &res) {
    std::string filter;
    if (!zel::format_filter(filter, "(&(objectClass=eZelUser)(cn=%s))", name)) return ZEL_RC_INVALID_ARGUMENT;
    zel::CText dn = zel::zeroed_buffer(zel::kDnSize);
    if (!dn) return ZEL_RC_NO_MEMORY;
    LDAPMessage *raw = nullptr;
    ZelRC rc = determine_DN(s, s->suffixes, filter.c_str(), dn.get(), &raw);
    res.reset(raw);
    return rc == ZEL_RC_ENTRY_NOT_FOUND ? ZEL_RC_USER_NOT_FOUND : rc;
}

// The first value only, as the library itself writes one.
ZelRC keep_first(char *&field, char **values) {
    if (field != nullptr || values == nullptr || values[0] == nullptr) return 0;
    field = strdup(values[0]);
    return field ? 0 : ZEL_RC_NO_MEMORY;
}

ZelRC read_profile(LDAP *ld, LDAPMessage *entry, bool domain_form, ZelUser *user) {
    const char *name_attr = domain_form ? "principalName" : "cn";
    const char *person_attr = domain_form ? "secDN" : "associatedName";
    const char *state_attr = domain_form ? "secAcctValid" : "userState";
    const char *active = domain_form ? "TRUE" : "Active";
    return zel::walk_attributes(ld, entry, [&](const char *attr, char **values, struct berval **) -> ZelRC {
        if (zel::same_text(attr, name_attr)) return keep_first(user->userName, values);
        if (zel::same_text(attr, person_attr)) return keep_first(user->personDN, values);
        if (zel::same_text(attr, "description")) return keep_first(user->description, values);
        if (!domain_form && zel::same_text(attr, "userType")) return keep_first(user->userType, values);
        if (zel::same_text(attr, state_attr) && values && values[0])
            user->enabled = zel::same_text(values[0], active) ? 1 : 0;
        return 0;
    });
}

// Appends a profile read from each entry of res to list.
ZelRC append_profiles(ZelSession *s, const zel::SearchPages &res, bool domain_form, std::vector<UserHolder> &list) {
    return res.each_entry(s->ld, [&](LDAPMessage *e) -> ZelRC {
        UserHolder user(static_cast<ZelUser *>(std::calloc(1, sizeof(ZelUser))));
        if (!user) return ZEL_RC_NO_MEMORY;
        if (ZelRC rc = read_profile(s->ld, e, domain_form, user.get())) return rc;
        list.push_back(std::move(user));
        return 0;
    });
}

ZelRC all_users(ZelSession *s, ZelUserList **out) {
    std::vector<UserHolder> list;
    if (!zel::first_generation(s) && s->domain_dn && *s->domain_dn && s->domain_name) {
        std::string base = std::string("cn=Users,") + s->domain_dn;
        std::string filter = "(&(objectClass=secUser)(secAuthority=" +
                             plat::escape_filter_value(std::string(s->domain_name) + ":") + "))";
        zel::SearchPages res;
        int lrc = zel::search_all(s, base.c_str(), LDAP_SCOPE_ONELEVEL, filter.c_str(), nullptr, res);
        // A domain without a Users container has no users yet.
        if (lrc != LDAP_SUCCESS && lrc != LDAP_NO_SUCH_OBJECT)
            return check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_search_ext_s()");
        if (ZelRC rc = append_profiles(s, res, true, list)) return rc;
    }
    if (zel::first_generation(s)) {
        ZelRC rc = zel::ensure_database_dn(s);
        if (rc == ZEL_RC_DATABASE_NOT_FOUND) rc = 0;  // no database, no first-generation users
        if (rc != 0) return rc;
    }
    if (s->database_dn != nullptr) {
        for (ZelSuffixNode *n = s->suffixes; n != nullptr; n = n->next) {
            zel::SearchPages res;
            int lrc = zel::search_all(s, n->suffix, LDAP_SCOPE_SUBTREE, "(objectClass=eZelUser)", nullptr, res);
            if (lrc != LDAP_SUCCESS) return check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_search_ext_s()");
            if (ZelRC rc = append_profiles(s, res, false, list)) return rc;
        }
    }
    auto *result = static_cast<ZelUserList *>(std::calloc(1, sizeof(ZelUserList)));
    if (result == nullptr) return ZEL_RC_NO_MEMORY;
    if (!list.empty()) {
        result->users = static_cast<ZelUser **>(std::calloc(list.size(), sizeof(ZelUser *)));
        if (result->users == nullptr) {
            std::free(result);
            return ZEL_RC_NO_MEMORY;
        }
        for (UserHolder &u : list) result->users[result->count++] = u.release();
    }
    *out = result;
    return 0;
}

}  // namespace

extern "C" {

ZEL_API ZelRC Zel_getZelUser(ZelSession *s, const char *name, ZelUser **out) {
    ZelRC rc = 0;
    return zel::call(s, "Zel_getZelUser", [&]() -> ZelRC {
        if (out) *out = nullptr;
        if (out == nullptr || name == nullptr || *name == '\0') return rc = ZEL_RC_INVALID_ARGUMENT;

        zel::Message res;
        bool domain_form = !zel::first_generation(s) && s->domain_dn && *s->domain_dn && s->domain_name;
        rc = domain_form ? search_domain_profile(s, name, res) : ZEL_RC_USER_NOT_FOUND;
        if (rc == ZEL_RC_USER_NOT_FOUND) {
            // A security domain session still sees the Zel database's users
            // when it knows the database.
            domain_form = false;
            if (zel::first_generation(s)) rc = zel::ensure_database_dn(s);
            else if (s->database_dn == nullptr) return rc;
            else rc = 0;
            if (rc == 0) rc = search_database_profile(s, name, res);
        }
        if (rc != 0) return rc;

        UserHolder user(static_cast<ZelUser *>(std::calloc(1, sizeof(ZelUser))));
        if (!user) return rc = ZEL_RC_NO_MEMORY;
        LDAPMessage *entry = ldap_first_entry(s->ld, res.get());
        if (entry == nullptr) return rc = ZEL_RC_USER_NOT_FOUND;
        if ((rc = read_profile(s->ld, entry, domain_form, user.get())) != 0) return rc;
        *out = user.release();
        return rc;
    });
}

ZEL_API ZelRC Zel_getAllZelUser(ZelSession *s, ZelUserList **out) {
    ZelRC rc = 0;
    return zel::call(s, "Zel_getAllZelUser", [&]() -> ZelRC {
        if (out == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
        *out = nullptr;
        return rc = all_users(s, out);
    });
}

ZEL_API void Zel_freeZelUsers(ZelUserList *list) {
    if (list == nullptr) return;
    for (int32_t i = 0; i < list->count; ++i) Zel_freeZelUser(list->users[i]);
    std::free(list->users);
    std::free(list);
}

ZEL_API void Zel_freeZelUser(ZelUser *user) {
    if (user == nullptr) return;
    std::free(user->userName);
    std::free(user->userType);
    std::free(user->description);
    std::free(user->personDN);
    std::free(user);
}

}  // extern "C"
