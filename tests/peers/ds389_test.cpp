// The library against a real 389 Directory Server: it must find the server's
// kind by itself, every access-control value it writes must pass the server's
// parser, and those values must protect the records when people bind as
// themselves.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/family_fixture.h"
#include "peers/family_walk.h"
#include "support/ds389.h"

namespace {

using namespace zeltest;
using famtest::credential;
using famtest::record;

const std::string kSuffix = "o=peer";
const std::string kDb = "systemName=ORVZEL," + kSuffix;
const std::string kDomain = "secAuthority=Default," + kSuffix;
const std::string kAdmin = "cn=Zel Sr Admin," + kSuffix;
const char *const kAdminPassword = "Admin-pw-1";

std::string person(const std::string &cn) { return "cn=" + cn + "," + kSuffix; }
std::string password_of(const std::string &cn) { return cn + "-pw-389"; }
const std::string kUsersGroup = "cn=Users,cn=Access Groups," + kDb;
// Subentries (replication conflict entries are) answer only when named.
const char *const kWithSubentries = "(|(objectClass=*)(objectClass=ldapSubEntry))";
std::string subentry_ldif(const std::string &parent) {
    return "dn: cn=stray," + parent + "\nobjectClass: top\nobjectClass: ldapSubEntry\ncn: stray\n\n";
}

class PeerDs389 : public ::testing::Test {
protected:
    void SetUp() override {
        server = std::make_unique<Ds389>(kSuffix);
        admin = open(Ds389::admin_dn(), Ds389::admin_password(), 1);
        ASSERT_TRUE(admin);
    }

    Session open(const std::string &user, const std::string &password, uint32_t version) const {
        return open_version(user, password, "127.0.0.1", server->port(), ZEL_OPEN_NONSSL, nullptr, version);
    }

    // A database with every optional part (its suffix entry made by the
    // library: the server only knows the suffix), people of each user type, a
    // record for each ordinary user, a service and a domain.
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
        ASSERT_EQ(famtest::add_service(admin.get(), {"mail", "Web Resource", "Mail", {{"resourceName", "mail"}}}), 0u);
        famtest::DomainRecord east("East", "East side", {{"resourceName", "mail"}});
        ASSERT_EQ(Zel_addZelDomain(admin.get(), &east.d), 0u);
        for (const char *who : {"Jo", "Ann"}) {
            std::string account = std::string(who) + ".mail", pw = std::string(who) + "-mail-pw";
            ZelTargetRecord r = record("T:mail", "mail", account.c_str(), pw.c_str());
            ASSERT_EQ(Zel_addTargetRecord(admin.get(), who, &r), 0u) << who;
        }
    }

    // The security domain form: its tree, Jo as its user and a record of his.
    void add_domain_record() {
        CommandResult seeded = server->modify(walk::security_domain_ldif(kSuffix), true);
        ASSERT_EQ(seeded.status, 0) << seeded.err;
        Session v2 = open(Ds389::admin_dn(), Ds389::admin_password(), 2);
        ASSERT_TRUE(v2);
        const std::string jo_person = person("Jo");
        ZelUser jo = famtest::user_record("Jo", "User", jo_person);
        ASSERT_EQ(Zel_addZelUser(v2.get(), &jo), 0u);
        ZelTargetRecord app = record("T:app", "app", "jo.app", "app-pw");
        ASSERT_EQ(Zel_addTargetRecord(v2.get(), "Jo", &app), 0u);
        EXPECT_EQ(credential(v2.get(), "Jo", "app"), "jo.app/app-pw");
    }

    std::unique_ptr<Ds389> server;
    Session admin;
};

