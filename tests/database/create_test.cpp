// Database creation: what it refuses without writing, the tree and access
// control it writes on each directory kind, and the suffix entry it makes.
#include <ldap.h>

#include "support/family_fixture.h"
#include "ZelRoutines.h"

using namespace famtest;

namespace {

const std::vector<std::string> kBaseTree = {"o=acme", "secAuthority=Default,o=acme"};
const std::string kRights = ":normal:rsc:sensitive:rsc:critical:rsc";

std::string aci(const std::string &name, const std::string &rest) {
    return "(targetattr = *)(version 3.0; acl \"" + name + "\"; " + rest + ";)";
}

// An ACI that names the entry it guards.
std::string aci_on(const std::string &dn, const std::string &name, const std::string &rest) {
    return "(target = \"ldap:///" + dn + "\")" + aci(name, rest);
}

std::string groups_except(std::initializer_list<const char *> names) {
    std::string out;
    for (const char *n : names)
        out += std::string(out.empty() ? "" : " and ") + "(groupdn != \"ldap:///" + group(n) + "\")";
    return out;
}

}  // namespace

TEST_F(DatabaseTest, RefusalsWriteNothing) {
    ZelSession *v2 = nullptr;
    ASSERT_EQ(try_open(*dir, 2, &v2), 0u);
    Session domain_session(v2);
    struct Case {
        const char *what;
        ZelSession *session;
        const char *suffix, *admin;
        unsigned char flags;
        ZelRC rc;
    } cases[] = {
        {"null handle", nullptr, "o=acme", nullptr, 0, ZEL_RC_INVALID_HANDLE},
        {"security domain session, no suffix", v2, nullptr, nullptr, 0, ZEL_RC_UNSUPPORTED_VERSION},
        {"no suffix", s.get(), nullptr, nullptr, 0, ZEL_RC_INVALID_ARGUMENT},
        {"empty suffix", s.get(), "", nullptr, 0, ZEL_RC_INVALID_ARGUMENT},
        {"suffix not on the server", s.get(), "o=nowhere", nullptr, ZEL_CREATEDB_SUFFIX,
         ZEL_RC_SUFFIX_UNAVAILABLE},
        {"missing administrator", s.get(), "o=acme", "cn=Nobody,o=acme", 0, ZEL_RC_NO_SUCH_OBJECT},
    };
    for (const Case &c : cases) {
        fault::reset();
        EXPECT_EQ(Zel_createDatabase(c.session, c.suffix, c.admin, nullptr, nullptr, c.flags), c.rc) << c.what;
        EXPECT_EQ(fault::count(Fn::Add) + fault::count(Fn::Modify), 0) << c.what;
    }
    EXPECT_EQ(tree(), kBaseTree);

    ASSERT_EQ(create(), 0u);
    const std::vector<std::string> created = tree();
    fault::reset();
    EXPECT_EQ(create(ZEL_CREATEDB_EXTENDED), ZEL_RC_DATABASE_EXISTS);
    EXPECT_EQ(fault::count(Fn::Add) + fault::count(Fn::Modify), 0);
    EXPECT_EQ(tree(), created);
}

// The tree, the containers' access values, the groups and the owners, per
// directory kind and creation flags.
struct KindCase {
    const char *name;
    Kind kind;
    unsigned char flags;
    Strings tree;                                         // below the database entry
    Strings metadata;                                     // its access-control values
    const char *acl_attr;                                 // the kind's access attribute
    Strings domains_access;                               // on cn=Zel Domains
    Strings full_users;                                   // objectClass, member, owner of the group
    std::vector<std::pair<std::string, Strings>> more;    // "<attribute>@<DN>" and its values
};
void PrintTo(const KindCase &c, std::ostream *os) { *os << c.name; }

class CreatesOn : public DatabaseTest, public testing::WithParamInterface<KindCase> {
protected:
    Profile profile() const override { return Profile().kind_is(GetParam().kind); }
};

TEST_P(CreatesOn, TreeAccessValuesGroupsAndOwners) {
    const KindCase &c = GetParam();
    ASSERT_EQ(create(c.flags), 0u);
    Strings want = c.tree;
    std::sort(want.begin(), want.end());
    EXPECT_EQ(tree(kDb), want);
    Entry db = dir->entry(kDb);
    EXPECT_EQ(db.values("objectClass"), (Strings{"top", "cimManagedElement", "cimManagedSystemElement",
                                                 "cimLogicalElement", "eSystem", "eApplicationSystem"}));
    Strings metadata;
    for (const char *a : {"EntryOwner", "OwnerPropagate", "AclPropagate", "AclEntry", "ACI", "ACL"})
        for (const std::string &v : db.values(a)) metadata.push_back(std::string(a) + "=" + v);
    EXPECT_EQ(metadata, c.metadata);
    EXPECT_EQ(values(below("cn=Zel Domains"), c.acl_attr), c.domains_access);
    if (!c.full_users.empty()) {
        Entry fu = dir->entry(group("Full Users"));
        const char *owner = c.kind == Kind::EDirectory ? "ACL" : "EntryOwner";
        EXPECT_EQ((Strings{fu.first("objectClass"), fu.first("member"), fu.first(owner)}), c.full_users);
    }
    for (const auto &[where, values_there] : c.more) {
        const size_t at = where.find('@');
        EXPECT_EQ(values(where.substr(at + 1), where.substr(0, at).c_str()), values_there) << where;
    }
    // The administrator is a person with a Zel profile below it.
    EXPECT_EQ(dir->entry("cn=Zel Sr Admin," + kDefaultAdmin).first("userType"), "Senior Admin");
}

