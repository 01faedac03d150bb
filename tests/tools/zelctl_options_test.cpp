// zelctl's command line: attached values, strict numbers, and a password that
// leaves neither argv nor an error message.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "zelctl.h"

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
    zelctl::CommandLine line;
    Parsed p;
    if (zelctl::parse_command_line(static_cast<int>(argv.size()), argv.data(), line, p.error)) {
        const zelctl::Options &o = line.opts;
        p.summary = o.uri + "|" + o.bind_dn + "|" + o.password + "|" + line.password_file + "|" + o.ca_file + "|" + o.domain + "|" +
                    std::to_string(o.api_version) + "|" + (o.json ? "json" : "") + (o.starttls ? "+tls" : "") + "|";
        for (const std::string &r : line.rest) p.summary += r + " ";
    }
    for (auto &s : storage) p.argv_text.append(s.begin(), s.end());
    return p;
}

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
        got.push_back(zelctl::parse_number(t, 65535, v) ? std::to_string(v) : "refused");
    }
    EXPECT_EQ(got, (std::vector<std::string>{"0", "7", "65535", "refused", "refused", "refused", "refused",
                                             "refused", "refused", "refused", "refused", "refused", "refused"}));
    uint32_t v = 0;
    EXPECT_TRUE(zelctl::parse_number("4294967295", UINT32_MAX, v));
    EXPECT_EQ(v, UINT32_MAX);
    EXPECT_FALSE(zelctl::parse_number("4294967296", UINT32_MAX, v));
}
