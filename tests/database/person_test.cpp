// Person entries, registered as Zel users on request, and the allocation
// failures of the whole provisioning family.  (A generic directory gets no
// access groups, so only "XR User", which joins none, registers there.)
#include "database/db_fixture.h"

using namespace dbtest;

namespace {

ZelPerson person(const char *cn, const char *uid = nullptr, const char *password = nullptr) {
    ZelPerson p{};
    p.parentDN = const_cast<char *>("o=acme");
    p.cn = p.sn = const_cast<char *>(cn);
    p.uid = const_cast<char *>(uid);
    p.password = const_cast<char *>(password);
    return p;
}

}  // namespace

TEST_F(OrvDatabase, PersonsAndTheirZelProfiles) {
    ASSERT_EQ(create(), 0u);
    fault::reset();
    ZelPerson jo = person("Jo, Jr.", "jo", "pw");
    ZelPerson no_sn = jo;
    no_sn.sn = nullptr;
    struct Case {
        const ZelPerson *p;
        const char *type;
        ZelRC rc;
    } refusals[] = {{nullptr, nullptr, ZEL_RC_INVALID_ARGUMENT},
                    {&no_sn, nullptr, ZEL_RC_INVALID_ARGUMENT},
                    {&jo, "Janitor", ZEL_RC_INVALID_ARGUMENT}};
    for (const Case &c : refusals) EXPECT_EQ(Zel_create_ePerson(s.get(), c.p, c.type), c.rc);
    EXPECT_EQ(fault::count(Fn::Add), 0);

    // The comma in the name stays inside the RDN; an existing person is kept.
    ASSERT_EQ(Zel_create_ePerson(s.get(), &jo, nullptr), 0u);
    ASSERT_EQ(Zel_create_ePerson(s.get(), &jo, "User"), 0u);
    Entry e = dir->entry("cn=Jo\\2C Jr.,o=acme");
    EXPECT_EQ(e.values("objectClass"),
              (std::vector<std::string>{"top", "person", "organizationalPerson", "inetOrgPerson", "ePerson"}));
    EXPECT_EQ(dir->entry("cn=jo,cn=Jo\\2C Jr.,o=acme").first("userType"), "User");
    EXPECT_EQ(values(group("Users"), "member"), (std::vector<std::string>{kDb, "cn=Jo\\2C Jr.,o=acme"}));
}
