// zelctl's family commands end to end, one table per family: each row is a
// command, its exit status and what it says (a part of its output or errors).
#include "support/family_fixture.h"
#include "support/zelctl.h"
#include "terminal_text.h"

namespace {

using namespace famtest;

using Row = ZelctlRow;

TEST_F(UserTest, ZelctlRegistersVerifiesUpdatesAndRemoves) {
    run_rows(*dir, {
        {"1", {"user", "add", "jo", "--type", "User", "--person", kJo, "--description", "Jo"}, 0, "Zel user jo added\n"},
        {"1", {"user", "verify", kJo}, 0, kJo + " is a Zel user: cn=jo," + kJo + "\n"},
        {"1", {"--json", "user", "verify", kAnn}, 1, "{\"person\":\"" + kAnn + "\",\"zelUser\":false,\"profile\":null}\n"},
        {"1", {"user", "verify", "jo"}, 2, "user verify expects a person DN, for example"},
        {"1", {"user", "update", "jo", "--disabled"}},
        // An update changes only what it names: the account stays disabled.
        {"1", {"user", "update", "jo", "--description=Jo again"}},
    });
    const Entry jo = dir->entry("cn=jo," + kJo);
    EXPECT_EQ(jo.first("userState") + " " + jo.first("description"), "Inactive Jo again");
    run_rows(*dir, {
        {"1", {"user", "remove", "jo", "--json"}, 0, "{\"user\":\"jo\",\"removed\":true}\n"},
        {"1", {"user", "remove", "jo"}, 1, zelctl_failure("cannot remove Zel user jo", ZEL_RC_USER_NOT_FOUND)},
        {"1", {"user", "update", "nobody", "--enabled"}, 1, zelctl_failure("cannot read Zel user nobody", ZEL_RC_USER_NOT_FOUND)},
        // What the server said about a refused write follows the status.
        {"1", {"user", "add", "ghost", "--type", "User", "--person", "cn=Ghost,o=acme"}, 1,
         "zelctl: cannot add Zel user ghost: ZEL_RC_NO_SUCH_OBJECT: no such entry (status 6): matched DN: o=acme\n"},
        // A security domain profile keeps no type: --type is refused there,
        // naming the group that gives the role.
        {"2", {"user", "add", "ann", "--type", "user"}, 2, "keeps no user type"},
        {"2", {"user", "add", "ann", "--type", "user"}, 2, "User: cn=Users"},
        {"2", {"user", "add", "ann"}},
        {"2", {"user", "update", "ann", "--description=Ann"}},  // stays enabled
        {"2", {"user", "add", "helpdesk", "--person", kAnn}, 1,
         "(status 5): " + kAnn + " already has a profile: Zel user ann"},
    });
    const Entry ann = dir->entry("principalName=ann," + kDomainUsers);
    EXPECT_EQ(ann.first("secAcctValid") + " " + ann.first("description"), "TRUE Ann");
}

// Text a terminal acts on rather than shows: an escape sequence, a newline
// and a right-to-left override.
const std::string kActingText = "\x1b[2J\nzelctl: \xe2\x80\xae";
const std::string kActingShown = "\\x1b[2J\\x0azelctl: \\xe2\\x80\\xae";

TEST(ZelctlText, WhatATerminalActsOnIsShownAsBytes) {
    const std::pair<std::string, std::string> cases[] = {
        {"cn=a\\,b,o=acme caf\xc3\xa9 \xe6\x9d\xb1 \xf0\x9f\x94\x91 \xe2\x81\xb0", "same"},
        {kActingText, kActingShown},
        {"a\tb\x7f\x01", "a\\x09b\\x7f\\x01"},
        {"\xc2\x9b" "1m", "\\xc2\\x9b" "1m"},                        // C1 control sequence introducer
        {"\xe2\x80\xaa\xe2\x81\xa9", "\\xe2\\x80\\xaa\\xe2\\x81\\xa9"},  // first embedding, last isolate
        // No UTF-8: a stray byte, an overlong '/', a surrogate, past U+10FFFF, cut short.
        {"\xff\x80", "\\xff\\x80"},
        {"\xc0\xaf", "\\xc0\\xaf"},
        {"\xed\xa0\x80", "\\xed\\xa0\\x80"},
        {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
        {"x\xe2\x80", "x\\xe2\\x80"},
    };
    for (const auto &[text, shown] : cases)
        EXPECT_EQ(zelctl::terminal_text(text), shown == "same" ? text : shown) << text;
}

// Names and descriptions that would clear the screen, forge a line of
// zelctl's own and turn the text after them around, in every family: no
// read command's text output lets such a byte through (its own newlines and
// column tabs aside), and JSON keeps them.
TEST_F(UserTest, ZelctlTextOutputShowsControlsAsBytes) {
    const std::string odd = "x\x1b[2J\xe2\x80\xae";
    run_rows(*dir, {
        {"2", {"service", "add", odd, "--type", "Web Resource", "--description", kActingText}},
        {"2", {"domain", "add", odd + "g", "--description", kActingText, "--member", odd}},
        {"2", {"user", "add", "jo", "--person", kJo, "--description", kActingText}},
        {"2", {"record", "add", "jo", "T:" + odd, "--service", odd, "--account", odd, "--description", kActingText,
               "--password-stdin"}, 0, "", kActingText + "\n"},
    }, {}, true);
    const std::vector<std::vector<std::string>> reads = {
        {"service", "list"}, {"service", "get", odd}, {"domain", "list"}, {"domain", "get", odd + "g"},
        {"record", "list", "jo", "--reveal"}, {"record", "get", "jo", "T:" + odd},
        {"credential", "get", "jo", odd, "--reveal"}, {"credential", "explain", "jo", odd},
        {"service", "get", odd + "?"}, {"user", "verify", kJo + odd},
    };
    for (const auto &args : reads) {
        const CommandResult r = zeltest::zelctl(*dir, args, "2");
        const std::string said = r.out + r.err;
        SCOPED_TRACE(args[0] + " " + args[1] + "\n" + zelctl::terminal_text(said));
        EXPECT_NE(said.find("x\\x1b[2J\\xe2\\x80\\xae"), std::string::npos);
        for (unsigned char c : said) EXPECT_TRUE(c >= 0x20 ? c != 0x7f : c == '\n' || c == '\t') << int(c);
        EXPECT_EQ(said.find("\xe2\x80\xae"), std::string::npos);
    }
    run_rows(*dir, {
        {"2", {"service", "get", odd}, 0, "description: " + kActingShown + "\n"},
        {"2", {"--json", "service", "get", odd}, 0, "\"description\":\"\\u001b[2J\\nzelctl: \xe2\x80\xae\""},
    });
}

TEST_F(TargetServiceDomain, ZelctlInBothStorageForms) {
    dir->add(database_ldif(dir->suffix()) + container_ldif(kResources, "Resources"));
    run_rows(*dir, {
        {"1", {"service-type", "add", "Web", "--id", "host"}, 0, "target service type Web added\n"},
        {"1", {"service", "add", "portal", "--type", "Web", "--description", "The portal", "--id", "host=p.acme"}},
        {"1", {"--json", "service", "get", "portal"}, 0,
         "{\"name\":\"portal\",\"type\":\"Web\",\"description\":\"The portal\","
         "\"identifiers\":[{\"name\":\"host\",\"value\":\"p.acme\"}]}\n"},
        {"1", {"service", "list"}, 0, "portal\tWeb\tThe portal\n"},
        {"1", {"service", "add", "other", "--type", "Web"}, 1, zelctl_failure("cannot add target service other", ZEL_RC_CONFLICT)},
        {"1", {"service", "remove", "portal"}},
        {"1", {"--json", "service-type", "remove", "Web"}, 0, "{\"serviceType\":\"Web\",\"removed\":true}\n"},
        // A security domain session: an empty listing is no error.
        {"2", {"--json", "service", "list"}, 0, "[]\n"},
        {"2", {"service", "add", "site", "--type", "Web Resource"}},
        {"2", {"--json", "service", "list"}, 0,
         "[{\"name\":\"site\",\"type\":\"Web Resource\",\"description\":null,\"identifiers\":[]}]\n"},
    });
}

TEST_F(DomainTest, ZelctlAddsReadsAndRemovesMembers) {
    run_rows(*dir, {
        {"2", {"domain", "add", "team", "--description", "The team", "--member", "mail", "--member", "wiki"}, 0,
         "resource group team added\n"},
        {"2", {"--json", "domain", "remove-member", "team", "mail"}, 0,
         "{\"domain\":\"team\",\"member\":\"mail\",\"removed\":true}\n"},
        {"2", {"domain", "add-member", "team", "payroll"}, 0, "member payroll added to resource group team\n"},
        {"2", {"--json", "domain", "get", "team"}, 0,
         "{\"name\":\"team\",\"description\":\"The team\",\"locations\":[{\"type\":\"resourceName\","
         "\"value\":\"wiki\"},{\"type\":\"resourceName\",\"value\":\"payroll\"}]}\n"},
        {"2", {"domain", "list"}, 0, "team\tThe team\twiki,payroll\n"},
        {"2", {"domain", "remove-member", "team", "mail"}, 1,
         zelctl_failure("cannot remove mail from resource group team", ZEL_RC_LOCATION_NOT_FOUND)},
    });
}

// Usage errors of every family: exit 2, nothing asked of the directory.
TEST_F(DirectoryTest, ZelctlFamilyUsageErrors) {
    const std::vector<std::vector<std::string>> usage = {
        {"user", "add", "jo", "--type"},
        {"user", "update", "jo", "--enabled", "--disabled"},
        {"user", "remove", "jo", "--force"},
        {"service", "add", "x"},  // the type is required
        {"service", "add", "x", "--type", "Web Resource", "--description"},
        {"service", "add", "x", "--type", "Web Resource", "--id", "novalue"},
        {"service", "rename", "site"},
        {"domain", "add-member", "team"},
        {"domain", "rename", "team"},
        {"record", "add", "jo", "T:mail", "--service", "mail", "--password", "x"},
    };
    std::vector<Row> rows;
    for (const auto &args : usage) rows.push_back({"2", args, 2});
    rows.push_back({"1", {"user", "add", "jo"}, 2});  // a first-generation profile needs its type
    run_rows(*dir, rows);
}

}  // namespace
