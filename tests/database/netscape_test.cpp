// The ACI dialect: exact texts on the metadata entry, the containers and the
// owner rules.  slapd's groupOfNames cannot hold an ACI, so creation stops at
// the first access group with the schema status.  (The administrator's
// profile carries two ACI modifications in one add, which slapd takes once
// the client merges same-type adds.)
#include "database/db_fixture.h"

using namespace dbtest;

namespace {

std::string aci(const std::string &name, const std::string &rest) {
    return "(targetattr = *)(version 3.0; acl \"" + name + "\"; " + rest + ";)";
}

std::string owner_rule(const std::string &dn) {
    return "(target = \"ldap:///" + dn + "\")" +
           aci("Owner access", "allow (all)groupdn = \"ldap:///" + group("Administrators") + "\"");
}

std::string groups_except(std::initializer_list<const char *> names) {
    std::string out;
    for (const char *n : names)
        out += std::string(out.empty() ? "" : " and ") + "(groupdn != \"ldap:///" + group(n) + "\")";
    return out;
}

}  // namespace

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
    auto deny = [&](const std::string &dn, std::initializer_list<const char *> spared) {
        return "(target = \"ldap:///" + dn +
               "\")(targetattr = *)(version 3.0; acl \"Deny authenticated others\"; deny (all) " +
               groups_except(spared) + ";)";
    };
    const std::string deny_others =
        "(target = \"ldap:///" + domains +
        "\")(targetattr = *)(version 3.0; acl \"Deny others\"; deny (all)((userdn != "
        "\"ldap:///all\") and " +
        groups_except({"Senior Administrators", "Administrators", "Middle Tier Servers", "Users"}) + ");)";
    std::vector<std::string> got = values(domains, "ACI");
    EXPECT_EQ(std::vector<std::string>(got.begin() + 3, got.end()),
              (std::vector<std::string>{
                  owner_rule(domains), deny_others,
                  deny(domains, {"Senior Administrators", "Administrators", "Middle Tier Servers", "Users"})}));
    got = values(access, "ACI");
    EXPECT_EQ(got.back(), deny(access, {"Senior Administrators", "Administrators", "Middle Tier Servers"}));
}
