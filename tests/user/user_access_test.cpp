// Per-user access control of first-generation profiles in each directory
// product's dialect, as sent with the profile's add.
#include <algorithm>
#include <cctype>

#include "support/family_fixture.h"
#include "ZelRoutines.h"

using namespace famtest;

namespace {

using Values = std::vector<std::pair<std::string, Strings>>;

const std::string kAdmins = group("Administrators");
const std::string kMts = group("Middle Tier Servers");
const std::string kProfile = "cn=jo," + kJo;

// The modifications of the profile's add as they reach the directory (one per
// attribute type), after those every kind writes.
Values access_sent() {
    Values out;
    for (const fault::Call &c : fault::calls(Fn::Add)) {
        if (c.dn != kProfile) continue;
        for (const fault::Mod &m : c.mods) {
            EXPECT_EQ(m.op, LDAP_MOD_ADD);
            static const Strings common = {"objectClass", "cn", "associatedName", "userType", "userState"};
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

// The profile is added with an empty description: the Orv and Netscape kinds
// send it as it is, the others leave it out.
std::vector<AccessCase> cases() {
    auto on_profile = [](const std::string &acl, const std::string &rule) {
        return "(target = \"ldap:///" + kProfile + "\")(targetattr = *)(version 3.0; acl \"" + acl + "\"; " + rule;
    };
    auto netscape = [&](const std::string &user_aci) {
        return Values{
            {"description", {""}},
            {"ACI",
             {on_profile("Owner access", "allow (all)groupdn = \"ldap:///" + kAdmins + "\";)"), user_aci,
              on_profile("MTS access", "allow(read, search, compare)groupdn = \"ldap:///" + kMts + "\";)"),
              on_profile("Deny others", "deny (all)(userdn != \"ldap:///all\" and groupdn != \"ldap:///" + kAdmins +
                                            "||ldap:///" + kMts + "\"); )"),
              on_profile("Deny authenticated others", "deny (all)(userdn != \"ldap:///" + kJo +
                                                          "\") and (groupdn != \"ldap:///" + kAdmins +
                                                          "\") and (groupdn != \"ldap:///" + kMts + "\");)")}}};
    };
    auto orv = [&](const std::string &user_rights, const std::string &server_rights) {
        return Values{{"description", {""}},
                      {"EntryOwner", {"group:" + kAdmins}},
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
         netscape("(targetattr != \"secretKey\")(version 3.0; acl \"User access\"; allow(read, search, compare)"
                  "userdn = \"ldap:///" + kJo + "\";)")},
        {Kind::Netscape, "XR User",
         netscape("(targetattr = \"*\")(version 3.0; acl \"User access\"; allow(add, read, write, search, compare)"
                  "userdn = \"ldap:///" + kJo + "\";)")},
        {Kind::EDirectory, "User",
         {{"ACL", {"16#subtree#" + kAdmins + "#[Entry Rights]", "16#subtree#[Root]#secretKey",
                   "3#subtree#" + kMts + "#[All Attributes Rights]"}}}},
        {Kind::Generic, "User", {}},
    };
}

class UserAccess : public UserTest, public ::testing::WithParamInterface<AccessCase> {
protected:
    Profile profile() const override { return user_profile(GetParam().kind); }
};

std::string case_name(const ::testing::TestParamInfo<AccessCase> &info) {
    std::string name = std::string(kind_name(info.param.kind)) + "_" + info.param.type;
    for (char &c : name)
        if (!isalnum(static_cast<unsigned char>(c))) c = '_';
    return name + "_" + std::to_string(info.index);
}

using EDirectoryUsers = SeededAs<Kind::EDirectory>;

}  // namespace

TEST_P(UserAccess, ProfileCarriesTheValuesOfItsDirectoryKind) {
    open(1);
    ZelUser jo = user_record("jo", GetParam().type, kJo, "");
    (void)Zel_addZelUser(s.get(), &jo);  // slapd need not accept every dialect, nor the empty value
    ASSERT_EQ(fault::count(Fn::Add), 1);
    EXPECT_EQ(access_sent(), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Kinds, UserAccess, ::testing::ValuesIn(cases()), case_name);

TEST_F(EDirectoryUsers, NoAdministratorsGroupNoAclsAndMembershipOnThePerson) {
    open(1);
    ASSERT_EQ(delete_tree(s.get(), kAdmins.c_str()), 0u);
    fault::reset();
    ZelUser jo = user_record("jo", "User", kJo);
    ASSERT_EQ(Zel_addZelUser(s.get(), &jo), 0u);
    EXPECT_TRUE(access_sent().empty());

    // eDirectory also records the membership on the person entry.
    ASSERT_EQ(fault::count(Fn::ModifyS), 1);
    Entry person = dir->entry(kJo);
    EXPECT_EQ(person.values("securityEquals"), Strings{group("Users")});
    EXPECT_EQ(person.values("groupMembership"), Strings{group("Users")});

    ASSERT_EQ(Zel_removeZelUser(s.get(), "jo"), 0u);
    EXPECT_FALSE(dir->entry(kJo).has("groupMembership"));
    EXPECT_TRUE(members("Users").empty());
}

// The person's own record follows only a change the group really took: an
// existing membership (20) or a missing one (16) leaves the person alone.
TEST_F(EDirectoryUsers, RepeatedMembershipEditsLeaveThePersonAlone) {
    open(1);
    const std::string profile = "cn=ann," + kAnn;
    std::vector<int> person_edits;
    for (bool join : {true, true, false, false}) {
        fault::reset();
        EXPECT_EQ(join ? add_ZelUser_to_group(s.get(), kAnn.c_str(), "User")
                       : remove_ZelUser_from_group(s.get(), profile.c_str(), "User"),
                  0u);
        person_edits.push_back(fault::count(Fn::ModifyS));
    }
    EXPECT_EQ(person_edits, (std::vector<int>{1, 0, 1, 0}));
}

// Removal takes the user out of the groups its creation put it in on AD,
// which has no access dialect of its own, as on the generic kind
// (UserTest.FirstGenerationProfilesAndGroupsFollowTheUserType).
using AdUsers = SeededAs<Kind::ActiveDirectory>;

TEST_F(AdUsers, RemovalLeavesTheAccessGroupsItJoined) {
    open(1);
    ZelUser jo = user_record("jo", "User", kJo);
    ASSERT_EQ(Zel_addZelUser(s.get(), &jo), 0u);
    EXPECT_EQ(members("Users"), Strings{kJo}) << "adding does join the group";
    ASSERT_EQ(Zel_removeZelUser(s.get(), "jo"), 0u);
    EXPECT_FALSE(dir->exists(kProfile));
    EXPECT_TRUE(members("Users").empty());
}
