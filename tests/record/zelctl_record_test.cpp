// zelctl record and credential: passwords in from a file or standard input,
// out only with --reveal.
#include <fstream>

#include "record/record_fixture.h"
#include "support/zelctl.h"

using namespace recordtest;

TEST_F(RecordTest, ZelctlKeepsRecordPasswordsOffTheCommandLineAndOutOfSight) {
    open_with_jo(2);
    const std::string file = testing::TempDir() + "record-password";
    std::ofstream(file) << "file-pw\n";
    CommandResult r = zelctl(*dir, {"record", "add", "jo", "T:app", "--service", "app", "--account", "jdoe",
                                    "--password-file", file}, "2");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "target record T:app added\n");
    r = run_command({ZELCTL_PATH, "-H", dir->uri(), "-D", dir->admin_dn(), "-w", Directory::admin_password(), "record",
                     "add", "jo", "G:Sales", "--service", "Sales", "--account", "team", "--password-stdin"},
                    "stdin-pw\n");
    ASSERT_EQ(r.status, 0) << r.err;

    const std::vector<std::pair<std::vector<std::string>, std::string>> reads = {
        {{"--json", "record", "get", "jo", "T:app"},
         "{\"id\":\"T:app\",\"service\":\"app\",\"type\":\"Web Resource\",\"account\":\"jdoe\",\"description\":null}\n"},
        {{"record", "get", "jo", "G:Sales", "--reveal"},
         "id:          G:Sales\nservice:     Sales\ntype:        Resource Group\naccount:     team\ndescription: \n"
         "password:    stdin-pw\n"},
        {{"credential", "get", "jo", "app"}, "account:  jdoe\n"},
        {{"credential", "get", "jo", "app", "--reveal"}, "account:  jdoe\npassword: file-pw\n"},
        {{"--json", "credential", "get", "jo", "shop", "--reveal"},
         "{\"user\":\"jo\",\"resource\":\"shop\",\"account\":\"team\",\"password\":\"stdin-pw\"}\n"},
    };
    for (const auto &[args, want] : reads) {
        r = zelctl(*dir, args, "2");
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.out, want);
    }
    r = zelctl(*dir, {"--json", "record", "list", "jo"}, "2");
    EXPECT_EQ(r.out.find("-pw"), std::string::npos) << r.out;

    r = zelctl(*dir, {"credential", "get", "jo", "nothing"}, "2");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "zelctl: no credential of jo for nothing: ZEL_RC_TR_NOT_FOUND: target record not found (status 24)\n");
    EXPECT_EQ(zelctl(*dir, {"record", "add", "jo", "T:mail", "--service", "mail", "--password", "x"}, "2").status, 2);
    EXPECT_EQ(zelctl(*dir, {"record", "remove", "jo", "T:app"}, "2").out, "target record T:app removed\n");
}
