// Who a caller is talking about: whether a person is a Zel user (and may use
// the account), and which person a Kerberos principal stands for.
#include <cstring>
#include <string>

#include "ZelEntry.h"
#include "ZelIdentifierText.h"
#include "platform/filter_format.h"
#include "ZelHolders.h"
#include "ZelPlatform.h"
#include "ZelRoutines.h"
#include "ZelSearch.h"
#include "ZelSession.h"
#include "ZelSessionTexts.h"
#include "ZelStatus.h"
#include "ZelText.h"
#include "ZelTrace.h"

namespace {

constexpr const char *kRealmFilter = "(&(objectClass=krbRealm)(krbRealmName=%s))";
constexpr const char *kMappedIdentityFilter = "(&(objectClass=*)(altSecurityIdentities=Kerberos:%s))";
constexpr const char *kPrincipalFilter = "(&(objectClass=*)(krbPrincipalName=%s))";

// One-level search below the person entry for a first-generation profile.
ZelRC search_profile_below_person(ZelSession *s, const char *person_dn, const char *filter,
                                  zel::Message &out) {
    char *attrs[] = {const_cast<char *>("objectClass"), const_cast<char *>("userState"), nullptr};
    ZelRC rc = zel::search_mapped(s, person_dn, LDAP_SCOPE_ONELEVEL, filter, attrs, 0, 2, ZEL_RC_ENTRY_NOT_FOUND, out);
    if (rc != ZEL_RC_NO_SUCH_OBJECT) return rc;
    zel::clear_error_detail();  // no person entry: no user either, and no failure
    return 0;
}

// Subtree search of the security domain for the person's secUser entry,
// asking only for what tells an inactive account: the filter names the
// class, so every entry found is a user.
ZelRC search_domain_user(ZelSession *s, const char *filter, zel::Message &out) {
    char *attrs[] = {const_cast<char *>("secAcctValid"), const_cast<char *>("userState"), nullptr};
    ZelRC rc = zel::search_mapped(s, s->domain_dn, LDAP_SCOPE_SUBTREE, filter, attrs, 0, 2, ZEL_RC_ENTRY_NOT_FOUND,
                                  out);
    if (rc != ZEL_RC_NO_SUCH_OBJECT) return rc;
    zel::clear_error_detail();
    return 0;
}

// Whether text of `length` bytes is the ASCII name `name`: names of another
// length are passed over without comparing a byte, and one spelled as the
// schema spells it matches in one comparison.
template <size_t N>
bool is_name(const char *text, size_t length, const char (&name)[N]) {
    return length == N - 1 && (std::memcmp(text, name, N - 1) == 0 || zel::same_text(text, name));
}

// "(&(objectClass=secUser)(secDN=<person>)(secAuthority=<domain>:))", or
// with no domain "(associatedName=<person>)", each value escaped; false (as
// for memory) when the domain has no name.
bool user_filter(std::string &out, ZelSession *s, const char *person_dn, bool domain_form) {
    if (!domain_form) {
        out.assign("(associatedName=");
        plat::append_filter_value(out, person_dn);
        out.push_back(')');
        return true;
    }
    if (s->domain_name == nullptr) return false;
    const std::string &tail = zel::session_texts(s).domain_user_tail;
    out.reserve(std::strlen(person_dn) + tail.size() + 32);
    out.assign("(&(objectClass=secUser)(secDN=");
    plat::append_filter_value(out, person_dn);
    out.append(tail);
    return true;
}

// The first value of an account's state marks it inactive.
bool marks_inactive(const char *first) {
    return first && (zel::same_text(first, "Inactive") || zel::same_text(first, "False"));
}

// A suffix list of its own copies, for searching a realm's principal subtrees.
class OwnedSuffixes {
public:
    OwnedSuffixes() = default;
    ~OwnedSuffixes() { zel::free_suffixes(head_); }
    OwnedSuffixes(const OwnedSuffixes &) = delete;
    OwnedSuffixes &operator=(const OwnedSuffixes &) = delete;

    bool append(const char *suffix) { return zel::append_suffix(&head_, suffix, std::strlen(suffix)) == 0; }
    ZelSuffixNode *get() const { return head_; }

private:
    ZelSuffixNode *head_ = nullptr;
};

}  // namespace

