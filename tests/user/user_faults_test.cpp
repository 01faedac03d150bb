// Every allocation the user routines make may fail: the status is then 1012,
// nothing is handed out, and (under the sanitizer build) nothing leaks.
#include "support/alloc_faults.h"
#include "user/user_fixture.h"

using namespace usertest;

TEST_F(UserTest, AllocationFailuresInBothStorageForms) {
    for (uint32_t version : {1u, 2u}) {
        SCOPED_TRACE(version);
        open(version);
        ZelSession *ss = s.get();
        EXPECT_EQ(Zel_removeZelUser(ss, "nobody"), ZEL_RC_USER_NOT_FOUND);  // locates the Zel database once
        // First generation: the person is looked up by uid and two groups are joined.
        ZelUser jo = version == 1 ? user_record("jo", "Senior Admin", "", "Jo") : user_record("jo", "User", kJo);
        auto add = [&] { return Zel_addZelUser(ss, &jo); };

        each_allocation_fails("add", 0, add, [&] { (void)Zel_removeZelUser(ss, "jo"); });
        each_allocation_fails("update", 0, [&] { return Zel_updateZelUser(ss, &jo); });
        if (version == 1) each_allocation_fails("verify", 1, [&] {
            char *dn = nullptr;  // no test-side allocation inside the loop
            ZelRC rc = Zel_verifyZelUser(ss, kJo.c_str(), &dn);
            Zel_memfree(dn);
            return rc;
        });
        each_allocation_fails("remove", 0, [&] { return Zel_removeZelUser(ss, "jo"); }, [&] {
            if (verify(ss, kJo).first == 0) {
                ASSERT_EQ(add(), 0u);
            }
        });
        EXPECT_EQ(verify(ss, kJo).first, 0u);
    }
}

// Domain version 6 releases a removed user's entry instead of deleting it:
// the profile ends, the entry stays without its credentials container.
using DomainV6 = SeededAs<Kind::Generic, 6>;

TEST_F(DomainV6, AllocationFailuresReleasingADomainUser) {
    open(2);
    ZelSession *ss = s.get();
    ZelUser jo = user_record("jo", "User", kJo);
    ASSERT_EQ(Zel_addZelUser(ss, &jo), 0u);
    const std::string dn = "principalName=jo," + kDomainUsers;
    // Each attempt starts from a live profile with its container.
    each_allocation_fails("remove", 0, [&] { return Zel_removeZelUser(ss, dn.c_str()); }, [&] {
        dir->modify("dn: " + dn + "\nchangetype: modify\nreplace: secAuthority\nsecAuthority: Default:\n");
        (void)dir->try_add("dn: cn=ResCreds," + dn + "\nobjectClass: container\ncn: ResCreds\n");
    });
    EXPECT_EQ(dir->entry(dn).first("secAuthority"), "Default");
    EXPECT_FALSE(dir->exists("cn=ResCreds," + dn));
    EXPECT_EQ(verify(ss, kJo).first, 0u);
}
