// Resource groups and their members in both storage forms: adding, updating,
// reading and removing them.
#include "support/family_fixture.h"
#include "ZelRoutines.h"
#include "ZelSession.h"

namespace {

using namespace famtest;

TEST_F(DomainTest, BothFormsWrittenWithEscapedNames) {
    struct Case {
        uint32_t version;
        std::string dn, member_attr;
        Strings given, stored;
    } cases[] = {
        {1, "cn=R&D\\, west," + kOldDomains, "targetlocation", {"payroll", "x:y"}, {"T:payroll", "T:x:y"}},
        {2, "secResGroupID=R&D\\, west," + kGroups, "member", {"mail", "a,b"},
         {resource_dn("mail"), "secResourceID=a\\2Cb," + kResources}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.version);
        open(c.version);
        DomainRecord rd("R&D, west", "Research", services(c.given));
        ASSERT_EQ(Zel_addZelDomain(s.get(), &rd.d), 0u);
        Entry e = dir->entry(c.dn);
        EXPECT_EQ(e.values(c.member_attr), c.stored);
        EXPECT_EQ(e.values("objectclass"),
                  c.version == 1 ? (Strings{"top", "eZelDomain"}) : (Strings{"top", "secResGroup"}));
        EXPECT_EQ(read_domain(s.get(), "R&D, west"), "0 R&D, west [Research]" + member_text(c.given));
        EXPECT_EQ(Zel_addZelDomain(s.get(), &rd.d), ZEL_RC_ALREADY_EXISTS);

        // Members are replaced only when locations are given.
        DomainRecord renamed("R&D, west", "Lab");
        ASSERT_EQ(Zel_updateZelDomain(s.get(), &renamed.d), 0u);
        EXPECT_EQ(read_domain(s.get(), "R&D, west"), "0 R&D, west [Lab]" + member_text(c.given));
        DomainRecord one("R&D, west", nullptr, services({"wiki"}));
        ASSERT_EQ(Zel_updateZelDomain(s.get(), &one.d), 0u);
        EXPECT_EQ(read_domain(s.get(), "R&D, west"), "0 R&D, west [Lab]" + member_text({"wiki"}));
        // Clearing a description that is no longer there is no error; the
        // other changes of the same update still go.
        DomainRecord cleared("R&D, west", ""), moved("R&D, west", "", services(c.given));
        for (DomainRecord *update : {&cleared, &cleared, &moved}) EXPECT_EQ(Zel_updateZelDomain(s.get(), &update->d), 0u);
        EXPECT_EQ(read_domain(s.get(), "R&D, west"), "0 R&D, west [-]" + member_text(c.given));
        ASSERT_EQ(Zel_removeZelDomain(s.get(), "R&D, west"), 0u);
    }
}

TEST_F(DomainTest, ResourceGroupsContainerEnsuredWithADatabaseOnly) {
    dir->modify("dn: " + kGroups + "\nchangetype: delete\n");
    open(2);
    DomainRecord team("team", nullptr);
    fault::fail_call(Fn::Add, 1, LDAP_NO_SUCH_ATTRIBUTE);
    EXPECT_EQ(Zel_addZelDomain(s.get(), &team.d), ZEL_RC_SCHEMA_VIOLATION);
    EXPECT_EQ(fault::count(Fn::Add), 1);
    ASSERT_EQ(Zel_addZelDomain(s.get(), &team.d), 0u);
    EXPECT_EQ(dir->entry(kGroups).values("objectclass"), (Strings{"top", "container"}));
    EXPECT_EQ(dir->entry("secResGroupID=team," + kGroups).first("sectype"), "2");

    // Without the database the container is taken as it is found: missing.
    std::free(s->database_dn);
    s->database_dn = nullptr;
    DomainRecord other("other", nullptr);
    dir->modify("dn: secResGroupID=team," + kGroups + "\nchangetype: delete\n\ndn: " + kGroups +
                "\nchangetype: delete\n");
    EXPECT_EQ(Zel_addZelDomain(s.get(), &other.d), ZEL_RC_NO_SUCH_OBJECT);
}

// Kinds that refuse empty values get no description on add and lose it on
// update, for resource groups and services alike; Orv stores it empty.  slapd
// itself refuses the empty value, so those writes are kept from it and only
// what was sent is compared.
TEST(EmptyDescription, ByDirectoryKind) {
    for (Kind kind : {Kind::ActiveDirectory, Kind::Orv}) {
        SCOPED_TRACE(kind_name(kind));
        Directory dir(domain_profile(kind));
        Session s = open_session(dir, 2), v1 = open_session(dir, 1);
        ASSERT_TRUE(s && v1);
        const bool keeps_empty = kind == Kind::Orv;
        fault::reset();
        fault::fail_call(Fn::Add, 2, LDAP_SUCCESS);  // the group; where the value is kept, both services too
        if (keeps_empty) for (int nth : {5, 6}) fault::fail_call(Fn::Add, nth, LDAP_SUCCESS);
        fault::fail_call(Fn::Modify, 1, LDAP_SUCCESS);
        DomainRecord empty("team", "");
        ASSERT_EQ(Zel_addZelDomain(s.get(), &empty.d), 0u);  // adds 1 (container) and 2
        ASSERT_EQ(Zel_updateZelDomain(s.get(), &empty.d), 0u);  // add 3 (container)
        char none[] = "";
        ZelTargetService site{const_cast<char *>("site"), const_cast<char *>("Web Resource"), none, 0, nullptr};
        ZelTargetService box{const_cast<char *>("box"), const_cast<char *>("Web"), none, 0, nullptr};
        ASSERT_EQ(Zel_addTargetService(s.get(), &site), 0u);  // adds 4 (container) and 5
        ASSERT_EQ(Zel_addTargetService(v1.get(), &box), 0u);  // add 6
        using Sent = std::vector<Strings>;
        const Sent on_add = keeps_empty ? Sent{{""}} : Sent{};
        const std::vector<fault::Call> adds = fault::calls(Fn::Add);
        ASSERT_EQ(adds.size(), 6u);
        EXPECT_EQ((std::vector<Sent>{sent_values(adds[1], "description"),
                                     sent_values(adds[4], "description"),
                                     sent_values(adds[5], "description")}),
                  (std::vector<Sent>{on_add, on_add, on_add}));
        // Orv replaces with the empty value; the others delete the attribute.
        EXPECT_EQ(sent_values(fault::calls(Fn::Modify)[0], "description"), keeps_empty ? Sent{{""}} : Sent{{}});
        EXPECT_EQ(fault::calls(Fn::Modify)[0].mods[0].op, keeps_empty ? LDAP_MOD_REPLACE : LDAP_MOD_DELETE);
    }
    fault::reset();
}

TEST_F(DomainTest, MembersOneByOne) {
    open(2);
    DomainRecord team("team", "Team", services({"mail"}));
    ASSERT_EQ(Zel_addZelDomain(s.get(), &team.d), 0u);
    // Adding a member twice succeeds; a service of the first generation counts.
    for (const char *service : {"wiki", "wiki", "payroll"})
        EXPECT_EQ(Zel_addLocationToDomain(s.get(), "team", "ResourceName", service), 0u) << service;
    EXPECT_EQ(Zel_removeLocationFromDomain(s.get(), "team", "resourceName", "mail"), 0u);
    EXPECT_EQ(read_domain(s.get(), "team"), "0 team [Team]" + member_text({"wiki", "payroll"}));

    // Refused before anything is written.
    fault::reset();
    DomainRecord host("other", nullptr, {{"resourceName", "mail"}, {"Host", "h1"}});
    std::string long_name(990, 'n');
    DomainRecord too_long(long_name.c_str(), nullptr);
    struct Case {
        const char *what;
        ZelRC rc, expected;
    } cases[] = {
        {"not a member", Zel_removeLocationFromDomain(s.get(), "team", "resourceName", "mail"),
         ZEL_RC_LOCATION_NOT_FOUND},
        {"no such service", Zel_addLocationToDomain(s.get(), "team", "resourceName", "nosuch"), ZEL_RC_TS_NOT_FOUND},
        {"host location", Zel_addZelDomain(s.get(), &host.d), ZEL_RC_CONFLICT},
        {"host member", Zel_addLocationToDomain(s.get(), "team", "Host", "wiki"), ZEL_RC_CONFLICT},
        {"untyped member", Zel_removeLocationFromDomain(s.get(), "team", nullptr, "wiki"), ZEL_RC_CONFLICT},
        {"add needs a type", Zel_addLocationToDomain(s.get(), "team", nullptr, "wiki"), ZEL_RC_INVALID_ARGUMENT},
        {"unknown operation", create_update_ZelDomain(s.get(), &team.d, 3), ZEL_RC_UNSUPPORTED_OPERATION},
        {"unknown location operation", add_remove_Location(s.get(), "team", "resourceName", "wiki", 2),
         ZEL_RC_UNSUPPORTED_OPERATION},
        {"name too long", Zel_addZelDomain(s.get(), &too_long.d), ZEL_RC_INVALID_ARGUMENT},
    };
    for (const Case &c : cases) EXPECT_EQ(c.rc, c.expected) << c.what;
    EXPECT_EQ(writes(), 1) << "only the removal of the non-member was sent";
}

// A security domain session keeps a first-generation domain where it is.
TEST_F(DomainTest, FirstGenerationDomainKeptInPlace) {
    dir->add("dn: cn=legacy," + kOldDomains + "\nobjectClass: eZelDomain\ncn: legacy\ntargetLocation: T:payroll\n");
    open(2);
    DomainRecord legacy("legacy", "Moved?", services({"mail"}));
    EXPECT_EQ(Zel_addZelDomain(s.get(), &legacy.d), ZEL_RC_ALREADY_EXISTS);
    EXPECT_EQ(writes(), 0);
    ASSERT_EQ(Zel_updateZelDomain(s.get(), &legacy.d), 0u);
    ASSERT_EQ(Zel_addLocationToDomain(s.get(), "legacy", "resourceName", "wiki"), 0u);
    ASSERT_EQ(Zel_removeLocationFromDomain(s.get(), "legacy", "resourceName", "mail"), 0u);
    Entry e = dir->entry("cn=legacy," + kOldDomains);
    EXPECT_EQ(e.values("targetlocation"), Strings{"T:wiki"});
    EXPECT_EQ(e.first("description"), "Moved?");
    EXPECT_EQ(dir->search(kGroups, "one").size(), 0u);
}

const std::string kSeed =
    "dn: cn=legacy," + kOldDomains + "\nobjectClass: eZelDomain\ncn: legacy\ndescription: Old\n" +
    "targetLocation: T:payroll\ntargetLocation: AI:inst1\ntargetLocation: t:web\ntargetLocation: X:foo\n"
    "targetLocation: H::host1\ntargetLocation: D:a:b\n\n" +
    "dn: secResGroupID=team," + kGroups + "\nobjectClass: secResGroup\nsecResGroupID: team\nsecType: 2\n" +
    "member: " + resource_dn("mail") + "\nmember: secResourceID=a\\,b," + kResources + "\n\n";

const std::string kLegacy =
    "legacy [Old] resourceName:payroll ApplicationInstance:inst1 resourceName:web -:- Host:host1 Domain:a:b";
const std::string kTeam = "team [-]" + member_text({"mail", "a,b"});

TEST_F(DomainTest, BothFormsListedFirstGenerationFirstThenRemoved) {
    dir->add(kSeed);
    for (uint32_t version : {1u, 2u}) {
        SCOPED_TRACE(version);
        open(version);
        ZelDomainList *list = nullptr;
        ASSERT_EQ(Zel_getAllZelDomain(s.get(), &list), 0u);
        Strings listed;
        for (int32_t i = 0; i < list->count; ++i) listed.push_back(domain_text(list->domains[i]));
        Zel_freeZelDomains(list);
        EXPECT_EQ(listed, version == 1 ? Strings{kLegacy} : (Strings{kLegacy, kTeam}));

        // The security domain session finds "legacy" through the fallback;
        // a name is a value, never a pattern.
        EXPECT_EQ(read_domain(s.get(), "legacy"), "0 " + kLegacy);
        EXPECT_EQ(read_domain(s.get(), "team"), version == 1 ? "32" : "0 " + kTeam);
        EXPECT_EQ(read_domain(s.get(), "*"), "32");
        EXPECT_EQ(read_domain(s.get(), "te*"), "32");
    }
    ASSERT_EQ(Zel_removeZelDomain(s.get(), "legacy"), 0u);
    EXPECT_FALSE(dir->exists("cn=legacy," + kOldDomains));
    EXPECT_EQ(traced(s.get(), [&] { EXPECT_EQ(Zel_removeZelDomain(s.get(), "legacy"), ZEL_RC_ZEL_DOMAIN_NOT_FOUND); }),
              "zelmgmt:Were able remove Zel Domain successfully!\n");
    ASSERT_EQ(Zel_removeZelDomain(s.get(), "team"), 0u);
    EXPECT_TRUE(dir->exists(resource_dn("mail"))) << "members stay";
    ZelDomainList *list = reinterpret_cast<ZelDomainList *>(1);
    EXPECT_EQ(Zel_getAllZelDomain(s.get(), &list), ZEL_RC_ZEL_DOMAIN_NOT_FOUND);
    EXPECT_EQ(list, nullptr);
}

}  // namespace
