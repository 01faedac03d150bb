// Target record passwords encrypted under an operator's key file, and rekey;
// zelctl keeps record passwords off its command line and out of sight.
#include <sys/stat.h>


#include "support/family_fixture.h"
#include "support/env.h"
#include "support/key_files.h"
#include "support/zelctl.h"

using namespace famtest;
using zeltest::ScopedEnv;

namespace {

std::string password_of(ZelSession *s, const char *id) {
    Strings r = read_record(s, "jo", id);
    return r.size() > 2 ? r[3] : r[0];
}

// Rewritten count and unreadable DNs, or the status.
Strings rekey(ZelSession *s, const char *user) {
    ZelRekeyReport *r = nullptr;
    ZelRC rc = Zel_rekeyTargetRecords(s, user, &r);
    if (rc != 0) return {status(rc)};
    Strings out{std::to_string(r->rewritten)};
    for (int32_t i = 0; i < r->unreadableCount; ++i) out.push_back(r->unreadable[i]);
    Zel_freeRekeyReport(r);
    return out;
}

const std::string kAppDn = "secResCredsID=T:app,cn=ResCreds," + kJoDomainUser;

}  // namespace

// Sealed under an operator's key, a password reads back unchanged; a key
// file others may read seals nothing, and nothing is stored.
TEST_F(RecordTest, KeyFileSealsPasswordsOrStoresNothing) {
    open_with_jo(2);
    ZelTargetRecord r = record("T:app", "app", "jdoe", "pa55word");
    {
        ScopedEnv env("ZEL_KEYFILE", key_file(kKeyLineA + " active\n", 0640).c_str());
        EXPECT_EQ(Zel_addTargetRecord(s.get(), "jo", &r), ZEL_RC_SYSTEM_ERROR);
        EXPECT_FALSE(dir->exists(kAppDn));
        EXPECT_EQ(rekey(s.get(), "jo"), Strings{"status 1000"});
    }
    ScopedEnv env("ZEL_KEYFILE", key_file(kKeyLineA + " active\n").c_str());
    ASSERT_EQ(Zel_addTargetRecord(s.get(), "jo", &r), 0u);
    const std::string stored = dir->entry(kAppDn).first("secAuthnData");
    EXPECT_EQ(stored.rfind("{ZK1}a:", 0), 0u) << stored;
    EXPECT_EQ(stored.find("pa55word"), std::string::npos);
    EXPECT_EQ(password_of(s.get(), "T:app"), "pa55word");
    EXPECT_EQ(credential(s.get(), "jo", "app"), "jdoe/pa55word");
}

TEST_F(RecordTest, RekeyRewritesOnceAndLeavesWhatItCannotRead) {
    struct Case {
        uint32_t version;
        const char *id, *service, *type, *attr;
        std::string dn;
    };
    const Case cases[] = {
        {1, "T:legacy", "legacy", "Web Application", "secretKey", "cn=T:legacy," + kJoProfile},
        {2, "T:app", "app", nullptr, "secAuthnData", kAppDn},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.version);
        open_with_jo(c.version);
        ZelTargetRecord r = record(c.id, c.service, "jdoe", "pa55word", nullptr, c.type);
        ASSERT_EQ(Zel_addTargetRecord(s.get(), "jo", &r), 0u);

        ScopedEnv env("ZEL_KEYFILE", key_file(kKeyLineA + " active\n").c_str());
        EXPECT_EQ(rekey(s.get(), "jo"), Strings{"1"});
        EXPECT_EQ(dir->entry(c.dn).first(c.attr).rfind("{ZK1}a:", 0), 0u);
        EXPECT_EQ(rekey(s.get(), "jo"), Strings{"0"}) << "a second rekey converts nothing";

        setenv("ZEL_KEYFILE", key_file(kKeyLineA + "\n" + kKeyLineB + " active\n").c_str(), 1);
        EXPECT_EQ(rekey(s.get(), nullptr), Strings{"1"});
        EXPECT_EQ(dir->entry(c.dn).first(c.attr).rfind("{ZK1}b:", 0), 0u);
        EXPECT_EQ(password_of(s.get(), c.id), "pa55word");

        setenv("ZEL_KEYFILE", key_file(kKeyLineC + " active\n").c_str(), 1);
        EXPECT_EQ(rekey(s.get(), nullptr), (Strings{"0", c.dn}));
        EXPECT_EQ(password_of(s.get(), c.id), "status 1013");
        EXPECT_EQ(rekey(s.get(), "nobody"), Strings{"status 28"}) << "no such person";
        ASSERT_EQ(Zel_removeTargetRecord(s.get(), "jo", c.id), 0u);
    }
}

