// Who a read is about: a user name resolved to its person and to its Zel
// user entry in each storage form, each step asked of the directory at most
// once per call and, with the session's user cache on, once per TTL.
#pragma once

#include <string>

#include "zelmgmt.h"

namespace zel {

// The Zel user entry of one storage form: rc 0 (active), 33 (inactive; the
// DN is still known), 19 (no Zel user in this form), or the failure that
// stopped the resolution (the DN empty).
struct UserForm {
    bool known = false;
    ZelRC rc = 0;
    std::string dn;
};

// What one user name resolves to.
struct ResolvedUser {
    bool person_known = false;
    ZelRC person_rc = 0;
    std::string person_dn;
    UserForm forms[2];
    // The form of a lookup mode (kFirstGenerationMode or kDomainMode).
    UserForm &form(int32_t mode) { return forms[mode - 1]; }
    const UserForm &form(int32_t mode) const { return forms[mode - 1]; }
};

// The person a user name stands for: a profile DN (contains "="), a Kerberos
// principal (contains "@") or a user id.
ZelRC resolve_person(ZelSession *s, const char *user, std::string &person_dn);

// verify_ZEL_user as get_verify_User_Profile reads it: 0, 33, 19 or a failure.
ZelRC verify_form(ZelSession *s, const std::string &person_dn, int32_t mode, std::string &user_dn);

class UserLookup {
public:
    // `cached`: whether the session's cache may answer (writes ask the directory).
    UserLookup(ZelSession *s, const char *user, bool cached = true);
    UserLookup(const UserLookup &) = delete;
    UserLookup &operator=(const UserLookup &) = delete;

    // The user's entry in the form of `mode`, resolved on first use.
    const UserForm &form(int32_t mode);

    // Whether form(mode) is known without asking the directory.
    bool known(int32_t mode) const { return resolved_.form(mode).known; }
    // The person, once a form was asked for; empty when it was not found.
    const std::string &person_dn() const { return resolved_.person_dn; }
    // Settles the form of `mode` with what a search made elsewhere found
    // (verify_user's answer and DN), as form(mode) would have settled it.
    const UserForm &settle(int32_t mode, ZelRC verified, std::string &&dn);

private:
    const UserForm &kept(UserForm &f);

    ZelSession *s_;
    const char *user_;
    bool cached_;
    ResolvedUser resolved_;
};

// ---- The session's user cache ----

// Reads ZEL_CACHE_TTL and ZEL_CREDENTIAL_PATH into a freshly opened session.
ZelRC configure_reads(ZelSession *s);
// Sets the session's cache lifetime in seconds (0: off, the cache emptied).
ZelRC set_cache_ttl(ZelSession *s, uint32_t seconds);
void free_user_cache(ZelSession *s);

}  // namespace zel
