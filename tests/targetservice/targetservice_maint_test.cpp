// Adding and removing target services and their types in both storage forms,
// directly.
#include "support/alloc_faults.h"
#include "support/family_fixture.h"
#include "ZelSession.h"

namespace {

using namespace famtest;
using Values = Strings;

TEST_F(TargetServiceV1, ServiceIdentifiersMustMatchItsTypeAndFitTheirBuffer) {
    EXPECT_EQ(add_service(s.get(), {"a", "web", nullptr, {{"host", "h"}}}), ZEL_RC_CONFLICT);
    EXPECT_EQ(add_service(s.get(), {"b", "Web", nullptr, {{"host", "h"}, {"path", "/"}}}), ZEL_RC_CONFLICT);
    EXPECT_EQ(add_service(s.get(), {"c", "Web", nullptr, {{"host", "h"}, {"port", "1"}, {"path", "/"}}}), ZEL_RC_CONFLICT);
    EXPECT_EQ(add_service(s.get(), {"d", "Missing", nullptr}), ZEL_RC_TST_NOT_FOUND);
    EXPECT_EQ(fault::count(Fn::Add), 0);

    // Pairs in another order match.  Every reqIdentifier value carries all
    // pairs run together; the two modifications reach the directory as one
    // (slapd would refuse the repeated value, so the add is kept away from
    // it: only what was sent matters here).
    fault::fail_call(Fn::Add, 1, LDAP_SUCCESS);
    ASSERT_EQ(add_service(s.get(), {"shop", "Web", nullptr, {{"PORT", "443"}, {"host", "shop.acme"}}}), 0u);
    auto adds = fault::calls(Fn::Add);
    ASSERT_EQ(adds.size(), 1u);
    EXPECT_EQ(sent_values(adds[0], "reqIdentifier"),
              (std::vector<Values>{{"PORT=443host=shop.acme", "PORT=443host=shop.acme"}}));

    // A type naming no identifiers takes any pairs; a name is taken whatever the type.
    ASSERT_EQ(add_service(s.get(), {"box", "Open", "A box", {{"serial", "42"}}}), 0u);
    Entry e = dir->entry("tsName=box," + type_dn("Open"));
    EXPECT_EQ(e.values("objectclass"), (Values{"top", "eTargetService"}));
    EXPECT_EQ((Values{e.first("tstype"), e.first("description")}), (Values{"Open", "A box"}));
    EXPECT_EQ(e.values("reqidentifier"), (Values{"serial=42"}));
    EXPECT_EQ(add_service(s.get(), {"BOX", "Web", nullptr, {{"host", "h"}, {"port", "1"}}}), ZEL_RC_ALREADY_EXISTS);

    // Pairs that would overflow their buffer, or lack a value, are refused unsent.
    fault::reset();
    std::string long_value(200, 'v'), more(60, 'w'), exact(251, 'x');
    EXPECT_EQ(add_service(s.get(), {"svc", "Open", nullptr, {{"k", long_value.c_str()}, {"k2", more.c_str()}}}),
              ZEL_RC_INVALID_ARGUMENT);
    EXPECT_EQ(add_service(s.get(), {"svc", "Open", nullptr, {{"key", nullptr}}}), ZEL_RC_INVALID_ARGUMENT);
    EXPECT_TRUE(fault::calls().empty());
    ASSERT_EQ(add_service(s.get(), {"svc", "Open", nullptr, {{"key", exact.c_str()}}}), 0u);  // 255 bytes and the NUL
    EXPECT_EQ(dir->entry("tsName=svc," + type_dn("Open")).first("reqidentifier"), "key=" + exact);
}

TEST_F(TargetServiceV1, TypesAreAddedAndRemovedAsLeaves) {
    std::vector<char *> names{const_cast<char *>("user"), const_cast<char *>("realm")};
    ZelTargetServiceType t{const_cast<char *>("Kerberos"), 2, names.data()};
    std::string out = traced(s.get(), [&] { EXPECT_EQ(Zel_addTargetServiceType(s.get(), &t), 0u); });
    EXPECT_EQ(out, "zelmgmt:Were able add Target Service Type successfully!\n");
    Entry e = dir->entry(type_dn("Kerberos"));
    EXPECT_EQ(e.values("objectclass"), (Values{"top", "eTargetServiceType"}));
    EXPECT_EQ(e.values("reqidentifiername"), (Values{"user", "realm"}));
    out = traced(s.get(), [&] { EXPECT_EQ(Zel_addTargetServiceType(s.get(), &t), ZEL_RC_ALREADY_EXISTS); });
    EXPECT_EQ(out, "zelmgmt:ldap_add_ext_s() failed.  RC=x44\n"
                   "zelmgmt:LDAP error when trying to add Target Service Type.\n");

    ASSERT_EQ(add_service(s.get(), {"box", "Open", nullptr}), 0u);
    EXPECT_EQ(Zel_removeTargetServiceType(s.get(), "open"), ZEL_RC_NOT_LEAF);

    // Removals report success once the entry was found, whatever its deletion gave.
    fault::reset();
    fault::fail_call(Fn::Delete, 1, LDAP_INSUFFICIENT_ACCESS);
    fault::fail_call(Fn::Delete, 2, LDAP_UNWILLING_TO_PERFORM);
    out = traced(s.get(), [&] {
        EXPECT_EQ(Zel_removeTargetService(s.get(), "box"), ZEL_RC_NOT_AUTHORIZED);
        EXPECT_EQ(Zel_removeTargetServiceType(s.get(), "Web"), ZEL_RC_DIRECTORY_ERROR);
        EXPECT_EQ(Zel_removeTargetService(s.get(), "none"), ZEL_RC_TS_NOT_FOUND);
    });
    EXPECT_EQ(out, "zelmgmt:ldap_delete_ext_s() failed.  RC=x32\n"
                   "zelmgmt:Were able remove Target Service successfully!\n"
                   "zelmgmt:ldap_delete_ext_s() failed.  RC=x35\n"
                   "zelmgmt:Were able remove Target Service Type successfully!\n");

    ASSERT_EQ(Zel_removeTargetService(s.get(), "BOX"), 0u);
    EXPECT_EQ(Zel_removeTargetService(s.get(), "box"), ZEL_RC_TS_NOT_FOUND);
    EXPECT_EQ(Zel_removeTargetServiceType(s.get(), "open"), 0u);
    EXPECT_FALSE(dir->exists(type_dn("Open")));
    EXPECT_EQ(Zel_removeTargetServiceType(s.get(), "open"), ZEL_RC_TST_NOT_FOUND);
}

// Every allocation failure answers 1012, except one that hits an identifier
// pair's modification: the remaining pairs are left out, the add goes on
// with complete modifications only, and its result is the answer.
TEST_F(TargetServiceV1, AllocationFailuresAreReported) {
    ServiceRecord r("box", "Open", "Box", {{"a", "1"}, {"b", "2"}});
    // No add reaches the directory, so every round starts from the same tree.
    for (int n = 1; n <= 500; ++n) fault::fail_call(Fn::Add, n, LDAP_SUCCESS);
    int pairs_left_out = 0;
    zeltest::each_allocation_fails("call", 0, [&] {
        size_t before = fault::calls(Fn::Add).size();
        ZelRC rc = Zel_addTargetService(s.get(), &r.ts);
        auto adds = fault::calls(Fn::Add);
        if (adds.size() == before || !fault::allocation_failed()) return rc;
        EXPECT_EQ(rc, 0u);
        auto sent = sent_values(adds.back(), "reqIdentifier");
        EXPECT_LT(sent.size(), 2u);
        for (const Values &v : sent) EXPECT_EQ(v.size(), 1u);
        ++pairs_left_out;
        return ZEL_RC_NO_MEMORY;  // the fault was met and absorbed as intended
    });
    EXPECT_GT(pairs_left_out, 0);
}

TEST_F(TargetServiceDomain, WithoutDatabaseWritesIntoAnExistingContainerOnly) {
    open(2);
    Session v1 = open_session(*dir, 1);
    ASSERT_TRUE(v1);
    // A first-generation session has nowhere to write at all.
    auto type = [](const char *name) { return ZelTargetServiceType{const_cast<char *>(name), 0, nullptr}; };
    ZelTargetServiceType open_type = type("Open"), web_type = type("web RESOURCE"),
                         group_type = type("Resource Group"), other_type = type("Web");
    EXPECT_EQ(add_service(v1.get(), {"svc", "Open", nullptr}), ZEL_RC_DATABASE_NOT_FOUND);
    EXPECT_EQ(Zel_addTargetServiceType(v1.get(), &open_type), ZEL_RC_DATABASE_NOT_FOUND);
    EXPECT_EQ(Zel_removeTargetService(v1.get(), "svc"), ZEL_RC_DATABASE_NOT_FOUND);
    EXPECT_EQ(Zel_removeTargetServiceType(v1.get(), "Open"), ZEL_RC_DATABASE_NOT_FOUND);

    // A security domain has only its built-in types, which need no entry.
    fault::reset();
    EXPECT_EQ(Zel_addTargetServiceType(s.get(), &web_type), 0u);
    EXPECT_EQ(Zel_addTargetServiceType(s.get(), &group_type), 0u);
    EXPECT_EQ(Zel_addTargetServiceType(s.get(), &other_type), ZEL_RC_INVALID_ARGUMENT);
    EXPECT_EQ(Zel_removeTargetServiceType(s.get(), "Web Resource"), 0u);
    EXPECT_TRUE(fault::calls().empty());

    const ServiceRecord web("site", "wEB rESOURCE", "Site");
    EXPECT_EQ(add_service(s.get(), web), ZEL_RC_TS_NOT_FOUND);
    EXPECT_EQ(Zel_removeTargetService(s.get(), "site"), ZEL_RC_TS_NOT_FOUND);

    dir->add(container_ldif(kResources, "Resources"));
    fault::reset();
    ASSERT_EQ(add_service(s.get(), web), 0u);
    ASSERT_EQ(add_service(s.get(), {"team", "Resource Group", nullptr}), 0u);
    EXPECT_EQ(fault::count(Fn::Add), 2);  // no container add
    Entry e = dir->entry("secResourceID=site," + kResources);
    EXPECT_EQ(e.values("objectclass"), (Values{"top", "secResource"}));
    EXPECT_EQ((Values{e.first("sectype"), e.first("secvalid"), e.first("description")}), (Values{"1", "TRUE", "Site"}));
    EXPECT_EQ(dir->entry("secResourceID=team," + kResources).first("sectype"), "2");
    EXPECT_EQ(add_service(s.get(), web), ZEL_RC_ALREADY_EXISTS);
    ASSERT_EQ(Zel_removeTargetService(s.get(), "site"), 0u);
    EXPECT_FALSE(dir->exists("secResourceID=site," + kResources));

    // Any other type is unknown to the domain: answered without a request
    // (its search would have no filter at all), and the session goes on.
    fault::reset();
    EXPECT_EQ(add_service(s.get(), {"misc", "Something", nullptr}), ZEL_RC_TST_NOT_FOUND);
    EXPECT_EQ(fault::count(Fn::Search) + fault::count(Fn::Add), 0);
    EXPECT_EQ(add_service(s.get(), web), 0u);
}

TEST_F(TargetServiceDomain, WithDatabaseAddsTheContainerAndChecksBothForms) {
    dir->add(database_ldif("o=acme") + type_ldif("Web") + service_ldif("Web", "legacy"));
    open(2);
    fault::reset();
    const std::string long_name(990, 'n');
    EXPECT_EQ(add_service(s.get(), {long_name.c_str(), "Web Resource", nullptr}), ZEL_RC_INVALID_ARGUMENT);
    EXPECT_EQ(fault::count(Fn::Add), 0) << "refused before the container is added";
    fault::fail_call(Fn::Add, 1, LDAP_NO_SUCH_ATTRIBUTE);
    EXPECT_EQ(add_service(s.get(), {"site", "Web Resource", nullptr}), ZEL_RC_SCHEMA_VIOLATION);
    ASSERT_EQ(add_service(s.get(), {"site", "Web Resource", nullptr}), 0u);
    EXPECT_EQ(dir->entry(kResources).values("objectclass"), (Values{"top", "container"}));
    ASSERT_EQ(add_service(s.get(), {"second", "Web Resource", nullptr}), 0u);  // the container exists: fine
    EXPECT_EQ(add_service(s.get(), {"legacy", "Web Resource", nullptr}), ZEL_RC_ALREADY_EXISTS);
    ASSERT_EQ(Zel_removeTargetService(s.get(), "legacy"), 0u);
    EXPECT_FALSE(dir->exists("tsName=legacy," + type_dn("Web")));
    // Types are entries of the database: a known database lets them go.
    EXPECT_EQ(Zel_removeTargetServiceType(s.get(), "Web"), 0u);
}

}  // namespace
