// Database removal: the schema probe decides, then only the database's own
// subtree goes.  Person entries, registered as Zel users on request.  zelctl
// db and person end to end.
#include <ldap.h>
#include "support/family_fixture.h"
#include "support/key_files.h"
#include "support/progress_log.h"
#include "support/zelctl.h"

using namespace famtest;

// A removal takes the database's subtree and keeps the persons (a generic
// directory is not probed); a creation after it takes the administrator
// again.  A watched removal lists the subtree first and counts each entry it
// deletes; once the hook is off it sends what it always sent.
TEST_F(DatabaseTest, RemovalReportsEachDeletedEntryWhileWatched) {
    ProgressLog log;
    ASSERT_EQ(log.watch(s.get()), 0u);
    for (bool watched : {true, false}) {
        SCOPED_TRACE(watched);
        ASSERT_EQ(create(ZEL_CREATEDB_EXTENDED, "Ann Admin"), 0u);
        EXPECT_FALSE(dir->entry("cn=Ann Admin,o=acme").has("userPassword"));
        const auto entries = static_cast<int64_t>(tree(kDb).size());
        const size_t reports = log.size();
        fault::reset();
        ASSERT_EQ(Zel_removeDatabase(s.get()), 0u);
        EXPECT_EQ(tree(), (Strings{"cn=Ann Admin,cn=Ann Admin,o=acme", "cn=Ann Admin,o=acme", "o=acme",
                                   "secAuthority=Default,o=acme"}));
        EXPECT_EQ(fault::count(Fn::ModifyS), 0);
        std::vector<fault::Call> searches = fault::calls(Fn::Search);
        EXPECT_EQ(std::any_of(searches.begin(), searches.end(),
                              [](const fault::Call &c) { return c.scope == LDAP_SCOPE_SUBTREE; }),
                  watched);
        if (watched) EXPECT_EQ(log.problem(entries), "");
        else EXPECT_EQ(log.size(), reports);
        ASSERT_EQ(Zel_setProgressCallback(s.get(), nullptr, &log), 0u);
    }
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
    EXPECT_TRUE(dir->exists(kDefaultAdmin));
}

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

// Where the server offers no Password Modify (here: its root entry cannot be
// read) the library writes a salted hash the server still signs the person on with.
TEST_F(DatabaseTest, PersonPasswordIsASaltedHashWithoutPasswordModify) {
    const std::string pw = "pw-ed";
    ZelPerson ed = person("Ed", nullptr, pw.c_str());
    fault::reset();
    fault::fail_call(Fn::Search, 1, LDAP_OTHER);
    ASSERT_EQ(Zel_create_ePerson(s.get(), &ed, nullptr), 0u);
    const std::string stored = dir->entry("cn=Ed,o=acme").first("userPassword");
    EXPECT_EQ(stored.rfind("{SSHA}", 0), 0u) << stored;
    EXPECT_EQ(run_command({"ldapwhoami", "-x", "-H", dir->uri(), "-D", "cn=Ed,o=acme", "-w", pw}).status, 0);
}

TEST_F(DatabaseTest, ZelctlCreatesAndRemovesTheDatabase) {
    const std::string path = key_file("pw-jo\n");  // any file of the caller's alone
    CommandResult r = zelctl(
        *dir, {"person", "add", "o=acme", "--cn", "Jo", "--sn", "Ex", "--uid", "jo", "--password-file", path});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "Person Jo added\n");
    // The server hashed the password: nobody reads it back, and Jo still signs on.
    const std::string stored = dir->entry("cn=Jo,o=acme").first("userPassword");
    EXPECT_EQ(stored.find("pw-jo"), std::string::npos) << stored;
    EXPECT_EQ(stored.rfind("{", 0), 0u) << stored;
    EXPECT_EQ(run_command({"ldapwhoami", "-x", "-H", dir->uri(), "-D", "cn=Jo,o=acme", "-y", key_file("pw-jo")}).status,
              0);

    // Without --api-version the db commands open a first-generation session.
    r = run_command({ZELCTL_PATH, "-H", dir->uri(), "-D", dir->admin_dn(), "-w", Directory::admin_password(), "db",
                     "create", "o=acme", "--admin", "Jo", "--extended"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "Zel database under o=acme created\n");
    EXPECT_TRUE(dir->exists("cn=Jo,cn=Jo,o=acme"));
    EXPECT_TRUE(dir->exists(below("cn=Password Generators")));

    struct Case {
        std::vector<std::string> args;
        const char *api_version;
        int status;
        std::string err;
    } cases[] = {
        {{"db", "create", "o=acme", "--admin", "Jo"}, "1", 1,
         zelctl_failure("cannot create a Zel database under o=acme", ZEL_RC_DATABASE_EXISTS)},
        // No administrator anyone could guess: zelctl never takes the library's default.
        {{"db", "create", "o=other"}, "1", 2,
         "zelctl: db create: give --admin-password-file F for the new administrator, or --admin for an existing person\n"},
        {{"db", "remove"}, "1", 2, "zelctl: db remove: not on a terminal; give --yes to remove the Zel database\n"},
        {{"db", "remove", "--yes"}, "2", 1, zelctl_failure("cannot remove the Zel database", ZEL_RC_UNSUPPORTED_VERSION)},
        {{"person", "add", "o=acme", "--cn", "Ann"}, "1", 2, "zelctl: person add: --cn and --sn are required\n"},
        {{"db", "remove", "--yes", "--json"}, "1", 0, ""},
    };
    for (const Case &c : cases) {
        r = zelctl(*dir, c.args, c.api_version);
        EXPECT_EQ(r.status, c.status) << c.args[1];
        EXPECT_EQ(r.err, c.err);
    }
    EXPECT_EQ(r.out, "{\"database\":true,\"removed\":true}\n");
    EXPECT_FALSE(dir->exists(kDb));
}
