// The OpenLDAP handles the doctor checks hold on their own connections.
#pragma once

#include <ldap.h>

#include "zelctl.h"

namespace zelctl {

inline void unbind(LDAP *ld) { ldap_unbind_ext_s(ld, nullptr, nullptr); }
using Ldap = Held<LDAP, unbind>;
using Message = Held<LDAPMessage, ldap_msgfree>;
using Values = Held<berval *, ldap_value_free_len>;

}  // namespace zelctl
