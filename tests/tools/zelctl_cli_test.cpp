// zelctl's command line and what it prints about itself: options read in
// process (attached values, strict numbers, a password that leaves neither
// argv nor an error message), then as an administrator runs it, a separate
// process against a directory, and the bash completion that reads names
// through it.
#include <gtest/gtest.h>


#include "support/key_files.h"
#include "support/session.h"
#include "support/zelctl.h"
#include "support/family_fixture.h"
#include "zelctl.h"

using namespace zeltest;
using famtest::UserTest;

namespace {

const char *kSecret = "S3cret";

// Parses `words` from a writable argv, as main gets it.  Answers the error
// (or "") and a summary of what was read; `argv_text` is argv afterwards,
// its bytes joined.
struct Parsed {
    std::string error, summary, argv_text;
};

Parsed parse(const std::vector<std::string> &words) {
    std::vector<std::vector<char>> storage;
    std::vector<char *> argv;
    storage.push_back({'z', 'e', 'l', 'c', 't', 'l', '\0'});
    for (const std::string &w : words) storage.emplace_back(w.c_str(), w.c_str() + w.size() + 1);
    for (auto &s : storage) argv.push_back(s.data());
    ::zelctl::CommandLine line;
    Parsed p;
    if (::zelctl::parse_command_line(static_cast<int>(argv.size()), argv.data(), line, p.error)) {
        const ::zelctl::Options &o = line.opts;
        p.summary = o.uri + "|" + o.bind_dn + "|" + o.password + "|" + line.password_file + "|" + o.ca_file + "|" + o.domain + "|" +
                    std::to_string(o.api_version) + "|" + (o.json ? "json" : "") + (o.starttls ? "+tls" : "") + "|";
        for (const std::string &r : line.rest) p.summary += r + " ";
    }
    for (auto &s : storage) p.argv_text.append(s.begin(), s.end());
    return p;
}

// The candidates the completion offers for the word after `words`.
std::vector<std::string> complete(const Directory &dir, const std::string &pwfile, const std::string &words) {
    std::string script = "source " ZEL_SOURCE_DIR "/tools/zelctl/zelctl.bash; COMP_WORDS=(" ZELCTL_PATH " -H " +
                         dir.uri() + " -D '" + dir.admin_dn() + "' -y " + pwfile + " " + words +
                         " ''); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _zelctl; printf '%s\\n' \"${COMPREPLY[@]}\"";
    std::vector<std::string> out;
    for (const std::string &line : lines_of(run_command({"bash", "-c", script}).out))
        if (!line.empty()) out.push_back(line);
    return out;
}

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
};

}  // namespace

TEST(ZelctlOptions, AttachedAndSeparateValues) {
    struct Case {
        std::vector<std::string> words;
        std::string expected;  // the summary, or the error
    };
    const std::vector<Case> cases = {
        {{"-Hldap://h", "-Dcn=x", "-wS3cret", "info"}, "ldap://h|cn=x|S3cret|||Default|2||info "},
        {{"-H", "ldap://h", "-D", "cn=x", "-w", "S3cret", "--domain=D", "--api-version=1", "-x", "--json", "user",
          "-w", "1"},
         "ldap://h|cn=x|S3cret|||D|1|json|user -w 1 "},
        {{"-y/tmp/pw", "--ca=/tmp/ca", "-Hldaps://[::1]:636", "info"}, "ldaps://[::1]:636|||/tmp/pw|/tmp/ca|Default|2||info "},
        {{"-Hldap://h:0"}, "-H wants ldap://HOST[:PORT] or ldaps://HOST[:PORT]"},
        {{"-Hldap://h:65536"}, "-H wants ldap://HOST[:PORT] or ldaps://HOST[:PORT]"},
        {{"-Hhttp://h"}, "-H wants ldap://HOST[:PORT] or ldaps://HOST[:PORT]"},
        {{"-H", "ldap://a:1  ldaps://b", "--timeout=2", "--network-timeout", "0", "info"},
         "ldap://a:1  ldaps://b|||||Default|2||info "},
        {{"-H", "ldap://a b"}, "-H wants ldap://HOST[:PORT] or ldaps://HOST[:PORT]"},
        {{"-H", " "}, "-H wants ldap://HOST[:PORT] or ldaps://HOST[:PORT]"},
        {{"--timeout", "-1"}, "--timeout wants whole seconds (0: no limit)"},
        {{"--network-timeout=1000001"}, "--network-timeout wants whole seconds (0: no limit)"},
        {{"-D"}, "-D needs a value"},
        {{"-wS3cret", "-w", "S3cret"}, "-w is given twice"},
        {{"-wS3cret", "-W"}, "-w, -W and -y exclude each other"},
        {{"-y", "/tmp/pw", "-wS3cret"}, "-w, -W and -y exclude each other"},
        {{"--password=S3cret"}, "unknown option --password"},
        {{"-qS3cret"}, "unknown option -q"},
        {{"--json=S3cret"}, "--json takes no value"},
        {{"--api-version", "4294967298"}, "--api-version wants a number from 0 to 2"},
        {{"-wS3cret", "-ZZ", "info"}, "||S3cret|||Default|2|+tls|info "},
    };
    std::vector<std::string> got, want;
    for (const Case &c : cases) {
        Parsed p = parse(c.words);
        got.push_back(p.error.empty() ? p.summary : p.error);
        want.push_back(c.expected);
        EXPECT_EQ(p.error.find(kSecret), std::string::npos) << "an error showed a value";
        bool wiped = p.argv_text.find(std::string("-w") + kSecret) == std::string::npos &&
                     p.argv_text.find(std::string("-w") + '\0' + kSecret) == std::string::npos;
        EXPECT_TRUE(wiped) << "argv still holds the password";
    }
    EXPECT_EQ(got, want);
}

