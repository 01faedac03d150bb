// Access groups, owners and access-control lists of a Zel database, each in
// the dialect of the directory kind found at open.
#include <cstdarg>
#include <cstring>

#include "ZelEntry.h"
#include "ZelUserAccess.h"
#include "ZelDatabase.h"
#include "ZelClient.h"
#include "ZelHolders.h"
#include "ZelRoutines.h"
#include "ZelSession.h"
#include "ZelStatus.h"
#include "ZelText.h"

namespace {

using namespace zel::access;

constexpr const char *kOwnerAci =
    "(target = \"ldap:///%s\")(targetattr = *)(version 3.0; acl \"Owner access\"; %s%s;)";
constexpr const char *kDenyOthersAci =
    "(target = \"ldap:///%s\")(targetattr = *)(version 3.0; acl \"Deny others\"; %s((userdn != \"ldap:///all\") "
    "and (groupdn != \"ldap:///%s\") and (groupdn != \"ldap:///%s\") and (groupdn != \"ldap:///%s\") and "
    "(groupdn != \"ldap:///%s\"));)";
constexpr const char *kDenyAuthenticatedFourAci =
    "(target = \"ldap:///%s\")(targetattr = *)(version 3.0; acl \"Deny authenticated others\"; %s (groupdn != "
    "\"ldap:///%s\") and (groupdn != \"ldap:///%s\") and (groupdn != \"ldap:///%s\") and (groupdn != "
    "\"ldap:///%s\");)";
constexpr const char *kDenyAuthenticatedThreeAci =
    "(target = \"ldap:///%s\")(targetattr = *)(version 3.0; acl \"Deny authenticated others\"; %s (groupdn != "
    "\"ldap:///%s\") and (groupdn != \"ldap:///%s\") and (groupdn != \"ldap:///%s\");)";

bool nds_kind(int32_t kind) { return kind == ZEL_DIR_NDS || kind == ZEL_DIR_EDIRECTORY; }

// Netscape-style owner rule plus, with deny, the rules that shut out everyone
// but the Zel groups (the variant also shuts out the Users group).
ZelRC netscape_owner(const char *database_dn, const char *dn, const char *subject, bool deny, bool deny_variant,
                     std::vector<zel::db::Change> &out) {
    std::string owner, deny_others, deny_authenticated;
    if (!zel::db::owner_aci(owner, dn, subject)) return ZEL_RC_INVALID_ARGUMENT;
    out.push_back({LDAP_MOD_ADD, "ACI", {owner}});
    if (!deny) return 0;

    std::string sa, ad, mts, us;
    if (!zel::form_group_dn(sa, zel::kSeniorAdministratorsGroup, database_dn) ||
        !zel::form_group_dn(ad, zel::kAdministratorsGroup, database_dn) ||
        !zel::form_group_dn(mts, zel::kMiddleTierServersGroup, database_dn) ||
        !zel::form_group_dn(us, zel::kUsersGroup, database_dn))
        return ZEL_RC_INVALID_ARGUMENT;
    bool fits =
        zel::format_text(deny_others, zel::kAclSize, kDenyOthersAci, dn, kDenyAll, sa.c_str(), ad.c_str(),
                              mts.c_str(), us.c_str()) &&
        (deny_variant ? zel::format_text(deny_authenticated, zel::kAclSize, kDenyAuthenticatedThreeAci, dn,
                                              kDenyAll, sa.c_str(), ad.c_str(), mts.c_str())
                      : zel::format_text(deny_authenticated, zel::kAclSize, kDenyAuthenticatedFourAci, dn,
                                              kDenyAll, sa.c_str(), ad.c_str(), mts.c_str(), us.c_str()));
    if (!fits) return ZEL_RC_INVALID_ARGUMENT;
    out.push_back({LDAP_MOD_ADD, "ACI", {deny_others}});
    out.push_back({LDAP_MOD_ADD, "ACI", {deny_authenticated}});
    return 0;
}

// Applies changes to dn with one modify; the failure is reported under `label`.
ZelRC apply_changes(ZelSession *s, const char *dn, const std::vector<zel::db::Change> &changes,
                    const char *label) {
    zel::ModList mods(changes.size() + 1);
    if (!mods.ok()) return ZEL_RC_NO_MEMORY;
    std::vector<std::vector<const char *>> values;
    values.reserve(changes.size());
    ZelRC rc = 0;
    for (const zel::db::Change &c : changes) {
        values.emplace_back();
        for (const std::string &v : c.values) values.back().push_back(v.c_str());
        if ((rc = mods.add(c.op, c.type, static_cast<int32_t>(values.back().size()),
                           const_cast<char *const *>(values.back().data()))) != 0)
            return rc;
    }
    int lrc = plat::ldap_modify_ext_s(s->ld, dn, mods.get(), nullptr, nullptr);
    return lrc == LDAP_SUCCESS ? 0 : check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, label);
}

}  // namespace

