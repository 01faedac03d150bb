// What the Zel user routines share: the user types, the access groups below
// the Zel database entry, and the access control a first-generation profile
// carries in the dialect of the directory kind (whose texts the database tree
// uses too).
#pragma once

#include <string>
#include <vector>

#include "zelmgmt.h"

namespace zel {

// User types, compared ignoring case.
constexpr const char *kSeniorAdmin = "Senior Admin";
constexpr const char *kMiddleTierServer = "Middle Tier Server";
constexpr const char *kPlainUser = "User";
constexpr const char *kXrUser = "XR User";
bool known_user_type(const char *type);

// Access groups, relative to the Zel database entry.
constexpr const char *kSeniorAdministratorsGroup = "cn=Senior Administrators,cn=Access Groups";
constexpr const char *kAdministratorsGroup = "cn=Administrators,cn=Access Groups";
constexpr const char *kMiddleTierServersGroup = "cn=Middle Tier Servers,cn=Access Groups";
constexpr const char *kUsersGroup = "cn=Users,cn=Access Groups";

// "<group>,<database DN>"; false when it would not fit a DN buffer.
bool form_group_dn(std::string &out, const char *group, const char *database_dn);

// One access-control modification (operation add) of a profile entry.
struct AccessValues {
    const char *type;
    std::vector<std::string> values;
};

// The access control of a first-generation profile on the session's directory
// kind, in the order it is written; empty on kinds that take none (and on
// eDirectory when the administrators group is missing).  1005 when a value
// would outgrow its buffer.
ZelRC profile_access(ZelSession *s, const char *user_type, const char *person_dn,
                     const char *user_dn, std::vector<AccessValues> &out);

}  // namespace zel

// Access-control texts that the user profiles and the database tree share.
namespace zel::access {

// Rights of the Netscape-style ACI dialect.
constexpr const char *kAllowAll = "allow (all)";
constexpr const char *kAllowRead = "allow(read, search, compare)";
constexpr const char *kAllowWrite = "allow(add, read, write, search, compare)";
constexpr const char *kDenyAll = "deny (all)";

// eDirectory ACLs: privileges#scope#subject#protected attribute.
constexpr int kEntrySupervisor = 16;
constexpr int kAttributeRead = 3;

}  // namespace zel::access
