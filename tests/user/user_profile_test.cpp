// Zel user profiles in both storage forms: add, read, update, verify, remove.
#include <ldap.h>

#include "support/zelctl.h"
#include "support/family_fixture.h"
#include "ZelSession.h"

using namespace famtest;

TEST_F(UserTest, FirstGenerationProfilesAndGroupsFollowTheUserType) {
    open(1);
    ZelUser jo = user_record("jo", "User", kJo, "Jo's profile");
    ZelUser ann = user_record("ann", "senior admin", "");  // person found by uid; type ignores case
    ZelUser max = user_record("max", "Middle Tier Server", kMax, nullptr, 0);
    for (ZelUser *u : {&jo, &ann, &max}) ASSERT_EQ(Zel_addZelUser(s.get(), u), 0u);

    Entry e = dir->entry(kJoProfile);
    EXPECT_EQ(e.values("objectClass"), (Strings{"top", "cimManagedElement", "eUser", "eZelUser"}));
    EXPECT_EQ((Strings{e.first("associatedName"), e.first("userType"), e.first("userState"), e.first("description")}),
              (Strings{kJo, "User", "Active", "Jo's profile"}));
    EXPECT_EQ(dir->entry("cn=ann," + kAnn).first("associatedName"), kAnn);
    EXPECT_EQ(dir->entry("cn=max," + kMax).first("userState"), "Inactive");
    EXPECT_EQ((std::vector<Strings>{members("Users"), members("Administrators"), members("Senior Administrators"),
                                    members("Middle Tier Servers"), members("Full Users")}),
              (std::vector<Strings>{{kJo}, {kAnn}, {kAnn}, {kMax}, {}}));
    EXPECT_EQ(verify(s.get(), kMax), std::make_pair(1u, "cn=max," + kMax)) << "a disabled profile counts";

    // Updates change the state and the description only (an empty one is
    // removed on this kind); the type is not checked.
    ZelUser update = user_record("jo", "Boss", kJo, "", 0);
    ASSERT_EQ(Zel_updateZelUser(s.get(), &update), 0u);
    e = dir->entry(kJoProfile);
    EXPECT_EQ((Strings{e.first("userState"), e.first("userType")}), (Strings{"Inactive", "User"}));
    EXPECT_FALSE(e.has("description"));
    EXPECT_EQ(Zel_addZelUser(s.get(), &update), ZEL_RC_INVALID_ARGUMENT);

    ASSERT_EQ(Zel_removeZelUser(s.get(), "jo"), 0u);
    EXPECT_FALSE(dir->exists(kJoProfile));
    EXPECT_TRUE(members("Users").empty());
    ASSERT_EQ(Zel_removeZelUser(s.get(), ("cn=ann," + kAnn).c_str()), 0u);
    EXPECT_TRUE(members("Administrators").empty());
    EXPECT_TRUE(members("Senior Administrators").empty());
    EXPECT_EQ(Zel_removeZelUser(s.get(), "ann"), ZEL_RC_USER_NOT_FOUND);
    EXPECT_EQ(verify(s.get(), kJo), std::make_pair(0u, std::string()));

    // An update needs a profile, and one named after the user.
    EXPECT_EQ(Zel_updateZelUser(s.get(), &jo), ZEL_RC_USER_NOT_FOUND);
    dir->add("dn: cn=other," + kJo + "\nobjectClass: eZelUser\ncn: other\nassociatedName: " + kJo +
             "\nuserType: User\nuserState: Active\n");
    EXPECT_EQ(Zel_updateZelUser(s.get(), &jo), ZEL_RC_CONFLICT);
    EXPECT_EQ(dir->entry("cn=other," + kJo).first("userState"), "Active");
}

// Without a database there is no such user, and no record to list.
TEST(UserWithoutDatabase, RemovalAnswersUserNotFound) {
    Directory dir;
    Session s = open_session(dir, 1);
    ASSERT_TRUE(s);
    EXPECT_EQ(Zel_removeZelUser(s.get(), "jo"), ZEL_RC_USER_NOT_FOUND);
    ZelUserTargetRecordList *all = nullptr;
    ASSERT_EQ(Zel_getAllUserTargetRecord(s.get(), &all), 0u);
    EXPECT_EQ(all == nullptr ? 0 : all->count, 0);
    Zel_freeUserTargetRecords(all);
}

