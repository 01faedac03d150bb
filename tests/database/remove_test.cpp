// Database removal: the schema probe decides, then only the database's own
// subtree goes.
#include "database/db_fixture.h"

using namespace dbtest;

TEST_F(DatabaseTest, RemovesTheSubtreeAndKeepsPersonsThenCreatesAgain) {
    ASSERT_EQ(create(ZEL_CREATEDB_EXTENDED, "Ann Admin"), 0u);
    EXPECT_FALSE(dir->entry("cn=Ann Admin,o=acme").has("userPassword"));
    EXPECT_EQ(Zel_removeDatabase(s.get()), 0u);
    EXPECT_EQ(tree(), (std::vector<std::string>{"cn=Ann Admin,cn=Ann Admin,o=acme", "cn=Ann Admin,o=acme",
                                                "o=acme", "secAuthority=Default,o=acme"}));
    EXPECT_EQ(fault::count(Fn::ModifyS), 0) << "a generic directory is not probed";

    // The person and its profile are found and taken again.
    EXPECT_EQ(create(0, "Ann Admin"), 0u);
    EXPECT_TRUE(dir->exists(kDb));
    EXPECT_EQ(Zel_removeDatabase(s.get()), 0u);
}

// A refused probe add is mapped twice; a refused delete once.
TEST_F(OrvDatabase, SchemaProbeDecides) {
    ASSERT_EQ(create(), 0u);
    const std::vector<std::string> created = tree();
    EXPECT_EQ(Zel_removeDatabase(s.get()), ZEL_RC_REQUEST_ERROR) << "slapd takes no schema over LDAP";
    struct Case {
        int nth, result;
        ZelRC rc;
    } refusals[] = {{1, LDAP_INSUFFICIENT_ACCESS, ZEL_RC_NOT_AUTHORIZED},
                    {1, LDAP_UNWILLING_TO_PERFORM, ZEL_RC_PROTOCOL_ERROR},
                    {2, LDAP_UNWILLING_TO_PERFORM, ZEL_RC_DIRECTORY_ERROR}};
    for (const Case &c : refusals) {
        fault::reset();
        if (c.nth == 2) fault::fail_call(Fn::ModifyS, 1, LDAP_SUCCESS);
        fault::fail_call(Fn::ModifyS, c.nth, c.result);
        EXPECT_EQ(Zel_removeDatabase(s.get()), c.rc) << c.nth << " " << c.result;
        EXPECT_EQ(fault::count(Fn::Delete), 0);
    }
    EXPECT_EQ(tree(), created);

    fault::reset();
    fault::fail_call(Fn::ModifyS, 1, LDAP_SUCCESS);
    fault::fail_call(Fn::ModifyS, 2, LDAP_SUCCESS);
    ASSERT_EQ(Zel_removeDatabase(s.get()), 0u);
    std::vector<fault::Call> probe = fault::calls(Fn::ModifyS);
    ASSERT_EQ(probe.size(), 2u);
    EXPECT_EQ(probe[0].dn, "cn=Subschema");
    EXPECT_EQ(probe[0].mods[0].op, LDAP_MOD_ADD);
    EXPECT_EQ(probe[1].mods[0].op, LDAP_MOD_DELETE);
    EXPECT_FALSE(dir->exists(kDb));
    EXPECT_TRUE(dir->exists(kAdmin));
}