TEST(ZelctlOptions, NumbersAreReadStrictly) {
    const std::vector<std::string> texts = {"0", "007", "65535", "65536", "", "-1", "+1", " 1", "1 ", "0x10", "1e3",
                                            "4294967298", "99999999999999999999999"};
    std::vector<std::string> got;
    for (const std::string &t : texts) {
        uint32_t v = 12345;
        got.push_back(::zelctl::parse_number(t, 65535, v) ? std::to_string(v) : "refused");
    }
    EXPECT_EQ(got, (std::vector<std::string>{"0", "7", "65535", "refused", "refused", "refused", "refused",
                                             "refused", "refused", "refused", "refused", "refused", "refused"}));
    uint32_t v = 0;
    EXPECT_TRUE(::zelctl::parse_number("4294967295", UINT32_MAX, v));
    EXPECT_EQ(v, UINT32_MAX);
    EXPECT_FALSE(::zelctl::parse_number("4294967296", UINT32_MAX, v));
}

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

// The program run as typed: where it finds its server, how it says it cannot
// reach one or is used wrongly, and that no value typed ever shows.
TEST_F(ZelctlInfo, LocatedServerClearErrorsAndNoValueShown) {
    const std::string uri = dir->uri(), admin = dir->admin_dn(), pw = Directory::admin_password();
    const std::string loose = key_file("S3cret", 0644), server = "server:            " + uri + "\n";
    const std::string warning = "warning: others may read or change the password file " + loose;
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string says;
        Env env = {};
    };
    const Case cases[] = {
        // No -H: the configured default server, plain because ZEL_NONSSL says so.
        {{"-D", admin, "-w", pw, "info"}, 0, server, {{"LDAPNOINIT", ""}, {"LDAPURI", uri}, {"ZEL_NONSSL", "1"}}},
        {{"-H", "ldap://127.0.0.1:1", "-D", admin, "-w", pw, "info"}, 1,
         zelctl_failure("cannot open a session on ldap://127.0.0.1:1", ZEL_RC_DIRECTORY_ERROR)},
        // A replicated set: the first server refuses, the second answers.
        {{"-H", "ldap://127.0.0.1:1 " + uri, "-D", admin, "-w", pw, "info"}, 0, server},
        {{"-H", uri, "-D", admin, "-w", "S3cret", "info"}, 1, "(status 4)"},
        {{"-H", uri, "info"}, 2, ""},  // no credentials is a usage error
        {{"frobnicate"}, 2, ""},
        {{"-H" + uri, "-D" + admin, "-w" + pw, "--api-version=1", "-x", "info"}, 0,
         "Zel database:      not looked up (API version below 2)\n"},
        // Each option error is read in process; here: how the program reports one.
        {{"-wS3cret", "--bogus=S3cret", "info"}, 2, "zelctl: unknown option --bogus"},
        {{"help", "user"}, 0, "usage: zelctl [OPTIONS]\n  user list | add NAME"},
        {{"--version"}, 0, "zelctl 1."},
        // A password typed after -W by mistake is taken for the command: never echoed.
        {{"-W", "S3cret", "info"}, 2, "zelctl: unknown command after -W"},
        // Every option that reads a password file warns when others may read it.
        {{"-H", uri, "-D", admin, "-y", loose, "info"}, 1, warning},
        {{"-H", uri, "-D", admin, "-w", pw, "doctor", "--user", admin, "--user-password-file", loose}, 0, warning},
        {{"-H", uri, "-D", admin, "-w", pw, "person", "add", "o=acme", "--cn", "A", "--sn", "A", "--password-file",
          loose, "--dry-run"}, 0, warning},
    };
    for (const Case &c : cases) {
        std::vector<std::string> argv{ZELCTL_PATH};
        std::string line;
        for (const std::string &a : c.args) line += (a == pw ? "<password>" : a) + " ";
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        CommandResult r = run_command(argv, "", c.env);
        const std::string said = r.out + r.err;
        SCOPED_TRACE(line + "\n" + said);
        EXPECT_EQ(r.status, c.status);
        EXPECT_NE(said.find(c.says), std::string::npos);
        EXPECT_EQ(said.find("S3cret"), std::string::npos);
        EXPECT_EQ(said.find(pw), std::string::npos);
    }
}

TEST_F(UserTest, UserListFeedsCompletionOfUserNames) {
    using famtest::kAnn, famtest::kJo;
    ASSERT_EQ(zeltest::zelctl(*dir, {"user", "add", "jo", "--type", "User", "--person", kJo}, "1").status, 0);
    ASSERT_EQ(zeltest::zelctl(*dir, {"user", "add", "ann", "--person", kAnn, "--disabled"}, "2").status, 0);
    CommandResult r = zeltest::zelctl(*dir, {"--json", "user", "list"}, "2");
    ASSERT_EQ(r.status, 0) << r.err;
    // The security domain's users first, then the Zel database's.
    EXPECT_EQ(r.out, "[{\"name\":\"ann\",\"type\":null,\"enabled\":false,\"person\":\"" + kAnn +
                         "\"},{\"name\":\"jo\",\"type\":\"User\",\"enabled\":true,\"person\":\"" + kJo + "\"}]\n");

    const std::string pwfile = key_file(Directory::admin_password());
    EXPECT_EQ(complete(*dir, pwfile, "user remove"), (std::vector<std::string>{"ann", "jo"}));
    EXPECT_EQ(complete(*dir, pwfile, "--api-version 1 user remove"), (std::vector<std::string>{"jo"}));
    EXPECT_EQ(complete(*dir, "/nonexistent", "user remove"), std::vector<std::string>{})
        << "without a readable password file nothing is asked of the directory";
}
