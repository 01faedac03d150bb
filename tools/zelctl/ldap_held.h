// The OpenLDAP handles the doctor checks hold on their own connections, and
// the reads they share.
#pragma once

#include <ldap.h>

#include <string>
#include <vector>

#include "zelctl.h"

namespace zelctl {

inline void unbind(LDAP *ld) { ldap_unbind_ext_s(ld, nullptr, nullptr); }
using Ldap = Held<LDAP, unbind>;
using Message = Held<LDAPMessage, ldap_msgfree>;
using Values = Held<berval *, ldap_value_free_len>;

// An entry's DN, or `none` when the library cannot give one.
inline std::string dn_of(LDAP *ld, LDAPMessage *e, const char *none = "") {
    Held<char, ldap_memfree> dn(ldap_get_dn(ld, e));
    return dn ? dn.get() : none;
}

// A connection of its own to the server the options name, bound as `dn` (an
// empty DN binds anonymously).  Null, with the reason in `error`, when the
// server cannot be reached or refuses the bind.
Ldap connect_as(const Options &opts, const std::string &dn, const std::string &password, std::string &error);

// What a check reads beside the session: the suffixes and kind the session
// learnt, and a connection of the command's own bound as the options say.
struct OwnView {
    Held<ZelSessionInfo, Zel_freeSessionInfo> info;
    std::vector<std::string> suffixes;
    Ldap ld;
};
// False, with the failure reported under `command`'s name, when either fails.
bool own_view(const Options &opts, ZelSession *s, const char *command, OwnView &view);

}  // namespace zelctl