namespace zel {

bool split_principal(const char *principal, std::string &name, std::string &realm) {
    const char *p = principal;
    while (*p == '@') ++p;
    const char *start = p;
    while (*p != '\0' && *p != '@') ++p;
    name.assign(start, p);
    realm.clear();
    if (*p == '@') {
        while (*p == '@') ++p;
        start = p;
        while (*p != '\0' && *p != '@') ++p;
        realm.assign(start, p);
    }
    return !name.empty();
}

}  // namespace zel

namespace zel {

namespace {

// verify_user's body: a function of its own rather than the routine's
// lambda, so that its arguments stay in registers instead of being read
// through the closure at every use.
ZelRC check_user(ZelSession *s, const char *person_dn, int32_t mode, std::string *profile_dn_out) {
    ZelRC rc = 0;
    if (profile_dn_out) profile_dn_out->clear();
    if (person_dn == nullptr) return ZEL_RC_INVALID_ARGUMENT;

    // Sessions on a security domain look for the secUser entry first; mode 1
    // asks for the first-generation profile below the person.
    const bool domain_form = !zel::first_generation(s) && mode != 1;
    std::string filter;
    if (!user_filter(filter, s, person_dn, domain_form)) return ZEL_RC_NO_MEMORY;

    zel::Message res;
    rc = domain_form ? search_domain_user(s, filter.c_str(), res)
                     : search_profile_below_person(s, person_dn, filter.c_str(), res);
    if (rc != 0) return rc;

    // Entries of the domain's search are users by their filter; a
    // profile below the person is one when its classes say so.
    bool classed_by_filter = domain_form;
    if (zel::entry_count(s->ld, res.get()) <= 0) {
        // The security domain may not know a user that the Zel database does.
        if (zel::first_generation(s) || mode != 0 || s->database_dn == nullptr) return rc;
        user_filter(filter, s, person_dn, false);
        if ((rc = search_profile_below_person(s, person_dn, filter.c_str(), res)) != 0) return rc;
        if (zel::entry_count(s->ld, res.get()) <= 0) return rc;
        classed_by_filter = false;
    }

    ProfileVerdict verdict;
    for (LDAPMessage *e = ldap_first_entry(s->ld, res.get()); e && verdict.rc == 0; e = ldap_next_entry(s->ld, e))
        read_profile(s, e, classed_by_filter, verdict, profile_dn_out);
    return verdict.result(profile_dn_out);
}

}  // namespace

void read_profile(ZelSession *s, LDAPMessage *e, bool classed_by_filter, ProfileVerdict &verdict,
                  std::string *profile_dn_out) {
    bool inactive = false, a_user = classed_by_filter;
    const char *dn = nullptr;
    ZelRC rc = zel::walk_values(
        s->ld, e,
        [&](const char *name, const struct berval *values) -> ZelRC {
            const size_t length = std::strlen(name);
            if (is_name(name, length, "objectClass")) {
                for (const struct berval *v = values; v->bv_val; ++v)
                    if (is_name(v->bv_val, v->bv_len, "eZelUser") || is_name(v->bv_val, v->bv_len, "secUser"))
                        a_user = true;
            } else if (is_name(name, length, "userState") || is_name(name, length, "secAcctValid")) {
                if (marks_inactive(values[0].bv_val)) inactive = true;
            }
            return 0;
        },
        &dn);
    if (rc == 0 && a_user) {
        if (!dn) {
            verdict.rc = ZEL_RC_NO_MEMORY;
            return;
        }
        verdict.user_seen = true;
        zel::tracef(s, zel::kTraceProgress, "zelmgmt:User Profile DN: %s\n", dn);
        if (profile_dn_out) profile_dn_out->assign(dn);
    }
    if (rc == 0 && inactive) rc = ZEL_RC_ACCOUNT_INVALID;
    verdict.rc = rc;
}

ZelRC verify_user(ZelSession *s, const char *person_dn, int32_t mode, std::string *profile_dn_out) {
    return zel::routine(s, "verify_ZEL_user", [&] { return check_user(s, person_dn, mode, profile_dn_out); });
}

}  // namespace zel

