// The DNs the library writes and reads at fixed places of the tree.  A
// caller's name becomes an attribute value, escaped, so it can never add an
// RDN or move the entry; names without special characters stand as they are.
#include "platform/dn_escape.h"
#include "zel_internal.h"

namespace zel {

ZelRC child_dn(const char *type, const char *value, const std::string &parent, std::string &out) {
    out = std::string(type) + "=" + plat::escape_dn_value(value) + "," + parent;
    return out.size() < kDnSize ? 0 : ZEL_RC_INVALID_ARGUMENT;
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
    out = "cn=ResCreds," + user_dn;
    return out.size() < kDnSize ? 0 : ZEL_RC_INVALID_ARGUMENT;
}

}  // namespace zel
