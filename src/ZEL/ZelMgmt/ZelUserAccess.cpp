// Per-user access control of first-generation profiles, in each directory
// product's own dialect, and the names every user routine shares.
#include "ZelUserAccess.h"
#include "ZelRoutines.h"
#include "ZelSession.h"
#include "ZelText.h"

#include <cstdarg>
#include <cstring>
#include <cstdio>

namespace {

using namespace zel::access;

// Rights strings of the Orv directory server: the Tessan and Kelmar hosts
// know a further "restricted" access class.
constexpr const char *kReaderRights = ":normal:rsc:sensitive:rsc:critical:rsc";
constexpr const char *kReaderRightsRestricted = ":normal:rsc:sensitive:rsc:critical:rsc:restricted:rsc";
constexpr const char *kWriterRights = ":object:a:normal:rwsc:sensitive:rsc:critical:rwsc";
constexpr const char *kWriterRightsRestricted =
    ":object:a:normal:rwsc:sensitive:rsc:critical:rwsc:restricted:rwsc";

// Netscape-style ACIs.
constexpr const char *kOwnerAci =
    "(target = \"ldap:///%s\")(targetattr = *)(version 3.0; acl \"Owner access\"; %sgroupdn = \"ldap:///%s\";)";
constexpr const char *kReaderAci =
    "(targetattr != \"secretKey\")(version 3.0; acl \"User access\"; %suserdn = \"ldap:///%s\";)";
constexpr const char *kWriterAci =
    "(targetattr = \"*\")(version 3.0; acl \"User access\"; %suserdn = \"ldap:///%s\";)";
constexpr const char *kMiddleTierAci =
    "(target = \"ldap:///%s\")(targetattr = *)(version 3.0; acl \"MTS access\"; %sgroupdn = \"ldap:///%s\";)";
// Shuts out anonymous callers outside the two groups.  (With "or" it shut out
// everyone outside them, the user the profile belongs to included: a deny
// wins over the user's own allow.)
constexpr const char *kDenyOthersAci =
    "(target = \"ldap:///%s\")(targetattr = *)(version 3.0; acl \"Deny others\"; %s(userdn != \"ldap:///all\" "
    "and groupdn != \"ldap:///%s||ldap:///%s\"); )";
constexpr const char *kDenyAuthenticatedAci =
    "(target = \"ldap:///%s\")(targetattr = *)(version 3.0; acl \"Deny authenticated others\"; "
    "%s(userdn != \"ldap:///%s\") and (groupdn != \"ldap:///%s\") and (groupdn != \"ldap:///%s\");)";


// Appends a formatted value that fits a buffer of `size` bytes; false when
// it would not.
bool append_value(std::vector<std::string> &values, size_t size, const char *fmt, ...)
    ZEL_PRINTF(3, 4);
bool append_value(std::vector<std::string> &values, size_t size, const char *fmt, ...) {
    std::string text;
    va_list ap;
    va_start(ap, fmt);
    bool fits = zel::vformat_text(text, size, fmt, ap);
    va_end(ap);
    if (fits) values.push_back(std::move(text));
    return fits;
}

bool restricted_host(const ZelSession *s) {
    return s->host_kind == ZEL_HOST_TESSAN || s->host_kind == ZEL_HOST_KELMAR;
}

ZelRC orv_access(const ZelSession *s, bool plain_user, const char *person_dn, const std::string &admins,
                 const std::string &middle_tier, std::vector<zel::AccessValues> &out) {
    bool restricted = restricted_host(s);
    const char *user_rights = plain_user ? (restricted ? kReaderRightsRestricted : kReaderRights)
                                         : (restricted ? kWriterRightsRestricted : kWriterRights);
    const char *server_rights = restricted ? kReaderRightsRestricted : kReaderRights;
    zel::AccessValues owner{"EntryOwner", {}}, acl{"AclEntry", {}};
    if (!append_value(owner.values, zel::kDnSize, "group:%s", admins.c_str()) ||
        !append_value(acl.values, zel::kDnSize, "access-id:%s%s", person_dn, user_rights) ||
        !append_value(acl.values, zel::kDnSize, "group:%s%s", middle_tier.c_str(), server_rights))
        return ZEL_RC_INVALID_ARGUMENT;
    out.push_back(std::move(owner));
    out.push_back({"OwnerPropagate", {"true"}});
    out.push_back(std::move(acl));
    out.push_back({"AclPropagate", {"true"}});
    return 0;
}

ZelRC netscape_access(bool plain_user, const char *person_dn, const char *user_dn,
                      const std::string &admins, const std::string &middle_tier,
                      std::vector<zel::AccessValues> &out) {
    zel::AccessValues owner{"ACI", {}}, rest{"ACI", {}};
    bool fits =
        append_value(owner.values, zel::kDnSize, kOwnerAci, user_dn, kAllowAll, admins.c_str()) &&
        (plain_user ? append_value(rest.values, zel::kDnSize, kReaderAci, kAllowRead, person_dn)
                    : append_value(rest.values, zel::kDnSize, kWriterAci, kAllowWrite, person_dn)) &&
        append_value(rest.values, zel::kDnSize, kMiddleTierAci, user_dn, kAllowRead, middle_tier.c_str()) &&
        append_value(rest.values, zel::kAclSize, kDenyOthersAci, user_dn, kDenyAll, admins.c_str(),
                     middle_tier.c_str()) &&
        append_value(rest.values, zel::kAclSize, kDenyAuthenticatedAci, user_dn, kDenyAll, person_dn,
                     admins.c_str(), middle_tier.c_str());
    if (!fits) return ZEL_RC_INVALID_ARGUMENT;
    out.push_back(std::move(owner));
    out.push_back(std::move(rest));
    return 0;
}

// eDirectory grants nothing through a group that is not there, so its ACLs
// are written only when the administrators group exists.
ZelRC edirectory_access(ZelSession *s, const std::string &admins, const std::string &middle_tier,
                        std::vector<zel::AccessValues> &out) {
    if (check_entry_exists(s, admins.c_str()) != LDAP_SUCCESS) return 0;
    zel::AccessValues owner{"ACL", {}}, rest{"ACL", {}};
    if (!append_value(owner.values, zel::kDnSize, "%d#subtree#%s#[Entry Rights]", kEntrySupervisor,
                      admins.c_str()) ||
        !append_value(rest.values, zel::kDnSize, "%d#subtree#%s#secretKey", kEntrySupervisor, "[Root]") ||
        !append_value(rest.values, zel::kDnSize, "%d#subtree#%s#[All Attributes Rights]", kAttributeRead,
                      middle_tier.c_str()))
        return ZEL_RC_INVALID_ARGUMENT;
    out.push_back(std::move(owner));
    out.push_back(std::move(rest));
    return 0;
}

}  // namespace

