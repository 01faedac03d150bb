// zelctl user: the administrator's commands end to end.
#include "support/zelctl.h"
#include "user/user_fixture.h"

using namespace usertest;

TEST_F(UserTest, ZelctlRegistersVerifiesUpdatesAndRemoves) {
    CommandResult r = zelctl(*dir, {"user", "add", "jo", "--type", "User", "--person", kJo, "--description", "Jo"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "Zel user jo added\n");

    r = zelctl(*dir, {"user", "verify", kJo});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, kJo + " is a Zel user: cn=jo," + kJo + "\n");
    r = zelctl(*dir, {"--json", "user", "verify", kAnn});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "{\"person\":\"" + kAnn + "\",\"zelUser\":false,\"profile\":null}\n");

    r = zelctl(*dir, {"user", "update", "jo", "--disabled"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(dir->entry("cn=jo," + kJo).first("userState"), "Inactive");

    r = zelctl(*dir, {"user", "remove", "jo", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "{\"user\":\"jo\",\"removed\":true}\n");
    r = zelctl(*dir, {"user", "remove", "jo"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "zelctl: cannot remove Zel user jo: ZEL_RC_USER_NOT_FOUND: Zel user not found (status 19)\n");

    // A security domain session, and usage errors.
    ASSERT_EQ(zelctl(*dir, {"user", "add", "ann", "--type", "Senior Admin"}, "2").status, 0);
    EXPECT_TRUE(dir->exists("principalName=ann," + kDomainUsers));
    EXPECT_EQ(zelctl(*dir, {"user", "add", "jo"}).status, 2) << "the type is required";
    EXPECT_EQ(zelctl(*dir, {"user", "add", "jo", "--type"}).status, 2);
    EXPECT_EQ(zelctl(*dir, {"user", "update", "jo", "--enabled", "--disabled"}).status, 2);
    EXPECT_EQ(zelctl(*dir, {"user", "remove", "jo", "--force"}).status, 2);
}

// An update changes only what it names; a disabled account stays disabled
// (whether or not the library lets a disabled profile be updated at all).
TEST_F(UserTest, ZelctlUpdateChangesOnlyWhatItNames) {
    std::vector<std::string> got;
    for (const char *version : {"1", "2"}) {
        const bool first_gen = version[0] == '1';
        const char *state = first_gen ? "userState" : "secAcctValid";
        auto profile = [&](const char *name, const std::string &person) {
            return dir->entry(first_gen ? "cn=" + std::string(name) + "," + person
                                        : "principalName=" + std::string(name) + "," + kDomainUsers);
        };
        ASSERT_EQ(zelctl(*dir, {"user", "add", "max", "--type", "User", "--person", kMax, "--disabled"}, version).status, 0);
        ASSERT_EQ(zelctl(*dir, {"user", "add", "ann", "--type", "User", "--person", kAnn}, version).status, 0);
        (void)zelctl(*dir, {"user", "update", "max", "--description=Max"}, version);
        CommandResult r = zelctl(*dir, {"user", "update", "ann", "--description=Ann"}, version);
        EXPECT_EQ(r.status, 0) << r.err;
        got.push_back(profile("max", kMax).first(state));
        got.push_back(profile("ann", kAnn).first(state) + " " + profile("ann", kAnn).first("description"));
    }
    EXPECT_EQ(got, (std::vector<std::string>{"Inactive", "Active Ann", "FALSE", "TRUE Ann"}));
    CommandResult r = zelctl(*dir, {"user", "update", "nobody", "--enabled"});
    EXPECT_EQ(r.err, "zelctl: cannot read Zel user nobody: ZEL_RC_USER_NOT_FOUND: Zel user not found (status 19)\n");
}
