// zelctl --dry-run: every command that writes leaves the directory as it
// was, says what it would do, and foresees the failure the write would meet.
#include <sys/stat.h>

#include <sstream>

#include "support/key_files.h"
#include "support/zelctl.h"
#include "support/family_fixture.h"

using namespace famtest;

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
    // Each command with its API version, the status it foresees and what it says.
    const ZelctlRow cases[] = {
        {"2", {"service", "add", "wiki", "--type", "Web Resource"}, 0, "would add target service wiki"},
        {"2", {"service", "remove", "mail"}, 0, "would remove target service mail"},
        {"1", {"service-type", "add", "Web Application", "--id", "url"}, 0, "would add target service type"},
        {"1", {"service-type", "remove", "Web Application"}, 0, "would remove target service type"},
        {"2", {"user", "add", "ann", "--person", kAnn}, 0, "would add Zel user ann"},
        {"2", {"user", "update", "jo", "--disabled"}, 0, "state: \"enabled\" -> \"disabled\""},
        {"2", {"user", "remove", "jo"}, 0, "with its 1 target records"},
        {"2", {"domain", "add", "ops", "--member", "mail"}, 0, "members: \"mail\""},
        {"2", {"domain", "update", "staff", "--member", "mail"}, 0, "members: \"intranet\" -> \"mail\""},
        {"2", {"domain", "remove", "staff"}, 0, "would remove resource group staff"},
        {"2", {"domain", "add-member", "staff", "mail"}, 0, "would add member mail to resource group staff"},
        {"2", {"domain", "remove-member", "staff", "intranet"}, 0, "would remove member intranet"},
        {"2", {"record", "add", "jo", "T:mail", "--service", "mail", "--password-file", "/nonexistent"},
         2, "cannot read the password file"},
        {"2", {"record", "add", "jo", "T:mail", "--service", "mail", "--password-file", admin_pw},
         0, "a password would be set"},
        {"2", {"record", "update", "jo", "T:intranet", "--service", "intranet", "--account", "jo.new"},
         0, "account: \"jo.direct\" -> \"jo.new\""},
        {"2", {"record", "remove", "jo", "T:intranet"}, 0, "would remove target record T:intranet of jo"},
        {"2", {"record", "rekey", "--all"}, 0, "1 target records"},
        {"2", {"person", "add", "o=acme", "--cn", "Al", "--sn", "Lee"}, 0, "would add person Al"},
        {"1", {"db", "create", "o=acme", "--admin-password-file", admin_pw},
         1, "dry run: cannot create a Zel database under o=acme"},
        {"1", {"db", "remove"}, 0, "would remove the Zel database " + kDb},
        {"2", {"key", "generate", new_key_file}, 0, "would write a new key file"},
        {"2", {"--json", "service", "add", "wiki", "--type", "Web Resource"}, 0, "\"added\":true,\"dryRun\":true"},
        {"2", {"service", "list"}, 2, "--dry-run is for commands that write"},
    };
    const std::string before = tree();
    ASSERT_NE(before.find("principalName=jo,"), std::string::npos) << before;
    for (ZelctlRow c : cases) {
        c.args.push_back("--dry-run");
        run_rows(*dir, {c}, {{"ZEL_KEYFILE", keys}});
        EXPECT_EQ(tree(), before) << c.args[0] << " " << c.args[1];
    }
    struct stat st {};
    EXPECT_NE(stat(new_key_file.c_str(), &st), 0) << "no key file is written";
}

// The predictions a dry run is most often asked for carry the status and
// text the real command then reports.  A person has one profile per storage
// form: a first-generation one does not stand in the way of a domain one.
TEST_F(ZelctlDryRun, ForeseenFailuresAreTheRealOnes) {
    run_steps(*dir, "1", {{"user", "add", "ann1", "--type", "User", "--person", kAnn}});
    const ZelctlRow commands[] = {
        {"2", {"service", "add", "intranet", "--type", "Web Resource"}, 1},
        {"2", {"user", "remove", "nobody"}, 1},
        {"2", {"user", "add", "helpdesk", "--person", kJo}, 1},
        {"1", {"user", "add", "ann2", "--type", "User", "--person", kAnn}, 1},
        {"2", {"user", "add", "ann", "--person", kAnn}, 0},
    };
    for (const ZelctlRow &command : commands) {
        std::vector<std::string> dry = command.args;
        dry.push_back("--dry-run");
        CommandResult predicted = zelctl(*dir, dry, command.version);
        CommandResult real = zelctl(*dir, command.args, command.version);
        SCOPED_TRACE(command.args[0] + " " + command.args[1] + " " + command.args[2] + "\n" + predicted.out + predicted.err);
        EXPECT_EQ(predicted.status, command.exit);
        EXPECT_EQ(real.status, command.exit) << real.err;
        if (command.exit != 0) {
            EXPECT_EQ(predicted.err, "zelctl: dry run: " + real.err.substr(std::string("zelctl: ").size()));
        }
    }
}