TEST_F(PeerDs389, WholeLibraryInBothStorageForms) {
    build_database();
    // Every entry that should carry ACIs does (so the session found the
    // Netscape kind by itself), and the server parsed and kept them.
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
    // Each person's password was hashed by the server: none reads back as given.
    size_t hashed = 0;
    for (const Entry &e : server->search(kSuffix, "(objectClass=person)", {"userPassword"}))
        for (const std::string &v : e.values("userPassword")) {
            EXPECT_EQ(v.rfind("{", 0), 0u) << e.dn;
            EXPECT_EQ(v.find(password_of("Jo")), std::string::npos) << e.dn;
            ++hashed;
        }
    EXPECT_EQ(hashed, 5u) << "the administrator and four persons";

    EXPECT_EQ(credential(admin.get(), "Jo", "mail"), "Jo.mail/Jo-mail-pw");

    add_domain_record();
    // Removals take subentries along, or fail and say so.
    const std::string ann_profile = "cn=Ann," + person("Ann"), jo_profile = "cn=Jo," + person("Jo");
    ASSERT_EQ(server->modify(subentry_ldif(ann_profile) + subentry_ldif("cn=Access Groups," + kDb), true).status, 0);
    ASSERT_EQ(Zel_removeZelUser(admin.get(), "Ann"), 0u);
    EXPECT_EQ(credential(admin.get(), "Ann", "mail"), "status 19");
    EXPECT_TRUE(server->search(ann_profile, kWithSubentries, {"1.1"}).empty());
    EXPECT_TRUE(server->search(kUsersGroup, "(member=" + person("Ann") + ")", {"1.1"}).empty());

    CommandResult kept = server->modify("dn: " + jo_profile + "\nchangetype: modify\nadd: aci\naci: (targetattr = \"*\")"
                                        "(version 3.0; acl \"Kept\"; deny (delete) userdn = \"ldap:///" + kAdmin + "\";)\n");
    ASSERT_EQ(kept.status, 0) << kept.err;
    Session zel_admin = open(kAdmin, kAdminPassword, 1);
    ASSERT_TRUE(zel_admin);
    EXPECT_EQ(Zel_removeZelUser(zel_admin.get(), "Jo"), ZEL_RC_NOT_AUTHORIZED) << "the profile's failure is the answer";
    EXPECT_EQ(server->search(jo_profile, "(objectClass=eZelUser)", {"1.1"}).size(), 1u);
    EXPECT_EQ(server->search(kUsersGroup, "(member=" + person("Jo") + ")", {"1.1"}).size(), 1u) << "groups kept";

    ASSERT_EQ(Zel_removeDatabase(admin.get()), 0u);
    EXPECT_TRUE(server->search(kDb, kWithSubentries, {"1.1"}).empty());

    // On the emptied suffix, the family walk as on slapd.
    walk::Target t{kSuffix, kSuffix, kAdmin,
                   [&](uint32_t v) { return open(Ds389::admin_dn(), Ds389::admin_password(), v); },
                   {ZELCTL_PATH, "-H", server->uri(), "-D", Ds389::admin_dn(), "-y",
                    server->password_file(Ds389::admin_password())},
                   [&](const std::string &pw) { return server->password_file(pw); },
                   [&](const std::string &name) {
                       server->modify("dn: " + person(name) + "\nobjectClass: inetOrgPerson\ncn: " + name + "\nsn: " +
                                          name + "\nuid: " + name + "\n", true);
                       return person(name);
                   },
                   [&](const std::string &base, const std::string &filter) {
                       return server->search(base, filter, {"1.1"}).size();
                   }};
    walk::run(t, walk::Driver::Library, "l");
    walk::run(t, walk::Driver::Zelctl, "z");
}