Strings with_groups(Strings tree, bool types) {
    for (const char *g : {"Senior Administrators", "Administrators", "Middle Tier Servers", "Full Users", "Users"})
        tree.push_back(group(g));
    if (types)
        for (const char *t : {"Web Resource", "Resource Group"})
            tree.push_back(std::string("tsType=") + t + ",cn=Target Service Types," + kDb);
    return tree;
}

std::vector<KindCase> kind_cases() {
    const Strings containers = {kDb, below("cn=Access Groups"), below("cn=Zel Domains"),
                                below("cn=Target Service Types")};
    Strings extended = containers;
    for (const char *c : {"cn=Target Groups", "cn=Target Accounts", "cn=Password Generators"})
        extended.push_back(below(c));
    const std::string admins = group("Administrators"), mts = group("Middle Tier Servers"), us = group("Users");
    const Strings orv_metadata = {"EntryOwner=group:" + admins, "OwnerPropagate=true", "AclPropagate=true",
                                  "AclEntry=group:CN=ANYBODY:normal:rsc"};
    const std::string restricted = kRights + ":restricted:rsc";
    const std::string entry_rights = "16#subtree#" + admins + "#[Entry Rights]", all = "#[All Attributes Rights]";
    return {
        // The access groups (of the standard class) and the default types on
        // every kind; no access values of its own.
        {"Generic", Kind::Generic, ZEL_CREATEDB_XR_DEFAULTS, with_groups(containers, true), {}, "AclEntry", {},
         {"groupOfNames", kDb, ""}, {{"member@" + group("Administrators"), {kDefaultAdmin}}}},
        {"Orv", Kind::Orv, ZEL_CREATEDB_EXTENDED | ZEL_CREATEDB_XR_DEFAULTS, with_groups(extended, true), orv_metadata,
         "AclEntry", {"group:" + mts + kRights, "group:" + us + kRights, "group:" + group("Full Users") + kRights},
         {"accessGroup", kDb, "group:" + admins},
         {{"member@" + group("Senior Administrators"), {kDefaultAdmin}},
          {"AclEntry@" + below("cn=Access Groups"), {"group:" + mts + kRights}},
          {"EntryOwner@tsType=Web Resource,cn=Target Service Types," + kDb, {"group:" + admins}}}},
        // The mainframe host adds the restricted class.
        {"Tessan", Kind::OrvTessan, 0, with_groups(containers, false), orv_metadata, "AclEntry",
         {"group:" + mts + restricted, "group:" + us + restricted}, {"accessGroup", kDb, "group:" + admins}, {}},
        // NDS ACLs, and membership kept on the members too.
        {"EDirectory", Kind::EDirectory, ZEL_CREATEDB_EXTENDED, with_groups(extended, false), {"ACL=" + entry_rights},
         "ACL", {entry_rights}, {"groupOfNames", kDb, ""},
         {{"ACL@" + below("cn=Target Groups"),
           {"3#subtree#" + mts + all, "3#subtree#" + us + all, "3#entry#" + group("Full Users") + all}},
          {"groupMembership@" + kDefaultAdmin, {group("Senior Administrators"), admins}},
          {"ACL@" + kDefaultAdmin, {entry_rights, "16#subtree#[Root]#secretKey", "3#subtree#" + mts + all}}}},
    };
}

// A creation after a removal answers as the first one did: what the removal
// leaves outside the database (eDirectory keeps membership on the member as
// well) never stands in its way.
TEST_P(CreatesOn, AgainAfterRemoval) {
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(create(GetParam().flags), 0u) << round;
        fault::reset();
        // slapd takes no schema over LDAP: a probing kind's probe is answered for it.
        fault::fail_call(Fn::ModifyS, 1, LDAP_SUCCESS);
        fault::fail_call(Fn::ModifyS, 2, LDAP_SUCCESS);
        ASSERT_EQ(Zel_removeDatabase(s.get()), 0u) << round;
        fault::reset();
    }
    EXPECT_EQ(create(GetParam().flags), 0u);
}

INSTANTIATE_TEST_SUITE_P(Kinds, CreatesOn, testing::ValuesIn(kind_cases()),
                         [](const testing::TestParamInfo<KindCase> &i) { return std::string(i.param.name); });

// A server suffix whose entry is missing is made from its first RDN.
class SuffixEntry : public DatabaseTest {
protected:
    Profile profile() const override {
        Profile p;
        p.suffixes = {"ou=Zel Data", "o=acme"};
        p.domain = "";
        return p;
    }
};