extern "C" {

ZelRC verify_ZEL_user(ZelSession *s, const char *person_dn, char **profile_dn_out, int32_t mode) {
    if (profile_dn_out) *profile_dn_out = nullptr;
    std::string dn;
    ZelRC rc = zel::verify_user(s, person_dn, mode, profile_dn_out ? &dn : nullptr);
    if (profile_dn_out && !dn.empty() && (*profile_dn_out = strdup(dn.c_str())) == nullptr) return ZEL_RC_NO_MEMORY;
    return rc;
}

ZelRC locate_krb_ePerson(ZelSession *s, const char *principal, ZelSuffixNode *suffixes, char *dn) {
    ZelRC rc = 0;
    return zel::routine(s, "locate_krb_ePerson", [&]() -> ZelRC {
        if (principal == nullptr || dn == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
        std::string filter;
        std::string name_text, realm_text;
        if (!zel::split_principal(principal, name_text, realm_text)) return rc = ZEL_RC_INVALID_ARGUMENT;
        const char *realm = realm_text.c_str();  // none: a realm filter that finds nothing

        if (!zel::format_filter(filter, kRealmFilter, realm))
            return rc = ZEL_RC_INVALID_ARGUMENT;
        LDAPMessage *raw = nullptr;
        rc = determine_unique_DN(s, suffixes, filter.c_str(), dn, &raw);
        zel::Message realm_entry(raw);
        if (rc == ZEL_RC_NOT_UNIQUE) return rc = ZEL_RC_EPERSON_NOT_FOUND;
        if (rc == ZEL_RC_ENTRY_NOT_FOUND) {
            // No realm entry: the person may carry the principal as a mapped identity.
            if (!zel::format_filter(filter, kMappedIdentityFilter, principal))
                return rc = ZEL_RC_INVALID_ARGUMENT;
            rc = determine_unique_DN(s, suffixes, filter.c_str(), dn, nullptr);
            if (rc == ZEL_RC_ENTRY_NOT_FOUND || rc == ZEL_RC_NOT_UNIQUE) rc = ZEL_RC_EPERSON_NOT_FOUND;
            return rc;
        }
        if (rc != 0) return rc;

        std::memset(dn, 0, zel::kDnSize);
        OwnedSuffixes subtrees;
        LDAPMessage *entry = ldap_first_entry(s->ld, realm_entry.get());
        if (entry) {
            rc = zel::walk_attributes(s->ld, entry, [&](const char *attr, char **values, struct berval **) -> ZelRC {
                if (!zel::same_text(attr, "princSubtree")) return 0;
                for (char **v = values; v && *v; ++v)
                    if (!subtrees.append(*v)) return ZEL_RC_NO_MEMORY;
                return 0;
            });
            if (rc != 0) return rc;
        }
        if (subtrees.get() == nullptr) return rc = ZEL_RC_EPERSON_NOT_FOUND;

        if (!zel::format_filter(filter, kPrincipalFilter, principal))
            return rc = ZEL_RC_INVALID_ARGUMENT;
        raw = nullptr;
        rc = determine_unique_DN(s, subtrees.get(), filter.c_str(), dn, &raw);
        zel::Message principal_entry(raw);
        if (rc == ZEL_RC_ENTRY_NOT_FOUND || rc == ZEL_RC_NOT_UNIQUE) return rc = ZEL_RC_EPERSON_NOT_FOUND;
        if (rc != 0) return rc;

        // A principal entry that is an alias stands for the entry it names.
        entry = ldap_first_entry(s->ld, principal_entry.get());
        if (entry) {
            rc = zel::walk_attributes(s->ld, entry, [&](const char *attr, char **values, struct berval **) -> ZelRC {
                if (!zel::same_text(attr, "krbAliasedObjectName") || !values || !values[0]) return 0;
                return zel::copy_into(dn, zel::kDnSize, values[0]) ? 1 : ZEL_RC_LIMIT_EXCEEDED;
            });
            if (rc == 1) rc = 0;  // the alias was taken: the walk ended early
            if (rc != 0) std::memset(dn, 0, zel::kDnSize);
        }
        return rc;
    });
}

}  // extern "C"
