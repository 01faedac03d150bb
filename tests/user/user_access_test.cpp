// Per-user access control of first-generation profiles in each directory
// product's dialect, as sent with the profile's add.
#include <algorithm>
#include <cctype>

#include "user/user_fixture.h"

using namespace usertest;

namespace {

using Strings = std::vector<std::string>;
using Values = std::vector<std::pair<std::string, Strings>>;

const std::string kAdmins = group("Administrators");
const std::string kMts = group("Middle Tier Servers");
const std::string kProfile = "cn=jo," + kJo;

// The modifications of the profile's add, after those every kind writes.
Values access_sent() {
    Values out;
    for (const fault::Call &c : fault::calls(Fn::Add)) {
        if (c.dn != kProfile) continue;
        for (const fault::Mod &m : c.mods) {
            EXPECT_EQ(m.op, LDAP_MOD_ADD);
            static const Strings common = {"objectClass", "cn", "associatedName", "userType", "userState",
                                           "description"};
            if (std::find(common.begin(), common.end(), m.type) == common.end()) out.push_back({m.type, m.values});
        }
    }
    return out;
}

struct AccessCase {
    Kind kind;
    const char *type;
    Values expected;
};

// Keeps ctest's test names readable (the default prints the raw bytes).
[[maybe_unused]] void PrintTo(const AccessCase &c, std::ostream *os) { *os << kind_name(c.kind) << "/" << c.type; }

const std::string kReader = ":normal:rsc:sensitive:rsc:critical:rsc";
const std::string kWriter = ":object:a:normal:rwsc:sensitive:rsc:critical:rwsc";

std::vector<AccessCase> cases() {
    const std::string deny_others = "(target = \"ldap:///" + kProfile +
                                    "\")(targetattr = *)(version 3.0; acl \"Deny others\"; deny (all)(userdn != "
                                    "\"ldap:///all\" or groupdn != \"ldap:///" + kAdmins + "||ldap:///" + kMts +
                                    "\"); )";
    const std::string deny_authenticated =
        "(target = \"ldap:///" + kProfile +
        "\")(targetattr = *)(version 3.0; acl \"Deny authenticated others\"; deny (all)(userdn != \"ldap:///" + kJo +
        "\") and (groupdn != \"ldap:///" + kAdmins + "\") and (groupdn != \"ldap:///" + kMts + "\");)";
    const std::string owner_aci = "(target = \"ldap:///" + kProfile +
                                  "\")(targetattr = *)(version 3.0; acl \"Owner access\"; allow (all)groupdn = "
                                  "\"ldap:///" + kAdmins + "\";)";
    const std::string mts_aci = "(target = \"ldap:///" + kProfile +
                                "\")(targetattr = *)(version 3.0; acl \"MTS access\"; allow(read, search, "
                                "compare)groupdn = \"ldap:///" + kMts + "\";)";
    auto orv = [&](const std::string &user_rights, const std::string &server_rights) {
        return Values{{"EntryOwner", {"group:" + kAdmins}},
                      {"OwnerPropagate", {"true"}},
                      {"AclEntry", {"access-id:" + kJo + user_rights, "group:" + kMts + server_rights}},
                      {"AclPropagate", {"true"}}};
    };
    return {
        {Kind::Orv, "User", orv(kReader, kReader)},
        {Kind::Orv, "Senior Admin", orv(kWriter, kReader)},
        {Kind::OrvTessan, "user", orv(kReader + ":restricted:rsc", kReader + ":restricted:rsc")},
        {Kind::OrvKelmar, "Middle Tier Server", orv(kWriter + ":restricted:rwsc", kReader + ":restricted:rsc")},
        {Kind::Netscape, "User",
         {{"ACI", {owner_aci}},
          {"ACI",
           {"(targetattr != \"secretKey\")(version 3.0; acl \"User access\"; allow(read, search, compare)userdn = "
            "\"ldap:///" + kJo + "\";)",
            mts_aci, deny_others, deny_authenticated}}}},
        {Kind::Netscape, "XR User",
         {{"ACI", {owner_aci}},
          {"ACI",
           {"(targetattr = \"*\")(version 3.0; acl \"User access\"; allow(add, read, write, search, compare)userdn = "
            "\"ldap:///" + kJo + "\";)",
            mts_aci, deny_others, deny_authenticated}}}},
        {Kind::EDirectory, "User",
         {{"ACL", {"16#subtree#" + kAdmins + "#[Entry Rights]"}},
          {"ACL", {"16#subtree#[Root]#secretKey", "3#subtree#" + kMts + "#[All Attributes Rights]"}}}},
        {Kind::Generic, "User", {}},
        {Kind::ActiveDirectory, "User", {}},
    };
}

class UserAccess : public UserTest, public ::testing::WithParamInterface<AccessCase> {
protected:
    Profile profile() const override { return seeded(GetParam().kind); }
};

std::string case_name(const ::testing::TestParamInfo<AccessCase> &info) {
    std::string name = std::string(kind_name(info.param.kind)) + "_" + info.param.type;
    for (char &c : name)
        if (!isalnum(static_cast<unsigned char>(c))) c = '_';
    return name + "_" + std::to_string(info.index);
}

class EDirectoryUsers : public UserTest {
protected:
    Profile profile() const override { return seeded(Kind::EDirectory); }
};

class ActiveDirectoryUsers : public UserTest {
protected:
    Profile profile() const override { return seeded(Kind::ActiveDirectory); }
};

class OrvUsers : public UserTest {
protected:
    Profile profile() const override { return seeded(Kind::Orv); }
};

}  // namespace