namespace zel {

bool known_user_type(const char *type) {
    if (type == nullptr) return false;
    for (const char *known : {kSeniorAdmin, kMiddleTierServer, kPlainUser, kXrUser})
        if (same_text(type, known)) return true;
    return false;
}

bool form_group_dn(std::string &out, const char *group, const char *database_dn) {
    if (database_dn == nullptr) return false;
    out = std::string(group) + "," + database_dn;
    return out.size() < kDnSize;
}

ZelRC profile_access(ZelSession *s, const char *user_type, const char *person_dn,
                     const char *user_dn, std::vector<AccessValues> &out) {
    out.clear();
    std::string admins, middle_tier;
    if (!form_group_dn(admins, kAdministratorsGroup, s->database_dn) ||
        !form_group_dn(middle_tier, kMiddleTierServersGroup, s->database_dn))
        return ZEL_RC_INVALID_ARGUMENT;
    bool plain_user = user_type != nullptr && same_text(user_type, kPlainUser);
    switch (s->dir_kind) {
    case ZEL_DIR_ORV:
        return orv_access(s, plain_user, person_dn, admins, middle_tier, out);
    case ZEL_DIR_NETSCAPE:
        return netscape_access(plain_user, person_dn, user_dn, admins, middle_tier, out);
    case ZEL_DIR_EDIRECTORY:
        return edirectory_access(s, admins, middle_tier, out);
    default:
        return 0;
    }
}

}  // namespace zel