TEST_F(UserTest, SecurityDomainProfileLifecycle) {
    open(2);
    ZelUser jo = user_record("jo", "User", kJo, "Jo");
    ASSERT_EQ(Zel_addZelUser(s.get(), &jo), 0u);
    EXPECT_EQ(fault::count(Fn::Modify), 0) << "security domain users join no access group";
    const std::string &dn = kJoDomainUser;
    Entry e = dir->entry(dn);
    EXPECT_EQ(e.values("objectClass"), (Strings{"top", "cimManagedElement", "eUser", "secUser"}));
    EXPECT_EQ((Strings{e.first("secDN"), e.first("secAuthority"), e.first("secLoginType"), e.first("secAcctValid"),
                       e.first("description")}),
              (Strings{kJo, "Default:", "Default:LDAP", "TRUE", "Jo"}));
    EXPECT_EQ(dir->entry("cn=ResCreds," + dn).values("objectClass"), (Strings{"top", "container"}));

    ZelUser off = user_record("jo", nullptr, kJo, nullptr, 0);
    ASSERT_EQ(Zel_updateZelUser(s.get(), &off), 0u);
    EXPECT_EQ(dir->entry(dn).first("secAcctValid"), "FALSE");
    EXPECT_EQ(dir->entry(dn).first("description"), "Jo") << "a null description is left alone";

    // An entry some domain claims is another user's: an add changes nothing.
    dir->modify("dn: " + dn + "\nchangetype: modify\nreplace: secAuthority\nsecAuthority: Elsewhere:\n");
    ZelUser other = user_record("jo", "User", kAnn, "Ann");
    EXPECT_EQ(Zel_addZelUser(s.get(), &other), ZEL_RC_ALREADY_EXISTS);
    EXPECT_EQ(std::string(Zel_last_error_detail()), "Zel user jo already exists for " + kJo);
    EXPECT_EQ((Strings{dir->entry(dn).first("secAuthority"), dir->entry(dn).first("secDN")}),
              (Strings{"Elsewhere:", kJo}));

    ASSERT_EQ(Zel_removeZelUser(s.get(), "jo"), 0u);
    EXPECT_FALSE(dir->exists(dn)) << "below domain version 6 the entry goes";
    EXPECT_EQ(Zel_removeZelUser(s.get(), "jo"), ZEL_RC_USER_NOT_FOUND);
}

TEST_F(UserTest, ReadsAProfileBackInEitherStorageForm) {
    Strings got;
    for (uint32_t version : {1u, 2u}) {
        open(version);
        ZelUser jo = user_record("jo", "User", kJo, "Jo", 0);
        ASSERT_EQ(Zel_addZelUser(s.get(), &jo), 0u);
        // "j*" must not match jo: the name is a value, never a pattern.
        for (const char *name : {"jo", "j*", "nobody", ""}) got.push_back(read_user(s.get(), name));
    }
    EXPECT_EQ(got, (Strings{"jo|User|Jo|0|" + kJo, "status 19", "status 19", "status 1005", "jo|(null)|Jo|0|" + kJo,
                            "status 19", "status 19", "status 1005"}));
    EXPECT_EQ(Zel_getZelUser(nullptr, "jo", nullptr), ZEL_RC_INVALID_HANDLE);
    EXPECT_EQ(Zel_getZelUser(s.get(), "jo", nullptr), ZEL_RC_INVALID_ARGUMENT);
}

// A second profile on a person would hide the first from every look-up
// through the person: an add refuses it, names the holder, writes nothing.
TEST_F(UserTest, APersonHasOneProfileInEachForm) {
    for (uint32_t version : {1u, 2u}) {
        open(version);
        ZelUser jo = user_record("jo", "User", kJo), helpdesk = user_record("helpdesk", "User", kJo);
        ASSERT_EQ(Zel_addZelUser(s.get(), &jo), 0u);
        for (ZelUser *again : {&helpdesk, &jo}) {
            EXPECT_EQ(Zel_addZelUser(s.get(), again), ZEL_RC_ALREADY_EXISTS) << version;
            EXPECT_EQ(std::string(Zel_last_error_detail()), kJo + " already has a profile: Zel user jo");
        }
        EXPECT_FALSE(dir->exists("cn=helpdesk," + kJo));
        EXPECT_FALSE(dir->exists("principalName=helpdesk," + kDomainUsers));
        EXPECT_EQ(members("Users"), version == 1 ? Strings{kJo} : Strings{}) << "the refused add granted nothing";
        EXPECT_EQ(verify(s.get(), kJo).first, 1u);
        ASSERT_EQ(Zel_removeZelUser(s.get(), "jo"), 0u);
    }
}

