// zelctl --dry-run: every command that writes leaves the directory as it
// was, says what it would do, and foresees the failure the write would meet.
#include <sys/stat.h>

#include <sstream>

#include "support/key_files.h"
#include "support/zelctl.h"
#include "user/user_fixture.h"

using namespace usertest;

namespace {

class ZelctlDryRun : public UserTest {
protected:
    void SetUp() override {
        UserTest::SetUp();
        run_rows(*dir, {{"2", {"service", "add", "intranet", "--type", "Web Resource"}},
                        {"2", {"service", "add", "mail", "--type", "Web Resource"}},
                        {"2", {"domain", "add", "staff", "--member", "intranet"}},
                        {"2", {"user", "add", "jo", "--person", kJo}},
                        {"2", {"record", "add", "jo", "T:intranet", "--service", "intranet", "--account", "jo.direct",
                               "--password-stdin"}, 0, "", "intranet-pw\n"}}, {}, true);
    }

    // Every entry below the suffix with its attributes, in one text.
    std::string tree() const {
        std::ostringstream out;
        for (const Entry &e : dir->search(dir->suffix())) {
            out << e.dn << "\n";
            for (const auto &[attr, values] : e.attrs)
                for (const std::string &v : values) out << "  " << attr << ": " << v << "\n";
        }
        return out.str();
    }
};

}  // namespace

TEST_F(ZelctlDryRun, EveryWritingCommandLeavesTheDirectoryAsItWas) {
    const std::string keys = key_file(kKeyLineA + " active\n");
    const std::string new_key_file = testing::TempDir() + "dry-run-keys-" + std::to_string(getpid());
    const std::string admin_pw = key_file("admin-pw\n");
    struct Case {
        std::vector<std::string> args;
        const char *api;
        int status;
        std::string phrase;
    };
    const Case cases[] = {
        {{"service", "add", "wiki", "--type", "Web Resource"}, "2", 0, "would add target service wiki"},
        {{"service", "remove", "mail"}, "2", 0, "would remove target service mail"},
        {{"service-type", "add", "Web Application", "--id", "url"}, "1", 0, "would add target service type"},
        {{"service-type", "remove", "Web Application"}, "1", 0, "would remove target service type"},
        {{"user", "add", "ann", "--person", kAnn}, "2", 0, "would add Zel user ann"},
        {{"user", "update", "jo", "--disabled"}, "2", 0, "state: \"enabled\" -> \"disabled\""},
        {{"user", "remove", "jo"}, "2", 0, "with its 1 target records"},
        {{"domain", "add", "ops", "--member", "mail"}, "2", 0, "members: \"mail\""},
        {{"domain", "update", "staff", "--member", "mail"}, "2", 0, "members: \"intranet\" -> \"mail\""},
        {{"domain", "remove", "staff"}, "2", 0, "would remove resource group staff"},
        {{"domain", "add-member", "staff", "mail"}, "2", 0, "would add member mail to resource group staff"},
        {{"domain", "remove-member", "staff", "intranet"}, "2", 0, "would remove member intranet"},
        {{"record", "add", "jo", "T:mail", "--service", "mail", "--password-file", "/nonexistent"}, "2", 2,
         "cannot read the password file"},
        {{"record", "add", "jo", "T:mail", "--service", "mail", "--password-file", admin_pw}, "2", 0,
         "a password would be set"},
        {{"record", "update", "jo", "T:intranet", "--service", "intranet", "--account", "jo.new"}, "2", 0,
         "account: \"jo.direct\" -> \"jo.new\""},
        {{"record", "remove", "jo", "T:intranet"}, "2", 0, "would remove target record T:intranet of jo"},
        {{"record", "rekey", "--all"}, "2", 0, "1 target records"},
        {{"person", "add", "o=acme", "--cn", "Al", "--sn", "Lee"}, "2", 0, "would add person Al"},
        {{"db", "create", "o=acme", "--admin-password-file", admin_pw}, "1", 1, "dry run: cannot create a Zel database under o=acme"},
        {{"db", "remove"}, "1", 0, "would remove the Zel database " + kDb},
        {{"key", "generate", new_key_file}, "2", 0, "would write a new key file"},
        {{"--json", "service", "add", "wiki", "--type", "Web Resource"}, "2", 0, "\"added\":true,\"dryRun\":true"},
        {{"service", "list"}, "2", 2, "--dry-run is for commands that write"},
    };
    const std::string before = tree();
    ASSERT_NE(before.find("principalName=jo,"), std::string::npos) << before;
    for (const Case &c : cases) {
        std::vector<std::string> args = c.args;
        args.push_back("--dry-run");
        CommandResult r = zelctl(*dir, args, c.api, "", {{"ZEL_KEYFILE", keys}});
        SCOPED_TRACE(args[0] + " " + args[1] + "\n" + r.out + r.err);
        EXPECT_EQ(r.status, c.status);
        EXPECT_NE((r.out + r.err).find(c.phrase), std::string::npos);
        EXPECT_EQ(tree(), before);
    }
    struct stat st {};
    EXPECT_NE(stat(new_key_file.c_str(), &st), 0) << "no key file is written";
}

// The two predictions a dry run is most often asked for carry the status
// and text the real command then reports.
TEST_F(ZelctlDryRun, ForeseenFailuresAreTheRealOnes) {
    const std::vector<std::vector<std::string>> commands = {
        {"service", "add", "intranet", "--type", "Web Resource"},
        {"user", "remove", "nobody"},
    };
    for (const auto &command : commands) {
        std::vector<std::string> dry = command;
        dry.push_back("--dry-run");
        CommandResult predicted = zelctl(*dir, dry, "2");
        CommandResult real = zelctl(*dir, command, "2");
        EXPECT_EQ(predicted.status, 1) << predicted.err;
        EXPECT_EQ(real.status, 1);
        EXPECT_EQ(predicted.err, "zelctl: dry run: " + real.err.substr(std::string("zelctl: ").size()));
    }
}
