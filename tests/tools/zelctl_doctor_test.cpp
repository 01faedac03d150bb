// zelctl doctor against a directory open to everyone and one with the shipped
// access rules: the same data, the same small size limit, told apart by who
// can read the stored passwords.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "support/key_files.h"
#include "support/zelctl.h"

using namespace zeltest;

namespace {

struct DoctorCase {
    const char *name;
    AccessRules rules;
    int status;
    const char *anonymous, *user;  // verdicts of anonymous-read and user-read
};
void PrintTo(const DoctorCase &c, std::ostream *os) { *os << c.name; }

class Doctor : public DirectoryTest, public testing::WithParamInterface<DoctorCase> {
protected:
    Profile profile() const override {
        Profile p;
        p.access_rules = GetParam().rules;
        p.server_size_limit = 1;  // the two records of the data below make a list too long
        return p.seeded("dn: cn=Users,secAuthority=Default,o=acme\nobjectClass: container\ncn: Users\n\n");
    }
};

std::string verdict(const std::string &json, const std::string &check) {
    const std::string key = "{\"check\":\"" + check + "\",\"verdict\":\"";
    size_t at = json.find(key);
    return at == std::string::npos ? "" : json.substr(at + key.size(), json.find('"', at + key.size()) - at - key.size());
}

}  // namespace

TEST_P(Doctor, TellsWhoReadsThePasswords) {
    const DoctorCase &c = GetParam();
    const std::string admin_pw = key_file("pw-admin"), ann_pw = key_file("pw-ann"), secret = key_file("s3cret");
    run_steps(*dir, "1", {{"db", "create", "o=acme", "--admin-uid", "admin", "--admin-password-file", admin_pw},
                          {"person", "add", "o=acme", "--cn", "Ann", "--sn", "Ann", "--uid", "ann", "--password-file",
                           ann_pw, "--type", "User"},
                          {"service-type", "add", "App", "--id", "url"},
                          {"service", "add", "mail", "--type", "App", "--id", "url=x"},
                          {"record", "add", "ann", "T:mail", "--service", "mail", "--account", "a", "--password-file",
                           secret}});
    run_steps(*dir, "2", {{"service", "add", "wiki", "--type", "Web Resource"},
                          {"record", "add", "ann", "T:wiki", "--service", "wiki", "--account", "a", "--password-file",
                           secret}});
    ASSERT_FALSE(HasFatalFailure());

    CommandResult r = run_command({ZELCTL_PATH, "-H", dir->uri(), "-D", "cn=Zel Sr Admin,o=acme", "-y", admin_pw,
                                   "--json", "doctor", "--user", "cn=Ann,o=acme", "--user-password-file", ann_pw});
    EXPECT_EQ(r.status, c.status) << r.out << r.err;
    EXPECT_EQ(verdict(r.out, "anonymous-read"), c.anonymous) << r.out;
    EXPECT_EQ(verdict(r.out, "user-read"), c.user) << r.out;
    for (const auto &[check, expected] : std::vector<std::pair<std::string, std::string>>{
             {"schema", "ok"}, {"storage-forms", "ok"}, {"connection", "warning"},
             {"stored-passwords", "warning"}, {"size-limit", "warning"}})
        EXPECT_EQ(verdict(r.out, check), expected) << check << "\n" << r.out;
    EXPECT_EQ(r.out.find("s3cret"), std::string::npos);
    EXPECT_EQ(r.out.find("{ZM1}"), std::string::npos) << "stored values are counted, never shown";

    // The text form says the same, one finding a line, with its fix.
    r = run_command({ZELCTL_PATH, "-H", dir->uri(), "-D", "cn=Zel Sr Admin,o=acme", "-y", admin_pw, "doctor"});
    EXPECT_EQ(r.status, c.status);
    EXPECT_NE(r.out.find(std::string(c.anonymous) + " "), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("fix: set ZEL_KEYFILE"), std::string::npos) << r.out;
}

INSTANTIATE_TEST_SUITE_P(Directories, Doctor,
                         testing::Values(DoctorCase{"Open", AccessRules::None, 3, "danger", "danger"},
                                         DoctorCase{"Protected", AccessRules::SlapdConf, 0, "ok", "ok"}),
                         [](const testing::TestParamInfo<DoctorCase> &i) { return std::string(i.param.name); });

// One unsafe thing at a time on a directory that is otherwise safe: each is
// named as a danger and makes doctor exit 3; undone, doctor is content again.
TEST(DoctorSecurity, NamesEachUnsafeSecretOutsideTheRecords) {
    Profile p;
    p.access_rules = AccessRules::SlapdConf;
    const auto dir = std::make_unique<Directory>(p);
    const std::string admin_pw = key_file("pw-admin"), folder = make_temp_dir("doctor");
    ASSERT_NO_FATAL_FAILURE(run_steps(*dir, "1", {{"db", "create", "o=acme", "--admin-password-file", admin_pw}}));
    const std::string trail = folder + "/trail";
    std::ofstream(trail).close();
    chmod(trail.c_str(), 0600);
    auto password_of = [&](const std::string &dn, const std::string &value) {
        dir->modify("dn: " + dn + "\nchangetype: modify\nreplace: userPassword\nuserPassword: " + value + "\n\n");
    };
    struct Case {
        const char *check, *finding;
        std::function<void()> make, undo;
    } cases[] = {
        {"default-password", "signs on with the library's default password",
         [&] { password_of("cn=Zel Sr Admin,o=acme", "qim"); },
         [&] { password_of("cn=Zel Sr Admin,o=acme", "{SSHA}x"); }},
        {"person-passwords", "1 person password is stored in clear",
         [&] { dir->add("dn: cn=Clear,o=acme\nobjectClass: person\ncn: Clear\nsn: C\nuserPassword: pw-clear\n\n"); },
         [&] { dir->modify("dn: cn=Clear,o=acme\nchangetype: delete\n\n"); }},
        {"audit-trail", "group or others may write the trail file",
         [&] { chmod(trail.c_str(), 0662); }, [&] { chmod(trail.c_str(), 0600); }},
    };
    const std::map<std::string, std::string> env = {{"ZEL_AUDIT", trail}};
    auto doctor = [&] { return zelctl(*dir, {"--json", "doctor"}, "2", "", env); };
    CommandResult r = doctor();
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(verdict(r.out, "user-read"), "warning") << "the skipped check is said";
    EXPECT_EQ(verdict(r.out, "audit-trail"), "warning") << "no trail key";
    EXPECT_EQ(verdict(r.out, "person-passwords"), "ok") << r.out;
    for (const Case &c : cases) {
        c.make();
        r = doctor();
        EXPECT_EQ(r.status, 3) << c.check << "\n" << r.out;
        EXPECT_EQ(verdict(r.out, c.check), "danger") << r.out;
        EXPECT_NE(r.out.find(c.finding), std::string::npos) << r.out;
        EXPECT_EQ(r.out.find("pw-clear"), std::string::npos);
        c.undo();
        EXPECT_EQ(doctor().status, 0) << c.check;
    }
    std::filesystem::remove_all(folder);
}
