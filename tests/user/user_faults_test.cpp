// Every allocation the user routines make may fail: the status is then 1012,
// nothing is handed out, and (under the sanitizer build) nothing leaks.
#include <cstdlib>
#include <cstring>
#include <functional>

#include "support/alloc_faults.h"
#include "user/user_fixture.h"

using namespace usertest;

namespace {

// Fails the 1st, 2nd, ... allocation of `call` until it runs without the
// fault firing; `restore` puts the directory back between attempts.

ZelRC verify_handing_out(ZelSession *s, const std::string &person) {
    char *dn = nullptr;
    ZelRC rc = Zel_verifyZelUser(s, person.c_str(), &dn);
    Zel_memfree(dn);  // the caller's whatever the answer
    return rc;
}

}  // namespace

TEST_F(UserTest, AllocationFailuresFirstGeneration) {
    open(1);
    ZelSession *ss = s.get();
    EXPECT_EQ(Zel_removeZelUser(ss, "nobody"), ZEL_RC_USER_NOT_FOUND);  // locates the Zel database once
    ZelUser jo = user_record("jo", "Senior Admin", "", "Jo");  // person looked up by uid
    auto add = [&] { return Zel_addZelUser(ss, &jo); };
    auto ensure_user = [&] {
        if (verify_handing_out(ss, kJo) == 0) {
            ASSERT_EQ(add(), 0u);
        }
    };

    each_allocation_fails("add", 0, add, [&] { (void)Zel_removeZelUser(ss, "jo"); });
    each_allocation_fails("update", 0, [&] { return Zel_updateZelUser(ss, &jo); });
    each_allocation_fails("verify", 1, [&] { return verify_handing_out(ss, kJo); });
    each_allocation_fails("remove", 0, [&] { return Zel_removeZelUser(ss, "jo"); }, ensure_user);
    EXPECT_FALSE(dir->exists("cn=jo," + kJo));
}

TEST_F(UserTest, AllocationFailuresSecurityDomain) {
    open(2);
    ZelSession *ss = s.get();
    ZelUser jo = user_record("jo", "User", kJo);
    auto add = [&] { return Zel_addZelUser(ss, &jo); };

    each_allocation_fails("add", 0, add, [&] { (void)Zel_removeZelUser(ss, "jo"); });
    each_allocation_fails("update", 0, [&] { return Zel_updateZelUser(ss, &jo); });
    each_allocation_fails("remove", 0, [&] { return Zel_removeZelUser(ss, "jo"); }, [&] {
        if (verify_handing_out(ss, kJo) == 0) {
            ASSERT_EQ(add(), 0u);
        }
    });
}

TEST_F(UserTest, AllocationFailuresPrincipalLookup) {
    dir->add("dn: krbRealmName=ACME.COM,o=acme\nobjectClass: krbRealm\nkrbRealmName: ACME.COM\n"
             "princSubtree: o=acme\n\n"
             "dn: cn=jo-alias,o=acme\nobjectClass: container\nobjectClass: eKrbPrincipal\ncn: jo-alias\n"
             "krbPrincipalName: jo@ACME.COM\nkrbAliasedObjectName: " + kJo + "\n");
    open(2);
    char dn[1000];
    each_allocation_fails("principal", 0, [&] {
        std::memset(dn, 0, sizeof dn);
        ZelRC rc = locate_krb_ePerson(s.get(), "jo@ACME.COM", s->suffixes, dn);
        if (rc == 0) {
            EXPECT_STREQ(dn, kJo.c_str());
        }
        return rc;
    });
}

namespace {
class DomainV6Faults : public UserTest {
protected:
    Profile profile() const override { return seeded(Kind::Generic, 6); }
};
}  // namespace

TEST_F(DomainV6Faults, AllocationFailuresReleasingADomainUser) {
    open(2);
    ZelSession *ss = s.get();
    ZelUser jo = user_record("jo", "User", kJo);
    ASSERT_EQ(Zel_addZelUser(ss, &jo), 0u);
    // The entry stays; each attempt starts from a live profile with its container.
    each_allocation_fails("remove", 0, [&] { return Zel_removeZelUser(ss, "jo"); }, [&] {
        dir->modify("dn: principalName=jo," + kDomainUsers + "\nchangetype: modify\nreplace: secAuthority\n"
                    "secAuthority: Default:\n");
        (void)dir->try_add("dn: cn=ResCreds,principalName=jo," + kDomainUsers +
                           "\nobjectClass: container\ncn: ResCreds\n");
    });
    EXPECT_EQ(dir->entry("principalName=jo," + kDomainUsers).first("secAuthority"), "Default");
}