TEST_F(SuffixEntry, MadeOnlyWhenAllowed) {
    dir->modify("dn: ou=Zel Data\nchangetype: delete\n");
    ASSERT_FALSE(dir->exists("ou=Zel Data"));
    EXPECT_EQ(create(0, nullptr, "ou=Zel Data"), ZEL_RC_SUFFIX_UNAVAILABLE);
    EXPECT_EQ(fault::count(Fn::Add), 0);
    ASSERT_EQ(create(ZEL_CREATEDB_SUFFIX, nullptr, "ou=Zel Data"), 0u);
    Entry suffix = dir->entry("ou=Zel Data");
    EXPECT_EQ(suffix.values("objectClass"), std::vector<std::string>{"organizationalUnit"});
    EXPECT_EQ(suffix.values("ou"), std::vector<std::string>{"Zel Data"});
    EXPECT_EQ(fault::calls(Fn::Add).front().mods[1].type, "OU");
    EXPECT_TRUE(dir->exists("systemName=ORVZEL,ou=Zel Data"));
}

// The ACI dialect: exact texts on the metadata entry, the containers and the
// owner rules.  slapd's groupOfNames cannot hold an ACI, so creation stops at
// the first access group with the schema status.  (The administrator's
// profile carries two ACI modifications in one add, which slapd takes once
// the client merges same-type adds.)
using NetscapeDatabase = DatabaseTestAs<Kind::Netscape>;

TEST_F(NetscapeDatabase, AciTextsAndTheRefusedGroup) {
    EXPECT_EQ(create(ZEL_CREATEDB_EXTENDED), ZEL_RC_SCHEMA_VIOLATION);
    EXPECT_EQ(values(kDb, "ACI"),
              std::vector<std::string>{
                  aci("Anonymous access", "allow (read, search, compare)userdn = \"ldap:///anyone\"")});
    const std::string read = "allow(read, search, compare)groupdn = \"ldap:///";
    EXPECT_EQ(
        values(below("cn=Target Service Types"), "ACI"),
        (std::vector<std::string>{aci("MTS access", read + group("Middle Tier Servers") + "\""),
                                  aci("User access", read + group("Users") + "\""),
                                  aci("Full User access", "allow(read, search, compare) groupdn = \"ldap:///" +
                                                                group("Full Users") + "\"")}));
    EXPECT_FALSE(dir->exists(group("Senior Administrators")));

    // Owner rules with both forms of the deny rules.
    const std::string admins = "groupdn = \"ldap:///" + group("Administrators") + "\"";
    const std::string domains = below("cn=Zel Domains"), access = below("cn=Access Groups");
    ASSERT_EQ(set_owner(s.get(), domains.c_str(), admins.c_str(), 1, 0), 0u);
    ASSERT_EQ(set_owner(s.get(), access.c_str(), admins.c_str(), 1, 1), 0u);
    const std::string spared = groups_except({"Senior Administrators", "Administrators", "Middle Tier Servers", "Users"});
    std::vector<std::string> got = values(domains, "ACI");
    EXPECT_EQ(std::vector<std::string>(got.begin() + 3, got.end()),
              (std::vector<std::string>{
                  aci_on(domains, "Owner access", "allow (all)" + admins),
                  aci_on(domains, "Deny others", "deny (all)((userdn != \"ldap:///all\") and " + spared + ")"),
                  aci_on(domains, "Deny authenticated others", "deny (all) " + spared)}));
    got = values(access, "ACI");
    EXPECT_EQ(got.back(), aci_on(access, "Deny authenticated others",
                                 "deny (all) " + groups_except({"Senior Administrators", "Administrators",
                                                                "Middle Tier Servers"})));
}

// On AD the default administrator is a domain account: without a password
// of the caller's (the fixed default passes no domain's policy), or with one
// over a plain connection, creation is refused before anything is written.
using AdDatabase = DatabaseTestAs<Kind::ActiveDirectory>;
TEST_F(AdDatabase, DefaultAdministratorNeedsAPasswordAndEncryption) {
    const std::vector<std::string> before = tree();
    const struct {
        const char *password;
        ZelRC rc;
        const char *why;
    } cases[] = {
        {nullptr, ZEL_RC_INVALID_ARGUMENT, "needs a password"},
        {"Admin-pw-AD-1", ZEL_RC_NOT_AUTHORIZED, "only over an encrypted connection"},
    };
    for (const auto &c : cases) {
        fault::reset();
        EXPECT_EQ(Zel_createDatabase(s.get(), "o=acme", nullptr, nullptr, c.password, 0), c.rc);
        const std::string detail = Zel_last_error_detail();
        EXPECT_NE(detail.find(c.why), std::string::npos) << detail;
        EXPECT_EQ(detail.find("Admin-pw"), std::string::npos);
        EXPECT_EQ(fault::count(Fn::Add) + fault::count(Fn::Modify), 0);
    }
    EXPECT_EQ(tree(), before);
}