TEST_P(UserAccess, ProfileCarriesTheValuesOfItsDirectoryKind) {
    open(1);
    ZelUser jo = user_record("jo", GetParam().type, kJo);
    (void)Zel_addZelUser(s.get(), &jo);  // slapd need not accept every dialect
    ASSERT_EQ(fault::count(Fn::Add), 1);
    EXPECT_EQ(access_sent(), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Kinds, UserAccess, ::testing::ValuesIn(cases()), case_name);

TEST_F(EDirectoryUsers, NoAdministratorsGroupNoAclsAndMembershipOnThePerson) {
    open(1);
    ASSERT_EQ(delete_tree(s.get(), kAdmins.c_str()), 0u);
    fault::reset();
    ZelUser jo = user_record("jo", "User", kJo, "");
    ASSERT_EQ(Zel_addZelUser(s.get(), &jo), 0u);
    EXPECT_TRUE(access_sent().empty());
    auto adds = fault::calls(Fn::Add);
    ASSERT_EQ(adds.size(), 1u);
    for (const fault::Mod &m : adds[0].mods) EXPECT_NE(m.type, "description") << "empty descriptions are left out";

    // eDirectory also records the membership on the person entry.
    auto person_edits = fault::calls(Fn::ModifyS);
    ASSERT_EQ(person_edits.size(), 1u);
    EXPECT_EQ(person_edits[0].dn, kJo);
    Entry person = dir->entry(kJo);
    EXPECT_EQ(person.values("securityEquals"), Strings{group("Users")});
    EXPECT_EQ(person.values("groupMembership"), Strings{group("Users")});

    ASSERT_EQ(Zel_removeZelUser(s.get(), "jo"), 0u);
    EXPECT_FALSE(dir->entry(kJo).has("groupMembership"));
    EXPECT_TRUE(members("Users").empty());
}

TEST_F(OrvUsers, EmptyDescriptionIsSentAsItIs) {
    open(1);
    ZelUser jo = user_record("jo", "User", kJo, "");
    (void)Zel_addZelUser(s.get(), &jo);  // slapd itself refuses the empty value
    auto adds = fault::calls(Fn::Add);
    ASSERT_EQ(adds.size(), 1u);
    bool sent = false;
    for (const fault::Mod &m : adds[0].mods)
        if (m.type == "description") sent = m.values == Strings{""};
    EXPECT_TRUE(sent);
}

TEST_F(ActiveDirectoryUsers, RemovalLeavesGroupsAloneAndEmptyDescriptionIsDeleted) {
    open(1);
    ZelUser jo = user_record("jo", "User", kJo, "first");
    ASSERT_EQ(Zel_addZelUser(s.get(), &jo), 0u);
    EXPECT_EQ(members("Users"), Strings{kJo}) << "adding does join the group";

    ZelUser update = user_record("jo", "User", kJo, "");
    ASSERT_EQ(Zel_updateZelUser(s.get(), &update), 0u);
    auto edits = fault::calls(Fn::Modify);
    ASSERT_FALSE(edits.empty());
    ASSERT_EQ(edits.back().mods.size(), 2u);
    EXPECT_EQ(edits.back().mods[1].op, LDAP_MOD_DELETE);
    EXPECT_EQ(edits.back().mods[1].type, "description");
    EXPECT_FALSE(dir->entry(kProfile).has("description"));

    ASSERT_EQ(Zel_removeZelUser(s.get(), "jo"), 0u);
    EXPECT_FALSE(dir->exists(kProfile));
    EXPECT_EQ(members("Users"), Strings{kJo});
}
