// The credential query step by step: the direct record in each form, then
// the group records pass by pass, each group asked about on its own.  Every
// record search resolves the user anew.  Kept as the reference the merged
// path is compared against, and for ZEL_CREDENTIAL_PATH=stepwise.
#include "ZelCredentialQuery.h"
#include "ZelIdentifierText.h"
#include "platform/dn_escape.h"
#include "ZelHolders.h"
#include "ZelPlatform.h"
#include "ZelSearch.h"
#include "ZelSession.h"
#include "ZelStatus.h"
#include "ZelText.h"

namespace {

// Whether the group entry at `base` matches `filter`.  A group missing in
// this form is no error: it simply holds nothing.
ZelRC group_matches(ZelSession *s, const std::string &base, const std::string &filter, bool &member) {
    member = false;
    if (base.size() >= zel::kDnSize) return ZEL_RC_LIMIT_EXCEEDED;
    zel::Message res;
    int lrc = zel::search(s, base.c_str(), LDAP_SCOPE_BASE, filter.c_str(), nullptr, 1, 2, res);
    if (lrc == LDAP_NO_SUCH_OBJECT) return 0;
    if (lrc != LDAP_SUCCESS) return check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_search_ext_s()");
    member = zel::entry_count(s->ld, res.get()) > 0;
    return 0;
}

// Security domain groups list member resource DNs; first-generation Zel
// domains list "T:<resource>" locations.  A domain-form pass also asks the
// first-generation group of that name when the Zel database is known.
ZelRC group_holds(ZelSession *s, const std::string &group, const zel::CredentialQuery &q, int32_t mode,
                  bool &member) {
    member = false;
    std::string name = plat::escape_dn_value(group);
    ZelRC rc = 0;
    if (mode == zel::kDomainMode) {
        if (s->domain_dn == nullptr) return 0;
        std::string base = "secResGroupID=" + name + ",cn=ResourceGroups," + s->domain_dn;
        if ((rc = group_matches(s, base, q.member_filter(), member)) != 0 || member || !s->database_dn) return rc;
    }
    if (s->database_dn == nullptr) return 0;
    return group_matches(s, "cn=" + name + ",cn=Zel Domains," + s->database_dn, q.location_filter(), member);
}

ZelRC group_of(LDAP *ld, LDAPMessage *entry, std::string &group) {
    group.clear();
    const char *dn = zel::entry_dn(ld, entry);
    if (!dn) return ZEL_RC_SYSTEM_ERROR;
    return zel::credential_group(dn, group);
}

// The first group record, in directory order, whose group holds the resource.
ZelRC first_matching_group(ZelSession *s, LDAPMessage *res, const zel::CredentialQuery &q, int32_t mode,
                           LDAPMessage *&answer) {
    for (LDAPMessage *e = ldap_first_entry(s->ld, res); e; e = ldap_next_entry(s->ld, e)) {
        std::string group;
        bool member = false;
        if (ZelRC rc = group_of(s->ld, e, group)) return rc;
        if (group.empty()) continue;  // no group named: nothing to match
        if (ZelRC rc = group_holds(s, group, q, mode, member)) return rc;
        if (member) {
            answer = e;
            return 0;
        }
    }
    return 0;
}

// The user's own record for the resource, in the session's form and then,
// where the Zel database is known, in the first-generation form.
ZelRC direct_record(ZelSession *s, const char *user, const zel::CredentialQuery &q, zel::CredentialAnswer &a) {
    a.mode = zel::session_mode(s);
    ZelRC rc = zel::find_records(s, q.credential_id.c_str(), user, a.mode, a.result);
    // First generation: a user who is no Zel user, or an inactive one, gets nothing.
    if (zel::first_generation(s) ? rc != 0 : !zel::search_made(rc)) return rc;
    if (!zel::first_generation(s) && s->database_dn && zel::entry_count(s->ld, a.result.get()) == 0) {
        a.mode = zel::kFirstGenerationMode;
        rc = zel::find_records(s, q.credential_id.c_str(), user, a.mode, a.result);
        if (!zel::search_made(rc)) return rc;
    }
    a.entry = a.result ? ldap_first_entry(s->ld, a.result.get()) : nullptr;
    return 0;
}

// The group records, in at most two passes.  A pass that finds no group
// records hands over to the first-generation form; one that finds records
// but no matching group leaves the form as it was, so the second pass asks
// the same again.
ZelRC group_record(ZelSession *s, const char *user, const zel::CredentialQuery &q, zel::CredentialAnswer &a) {
    bool v1 = zel::first_generation(s);
    int32_t mode = v1 ? zel::kFirstGenerationMode : zel::kDomainMode;
    int passes = !v1 && s->database_dn ? 2 : 1;
    for (int pass = 0; pass < passes && !a.entry; ++pass) {
        ZelRC rc = zel::search_records(s, "G:*", "G:*", user, mode, a.result);
        if (!zel::search_made(rc)) return rc;
        if (zel::entry_count(s->ld, a.result.get()) == 0) {
            if (s->database_dn) mode = zel::kFirstGenerationMode;
            continue;
        }
        a.mode = mode;
        if ((rc = first_matching_group(s, a.result.get(), q, mode, a.entry)) != 0) return rc;
    }
    return 0;
}

}  // namespace

namespace zel {

ZelRC stepwise_credential(ZelSession *s, const char *user, const CredentialQuery &q, CredentialAnswer &answer) {
    if (ZelRC rc = direct_record(s, user, q, answer)) return rc;
    if (answer.entry) return 0;
    return group_record(s, user, q, answer);
}

}  // namespace zel
