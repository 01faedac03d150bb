// Allocation failures while releasing a domain user: 1012, and each attempt
// leaves the profile whole.
#include "support/alloc_faults.h"
#include "user/user_fixture.h"

using namespace usertest;

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
