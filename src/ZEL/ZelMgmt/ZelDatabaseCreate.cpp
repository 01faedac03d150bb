// Creation of a Zel database below a directory suffix: the suffix entry when
// asked, the metadata entry, the first senior administrator, the containers,
// the access groups, the default target service types and the access control
// of the directory kind.
#include <cstring>
#include <string>
#include <vector>

#include "ZelEntry.h"
#include "ZelUserAccess.h"
#include "ZelDatabase.h"
#include "platform/ad_account.h"
#include "ZelClient.h"
#include "ZelHolders.h"
#include "ZelRoutines.h"
#include "ZelSearch.h"
#include "ZelSession.h"
#include "ZelStatus.h"
#include "ZelText.h"

namespace {

using zel::access::kAllowRead;

using zel::format_text;

constexpr const char *kSeniorAdmin = "Senior Admin";
constexpr const char *kReadRights = ":normal:rsc:sensitive:rsc:critical:rsc";
constexpr const char *kReadRightsRestricted = ":normal:rsc:sensitive:rsc:critical:rsc:restricted:rsc";
constexpr const char *kAllowAnonymousRead = "allow (read, search, compare)";

bool vendor_kind(int32_t kind) { return kind >= ZEL_DIR_ORV && kind <= ZEL_DIR_EDIRECTORY; }

// Everything the creation writes, worked out before the first write so that
// a name too long for its buffer is refused with nothing written.
struct Plan {
    std::string db, sa, ad, mts, us, fu;
    std::string sa_subject, ad_subject;     // owners and members in the kind's syntax
    std::vector<std::string> acl;           // container values: middle tier, users, full users
    std::vector<zel::db::Change> metadata;  // vendor attributes of the metadata entry
    std::string admin_uid, admin_dn;        // as the caller names the administrator
    std::string container(const char *rdn) const { return std::string(rdn) + "," + db; }
    std::string service_type(const char *name) const {
        return std::string("tsType=") + name + "," + container(zel::db::kServiceTypes);
    }
    const char *subject(const std::string &s) const { return s.empty() ? nullptr : s.c_str(); }
};

ZelRC plan_subjects(int32_t kind, Plan &p) {
    const std::string *groups[] = {&p.sa, &p.ad};
    std::string *subjects[] = {&p.sa_subject, &p.ad_subject};
    for (int i = 0; i < 2; ++i) {
        const char *dn = groups[i]->c_str();
        bool fits = true;
        if (kind == ZEL_DIR_ORV) fits = format_text(*subjects[i], zel::kDnSize, "group:%s", dn);
        if (kind == ZEL_DIR_NETSCAPE)
            fits = format_text(*subjects[i], zel::kDnSize, "groupdn = \"ldap:///%s\"", dn);
        if (kind == ZEL_DIR_NDS || kind == ZEL_DIR_EDIRECTORY) *subjects[i] = dn;
        if (!fits) return ZEL_RC_INVALID_ARGUMENT;
    }
    return 0;
}

// The values every container takes its first one, two or three from, and the
// anonymous read access of the metadata entry.
ZelRC plan_access(const ZelSession *s, bool extended, Plan &p) {
    std::string value, mts, us, fu, anonymous;
    const bool restricted = s->host_kind == ZEL_HOST_TESSAN || s->host_kind == ZEL_HOST_KELMAR;
    const char *rights = restricted ? kReadRightsRestricted : kReadRights;
    bool fits = true;
    switch (s->dir_kind) {
    case ZEL_DIR_ORV:
        fits = format_text(mts, zel::kAclSize, "group:%s%s", p.mts.c_str(), rights) &&
               format_text(us, zel::kAclSize, "group:%s%s", p.us.c_str(), rights) &&
               format_text(fu, zel::kAclSize, "group:%s%s", p.fu.c_str(), rights);
        p.metadata = {{LDAP_MOD_ADD, "EntryOwner", {"group:CN=ANYBODY"}},
                      {LDAP_MOD_ADD, "OwnerPropagate", {"true"}},
                      {LDAP_MOD_ADD, "AclPropagate", {"true"}},
                      {LDAP_MOD_ADD, "AclEntry", {"group:CN=ANYBODY:normal:rsc"}}};
        break;
    case ZEL_DIR_NETSCAPE:
        // The full users' rule names its group where the others do and
        // grants, like them, read access; the permission goes before the
        // subject, as the server's ACI parser demands (a permission after the
        // closing parenthesis is refused).
        fits = format_text(mts, zel::kAclSize,
                            "(targetattr = *)(version 3.0; acl \"MTS access\"; %sgroupdn = \"ldap:///%s\";)",
                            kAllowRead, p.mts.c_str()) &&
               format_text(us, zel::kAclSize,
                            "(targetattr = *)(version 3.0; acl \"User access\"; %sgroupdn = \"ldap:///%s\";)",
                            kAllowRead, p.us.c_str()) &&
               format_text(fu, zel::kAclSize,
                            "(targetattr = *)(version 3.0; acl \"Full User access\"; %s groupdn = \"ldap:///%s\";)",
                            kAllowRead, p.fu.c_str()) &&
               format_text(anonymous, zel::kAclSize,
                            "(targetattr = *)(version 3.0; acl \"Anonymous access\"; %s%s;)", kAllowAnonymousRead,
                            "userdn = \"ldap:///anyone\"");
        p.metadata = {{LDAP_MOD_ADD, "ACI", {anonymous}}};
        break;
    case ZEL_DIR_EDIRECTORY:
        fits = format_text(mts, zel::kAclSize, "%d#subtree#%s#[All Attributes Rights]", zel::access::kAttributeRead,
                            p.mts.c_str()) &&
               format_text(us, zel::kAclSize, "%d#subtree#%s#[All Attributes Rights]", zel::access::kAttributeRead,
                            p.us.c_str()) &&
               format_text(fu, zel::kAclSize, "%d#entry#%s#[All Attributes Rights]", zel::access::kAttributeRead,
                            p.fu.c_str()) &&
               format_text(anonymous, zel::kAclSize, "%d#subtree#%s#[Entry Rights]", zel::access::kEntrySupervisor,
                            "[Root]");
        p.metadata = {{LDAP_MOD_ADD, "ACL", {anonymous}}};
        break;
    default:
        return 0;
    }
    if (!fits) return ZEL_RC_INVALID_ARGUMENT;
    p.acl = {mts, us};
    if (extended) p.acl.push_back(fu);
    return 0;
}

// Owner changes fail quietly during creation, so their values are proven to
// fit here.
ZelRC check_owner_values(const ZelSession *s, bool xr_defaults, const Plan &p) {
    const char *database_dn = s->database_dn ? s->database_dn : p.db.c_str();
    struct Target {
        std::string dn;
        bool deny, variant;
    };
    std::vector<Target> targets = {{p.container(zel::db::kAccessGroups), true, true},
                                   {p.container(zel::db::kZelDomains), true, false},
                                   {p.container(zel::db::kServiceTypes), true, false},
                                   {p.db, false, false}};
    if (xr_defaults) {
        targets.push_back({p.service_type("Web Resource"), false, false});
        targets.push_back({p.service_type("Resource Group"), false, false});
    }
    std::vector<zel::db::Change> changes;
    for (const Target &t : targets) {
        if (!zel::db::fits_dn(t.dn)) return ZEL_RC_INVALID_ARGUMENT;
        if (ZelRC rc = zel::db::owner_changes(s->dir_kind, database_dn, t.dn.c_str(), p.ad_subject.c_str(), t.deny,
                                              t.variant, changes))
            return rc;
    }
    return 0;
}

ZelRC make_plan(const ZelSession *s, const char *suffix, const char *admin, unsigned char flags, Plan &p) {
    p.db = std::string("systemName") + "=" + "ORVZEL" + "," + suffix;
    if (!zel::form_group_dn(p.sa, zel::kSeniorAdministratorsGroup, p.db.c_str()) ||
        !zel::form_group_dn(p.ad, zel::kAdministratorsGroup, p.db.c_str()) ||
        !zel::form_group_dn(p.mts, zel::kMiddleTierServersGroup, p.db.c_str()) ||
        !zel::form_group_dn(p.us, zel::kUsersGroup, p.db.c_str()) ||
        !zel::form_group_dn(p.fu, zel::db::kFullUsers, p.db.c_str()))
        return ZEL_RC_INVALID_ARGUMENT;
    ZelRC rc = 0;
    if ((rc = plan_subjects(s->dir_kind, p)) || (rc = plan_access(s, (flags & ZEL_CREATEDB_EXTENDED) != 0, p)) ||
        (rc = check_owner_values(s, (flags & ZEL_CREATEDB_XR_DEFAULTS) != 0, p)))
        return rc;
    return zel::db::plan_admin(admin, suffix, p.admin_uid, p.admin_dn);
}

// The suffix entry must exist, or be one of the server's suffixes that the
// caller allows to be created.
ZelRC ensure_suffix(ZelSession *s, const char *suffix, bool may_create) {
    struct timeval tv = zel::no_time_limit();
    LDAPMessage *raw = nullptr;
    int lrc = plat::ldap_search_ext_s(s->ld, suffix, LDAP_SCOPE_BASE, "(objectClass=*)", nullptr, 1, nullptr,
                                      nullptr, &tv, 2, &raw);
    zel::Message res(raw);
    if (lrc == LDAP_SUCCESS) return 0;
    if (lrc != LDAP_NO_SUCH_OBJECT) return check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_search_ext_s()");
    bool known = false;
    for (ZelSuffixNode *n = s->suffixes; n && n->suffix && !known; n = n->next)
        known = zel::same_text(n->suffix, suffix);
    if (!known || !may_create) return ZEL_RC_SUFFIX_UNAVAILABLE;
    return instantiate_suffix(s, suffix);
}

ZelRC add_metadata(ZelSession *s, const Plan &p) {
    zel::ModList mods(4 + p.metadata.size());
    if (!mods.ok()) return ZEL_RC_NO_MEMORY;
    ZelRC rc = 0;
    if ((rc = mods.add(LDAP_MOD_ADD, "objectClass",
                       {"top", "cimManagedElement", "cimManagedSystemElement", "cimLogicalElement", "eSystem",
                        "eApplicationSystem"})) ||
        (rc = mods.add(LDAP_MOD_ADD, "systemName", {"ORVZEL"})) ||
        (rc = mods.add(LDAP_MOD_ADD, "description", {"Orv Zel Meta-data"})))
        return rc;
    for (const zel::db::Change &c : p.metadata)
        if ((rc = mods.add(c.op, c.type, {c.values.front().c_str()})) != 0) return rc;
    int lrc = plat::ldap_add_ext_s(s->ld, p.db.c_str(), mods.get(), nullptr, nullptr);
    return lrc == LDAP_SUCCESS ? 0 : check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_add_ext_s()");
}

ZelRC add_containers(ZelSession *s, const Plan &p, bool extended) {
    std::vector<char *> values;
    for (const std::string &v : p.acl) values.push_back(const_cast<char *>(v.c_str()));
    const int32_t all = extended ? 3 : 2;
    struct Container {
        const char *rdn, *cn;
        int32_t count;
    };
    std::vector<Container> containers = {{zel::db::kAccessGroups, "Access Groups", 1},
                                         {zel::db::kZelDomains, "Zel Domains", all},
                                         {zel::db::kServiceTypes, "Target Service Types", all}};
    if (extended)
        for (const char *cn : {"Target Groups", "Target Accounts", "Password Generators"})
            containers.push_back({nullptr, cn, 3});
    for (const Container &c : containers) {
        std::string dn = c.rdn ? p.container(c.rdn) : "cn=" + std::string(c.cn) + "," + p.db;
        int32_t count = values.empty() ? 0 : c.count;
        if (ZelRC rc = create_container(s, dn.c_str(), c.cn, nullptr, count, values.data())) return rc;
    }
    return 0;
}

ZelRC add_groups(ZelSession *s, const Plan &p, const char *admin_dn) {
    struct Group {
        const std::string &dn;
        const char *name, *member;
        const std::string &owner;
    };
    // The database entry stands in as the first member of a group that has
    // no real member yet.
    const Group groups[] = {{p.sa, "Senior Administrators", admin_dn, p.sa_subject},
                            {p.ad, "Administrators", admin_dn, p.sa_subject},
                            {p.mts, "Middle Tier Servers", p.db.c_str(), p.sa_subject},
                            {p.fu, "Full Users", p.db.c_str(), p.ad_subject},
                            {p.us, "Users", p.db.c_str(), p.ad_subject}};
    for (const Group &g : groups)
        if (ZelRC rc = create_access_group(s, g.dn.c_str(), g.name, g.member, p.subject(g.owner))) return rc;
    return 0;
}

// Owners and access-control lists: a directory that refuses one of them
// still has a usable database, so their statuses do not count.  Each is
// tried on its own: memory running out while one is built (its DN texts)
// leaves the others still to be tried, and the database stays made.
void add_access_control(ZelSession *s, const Plan &p, const char *admin_dn, unsigned char flags) {
    auto attempt = [](auto &&step) noexcept { (void)zel::guarded([&]() -> ZelRC { return step(); }); };
    const char *sa = p.subject(p.sa_subject), *ad = p.subject(p.ad_subject);
    if (flags & ZEL_CREATEDB_XR_DEFAULTS) {
        attempt([&] { return create_xr_defaults(s); });
        attempt([&] { return set_owner(s, p.service_type("Web Resource").c_str(), ad, 0, 0); });
        attempt([&] { return set_owner(s, p.service_type("Resource Group").c_str(), ad, 0, 0); });
    }
    attempt([&] { return set_nds_sradmin_acl(s, admin_dn, p.ad.c_str(), p.mts.c_str()); });
    attempt([&] { return set_nds_group_acl(s, p.sa.c_str(), sa); });
    attempt([&] { return set_nds_group_acl(s, p.ad.c_str(), sa); });
    attempt([&] { return set_nds_group_acl(s, p.mts.c_str(), sa); });
    if (flags & ZEL_CREATEDB_EXTENDED) attempt([&] { return set_nds_group_acl(s, p.fu.c_str(), ad); });
    attempt([&] { return set_nds_group_acl(s, p.us.c_str(), ad); });
    attempt([&] { return set_owner(s, p.container(zel::db::kAccessGroups).c_str(), ad, 1, 1); });
    attempt([&] { return set_owner(s, p.container(zel::db::kZelDomains).c_str(), ad, 1, 0); });
    attempt([&] { return set_owner(s, p.container(zel::db::kServiceTypes).c_str(), ad, 1, 0); });
    attempt([&] { return set_owner(s, p.db.c_str(), ad, 0, 0); });
}

// On AD the default administrator's person is a domain account that must
// get a password: the fixed default never passes a domain's password
// policy, and the account's password is set only over an encrypted
// connection.  Both are known before anything is written.
ZelRC check_ad_default_admin(ZelSession *s, const char *admin, const char *admin_password) {
    if (s->dir_kind != ZEL_DIR_ACTIVE_DIRECTORY || admin != nullptr) return 0;
    if (admin_password == nullptr) {
        zel::set_error_detail("on Active Directory the default administrator's account needs a password the "
                              "domain's policy accepts: give one, or name an existing person as the administrator");
        return ZEL_RC_INVALID_ARGUMENT;
    }
    if (!plat::connection_encrypted(s->ld)) {
        zel::set_error_detail("Active Directory sets an account's password only over an encrypted connection "
                              "(ldaps or StartTLS)");
        return ZEL_RC_NOT_AUTHORIZED;
    }
    return 0;
}

ZelRC create_database(ZelSession *s, const char *suffix, const char *admin, const char *admin_uid,
                      const char *admin_password, unsigned char flags) {
    Plan plan;
    ZelRC rc = make_plan(s, suffix, admin, flags, plan);
    if (rc != 0) return rc;

    zel::CText existing = zel::zeroed_buffer(zel::kDnSize);
    if (!existing) return ZEL_RC_NO_MEMORY;
    rc = locate_ZEL_database(s, s->suffixes, existing.get());
    if (rc == 0) return ZEL_RC_DATABASE_EXISTS;
    if (rc != ZEL_RC_DATABASE_NOT_FOUND) return rc;
    if ((rc = check_ad_default_admin(s, admin, admin_password)) != 0) return rc;
    if ((rc = ensure_suffix(s, suffix, (flags & ZEL_CREATEDB_SUFFIX) != 0)) != 0) return rc;

    // A database DN the session already holds stays as it is.
    if (s->database_dn == nullptr) {
        zel::CText dn = zel::zeroed_buffer(zel::kDnSize);
        if (!dn) return ZEL_RC_NO_MEMORY;
        std::strcpy(dn.get(), plan.db.c_str());
        s->database_dn = dn.release();
    }

    char *uid_raw = nullptr, *dn_raw = nullptr;
    rc = determine_initial_ZelAdmin(s, admin, suffix, admin_uid, admin_password, &uid_raw, &dn_raw);
    zel::CText uid(uid_raw), admin_dn(dn_raw);
    if (rc != 0) return rc;

    ZelUser user{};
    user.userName = uid.get();
    user.userType = const_cast<char *>(kSeniorAdmin);
    user.enabled = 1;
    user.personDN = admin_dn.get();
    if ((rc = create_update_ZelUser(s, &user, admin_dn.get(), 1)) != 0) return rc;

    if ((rc = add_metadata(s, plan)) != 0 || (rc = add_containers(s, plan, (flags & ZEL_CREATEDB_EXTENDED) != 0)))
        return rc;
    // Every kind gets the access groups (a user joins one whatever the kind)
    // and, when asked, the default types; only the kinds with an
    // access-control dialect get the values in it.
    if ((rc = add_groups(s, plan, admin_dn.get())) != 0) return rc;
    if (vendor_kind(s->dir_kind)) add_access_control(s, plan, admin_dn.get(), flags);
    else if (flags & ZEL_CREATEDB_XR_DEFAULTS) return create_xr_defaults(s);
    return 0;
}

}  // namespace

