// What the database provisioning routines share: the names of the tree below
// the Zel database entry and the access-control texts each directory kind
// understands.
#pragma once

#include <string>
#include <vector>

#include "ZelText.h"
#include "ZelUserAccess.h"

namespace zel::db {

// Below the Zel database entry (the other access groups are the users').
constexpr const char *kAccessGroups = "cn=Access Groups";
constexpr const char *kZelDomains = "cn=Zel Domains";
constexpr const char *kServiceTypes = "cn=Target Service Types";
constexpr const char *kFullUsers = "cn=Full Users,cn=Access Groups";

// ACI that gives `subject` all rights on dn.
bool owner_aci(std::string &out, const char *dn, const char *subject);
// eDirectory ACL that makes `subject` supervisor of an entry and its subtree.
bool nds_entry_rights(std::string &out, const char *subject);

// One modification of an owner change.
struct Change {
    int op;
    const char *type;
    std::vector<std::string> values;
};

// What set_owner writes to dn on a directory kind, in order; empty on kinds
// without owners.  The deny rules name the groups below database_dn.  1005
// when a value would outgrow its buffer or the deny rules have no database.
ZelRC owner_changes(int32_t kind, const char *database_dn, const char *dn, const char *subject, bool deny,
                    bool deny_variant, std::vector<Change> &out);

// The first administrator's user id and person DN as the caller names them
// (an existing person found by common name may lie elsewhere); 1005 when
// either, or the Zel profile below the person, would outgrow its buffer.
constexpr size_t kAdminUidSize = 512;
ZelRC plan_admin(const char *admin, const char *suffix, std::string &uid, std::string &dn);

// Whether a DN built from pieces fits a DN buffer.
inline bool fits_dn(const std::string &dn) { return dn.size() < kDnSize; }

}  // namespace zel::db
