// zelctl's family commands end to end, one table per family: each row is a
// command, its exit status and what it says (a part of its output or errors).
#include "domain/domain_fixtures.h"
#include "support/zelctl.h"
#include "targetservice/ts_fixtures.h"
#include "user/user_fixture.h"

namespace {

using namespace zeltest;

using Row = ZelctlRow;

std::string failure(const std::string &what, ZelRC rc) {
    return "zelctl: " + what + ": " + Zel_strerror(rc) + " (status " + std::to_string(rc) + ")\n";
}

using usertest::UserTest;

TEST_F(UserTest, ZelctlRegistersVerifiesUpdatesAndRemoves) {
    using usertest::kAnn, usertest::kJo;
    run_rows(*dir, {
        {"1", {"user", "add", "jo", "--type", "User", "--person", kJo, "--description", "Jo"}, 0, "Zel user jo added\n"},
        {"1", {"user", "verify", kJo}, 0, kJo + " is a Zel user: cn=jo," + kJo + "\n"},
        {"1", {"--json", "user", "verify", kAnn}, 1, "{\"person\":\"" + kAnn + "\",\"zelUser\":false,\"profile\":null}\n"},
        {"1", {"user", "verify", "jo"}, 2, "user verify expects a person DN, for example"},
        {"1", {"user", "update", "jo", "--disabled"}},
    });
    EXPECT_EQ(dir->entry("cn=jo," + kJo).first("userState"), "Inactive");
    run_rows(*dir, {
        {"1", {"user", "remove", "jo", "--json"}, 0, "{\"user\":\"jo\",\"removed\":true}\n"},
        {"1", {"user", "remove", "jo"}, 1, failure("cannot remove Zel user jo", ZEL_RC_USER_NOT_FOUND)},
        {"1", {"user", "update", "nobody", "--enabled"}, 1, failure("cannot read Zel user nobody", ZEL_RC_USER_NOT_FOUND)},
        // What the server said about a refused write follows the status.
        {"1", {"user", "add", "ghost", "--type", "User", "--person", "cn=Ghost,o=acme"}, 1,
         "zelctl: cannot add Zel user ghost: ZEL_RC_NO_SUCH_OBJECT: no such entry (status 6): matched DN: o=acme\n"},
        // A security domain profile keeps no type: --type is refused there,
        // naming the group that gives the role.
        {"2", {"user", "add", "ann", "--type", "user"}, 2, "keeps no user type"},
        {"2", {"user", "add", "ann", "--type", "user"}, 2, "User: cn=Users"},
        {"2", {"user", "add", "ann"}},
        {"2", {"user", "add", "helpdesk", "--person", kAnn}, 1,
         "(status 5): " + kAnn + " already has a profile: Zel user ann"},
    });
    EXPECT_TRUE(dir->exists("principalName=ann," + usertest::kDomainUsers));
}

// An update changes only what it names; a disabled account stays disabled
// (whether or not the library lets a disabled profile be updated at all).
TEST_F(UserTest, ZelctlUpdateChangesOnlyWhatItNames) {
    using usertest::kAnn, usertest::kMax;
    std::vector<std::string> got;
    for (const char *version : {"1", "2"}) {
        const bool first_gen = version[0] == '1';
        const char *state = first_gen ? "userState" : "secAcctValid";
        auto profile = [&](const char *name, const std::string &person) {
            return dir->entry(first_gen ? "cn=" + std::string(name) + "," + person
                                        : "principalName=" + std::string(name) + "," + usertest::kDomainUsers);
        };
        auto add = [&](const char *name, const std::string &person, std::vector<std::string> more) {
            std::vector<std::string> args = {"user", "add", name, "--person", person};
            if (first_gen) more.insert(more.end(), {"--type", "User"});  // the domain form keeps no type
            args.insert(args.end(), more.begin(), more.end());
            return zelctl(*dir, args, version).status;
        };
        ASSERT_EQ(add("max", kMax, {"--disabled"}), 0);
        ASSERT_EQ(add("ann", kAnn, {}), 0);
        (void)zelctl(*dir, {"user", "update", "max", "--description=Max"}, version);
        CommandResult r = zelctl(*dir, {"user", "update", "ann", "--description=Ann"}, version);
        EXPECT_EQ(r.status, 0) << r.err;
        got.push_back(profile("max", kMax).first(state));
        got.push_back(profile("ann", kAnn).first(state) + " " + profile("ann", kAnn).first("description"));
    }
    EXPECT_EQ(got, (std::vector<std::string>{"Inactive", "Active Ann", "FALSE", "TRUE Ann"}));
}

using tstest::TargetServiceDomain;

TEST_F(TargetServiceDomain, ZelctlInBothStorageForms) {
    dir->add(database_ldif(dir->suffix()) + tstest::resources_ldif(*dir));
    run_rows(*dir, {
        {"1", {"service-type", "add", "Web", "--id", "host"}, 0, "target service type Web added\n"},
        {"1", {"service", "add", "portal", "--type", "Web", "--description", "The portal", "--id", "host=p.acme"}},
        {"1", {"--json", "service", "get", "portal"}, 0,
         "{\"name\":\"portal\",\"type\":\"Web\",\"description\":\"The portal\","
         "\"identifiers\":[{\"name\":\"host\",\"value\":\"p.acme\"}]}\n"},
        {"1", {"service", "list"}, 0, "portal\tWeb\tThe portal\n"},
        {"1", {"service", "add", "other", "--type", "Web"}, 1, failure("cannot add target service other", ZEL_RC_CONFLICT)},
        {"1", {"service", "remove", "portal"}},
        {"1", {"--json", "service-type", "remove", "Web"}, 0, "{\"serviceType\":\"Web\",\"removed\":true}\n"},
        // A security domain session: an empty listing is no error.
        {"2", {"--json", "service", "list"}, 0, "[]\n"},
        {"2", {"service", "add", "site", "--type", "Web Resource"}},
        {"2", {"--json", "service", "list"}, 0,
         "[{\"name\":\"site\",\"type\":\"Web Resource\",\"description\":null,\"identifiers\":[]}]\n"},
    });
}

using domaintest::DomainTest;

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
         failure("cannot remove mail from resource group team", ZEL_RC_LOCATION_NOT_FOUND)},
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
