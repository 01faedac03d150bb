// zelctl db and person: the administrator's commands end to end.
#include <unistd.h>

#include <cstdio>

#include "database/db_fixture.h"
#include "support/zelctl.h"

using namespace dbtest;

TEST_F(DatabaseTest, ZelctlCreatesAndRemovesTheDatabase) {
    char path[] = "/tmp/zeltest-pw-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "pw-jo\n", 6), 6);
    close(fd);
    CommandResult r = zelctl(
        *dir, {"person", "add", "o=acme", "--cn", "Jo", "--sn", "Ex", "--uid", "jo", "--password-file", path});
    std::remove(path);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "Person Jo added\n");
    EXPECT_EQ(dir->entry("cn=Jo,o=acme").values("userPassword"), std::vector<std::string>{"pw-jo"});

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
        {{"db", "create", "o=acme"},
         "1",
         1,
         "zelctl: cannot create a Zel database under o=acme: " +
             std::string(Zel_strerror(ZEL_RC_DATABASE_EXISTS)) + " (status 901)\n"},
        {{"db", "remove"},
         "1",
         2,
         "zelctl: db remove: not on a terminal; give --yes to remove the Zel database\n"},
        {{"db", "remove", "--yes"},
         "2",
         1,
         "zelctl: cannot remove the Zel database: " + std::string(Zel_strerror(ZEL_RC_UNSUPPORTED_VERSION)) +
             " (status 1011)\n"},
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