// Binds as the people concerned.  The deployment's own part is one rule that
// lets those signed on find people; everything else is the library's ACIs.
TEST_F(PeerDs389, AcisProtectRecords) {
    build_database();
    CommandResult people = server->modify(
        "dn: " + kSuffix + "\nchangetype: modify\nadd: aci\naci: (targetattr = \"objectClass || cn || sn || uid\")"
        "(version 3.0; acl \"Find people\"; allow (read, search, compare) userdn = \"ldap:///all\";)\n");
    ASSERT_EQ(people.status, 0) << people.err;
    add_domain_record();
    ASSERT_EQ(server->search(kSuffix, "(secAuthnData=*)", {"1.1"}).size(), 1u);
    // Below the security domain the library writes no ACI: the shipped ones.
    CommandResult shipped = run_command({"sed", "-e", "s/@SUFFIX@/" + kSuffix + "/g", "-e", "s/@DOMAIN@/Default/g",
                                         ZEL_SOURCE_DIR "/schema/zel-access-389.ldif"});
    ASSERT_EQ(server->modify(shipped.out).status, 0) << shipped.out;
    const std::string jo_domain_record = server->search(kSuffix, "(objectClass=secResCreds)", {"1.1"}).front().dn;

    const std::string jo_record = "cn=T:mail,cn=Jo," + person("Jo"), ann_record = "cn=T:mail,cn=Ann," + person("Ann");
    const std::string service = "tsName=mail,tsType=Web Resource,cn=Target Service Types," + kDb,
                      domain = "cn=East,cn=Zel Domains," + kDb;
    struct Seen {
        const char *who, *filter;  // who "" binds anonymously
        std::vector<std::string> dns;
    } seen[] = {
        {"Jo", "(objectClass=eTargetRecord)", {jo_record}},  // a "User" sees their own records...
        {"Jo", "(secretKey=*)", {}},                         // ...but not the passwords in them
        {"Ann", "(objectClass=eTargetRecord)", {ann_record}},
        {"Xr", "(objectClass=eTargetRecord)", {}},
        {"Agent", "(secretKey=*)", {jo_record, ann_record}},  // a middle tier server sees what it hands out
        {"", "(objectClass=eTargetRecord)", {}},
        // Services and domains: for the groups' members only.
        {"Jo", "(|(objectClass=eTargetService)(objectClass=eZelDomain))", {service, domain}},
        {"Xr", "(|(objectClass=eTargetService)(objectClass=eZelDomain))", {}},
        {"", "(|(objectClass=eTargetService)(objectClass=eZelDomain))", {}},
        {"", "(|(secretKey=*)(secAuthnData=*))", {}},
        // The security domain under the shipped ACIs: the same roles.
        {"Agent", "(secAuthnData=*)", {jo_domain_record}},
        {"Jo", "(objectClass=secResCreds)", {}},  // no per-user ACI in this form
        {"Ann", "(objectClass=secResCreds)", {}},
        {"", "(objectClass=secResCreds)", {}},
    };
    for (const Seen &c : seen) {
        CommandResult r =
            server->search_as(*c.who ? person(c.who) : "", password_of(c.who), kSuffix, c.filter, {"1.1"});
        std::vector<std::string> dns;
        for (const Entry &e : parse_ldif(r.out)) dns.push_back(e.dn);
        EXPECT_EQ(dns, c.dns) << c.who << " " << c.filter;
    }

    // The same through the library: credentials, and adding a service.
    struct Acts {
        const char *who;
        std::string jo, ann;
        ZelRC add_service;
    } acts[] = {
        {"Jo", "status 13", "status 19", ZEL_RC_NOT_AUTHORIZED},
        {"Agent", "Jo.mail/Jo-mail-pw", "Ann.mail/Ann-mail-pw", ZEL_RC_NOT_AUTHORIZED},
        {"Zel Sr Admin", "Jo.mail/Jo-mail-pw", "Ann.mail/Ann-mail-pw", 0},
    };
    const famtest::ServiceRecord wiki("wiki", "Web Resource", nullptr, {{"resourceName", "wiki"}});
    for (const Acts &a : acts) {
        bool admin_person = std::string(a.who) == "Zel Sr Admin";
        Session s = open(person(a.who), admin_person ? kAdminPassword : password_of(a.who), 1);
        ASSERT_TRUE(s);
        EXPECT_EQ(credential(s.get(), "Jo", "mail"), a.jo) << a.who;
        EXPECT_EQ(credential(s.get(), "Ann", "mail"), a.ann) << a.who;
        EXPECT_EQ(famtest::add_service(s.get(), wiki), a.add_service) << a.who;
    }

    // The Zel administrator (not the directory manager) adds a profile below a person.
    ASSERT_EQ(server->modify("dn: " + person("Lee") + "\nobjectClass: person\ncn: Lee\nsn: Lee\n", true).status, 0);
    CommandResult added = run_command({ZELCTL_PATH, "-H", server->uri(), "-D", kAdmin, "-y",
                                       server->password_file(kAdminPassword), "--api-version", "1", "user", "add",
                                       "Lee", "--type", "User", "--person", person("Lee")});
    EXPECT_EQ(added.status, 0) << added.out << added.err;
    EXPECT_EQ(server->search(kUsersGroup, "(member=" + person("Lee") + ")", {"1.1"}).size(), 1u);

    // A profile's state, type and person are the administrators' alone,
    // whatever a careless site rule higher up grants: a disabled XR user and
    // an agent change none of them on their own profile, in either form.
    const std::string xr = person("Xr");
    ZelUser off = famtest::user_record("Xr", "XR User", xr, nullptr, 0);
    ASSERT_EQ(Zel_updateZelUser(admin.get(), &off), 0u);
    Session v2 = open(Ds389::admin_dn(), Ds389::admin_password(), 2);
    for (const char *who : {"Xr", "Agent"}) {
        const std::string dn = person(who);
        ZelUser u = famtest::user_record(who, "User", dn);
        ASSERT_EQ(Zel_addZelUser(v2.get(), &u), 0u) << who;
    }
    CommandResult site = server->modify("dn: " + kSuffix + "\nchangetype: modify\nadd: aci\naci: (targetattr = \"*\")"
                                        "(version 3.0; acl \"Site: signed-on users write\"; allow (write) "
                                        "userdn = \"ldap:///all\";)\n");
    ASSERT_EQ(site.status, 0) << site.err;
    struct Write {
        const char *who;
        std::string dn;
        const char *attr;
        std::string value;
        int status;
    } writes[] = {
        {"Xr", "cn=Xr," + person("Xr"), "userState", "Active", 50},
        {"Xr", "cn=Xr," + person("Xr"), "userType", "Senior Admin", 50},
        {"Agent", "cn=Agent," + person("Agent"), "userType", "Senior Admin", 50},
        {"Agent", "cn=Agent," + person("Agent"), "associatedName", person("Jo"), 50},
        {"Agent", "cn=Agent," + person("Agent"), "description", "mine to write", 0},
        {"Xr", "principalName=Xr,cn=Users," + kDomain, "secAcctValid", "TRUE", 50},
        {"Agent", "principalName=Agent,cn=Users," + kDomain, "secDN", person("Jo"), 50},
    };
    for (const Write &w : writes) {
        CommandResult r = run_command({"ldapmodify", "-x", "-H", server->uri(), "-D", person(w.who), "-y",
                                       server->password_file(password_of(w.who))},
                                      "dn: " + w.dn + "\nchangetype: modify\nreplace: " + w.attr + "\n" + w.attr +
                                          ": " + w.value + "\n");
        EXPECT_EQ(r.status, w.status) << w.who << " " << w.attr << ": " << r.err;
    }
    EXPECT_EQ(server->search("cn=Xr," + person("Xr"), "(userState=Inactive)", {"1.1"}).size(), 1u);
    // The Zel administrator still may.
    Session zel_admin = open(kAdmin, kAdminPassword, 1);
    ASSERT_TRUE(zel_admin);
    ZelUser on = famtest::user_record("Xr", "XR User", xr);
    EXPECT_EQ(Zel_updateZelUser(zel_admin.get(), &on), 0u);
}

}  // namespace
