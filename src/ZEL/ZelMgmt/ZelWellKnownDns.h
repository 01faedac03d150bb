// The DNs the library writes and reads at fixed places of the tree.
#pragma once

#include <string>

#include "zelmgmt.h"

namespace zel {

// Each is built into `out`: 1005 when it would not fit a DN buffer, 35 when
// the session has no security domain.  A caller's name is escaped as an
// attribute value.
// "<type>=<value>,<parent>"
ZelRC child_dn(const char *type, const char *value, const std::string &parent, std::string &out);
// "cn=Resources,<security domain DN>"
ZelRC resources_container_dn(const ZelSession *s, std::string &out);
// "secResourceID=<name>,cn=Resources,<security domain DN>"
ZelRC domain_resource_dn(const ZelSession *s, const char *name, std::string &out);
// "principalName=<name>,cn=Users,<security domain DN>"
ZelRC domain_user_dn(const ZelSession *s, const char *name, std::string &out);
// "cn=ResCreds,<user DN>": a security domain user's target records (the
// user DN is not measured again)
ZelRC credentials_container_dn(const std::string &user_dn, std::string &out);

}  // namespace zel
