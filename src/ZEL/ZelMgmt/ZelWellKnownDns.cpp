// The DNs the library writes and reads at fixed places of the tree.  A
// caller's name becomes an attribute value, escaped, so it can never add an
// RDN or move the entry; names without special characters stand as they are.
#include <cstring>

#include "platform/dn_escape.h"
#include "ZelPlatform.h"
#include "ZelSession.h"
#include "ZelText.h"
#include "ZelWellKnownDns.h"

namespace zel {

ZelRC child_dn(const char *type, const char *value, const std::string &parent, std::string &out) {
    // Measured with the value as given, as a DN buffer would hold it: what
    // escaping adds never turns a name that fits into one that does not.
    if (std::strlen(type) + 1 + std::strlen(value) + 1 + parent.size() >= kDnSize) return ZEL_RC_INVALID_ARGUMENT;
    out = std::string(type) + "=" + plat::escape_dn_value(value) + "," + parent;
    return 0;
}

ZelRC resources_container_dn(const ZelSession *s, std::string &out) {
    if (s->domain_dn == nullptr) return ZEL_RC_SECURITY_DOMAIN_NOT_FOUND;
    out = std::string("cn=Resources,") + s->domain_dn;
    return out.size() < kDnSize ? 0 : ZEL_RC_INVALID_ARGUMENT;
}

ZelRC domain_resource_dn(const ZelSession *s, const char *name, std::string &out) {
    std::string container;
    if (ZelRC rc = resources_container_dn(s, container)) return rc;
    return child_dn("secResourceID", name, container, out);
}

ZelRC domain_user_dn(const ZelSession *s, const char *name, std::string &out) {
    if (s->domain_dn == nullptr) return ZEL_RC_SECURITY_DOMAIN_NOT_FOUND;
    return child_dn("principalName", name, std::string("cn=Users,") + s->domain_dn, out);
}

ZelRC credentials_container_dn(const std::string &user_dn, std::string &out) {
    // Not measured again: the user DN is the directory's, or was measured,
    // with the container, from the caller's name as given.
    out = "cn=ResCreds," + user_dn;
    return 0;
}

}  // namespace zel
