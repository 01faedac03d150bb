// zelctl user: the administrator's commands end to end.
#include "user/user_fixture.h"

using namespace usertest;

namespace {

class ZelctlUser : public UserTest {
protected:
    CommandResult zelctl(std::vector<std::string> args, const char *api_version = "1") {
        std::vector<std::string> argv = {ZELCTL_PATH, "-H", dir->uri(), "-D", dir->admin_dn(), "-w",
                                         Directory::admin_password(), "--api-version", api_version};
        argv.insert(argv.end(), args.begin(), args.end());
        CommandResult r = run_command(argv);
        EXPECT_EQ(r.out.find(Directory::admin_password()), std::string::npos);
        EXPECT_EQ(r.err.find(Directory::admin_password()), std::string::npos);
        return r;
    }
};

}  // namespace

TEST_F(ZelctlUser, RegisterVerifyUpdateRemove) {
    CommandResult r = zelctl({"user", "add", "jo", "--type", "User", "--person", kJo, "--description", "Jo"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "Zel user jo added\n");

    r = zelctl({"user", "verify", kJo});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, kJo + " is a Zel user: cn=jo," + kJo + "\n");
    r = zelctl({"--json", "user", "verify", kAnn});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "{\"person\":\"" + kAnn + "\",\"zelUser\":false,\"profile\":null}\n");

    r = zelctl({"user", "update", "jo", "--disabled"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(dir->entry("cn=jo," + kJo).first("userState"), "Inactive");

    r = zelctl({"user", "remove", "jo", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "{\"user\":\"jo\",\"removed\":true}\n");
    r = zelctl({"user", "remove", "jo"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "zelctl: cannot remove Zel user jo: ZEL_RC_USER_NOT_FOUND: Zel user not found (status 19)\n");
}

TEST_F(ZelctlUser, SecurityDomainUserAndUsageErrors) {
    CommandResult r = zelctl({"user", "add", "ann", "--type", "Senior Admin"}, "2");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(dir->exists("principalName=ann," + kDomainUsers));

    EXPECT_EQ(zelctl({"user", "add", "jo"}).status, 2) << "the type is required";
    EXPECT_EQ(zelctl({"user", "add", "jo", "--type"}).status, 2);
    EXPECT_EQ(zelctl({"user", "update", "jo", "--enabled", "--disabled"}).status, 2);
    EXPECT_EQ(zelctl({"user", "remove", "jo", "--force"}).status, 2);
    r = zelctl({"user", "add", "jo", "--type", "Boss"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("(status 1005)"), std::string::npos) << r.err;
}