namespace zel::db {

bool owner_aci(std::string &out, const char *dn, const char *subject) {
    return format_text(out, kAclSize, kOwnerAci, dn, kAllowAll, subject);
}

bool nds_entry_rights(std::string &out, const char *subject) {
    return format_text(out, kAclSize, "%d#subtree#%s#[Entry Rights]", kEntrySupervisor, subject);
}

ZelRC owner_changes(int32_t kind, const char *database_dn, const char *dn, const char *subject, bool deny,
                    bool deny_variant, std::vector<Change> &out) {
    out.clear();
    std::string acl;
    switch (kind) {
    case ZEL_DIR_ORV:
        out.push_back({LDAP_MOD_REPLACE, "EntryOwner", {subject}});
        return 0;
    case ZEL_DIR_EDIRECTORY:
        if (!nds_entry_rights(acl, subject)) return ZEL_RC_INVALID_ARGUMENT;
        out.push_back({LDAP_MOD_REPLACE, "ACL", {acl}});
        return 0;
    case ZEL_DIR_NETSCAPE:
        return netscape_owner(database_dn, dn, subject, deny, deny_variant, out);
    default:
        return 0;
    }
}

}  // namespace zel::db

extern "C" {

ZelRC create_access_group(ZelSession *s, const char *dn, const char *name, const char *member, const char *owner) {
    ZelRC rc = 0;
    return zel::routine(s, "create_access_group", [&]() -> ZelRC {
        if (dn == nullptr || name == nullptr || member == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
        const int32_t kind = s->dir_kind;
        const bool owned =
            owner != nullptr && (kind == ZEL_DIR_ORV || kind == ZEL_DIR_NETSCAPE || kind == ZEL_DIR_EDIRECTORY);
        std::string aci;
        if (owned && kind == ZEL_DIR_NETSCAPE && !zel::db::owner_aci(aci, dn, owner)) rc = ZEL_RC_INVALID_ARGUMENT;

        zel::ModList mods(owned ? 5 : 4);
        if (rc == 0 && !mods.ok()) rc = ZEL_RC_NO_MEMORY;
        if (rc == 0 && kind == ZEL_DIR_ORV) rc = mods.add(LDAP_MOD_ADD, "objectClass", {"accessGroup"});
        if (rc == 0 && (kind == ZEL_DIR_NETSCAPE || nds_kind(kind)))
            rc = mods.add(LDAP_MOD_ADD, "objectClass", {"groupofnames"});
        // AD edits the members only of its own groups (they carry a SID); any
        // other kind without a group class of its own gets the standard one,
        // so the entry can exist at all and access rules can name it.
        if (rc == 0 && kind == ZEL_DIR_ACTIVE_DIRECTORY)
            rc = mods.add(LDAP_MOD_ADD, "objectClass", {"group"});
        else if (rc == 0 && kind != ZEL_DIR_ORV && kind != ZEL_DIR_NETSCAPE && !nds_kind(kind))
            rc = mods.add(LDAP_MOD_ADD, "objectClass", {"groupOfNames"});
        if (rc == 0) rc = mods.add(LDAP_MOD_ADD, "cn", {name});
        if (rc == 0) rc = mods.add(LDAP_MOD_ADD, "member", {member});
        if (rc == 0 && owned && kind == ZEL_DIR_ORV) rc = mods.add(LDAP_MOD_ADD, "EntryOwner", {owner});
        if (rc == 0 && owned && kind == ZEL_DIR_NETSCAPE) rc = mods.add(LDAP_MOD_ADD, "ACI", {aci.c_str()});
        if (rc == 0) {
            int lrc = plat::ldap_add_ext_s(s->ld, dn, mods.get(), nullptr, nullptr);
            if (lrc != LDAP_SUCCESS) rc = check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_add_ext_s()");
        }
        // eDirectory keeps membership on the member as well; a group that
        // already exists still gets its member's side, and that decides.  A
        // member that names the group already (a database of this place made
        // and removed before) is a member: the creation goes on.
        if (kind == ZEL_DIR_EDIRECTORY) {
            rc = internal_nds_member_add(s, dn, member);
            if (rc == LDAP_TYPE_OR_VALUE_EXISTS) rc = 0;
        }
        return rc;
    });
}

ZelRC set_owner(ZelSession *s, const char *dn, const char *subject, unsigned char deny,
                unsigned char deny_variant) {
    ZelRC rc = 0;
    return zel::routine(s, "set_owner", [&]() -> ZelRC {
        if (dn == nullptr || subject == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
        std::vector<zel::db::Change> changes;
        if ((rc = zel::db::owner_changes(s->dir_kind, s->database_dn, dn, subject, deny != 0, deny_variant != 0,
                                         changes)) != 0)
            return rc;
        // Kinds without owners are left as they are, without a directory call.
        if (changes.empty()) return rc;
        return rc = apply_changes(s, dn, changes, "ldap_modify_ext_s()");
    });
}

// The failure is reported as an add: the modify adds a value.
ZelRC set_nds_group_acl(ZelSession *s, const char *dn, const char *subject) {
    ZelRC rc = 0;
    return zel::routine(s, "set_nds_group_acl", [&]() -> ZelRC {
        if (subject == nullptr) return rc;
        if (dn == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
        std::string acl;
        if (!zel::db::nds_entry_rights(acl, subject)) return rc = ZEL_RC_INVALID_ARGUMENT;
        return rc = apply_changes(s, dn, {{LDAP_MOD_ADD, "ACL", {acl}}}, "ldap_add_ext_s()");
    });
}

// The administrators manage the senior administrator's person entry; the
// middle tier may read it, but not its secret key.
ZelRC set_nds_sradmin_acl(ZelSession *s, const char *person_dn, const char *admins_dn,
                          const char *middle_tier_dn) {
    ZelRC rc = 0;
    return zel::routine(s, "set_nds_sradmin_acl", [&]() -> ZelRC {
        if (admins_dn == nullptr) return rc;
        if (person_dn == nullptr || middle_tier_dn == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
        std::string entry_rights, secret_key, read_all;
        if (!zel::db::nds_entry_rights(entry_rights, admins_dn) ||
            !zel::format_text(secret_key, zel::kAclSize, "%d#subtree#%s#secretKey", zel::access::kEntrySupervisor,
                                   "[Root]") ||
            !zel::format_text(read_all, zel::kAclSize, "%d#subtree#%s#[All Attributes Rights]",
                                   zel::access::kAttributeRead, middle_tier_dn))
            return rc = ZEL_RC_INVALID_ARGUMENT;
        return rc = apply_changes(
                   s, person_dn,
                   {{LDAP_MOD_ADD, "ACL", {entry_rights}}, {LDAP_MOD_ADD, "ACL", {secret_key, read_all}}},
                   "ldap_add_ext_s()");
    });
}

}  // extern "C"
