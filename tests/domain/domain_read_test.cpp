// Reading and removing resource groups of both storage forms; zelctl domain.
#include "domain/domain_fixtures.h"
#include "support/zelctl.h"

namespace {

using namespace domaintest;

const std::string kSeed =
    "dn: cn=legacy," + kOldDomains + "\nobjectClass: eZelDomain\ncn: legacy\ndescription: Old\n" +
    "targetLocation: T:payroll\ntargetLocation: AI:inst1\ntargetLocation: t:web\ntargetLocation: X:foo\n"
    "targetLocation: H::host1\ntargetLocation: D:a:b\n\n" +
    "dn: secResGroupID=team," + kGroups + "\nobjectClass: secResGroup\nsecResGroupID: team\nsecType: 2\n" +
    "member: " + resource_dn("mail") + "\nmember: secResourceID=a\\,b," + kResources + "\n\n";

const std::string kLegacy =
    "legacy [Old] resourceName:payroll ApplicationInstance:inst1 resourceName:web -:- Host:host1 Domain:a:b";
const std::string kTeam = "team [-]" + members({"mail", "a,b"});

TEST_F(DomainTest, BothFormsListedFirstGenerationFirst) {
    dir->add(kSeed);
    for (uint32_t version : {1u, 2u}) {
        SCOPED_TRACE(version);
        open(version);
        ZelDomainList *list = nullptr;
        ASSERT_EQ(Zel_getAllZelDomain(s.get(), &list), 0u);
        Values listed;
        for (int32_t i = 0; i < list->count; ++i) listed.push_back(domain_text(list->domains[i]));
        Zel_freeZelDomains(list);
        EXPECT_EQ(listed, version == 1 ? Values{kLegacy} : (Values{kLegacy, kTeam}));

        // The security domain session finds "legacy" through the fallback;
        // a name is a value, never a pattern.
        EXPECT_EQ(read_domain(s.get(), "legacy"), "0 " + kLegacy);
        EXPECT_EQ(read_domain(s.get(), "team"), version == 1 ? "32" : "0 " + kTeam);
        EXPECT_EQ(read_domain(s.get(), "*"), "32");
        EXPECT_EQ(read_domain(s.get(), "te*"), "32");
    }
}

TEST_F(DomainTest, RemovalAndNothingToRead) {
    dir->add(kSeed);
    open(2);
    ASSERT_EQ(Zel_removeZelDomain(s.get(), "legacy"), 0u);
    EXPECT_FALSE(dir->exists("cn=legacy," + kOldDomains));
    s->debug_level = 10;
    testing::internal::CaptureStdout();
    EXPECT_EQ(Zel_removeZelDomain(s.get(), "legacy"), ZEL_RC_ZEL_DOMAIN_NOT_FOUND);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "zelmgmt:Were able remove Zel Domain successfully!\n");
    s->debug_level = 0;
    ASSERT_EQ(Zel_removeZelDomain(s.get(), "team"), 0u);
    EXPECT_TRUE(dir->exists(resource_dn("mail"))) << "members stay";

    ZelDomainList *list = reinterpret_cast<ZelDomainList *>(1);
    EXPECT_EQ(Zel_getAllZelDomain(s.get(), &list), ZEL_RC_ZEL_DOMAIN_NOT_FOUND);
    EXPECT_EQ(list, nullptr);
}

TEST_F(DomainTest, ZelctlAddsReadsAndRemovesMembers) {
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
