// Whether a person is a Zel user, and which person a Kerberos principal names.
#include <cstdlib>
#include <cstring>

#include "support/alloc_faults.h"
#include "support/family_fixture.h"
#include "ZelRoutines.h"

using namespace famtest;

namespace {

// Realm ACME.COM keeps its principals anywhere under o=acme; EMPTY.ORG names
// no principal subtree.  Ann carries her own principal, jo@ACME.COM is an
// alias entry for Jo, and Max is known by a mapped identity only.
const std::string kKerberos =
    "dn: krbRealmName=ACME.COM,o=acme\nchangetype: add\nobjectClass: krbRealm\nkrbRealmName: ACME.COM\nprincSubtree: o=acme\n\n"
    "dn: krbRealmName=EMPTY.ORG,o=acme\nchangetype: add\nobjectClass: krbRealm\nkrbRealmName: EMPTY.ORG\n\n"
    "dn: " + kAnn + "\nchangetype: modify\nadd: objectClass\nobjectClass: eKrbPrincipal\n"
    "-\nadd: krbPrincipalName\nkrbPrincipalName: ann@ACME.COM\n\n"
    "dn: cn=jo-alias,o=acme\nchangetype: add\nobjectClass: container\nobjectClass: eKrbPrincipal\ncn: jo-alias\n"
    "krbPrincipalName: jo@ACME.COM\nkrbAliasedObjectName: " + kJo + "\n\n"
    "dn: " + kMax + "\nchangetype: modify\nadd: altSecurityIdentities\naltSecurityIdentities: Kerberos:max@OTHER.NET\n";

// What verify_ZEL_user answers in a mode, and the profile DN it names ("" for none).
std::pair<ZelRC, std::string> verify_user(ZelSession *s, const std::string &person, int32_t mode) {
    char *dn = nullptr;
    ZelRC rc = verify_ZEL_user(s, person.c_str(), &dn, mode);
    std::pair<ZelRC, std::string> v{rc, dn ? dn : ""};
    std::free(dn);
    return v;
}

class Identity : public UserTest {
protected:
    ZelRC principal(const char *name) {
        std::memset(dn, 'x', sizeof dn);
        return locate_krb_ePerson(s.get(), name, s->suffixes, dn);
    }
    char dn[1000];
};

}  // namespace

// The profile's state decides between user and inactive; a security domain
// session asks the domain first and the Zel database only in mode 0.
TEST_F(Identity, ProfileStateAndTheOrderOfTheStorageForms) {
    open(1);
    ZelUser jo = user_record("jo", "User", kJo);
    ZelUser max = user_record("max", "User", kMax, nullptr, 0);
    ASSERT_EQ(Zel_addZelUser(s.get(), &jo), 0u);
    ASSERT_EQ(Zel_addZelUser(s.get(), &max), 0u);
    fault::reset();

    EXPECT_EQ(verify_user(s.get(), kMax, 0), std::make_pair(ZEL_RC_ACCOUNT_INVALID, "cn=max," + kMax))
        << "an inactive profile is still named";
    EXPECT_EQ(fault::count(Fn::Search), 1);

    EXPECT_EQ(verify_user(s.get(), kAnn, 0).first, 0u);
    EXPECT_EQ(verify_user(s.get(), "cn=Nobody,o=acme", 0).first, 0u) << "a missing person is no user";
    fault::reset();
    fault::lose_connection_at_search(1, LDAP_SERVER_DOWN);
    EXPECT_EQ(verify_user(s.get(), kAnn, 0).first, ZEL_RC_DIRECTORY_ERROR);

    open(2);
    EXPECT_EQ(verify_user(s.get(), kJo, 2).first, 0u);
    EXPECT_EQ(fault::count(Fn::Search), 1) << "mode 2 makes no fallback search";

    fault::reset();
    EXPECT_EQ(verify_user(s.get(), kJo, 0), std::make_pair(1u, "cn=jo," + kJo));
    EXPECT_EQ(fault::count(Fn::Search), 2);

    // A domain profile whose account is not valid.
    ZelUser off = user_record("ann", "User", kAnn, nullptr, 0);
    ASSERT_EQ(Zel_addZelUser(s.get(), &off), 0u);
    EXPECT_EQ(verify_user(s.get(), kAnn, 2),
              std::make_pair(ZEL_RC_ACCOUNT_INVALID, "principalName=ann," + kDomainUsers));
    EXPECT_EQ(verify_user(s.get(), kAnn, 1).first, 0u) << "mode 1 asks the Zel database only";
}

TEST_F(Identity, PrincipalsResolveThroughRealmsAliasesAndMappedIdentities) {
    dir->modify(kKerberos);
    open(2);

    // The person's DN, or the status.
    auto resolved = [&](const std::string &name) {
        ZelRC rc = principal(name.c_str());
        return rc ? "status " + std::to_string(rc) : std::string(dn);
    };
    // jo's entry is an alias; OTHER.NET has no realm entry: Max's mapped identity.
    EXPECT_EQ((std::vector<std::string>{resolved("ann@ACME.COM"), resolved("jo@ACME.COM"), resolved("max@OTHER.NET"),
                                        resolved("nobody@ACME.COM"), resolved("nobody@NOWHERE.NET"), resolved("@"),
                                        resolved("@@"), resolved(std::string(700, 'a') + "@ACME.COM")}),
              (std::vector<std::string>{kAnn, kJo, kMax, "status 28", "status 28", "status 1005", "status 1005",
                                        "status 1005"}));  // the last: a filter that would not fit

    fault::reset();
    EXPECT_EQ(principal("@@ann@@ACME.COM@rest"), ZEL_RC_EPERSON_NOT_FOUND)
        << "the principal entry is looked up by the whole text given";
    EXPECT_EQ(fault::calls(Fn::Search).at(0).filter, "(&(objectClass=krbRealm)(krbRealmName=ACME.COM))");

    fault::reset();
    EXPECT_EQ(principal("nobody@EMPTY.ORG"), ZEL_RC_EPERSON_NOT_FOUND) << "realm without principal subtrees";
    EXPECT_EQ(fault::count(Fn::Search), 1) << "nothing is searched beyond the realm";

    each_allocation_fails("principal", 0, [&] {
        ZelRC rc = principal("jo@ACME.COM");
        if (rc == 0) {
            EXPECT_STREQ(dn, kJo.c_str());
        }
        return rc;
    });
}
