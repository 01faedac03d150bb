// Reading and removing resource groups of both storage forms.
#include "domain/domain_fixtures.h"

namespace {

using namespace domaintest;

std::string legacy_ldif() {
    return "dn: cn=legacy," + kOldDomains + "\nobjectClass: eZelDomain\ncn: legacy\ndescription: Old\n" +
           "targetLocation: T:payroll\ntargetLocation: AI:inst1\ntargetLocation: t:web\ntargetLocation: X:foo\n"
           "targetLocation: H::host1\ntargetLocation: D:a:b\n\n";
}

std::string team_ldif() {
    return "dn: secResGroupID=team," + kGroups + "\nobjectClass: secResGroup\nsecResGroupID: team\nsecType: 2\n" +
           "member: " + resource_dn("mail") + "\nmember: secResourceID=a\\,b," + kResources + "\n\n";
}

const Locations kLegacyLocations = {{"resourceName", "payroll"}, {"ApplicationInstance", "inst1"},
                                    {"resourceName", "web"},     {"(null)", "(null)"},
                                    {"Host", "host1"},           {"Domain", "a:b"}};

TEST_F(DomainTest, BothFormsListedFirstGenerationFirst) {
    dir->add(legacy_ldif() + team_ldif());
    for (uint32_t version : {1u, 2u}) {
        SCOPED_TRACE(version);
        open(version);
        ZelDomainList *list = nullptr;
        ASSERT_EQ(Zel_getAllZelDomain(s.get(), &list), 0u);
        std::vector<std::string> names;
        for (int32_t i = 0; i < list->count; ++i) names.push_back(list->domains[i]->name);
        EXPECT_EQ(names, version == 1 ? Values{"legacy"} : (Values{"legacy", "team"}));
        EXPECT_EQ(locations_of(list->domains[0]), kLegacyLocations);
        Zel_freeZelDomains(list);

        // The security domain session finds "legacy" through the fallback.
        EXPECT_EQ(read_domain(s.get(), "legacy"), (ReadBack{0, "legacy", "Old", kLegacyLocations}));
        ReadBack team = version == 1 ? kNotFound
                                     : ReadBack{0, "team", "(null)", services({"mail", "a,b"})};
        EXPECT_EQ(read_domain(s.get(), "team"), team);
        // A name is a value, never a pattern.
        EXPECT_EQ(read_domain(s.get(), "*"), kNotFound);
        EXPECT_EQ(read_domain(s.get(), "te*"), kNotFound);
    }
}

TEST_F(DomainTest, RemovalAndNothingToRead) {
    dir->add(legacy_ldif() + team_ldif());
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
    ZelDomain *d = reinterpret_cast<ZelDomain *>(1);
    EXPECT_EQ(Zel_getZelDomain(s.get(), "team", &d), ZEL_RC_ZEL_DOMAIN_NOT_FOUND);
    EXPECT_EQ(d, nullptr);
    EXPECT_EQ(Zel_getZelDomain(s.get(), nullptr, &d), ZEL_RC_INVALID_ARGUMENT);
    EXPECT_EQ(Zel_getAllZelDomain(nullptr, &list), ZEL_RC_INVALID_HANDLE);
}

}  // namespace