// From domain version 6 a removal releases the entry instead of deleting it:
// the profile ends, the entry stays without its credentials container.
// Adding the name again takes it back with the values given, as a fresh add
// would write them.  (The release under every fault is the torture runner's.)
using ReleasingDomain = SeededAs<Kind::Generic, 6>;
TEST_F(ReleasingDomain, AddingAReleasedUserWritesTheValuesGiven) {
    open(2);
    const std::string dn = "principalName=bob," + kDomainUsers;
    ZelUser bob = user_record("bob", "User", kJo, "old");
    ASSERT_EQ(Zel_addZelUser(s.get(), &bob), 0u);
    ASSERT_EQ(Zel_removeZelUser(s.get(), dn.c_str()), 0u);
    EXPECT_EQ(dir->entry(dn).first("secAuthority"), "Default");
    EXPECT_FALSE(dir->exists("cn=ResCreds," + dn));
    EXPECT_EQ(verify(s.get(), kJo).first, 0u);
    EXPECT_EQ(read_user(s.get(), "bob"), "status 19");

    ZelUser again = user_record("bob", "User", kAnn, "new", 0);
    ASSERT_EQ(Zel_addZelUser(s.get(), &again), 0u);
    Entry e = dir->entry(dn);
    EXPECT_EQ((Strings{e.first("secAuthority"), e.first("secDN"), e.first("secAcctValid"), e.first("description")}),
              (Strings{"Default:", kAnn, "FALSE", "new"}));
    EXPECT_TRUE(dir->exists("cn=ResCreds," + dn));
    EXPECT_EQ(verify(s.get(), kJo).first, 0u);

    ASSERT_EQ(Zel_removeZelUser(s.get(), "bob"), 0u);
    ZelUser bare = user_record("bob", "User", kAnn);
    ASSERT_EQ(Zel_addZelUser(s.get(), &bare), 0u);
    EXPECT_FALSE(dir->entry(dn).has("description")) << "no description given, none kept";

    CommandResult r = zelctl(*dir, {"user", "remove", "bob"}, "2");
    ASSERT_EQ(r.status, 0) << r.err;
    r = zelctl(*dir, {"user", "add", "bob", "--person", kMax, "--description", "via zelctl"}, "2");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "Zel user bob added\n");
    EXPECT_EQ((Strings{dir->entry(dn).first("secDN"), dir->entry(dn).first("description")}),
              (Strings{kMax, "via zelctl"}));
}

TEST_F(UserTest, SecurityDomainSessionReachesFirstGenerationProfiles) {
    open(1);
    ZelUser jo = user_record("jo", "User", kJo), ann = user_record("ann", "User", kAnn);
    ASSERT_EQ(Zel_addZelUser(s.get(), &jo), 0u);
    ASSERT_EQ(Zel_addZelUser(s.get(), &ann), 0u);
    open(2);
    // An update of a user the domain does not know yet creates the domain profile.
    ZelUser off = user_record("jo", "User", kJo, nullptr, 0);
    ASSERT_EQ(Zel_updateZelUser(s.get(), &off), 0u);
    EXPECT_EQ(dir->entry(kJoDomainUser).first("secAcctValid"), "FALSE");
    EXPECT_TRUE(dir->exists("cn=ResCreds," + kJoDomainUser));
    // Both forms go; the status is that of the group removal.
    ASSERT_EQ(Zel_removeZelUser(s.get(), "jo"), 0u);
    EXPECT_FALSE(dir->exists(kJoDomainUser));
    EXPECT_FALSE(dir->exists(kJoProfile));
    EXPECT_EQ(members("Users"), Strings{kAnn});
}

// A failed first-generation creation takes back the membership it granted.
TEST_F(UserTest, TraceReportsOutcomes) {
    open(1);
    ZelUser jo = user_record("jo", "User", kJo);
    fault::fail_call(Fn::Add, 1, LDAP_INSUFFICIENT_ACCESS);
    EXPECT_EQ(traced(s.get(), [&] {
                  EXPECT_EQ(Zel_addZelUser(s.get(), &jo), ZEL_RC_NOT_AUTHORIZED);
                  EXPECT_EQ(Zel_removeZelUser(s.get(), "jo"), ZEL_RC_USER_NOT_FOUND);
              }),
              "zelmgmt:Suffix being searched: o=acme\n"  // the Zel database, located on first use
              "zelmgmt:ldap_add_ext_s() failed.  RC=x32\n"
              "zelmgmt:Were able to remove the user from Zel groups successfully!\n"
              "zelmgmt:Were unable to add Zel User Profile.\n"
              "zelmgmt:Zel Mgmt error code: x7\n"
              "zelmgmt:Suffix being searched: o=acme\n"
              "zelmgmt:Were unable to remove Zel User definition. RC: 19\n");
    EXPECT_TRUE(members("Users").empty());

    ASSERT_EQ(Zel_addZelUser(s.get(), &jo), 0u);
    EXPECT_EQ(traced(s.get(), [&] { EXPECT_EQ(Zel_verifyZelUser(s.get(), kJo.c_str(), nullptr), 1u); }),
              "zelmgmt:User Profile DN: cn=jo," + kJo + "\n");
}
