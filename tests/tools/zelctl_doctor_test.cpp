// zelctl doctor against a directory open to everyone and one with the shipped
// access rules: the same data, the same small size limit, told apart by who
// can read the stored passwords.
#include <gtest/gtest.h>

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
    const std::vector<std::vector<std::string>> setup = {
        {"db", "create", "o=acme", "--admin-uid", "admin", "--admin-password-file", admin_pw},
        {"person", "add", "o=acme", "--cn", "Ann", "--sn", "Ann", "--uid", "ann", "--password-file", ann_pw,
         "--type", "User"},
        {"service-type", "add", "App", "--id", "url"},
        {"service", "add", "mail", "--type", "App", "--id", "url=x"},
        {"record", "add", "ann", "T:mail", "--service", "mail", "--account", "a", "--password-file", secret}};
    for (const auto &args : setup) ASSERT_EQ(zelctl(*dir, args, "1").status, 0) << args[0];
    for (const auto &args : std::vector<std::vector<std::string>>{
             {"service", "add", "wiki", "--type", "Web Resource"},
             {"record", "add", "ann", "T:wiki", "--service", "wiki", "--account", "a", "--password-file", secret}})
        ASSERT_EQ(zelctl(*dir, args, "2").status, 0) << args[0];

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
