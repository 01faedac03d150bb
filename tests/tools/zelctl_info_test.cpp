// zelctl as an administrator runs it: a separate process against a directory.
#include <gtest/gtest.h>

#include "support/key_files.h"

#include "support/session.h"
#include "support/zelctl.h"

using namespace zeltest;

namespace {

class ZelctlInfo : public DirectoryTest {
protected:
    Profile profile() const override {
        Profile p;
        p.kind = Kind::OrvTessan;
        p.suffixes = {"o=acme", "o=beta"};
        p.domain_version = 6;
        p.seed_ldif = database_ldif("o=acme");
        return p;
    }
    CommandResult zelctl(std::vector<std::string> args, std::map<std::string, std::string> env = {}) {
        std::vector<std::string> argv{ZELCTL_PATH};
        argv.insert(argv.end(), args.begin(), args.end());
        return run_command(argv, "", env);
    }
    std::vector<std::string> bind() const { return {"-D", dir->admin_dn(), "-w", Directory::admin_password()}; }
};

}  // namespace

TEST_F(ZelctlInfo, PrintsWhatOpenLearnt) {
    CommandResult r = zeltest::zelctl(*dir, {"info"}, "2");
    ASSERT_EQ(r.status, 0) << r.err;
    for (const char *line : {"vendor:            orv\n", "host:              tessan\n",
                             "suffixes:          o=acme o=beta\n",
                             "security domain:   Default (secAuthority=Default,o=acme), version 6\n",
                             "Zel database:      systemName=ORVZEL,o=acme\n"})
        EXPECT_NE(r.out.find(line), std::string::npos) << line << r.out;
    EXPECT_NE(r.out.find("server:            " + dir->uri() + "\n"), std::string::npos) << r.out;
    EXPECT_EQ(zeltest::zelctl(*dir, {"--json", "info"}, "2").out,
              "{\"vendor\":\"orv\",\"host\":\"tessan\",\"suffixes\":[\"o=acme\",\"o=beta\"],"
              "\"securityDomain\":\"Default\",\"securityDomainDN\":\"secAuthority=Default,o=acme\","
              "\"securityDomainVersion\":6,\"database\":\"systemName=ORVZEL,o=acme\",\"server\":\"" +
                  dir->uri() + "\"}\n");
}

TEST_F(ZelctlInfo, LocatedServerAndClearErrors) {
    auto args = bind();
    args.push_back("info");
    // No -H: the configured default server, plain because ZEL_NONSSL says so.
    CommandResult r = zelctl(args, {{"LDAPNOINIT", ""}, {"LDAPURI", dir->uri()}, {"ZEL_NONSSL", "1"}});
    EXPECT_EQ(r.status, 0) << r.err;

    args.insert(args.begin(), {"-H", "ldap://127.0.0.1:1"});
    r = zelctl(args);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "zelctl: cannot open a session on ldap://127.0.0.1:1: " +
                         std::string(Zel_strerror(ZEL_RC_DIRECTORY_ERROR)) + " (status 2)\n");

    // A replicated set: the first server refuses, the second answers.
    args[1] = "ldap://127.0.0.1:1 " + dir->uri();
    r = zelctl(args);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("server:            " + dir->uri() + "\n"), std::string::npos) << r.out;

    r = zelctl({"-H", dir->uri(), "-D", dir->admin_dn(), "-w", "wrong", "info"});
    EXPECT_NE(r.err.find("(status 4)"), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("wrong"), std::string::npos) << "a password was printed";

    r = zelctl({"-H", dir->uri(), "info"});
    EXPECT_EQ(r.status, 2) << "no credentials is a usage error";
    r = zelctl({"frobnicate"});
    EXPECT_EQ(r.status, 2);
}

TEST_F(ZelctlInfo, AttachedValuesAndUsageErrorsNeverShowAValue) {
    const std::string pw = Directory::admin_password();
    CommandResult r = zelctl({"-H" + dir->uri(), "-D" + dir->admin_dn(), "-w" + pw, "--api-version=1", "-x", "info"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("Zel database:      not looked up (API version below 2)\n"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find(pw), std::string::npos);

    // Each option error is read in process; here: how the program reports one.
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string start;  // of what is printed
    };
    const std::vector<Case> cases = {
        {{"-wS3cret", "--bogus=S3cret", "info"}, 2, "zelctl: unknown option --bogus"},
        {{"help", "user"}, 0, "usage: zelctl [OPTIONS]\n  user list | add NAME"},
        {{"--version"}, 0, "zelctl 1."},
        // A password typed after -W by mistake is taken for the command: never echoed.
        {{"-W", "S3cret", "info"}, 2, "zelctl: unknown command after -W"},
    };
    for (const Case &c : cases) {
        r = zelctl(c.args);
        EXPECT_EQ(r.status, c.status) << c.args.front();
        EXPECT_EQ((r.out + r.err).rfind(c.start, 0), 0u) << r.out << r.err;
        EXPECT_EQ((r.out + r.err).find("S3cret"), std::string::npos);
    }
    // Every option that reads a password file warns when others may read it.
    const std::string loose = key_file("S3cret", 0644);
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{"-H", dir->uri(), "-D", dir->admin_dn(), "-y", loose, "info"},
          {"-H", dir->uri(), "-D", dir->admin_dn(), "-w", pw, "doctor", "--user", dir->admin_dn(),
           "--user-password-file", loose},
          {"-H", dir->uri(), "-D", dir->admin_dn(), "-w", pw, "person", "add", "o=acme", "--cn", "A", "--sn", "A",
           "--password-file", loose, "--dry-run"}}) {
        r = zelctl(args);
        EXPECT_NE(r.err.find("warning: others may read or change the password file " + loose), std::string::npos)
            << args[5] << "\n" << r.err;
        EXPECT_EQ((r.out + r.err).find("S3cret"), std::string::npos);
    }
}
