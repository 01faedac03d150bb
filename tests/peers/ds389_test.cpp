// The library against a real 389 Directory Server: it must find the server's
// kind by itself, every access-control value it writes must pass the server's
// parser, and those values must protect the records when people bind as
// themselves.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "domain/domain_fixtures.h"
#include "record/record_fixture.h"
#include "support/ds389.h"

namespace {

using namespace zeltest;
using recordtest::credential;
using recordtest::record;

const std::string kSuffix = "o=peer";
const std::string kDb = "systemName=ORVZEL," + kSuffix;
const std::string kDomain = "secAuthority=Default," + kSuffix;
const std::string kAdmin = "cn=Zel Sr Admin," + kSuffix;
const char *const kAdminPassword = "Admin-pw-1";

std::string person(const std::string &cn) { return "cn=" + cn + "," + kSuffix; }
std::string password_of(const std::string &cn) { return cn + "-pw-389"; }

class PeerDs389 : public ::testing::Test {
protected:
    void SetUp() override {
        server = std::make_unique<Ds389>(kSuffix);
        admin = open(Ds389::admin_dn(), Ds389::admin_password(), 1);
        ASSERT_TRUE(admin);
    }

    Session open(const std::string &user, const std::string &password, uint32_t version) const {
        ZelSession *s = nullptr;
        ZelRC rc = version < 2 ? Zel_open(nullptr, user.c_str(), password.c_str(), "127.0.0.1", server->port(),
                                          ZEL_OPEN_NONSSL, nullptr, nullptr, nullptr, &s, version)
                               : Zel_open_sec_domain(nullptr, user.c_str(), password.c_str(), "127.0.0.1",
                                                     server->port(), ZEL_OPEN_NONSSL, nullptr, nullptr, nullptr,
                                                     "Default", &s, version);
        EXPECT_EQ(rc, 0u) << "open as " << user;
        return Session(rc == 0 ? s : nullptr);
    }

    // A database with every optional part, people of each user type and a
    // record for each ordinary user.
    void build_database() {
        ASSERT_EQ(Zel_createDatabase(admin.get(), kSuffix.c_str(), nullptr, "sradmin", kAdminPassword,
                                     ZEL_CREATEDB_SUFFIX | ZEL_CREATEDB_XR_DEFAULTS | ZEL_CREATEDB_EXTENDED),
                  0u);
        struct Who {
            const char *cn, *type;
        } people[] = {{"Jo", "User"}, {"Ann", "User"}, {"Agent", "Middle Tier Server"}, {"Xr", "XR User"}};
        for (const Who &w : people) {
            std::string pw = password_of(w.cn), uid = w.cn;
            ZelPerson p{const_cast<char *>(kSuffix.c_str()), const_cast<char *>(w.cn), const_cast<char *>(w.cn),
                        nullptr, uid.data(), pw.data()};
            ASSERT_EQ(Zel_create_ePerson(admin.get(), &p, w.type), 0u) << w.cn;
        }
        ZelReqIdentifier id{const_cast<char *>("resourceName"), const_cast<char *>("mail")};
        ZelReqIdentifier *ids[] = {&id};
        ZelTargetService mail{const_cast<char *>("mail"), const_cast<char *>("Web Resource"),
                              const_cast<char *>("Mail"), 1, ids};
        ASSERT_EQ(Zel_addTargetService(admin.get(), &mail), 0u);
        for (const char *who : {"Jo", "Ann"}) {
            std::string account = std::string(who) + ".mail", pw = std::string(who) + "-mail-pw";
            ZelTargetRecord r = record("T:mail", "mail", account.c_str(), pw.c_str());
            ASSERT_EQ(Zel_addTargetRecord(admin.get(), who, &r), 0u) << who;
        }
    }

    std::unique_ptr<Ds389> server;
    Session admin;
};

TEST_F(PeerDs389, WholeLibraryInBothStorageForms) {
    ZelSessionInfo *info = nullptr;
    ASSERT_EQ(Zel_getSessionInfo(admin.get(), &info), 0u);
    EXPECT_EQ(info->dirKind, ZEL_DIR_NETSCAPE);
    Zel_freeSessionInfo(info);

    build_database();
    // Every entry that should carry ACIs does: the server parsed and kept them.
    std::vector<std::string> with_acis;
    for (const Entry &e : server->search(kSuffix, "(aci=*)", {"1.1"})) with_acis.push_back(e.dn);
    std::vector<std::string> want = {"cn=Zel Sr Admin," + kAdmin, kDb};
    for (const char *cn : {"Access Groups", "Zel Domains", "Target Service Types", "Target Groups", "Target Accounts",
                           "Password Generators", "Senior Administrators,cn=Access Groups",
                           "Administrators,cn=Access Groups", "Middle Tier Servers,cn=Access Groups",
                           "Full Users,cn=Access Groups", "Users,cn=Access Groups"})
        want.push_back(std::string("cn=") + cn + "," + kDb);
    for (const char *type : {"Web Resource", "Resource Group"})
        want.push_back(std::string("tsType=") + type + ",cn=Target Service Types," + kDb);
    for (const char *cn : {"Jo", "Ann", "Agent", "Xr"}) want.push_back("cn=" + std::string(cn) + "," + person(cn));
    EXPECT_EQ(with_acis, want);

    domaintest::DomainRecord east("East", "East side", {{"resourceName", "mail"}});
    ASSERT_EQ(Zel_addZelDomain(admin.get(), &east.d), 0u);
    ZelDomain *got = nullptr;
    ASSERT_EQ(Zel_getZelDomain(admin.get(), "East", &got), 0u);
    EXPECT_EQ(got->locationCount, 1);
    Zel_freeZelDomain(got);
    EXPECT_EQ(credential(admin.get(), "Jo", "mail"), "Jo.mail/Jo-mail-pw");

    // The security domain form: its tree, a user and a record in it.
    CommandResult seeded = server->modify(
        "dn: " + kDomain + "\nobjectClass: secAuthorityInfo\nsecAuthority: Default\nversion: 5\n\n" +
            recordtest::container_ldif("cn=Users," + kDomain, "Users") +
            recordtest::container_ldif("cn=Resources," + kDomain, "Resources") +
            recordtest::container_ldif("cn=ResourceGroups," + kDomain, "ResourceGroups") + "dn: secResourceID=app,cn=Resources," +
            kDomain + "\nobjectClass: secResource\nsecResourceID: app\nsecType: 1\n",
        true);
    ASSERT_EQ(seeded.status, 0) << seeded.err;
    Session v2 = open(Ds389::admin_dn(), Ds389::admin_password(), 2);
    ASSERT_TRUE(v2);
    ZelUser jo = usertest::user_record("Jo", "User", person("Jo"));
    ASSERT_EQ(Zel_addZelUser(v2.get(), &jo), 0u);
    ZelTargetRecord app = record("T:app", "app", "jo.app", "app-pw");
    ASSERT_EQ(Zel_addTargetRecord(v2.get(), "Jo", &app), 0u);
    EXPECT_EQ(credential(v2.get(), "Jo", "app"), "jo.app/app-pw");

    ASSERT_EQ(Zel_removeZelUser(admin.get(), "Ann"), 0u);
    EXPECT_EQ(credential(admin.get(), "Ann", "mail"), "status 19");
    ASSERT_EQ(Zel_removeDatabase(admin.get()), 0u);
    EXPECT_TRUE(server->search(kDb, "(objectClass=*)", {"1.1"}).empty());
}

}  // namespace