extern "C" {

// Only the entry of the suffix's first RDN is made; its parent must exist.
ZelRC instantiate_suffix(ZelSession *s, const char *dn) {
    ZelRC rc = 0;
    return zel::routine(s, "instantiate_suffix", [&]() -> ZelRC {
        zel::ModList mods(3);
        if (!mods.ok()) return rc = ZEL_RC_NO_MEMORY;
        LDAPDN parsed = nullptr;
        if (dn == nullptr || ldap_str2dn(dn, &parsed, LDAP_DN_FORMAT_LDAP) != LDAP_SUCCESS || !parsed ||
            !parsed[0])
            return rc = ZEL_RC_SUFFIX_UNAVAILABLE;
        zel::ParsedDn holder(parsed);
        LDAPAVA *ava = parsed[0][0];
        if (parsed[0][1] != nullptr) return rc = ZEL_RC_SUFFIX_UNAVAILABLE;  // one naming attribute only
        std::string type(ava->la_attr.bv_val, ava->la_attr.bv_len);
        std::string value(ava->la_value.bv_val, ava->la_value.bv_len);

        // Country, organization and unit keep upper-case attribute names.
        struct Naming {
            const char *type, *object_class, *attribute;
        };
        static const Naming namings[] = {{"C", "country", "C"},
                                         {"O", "organization", "O"},
                                         {"OU", "organizationalUnit", "OU"},
                                         {"DC", "domain", "dc"},
                                         {"CN", "container", "cn"}};
        const Naming *naming = nullptr;
        for (const Naming &n : namings)
            if (zel::same_text(type.c_str(), n.type)) naming = &n;
        if (naming == nullptr) return rc = ZEL_RC_SUFFIX_UNAVAILABLE;
        if ((rc = mods.add(LDAP_MOD_ADD, "objectClass", {naming->object_class})) ||
            (rc = mods.add(LDAP_MOD_ADD, naming->attribute, {value.c_str()})))
            return rc;
        int lrc = plat::ldap_add_ext_s(s->ld, dn, mods.get(), nullptr, nullptr);
        if (lrc != LDAP_SUCCESS) rc = check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_add_ext_s()");
        return rc;
    });
}

ZelRC create_container(ZelSession *s, const char *dn, const char *cn, const char *owner, int32_t count,
                       char **values) {
    ZelRC rc = 0;
    return zel::routine(s, "create_container", [&]() -> ZelRC {
        if (dn == nullptr || cn == nullptr || (count > 0 && values == nullptr)) return rc = ZEL_RC_INVALID_ARGUMENT;
        const int32_t kind = s->dir_kind;
        // The owner's rule and the given values go in one modification.
        std::vector<std::string> owned;
        if (owner != nullptr && kind == ZEL_DIR_NETSCAPE) {
            owned.emplace_back();
            if (!zel::db::owner_aci(owned.back(), dn, owner)) return rc = ZEL_RC_INVALID_ARGUMENT;
        } else if (owner != nullptr && kind == ZEL_DIR_EDIRECTORY) {
            owned.emplace_back();
            if (!zel::db::nds_entry_rights(owned.back(), owner)) return rc = ZEL_RC_INVALID_ARGUMENT;
        }
        std::vector<const char *> acl;
        for (const std::string &o : owned) acl.push_back(o.c_str());
        for (int32_t i = 0; i < count; ++i) acl.push_back(values[i]);

        zel::ModList mods(3 + (owner ? 1 : 0) + (count ? 1 : 0) + (kind == ZEL_DIR_ORV ? 1 : 0));
        if (!mods.ok()) return rc = ZEL_RC_NO_MEMORY;
        if ((rc = mods.add(LDAP_MOD_ADD, "objectClass", {"top", "container"})) ||
            (rc = mods.add(LDAP_MOD_ADD, "cn", {cn})))
            return rc;
        const int32_t n = static_cast<int32_t>(acl.size());
        char *const *v = const_cast<char *const *>(acl.data());
        if (kind == ZEL_DIR_ORV) {
            if ((owner && (rc = mods.add(LDAP_MOD_ADD, "EntryOwner", {owner}))) ||
                (count && (rc = mods.add(LDAP_MOD_ADD, "AclEntry", n, v))) ||
                (rc = mods.add(LDAP_MOD_ADD, "AclPropagate", {"true"})))
                return rc;
        } else if ((kind == ZEL_DIR_NETSCAPE || kind == ZEL_DIR_EDIRECTORY) && n > 0) {
            if ((rc = mods.add(LDAP_MOD_ADD, kind == ZEL_DIR_NETSCAPE ? "ACI" : "ACL", n, v)) != 0) return rc;
        }
        int lrc = plat::ldap_add_ext_s(s->ld, dn, mods.get(), nullptr, nullptr);
        if (lrc != LDAP_SUCCESS) rc = check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_add_ext_s()");
        return rc;
    });
}

ZelRC create_xr_defaults(ZelSession *s) {
    ZelRC rc = 0;
    return zel::routine(s, "routine", [&]() -> ZelRC {
        char resource_name[] = "resourceName", group_name[] = "groupName";
        char *resource_ids[] = {resource_name}, *group_ids[] = {group_name};
        char web_resource[] = "Web Resource", resource_group[] = "Resource Group";
        ZelTargetServiceType web{web_resource, 1, resource_ids};
        ZelTargetServiceType group{resource_group, 1, group_ids};
        if ((rc = Zel_addTargetServiceType(s, &web)) == 0) rc = Zel_addTargetServiceType(s, &group);
        return rc;
    });
}

ZEL_API ZelRC Zel_createDatabase(ZelSession *s, const char *suffix, const char *admin, const char *adminUid,
                                 const char *adminPassword, unsigned char flags) {
    ZelRC rc = 0;
    return zel::user_write_call(s, "Zel_createDatabase", {admin, suffix}, [&]() -> ZelRC {
        // A security domain session has no first-generation tree to build.
        if (s->version > 1) return rc = ZEL_RC_UNSUPPORTED_VERSION;
        if (suffix == nullptr || suffix[0] == '\0') return rc = ZEL_RC_INVALID_ARGUMENT;
        return rc = create_database(s, suffix, admin, adminUid, adminPassword, flags);
    });
}

}  // extern "C"