// zelctl makes key files, and keeps record passwords off its command line and
// out of sight.
TEST_F(RecordTest, ZelctlKeysRecordsAndCredentials) {
    const std::string keys = testing::TempDir() + "zelctl-keys";
    std::remove(keys.c_str());
    auto key = [&](std::vector<std::string> args) {
        args.insert(args.begin(), {ZELCTL_PATH, "key", "generate"});
        return run_command(args);
    };
    CommandResult r = key({keys});
    ASSERT_EQ(r.status, 0) << r.err;
    struct stat st {};
    ASSERT_EQ(stat(keys.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    const std::string first = lines_of(file_text(keys)).at(0);
    EXPECT_EQ(key({keys}).status, 2) << "never overwrites";
    ASSERT_EQ(key({"--add", keys}).status, 0);
    const Strings lines = lines_of(file_text(keys));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0] + " active", first) << "the old key stays, no longer active";
    EXPECT_EQ(lines[1].substr(lines[1].size() - 7), " active");

    open_with_jo(2);
    const std::string file = key_file("file-pw\n");
    r = zelctl(*dir, {"record", "add", "jo", "T:app", "--service", "app", "--account", "jdoe", "--password-file", file},
               "2");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "target record T:app added\n");
    r = run_command({ZELCTL_PATH, "-H", dir->uri(), "-D", dir->admin_dn(), "-w", Directory::admin_password(), "record",
                     "add", "jo", "G:Sales", "--service", "Sales", "--account", "team", "--password-stdin"},
                    "stdin-pw\n");
    ASSERT_EQ(r.status, 0) << r.err;

    const std::vector<std::pair<std::vector<std::string>, std::string>> reads = {
        {{"--json", "record", "get", "jo", "T:app"},
         "{\"id\":\"T:app\",\"service\":\"app\",\"type\":\"Web Resource\",\"account\":\"jdoe\",\"description\":null}\n"},
        {{"record", "get", "jo", "G:Sales", "--reveal"},
         "id:          G:Sales\nservice:     Sales\ntype:        Resource Group\naccount:     team\ndescription: \n"
         "password:    stdin-pw\n"},
        {{"credential", "get", "jo", "app"}, "account:  jdoe\n"},
        {{"credential", "get", "jo", "app", "--reveal"}, "account:  jdoe\npassword: file-pw\n"},
        {{"--json", "credential", "get", "jo", "shop", "--reveal"},
         "{\"user\":\"jo\",\"resource\":\"shop\",\"account\":\"team\",\"password\":\"stdin-pw\"}\n"},
        {{"credential", "explain", "jo", "shop"},
         "user (security domain): principalName=jo,cn=Users,secAuthority=Default,o=acme, active\n"
         "direct record T:shop (security domain): not found\n"
         "user (Zel database): -, no Zel user\n"
         "group record G:Sales (security domain): group holds the resource in the security domain  <- answers\n"
         "answer: the first group record whose group holds the resource answers (status 0)\n"},
    };
    for (const auto &[args, want] : reads) {
        r = zelctl(*dir, args, "2");
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.out, want);
    }
    r = zelctl(*dir, {"--json", "record", "list", "jo"}, "2");
    EXPECT_EQ(r.out.find("-pw"), std::string::npos) << r.out;

    r = zelctl(*dir, {"credential", "get", "jo", "nothing"}, "2");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "zelctl: no credential of jo for nothing: ZEL_RC_TR_NOT_FOUND: target record not found (status 24)\n");

    // Rekey under a key file zelctl made.
    Strings argv = {ZELCTL_PATH, "-H", dir->uri(), "-D", dir->admin_dn(), "-w", Directory::admin_password(),
                    "record", "rekey", "--all"};
    EXPECT_EQ(run_command(argv).status, 2) << "no key file named";
    r = run_command(argv, "", {{"ZEL_KEYFILE", keys}});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "2 stored passwords rewritten under the active key\n");
    EXPECT_EQ(zelctl(*dir, {"record", "remove", "jo", "T:app"}, "2").out, "target record T:app removed\n");
}
