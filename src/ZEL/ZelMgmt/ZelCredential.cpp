// The sign-on question: which account and clear password does this user
// present to this resource?  The user's own "T:<resource>" record answers
// first; failing that, the first of the user's "G:<group>" records, in the
// order the directory returns them, whose resource group holds the resource.
#include <cstring>
#include <string>

#include "ZelIdentifierText.h"
#include "ZelTargetRecord.h"
#include "platform/dn_escape.h"
#include "platform/filter_format.h"

namespace {

struct DnFree { void operator()(LDAPDN dn) const { if (dn) ldap_dnfree(dn); } };
using ParsedDn = std::unique_ptr<LDAPRDN, DnFree>;

// Names of one credential query, formed and measured before any search.
struct Query {
    const char *resource;
    std::string credential_id;    // "T:<resource>"
    std::string member_filter;    // "(member=<resource DN>)"
    std::string location_filter;  // first-generation domains list "T:<resource>" as a location
};

ZelRC form_query(const ZelSession *s, const char *resource, Query &q) {
    q.resource = resource;
    q.credential_id = std::string("T:") + resource;
    if (q.credential_id.size() >= zel::kCredentialIdSize) return ZEL_RC_INVALID_ARGUMENT;
    std::string resource_dn = "secResourceID=" + plat::escape_dn_value(resource) + ",cn=Resources," +
                              (s->domain_dn ? s->domain_dn : "");
    if (resource_dn.size() >= zel::kDnSize) return ZEL_RC_INVALID_ARGUMENT;
    q.member_filter = "(member=" + plat::escape_filter_value(resource_dn) + ")";
    q.location_filter = std::string("(&(") + "objectClass" + "=" + "eZelDomain" + ")(" + "targetLocation" + "=" +
                        plat::escape_filter_value(q.credential_id) + "))";
    if (q.member_filter.size() >= zel::kFilterSize || q.location_filter.size() >= zel::kFilterSize)
        return ZEL_RC_INVALID_ARGUMENT;
    return 0;
}

// Whether the group entry at `base` matches `filter`.  A group missing in
// this form is no error: it simply holds nothing.
ZelRC group_matches(ZelSession *s, const std::string &base, const std::string &filter, bool &member) {
    member = false;
    if (base.size() >= zel::kDnSize) return ZEL_RC_LIMIT_EXCEEDED;
    struct timeval tv = zel::no_time_limit();
    LDAPMessage *raw = nullptr;
    int lrc = plat::ldap_search_ext_s(s->ld, base.c_str(), LDAP_SCOPE_BASE, filter.c_str(), nullptr, 1, nullptr,
                                      nullptr, &tv, 2, &raw);
    zel::Message res(raw);
    if (lrc == LDAP_NO_SUCH_OBJECT) return 0;
    if (lrc != LDAP_SUCCESS) return check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_search_ext_s()");
    member = zel::entry_count(s->ld, res.get()) > 0;
    return 0;
}

// Security domain groups list member resource DNs; first-generation Zel
// domains list "T:<resource>" locations.  A domain-form pass also asks the
// first-generation group of that name when the Zel database is known.
ZelRC group_holds(ZelSession *s, const std::string &group, const Query &q, int32_t mode, bool &member) {
    member = false;
    std::string name = plat::escape_dn_value(group);
    ZelRC rc = 0;
    if (mode == zel::kDomainMode) {
        if (s->domain_dn == nullptr) return 0;
        std::string base = "secResGroupID=" + name + ",cn=ResourceGroups," + s->domain_dn;
        if ((rc = group_matches(s, base, q.member_filter, member)) != 0 || member || !s->database_dn) return rc;
    }
    if (s->database_dn == nullptr) return 0;
    return group_matches(s, "cn=" + name + ",cn=Zel Domains," + s->database_dn, q.location_filter, member);
}

ZelRC group_of(LDAP *ld, LDAPMessage *entry, std::string &group) {
    group.clear();
    zel::LdapText dn(ldap_get_dn(ld, entry));
    if (!dn) return ZEL_RC_SYSTEM_ERROR;
    return zel::credential_group(dn.get(), group);
}

// The first group record, in directory order, whose group holds the resource.
ZelRC first_matching_group(ZelSession *s, LDAPMessage *res, const Query &q, int32_t mode, LDAPMessage *&answer) {
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
ZelRC direct_record(ZelSession *s, const char *user, const Query &q, zel::Message &res, LDAPMessage *&answer) {
    ZelRC rc = zel::find_records(s, q.credential_id.c_str(), user, zel::session_mode(s), res);
    // First generation: a user who is no Zel user, or an inactive one, gets nothing.
    if (zel::first_generation(s) ? rc != 0 : !zel::search_made(rc)) return rc;
    if (!zel::first_generation(s) && s->database_dn && zel::entry_count(s->ld, res.get()) == 0) {
        rc = zel::find_records(s, q.credential_id.c_str(), user, zel::kFirstGenerationMode, res);
        if (!zel::search_made(rc)) return rc;
    }
    answer = res ? ldap_first_entry(s->ld, res.get()) : nullptr;
    return 0;
}

// The group records, in at most two passes.  A pass that finds no group
// records hands over to the first-generation form; one that finds records
// but no matching group leaves the form as it was, so the second pass asks
// the same again.
ZelRC group_record(ZelSession *s, const char *user, const Query &q, zel::Message &res, LDAPMessage *&answer) {
    bool v1 = zel::first_generation(s);
    int32_t mode = v1 ? zel::kFirstGenerationMode : zel::kDomainMode;
    int passes = !v1 && s->database_dn ? 2 : 1;
    for (int pass = 0; pass < passes && !answer; ++pass) {
        ZelRC rc = zel::search_records(s, "G:*", "G:*", user, mode, res);
        if (!zel::search_made(rc)) return rc;
        if (zel::entry_count(s->ld, res.get()) == 0) {
            if (s->database_dn) mode = zel::kFirstGenerationMode;
            continue;
        }
        if ((rc = first_matching_group(s, res.get(), q, mode, answer)) != 0) return rc;
    }
    return 0;
}

void clear_credential(ZelCredential *out) {
    std::free(out->userId);
    if (out->password) std::memset(out->password, 0, std::strlen(out->password));
    std::free(out->password);
    out->userId = out->password = nullptr;
}

ZelRC read_credential(ZelSession *s, LDAPMessage *entry, ZelCredential *out) {
    ZelRC rc = zel::walk_attributes(s->ld, entry, [&](const char *attr, char **, struct berval **values) -> ZelRC {
        bool secret_key = zel::same_text(attr, "secretKey");
        bool secret = secret_key || zel::same_text(attr, "secAuthnData");
        bool account = zel::same_text(attr, "uid") || zel::same_text(attr, "principalName") ||
                       zel::same_text(attr, "secUid");
        for (struct berval **v = values; *v && (secret || account); ++v) {
            char *text = nullptr;
            if (ZelRC rc = zel::clear_password(s, *v, account || (secret_key && zel::clear_secret_key(s)), text))
                return rc;
            char *&field = account ? out->userId : out->password;
            if (!account && field) std::memset(field, 0, std::strlen(field));
            std::free(field);
            field = text;
        }
        return 0;
    });
    // A record without a password cannot sign anybody on.
    if (rc == 0 && out->password == nullptr) rc = ZEL_RC_NO_CREDENTIAL_DATA;
    return rc;
}

ZelRC get_credential(ZelSession *s, const char *user, const ZelCredentialRequest *req, ZelCredential *out) {
    ZelRC rc = 0;
    zel::RoutineTrace trace(s, "Zel_getCredential", rc);
    if (req == nullptr || req->resourceName == nullptr || user == nullptr || out == nullptr)
        return rc = ZEL_RC_INVALID_ARGUMENT;
    Query q;
    if ((rc = form_query(s, req->resourceName, q)) != 0) return rc;
    if (zel::first_generation(s) && (rc = zel::ensure_database_dn(s)) != 0) return rc;
    zel::tracef(s, zel::kTraceProgress, "zelmgmt:Resource specified: %s\n", q.resource);

    zel::Message direct, groups;
    LDAPMessage *answer = nullptr;
    if ((rc = direct_record(s, user, q, direct, answer)) != 0) return rc;
    if (!answer && (rc = group_record(s, user, q, groups, answer)) != 0) return rc;
    if (!answer) return rc = ZEL_RC_TR_NOT_FOUND;
    if ((rc = read_credential(s, answer, out)) != 0) return rc;
    zel::trace_line(s, zel::kTraceProgress,
                    "zelmgmt:Were able add to retrieve Zel user's target credentials successfully!");
    return rc;
}

}  // namespace

namespace zel {

ZelRC credential_group(const char *dn, std::string &group) {
    group.clear();
    LDAPDN raw = nullptr;
    if (ldap_str2dn(dn, &raw, LDAP_DN_FORMAT_LDAP) != LDAP_SUCCESS) return ZEL_RC_SYSTEM_ERROR;
    ParsedDn parsed(raw);
    if (!parsed || !parsed.get()[0] || !parsed.get()[0][0]) return ZEL_RC_SYSTEM_ERROR;
    const struct berval &value = parsed.get()[0][0]->la_value;
    std::string id(value.bv_val, value.bv_len);
    group = token(id.c_str(), ':', 1);
    return 0;
}

}  // namespace zel

extern "C" {

ZEL_API ZelRC Zel_getCredential(ZelSession *s, const char *user, const ZelCredentialRequest *req, ZelCredential *out) {
    if (!zel::valid_handle(s)) return ZEL_RC_INVALID_HANDLE;
    if (out) out->userId = out->password = nullptr;
    ZelRC rc = zel::guarded([&] { return get_credential(s, user, req, out); });
    // Whatever failed, nothing half-filled is handed out.
    if (rc != 0 && out) clear_credential(out);
    return rc;
}

}  // extern "C"
