// A Zel user's profile read back as stored, in either storage form, and a
// released domain user.
#include "user/user_fixture.h"

using namespace usertest;

namespace {

std::string read_back(ZelSession *s, const char *name) {
    ZelUser *u = nullptr;
    ZelRC rc = Zel_getZelUser(s, name, &u);
    if (rc != 0) return (u ? "handed out on failure " : "status ") + std::to_string(rc);
    auto text = [](const char *t) { return std::string(t ? t : "(null)"); };
    std::string out = text(u->userName) + "|" + text(u->userType) + "|" + text(u->description) + "|" +
                      std::to_string(u->enabled) + "|" + text(u->personDN);
    Zel_freeZelUser(u);
    return out;
}

}  // namespace

TEST_F(UserTest, ReadsAProfileBackInEitherStorageForm) {
    std::vector<std::string> got;
    for (uint32_t version : {1u, 2u}) {
        open(version);
        ZelUser jo = user_record("jo", "User", kJo, "Jo", 0);
        ASSERT_EQ(Zel_addZelUser(s.get(), &jo), 0u);
        // "j*" must not match jo: the name is a value, never a pattern.
        for (const char *name : {"jo", "j*", "nobody", ""}) got.push_back(read_back(s.get(), name));
    }
    EXPECT_EQ(got, (std::vector<std::string>{"jo|User|Jo|0|" + kJo, "status 19", "status 19", "status 1005",
                                             "jo|(null)|Jo|0|" + kJo, "status 19", "status 19", "status 1005"}));
    EXPECT_EQ(Zel_getZelUser(nullptr, "jo", nullptr), ZEL_RC_INVALID_HANDLE);
    EXPECT_EQ(Zel_getZelUser(s.get(), "jo", nullptr), ZEL_RC_INVALID_ARGUMENT);
}

// Domain version 6 releases a removed user's entry instead of deleting it:
// the profile ends, the entry stays without its credentials container.  (The
// release under every fault is the torture runner's.)
using DomainV6 = SeededAs<Kind::Generic, 6>;

TEST_F(DomainV6, AReleasedEntryIsNoProfile) {
    open(2);
    ZelUser jo = user_record("jo", "User", kJo);
    ASSERT_EQ(Zel_addZelUser(s.get(), &jo), 0u);
    const std::string dn = "principalName=jo," + kDomainUsers;
    ASSERT_EQ(Zel_removeZelUser(s.get(), dn.c_str()), 0u);
    EXPECT_EQ(dir->entry(dn).first("secAuthority"), "Default");
    EXPECT_FALSE(dir->exists("cn=ResCreds," + dn));
    EXPECT_EQ(verify(s.get(), kJo).first, 0u);
    EXPECT_EQ(read_back(s.get(), "jo"), "status 19");
}
