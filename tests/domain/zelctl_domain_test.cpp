// zelctl domain end to end.
#include "domain/domain_fixtures.h"
#include "support/zelctl.h"

namespace {

using namespace domaintest;

class DomainZelctl : public DomainTest {};

TEST_F(DomainZelctl, MembersAddedReadAndRemoved) {
    auto run = [&](const std::vector<std::string> &args) { return zelctl(*dir, args, "2"); };
    EXPECT_EQ(run({"domain", "list"}).out, "");
    CommandResult r =
        run({"domain", "add", "team", "--description", "The team", "--member", "mail", "--member", "wiki"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "resource group team added\n");
    r = run({"--json", "domain", "remove-member", "team", "mail"});
    EXPECT_EQ(r.out, "{\"domain\":\"team\",\"member\":\"mail\",\"removed\":true}\n");
    EXPECT_EQ(run({"domain", "add-member", "team", "payroll"}).out, "member payroll added to resource group team\n");
    EXPECT_EQ(run({"--json", "domain", "get", "team"}).out,
              "{\"name\":\"team\",\"description\":\"The team\",\"locations\":[{\"type\":\"resourceName\","
              "\"value\":\"wiki\"},{\"type\":\"resourceName\",\"value\":\"payroll\"}]}\n");
    EXPECT_EQ(run({"domain", "list"}).out, "team\tThe team\twiki,payroll\n");

    r = run({"domain", "remove-member", "team", "mail"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "zelctl: cannot remove mail from resource group team: " +
                         std::string(Zel_strerror(ZEL_RC_LOCATION_NOT_FOUND)) + " (status 26)\n");
    EXPECT_EQ(run({"domain", "add-member", "team"}).status, 2);
    EXPECT_EQ(run({"domain", "rename", "team"}).status, 2);
}

}  // namespace
