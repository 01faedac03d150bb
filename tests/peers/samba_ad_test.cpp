// The library against a real AD domain controller (Samba): one DC per run of
// the suite, the schema loaded from schema/zel-ad.ldif, every family walked
// in both storage forms over plain LDAP and LDAPS, and once more with the
// realm's DNS name resolving to the DC.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "domain/domain_fixtures.h"
#include "record/record_fixture.h"
#include "support/samba_dc.h"

namespace {

using namespace zeltest;
using recordtest::credential;
using recordtest::record;

const std::string kBase = SambaDc::base();
const std::string kDomain = "secAuthority=Default," + kBase;
const std::string kPeople = "CN=Users," + kBase;

// Null, with the reason printed, when the DC cannot start here.
SambaDc *dc_or_skip(std::string &why) {
    SambaDc *dc = SambaDc::shared(why);
    if (!dc) why = "the AD domain controller cannot start: " + why;
    return dc;
}

enum class Transport { Plain, Ldaps };

std::string transport_name(const testing::TestParamInfo<Transport> &p) {
    return p.param == Transport::Plain ? "Ldap" : "Ldaps";
}

// The security domain tree as the access-control product makes it, once.
void seed_security_domain(const SambaDc &dc) {
    CommandResult seeded = dc.modify(
        "dn: " + kDomain + "\nobjectClass: secAuthorityInfo\nsecAuthority: Default\nversion: 5\n\n" +
            recordtest::container_ldif("cn=Users," + kDomain, "Users") +
            recordtest::container_ldif("cn=Resources," + kDomain, "Resources") +
            recordtest::container_ldif("cn=ResourceGroups," + kDomain, "ResourceGroups") + "dn: secResourceID=app,cn=Resources," +
            kDomain + "\nobjectClass: secResource\nsecResourceID: app\nsecType: 1\n",
        true);
    ASSERT_TRUE(seeded.status == 0 || seeded.status == LDAP_ALREADY_EXISTS) << seeded.err;
}

Session open_on(const SambaDc &dc, Transport t, uint32_t version, const std::string &user, const std::string &pw,
                ZelRC *rc_out = nullptr) {
    ZelSession *s = nullptr;
    int32_t flags = t == Transport::Ldaps ? ZEL_OPEN_SSL : ZEL_OPEN_NONSSL;
    const std::string ca = dc.ca_file();
    const char *keyring = t == Transport::Ldaps ? ca.c_str() : nullptr;
    ZelRC rc = version < 2 ? Zel_open(nullptr, user.c_str(), pw.c_str(), dc.address().c_str(), 0, flags, keyring,
                                      nullptr, nullptr, &s, version)
                           : Zel_open_sec_domain(nullptr, user.c_str(), pw.c_str(), dc.address().c_str(), 0, flags,
                                                 keyring, nullptr, nullptr, "Default", &s, version);
    if (rc_out) *rc_out = rc;
    else EXPECT_EQ(rc, 0u) << "open as " << user;
    return Session(rc == 0 ? s : nullptr);
}

// One step of a walk: its name and the status it answered.
struct Step {
    const char *name;
    std::function<ZelRC()> run;
    ZelRC expect = 0;
};

std::string transcript(const std::vector<Step> &steps) {
    std::string out;
    for (const Step &st : steps) out += std::string(st.name) + "=" + std::to_string(st.run()) + "\n";
    return out;
}

std::string expected(const std::vector<Step> &steps) {
    std::string out;
    for (const Step &st : steps) out += std::string(st.name) + "=" + std::to_string(st.expect) + "\n";
    return out;
}

class PeerSambaAD : public ::testing::TestWithParam<Transport> {
protected:
    void SetUp() override {
        std::string why;
        dc = dc_or_skip(why);
        if (!dc) GTEST_SKIP() << why;
    }
    SambaDc *dc = nullptr;
};

// Services, domains, users, people, records (one with an empty account), credentials,
// and database creation and removal, first generation; then the security
// domain form.  Every step must answer as on slapd.
TEST_P(PeerSambaAD, EveryFamilyInBothStorageForms) {
    const bool ssl = GetParam() == Transport::Ldaps;
    const std::string jo = ssl ? "jos" : "jo";   // the two transports share the DC
    const std::string jo_person = "CN=" + jo + "," + kPeople;
    static bool accounts_added = false;
    if (!accounts_added) {
        dc->add_account("jo", "Jo-pw-AD-1");
        dc->add_account("jos", "Jo-pw-AD-1");
        accounts_added = true;
    }

    Session s = open_on(*dc, GetParam(), 1, SambaDc::admin_dn(), dc->admin_password());
    ASSERT_TRUE(s);
    EXPECT_EQ(s->dir_kind, ZEL_DIR_ACTIVE_DIRECTORY);
    ZelReqIdentifier id{const_cast<char *>("resourceName"), const_cast<char *>("mail")};
    ZelReqIdentifier *ids[] = {&id};
    ZelTargetService mail{const_cast<char *>("mail"), const_cast<char *>("Web Resource"), nullptr, 1, ids};
    domaintest::DomainRecord east("East", "East side", {{"resourceName", "mail"}});
    ZelUser user = usertest::user_record(jo.c_str(), "User", jo_person);
    ZelTargetRecord direct = record("T:mail", "mail", "jo.mail", "mail-pw");
    ZelTargetRecord empty = record("T:mail", "mail", "", "mail-pw");
    const std::string ann_cn = ssl ? "anns" : "ann", ann_pw = "Ann-pw-AD-1";
    ZelPerson ann{const_cast<char *>(kPeople.c_str()), const_cast<char *>(ann_cn.c_str()),
                  const_cast<char *>("Ann"), nullptr, const_cast<char *>(ann_cn.c_str()),
                  const_cast<char *>(ann_pw.c_str())};
    ZelSession *z = s.get();
    // 0 while jo's person is in the access group its type "User" joins, 1 once not.
    auto in_users_group = [&] {
        return dc->search("cn=Users,cn=Access Groups,systemName=ORVZEL," + kBase, "(member=" + jo_person + ")",
                          {"1.1"}).empty() ? 1u : 0u;
    };
    // The default administrator is an account: refused before any write
    // without a password of the caller's, or over a plain connection.
    auto default_admin_refused = [&] {
        ZelRC rc = Zel_createDatabase(z, kBase.c_str(), nullptr, nullptr, nullptr, 0);
        return rc == ZEL_RC_INVALID_ARGUMENT && dc->search(kBase, "(cn=Zel Sr Admin)", {"1.1"}).empty() ? 0u : rc + 1;
    };
    std::vector<Step> first = {
        {"default administrator without a password", default_admin_refused},
        {"default administrator with one",
         [&] { return Zel_createDatabase(z, kBase.c_str(), nullptr, nullptr, "Zel-Admin-pw-AD-1", 0); },
         ssl ? 0u : ZEL_RC_NOT_AUTHORIZED},
        {"its database removed", [&] { return ssl ? Zel_removeDatabase(z) : 0u; }},
        // The default administrator's password would not pass AD's policy: the DC's own signs in.
        {"create database", [&] { return Zel_createDatabase(z, kBase.c_str(), SambaDc::admin_dn().c_str(), nullptr,
                                                              nullptr, ZEL_CREATEDB_XR_DEFAULTS); }},
        // A person is an enabled account with its password as the account's
        // own; a password goes only over an encrypted connection.
        {"add person", [&] { return Zel_create_ePerson(z, &ann, "User"); }, ssl ? 0u : ZEL_RC_NOT_AUTHORIZED},
        {"add service", [&] { return Zel_addTargetService(z, &mail); }},
        {"add domain", [&] { return Zel_addZelDomain(z, &east.d); }},
        {"add user", [&] { return Zel_addZelUser(z, &user); }},
        {"user joined its group", in_users_group},
        // AD keeps no empty value: an empty account is no attribute, read back as none.
        {"add record with empty account", [&] { return Zel_addTargetRecord(z, jo.c_str(), &empty); }},
        {"credential", [&] { return credential(z, jo.c_str(), "mail") == "(null)/mail-pw" ? 0u : 1u; }},
        {"update record", [&] { return Zel_updateTargetRecord(z, jo.c_str(), &direct); }},
        {"updated credential", [&] { return credential(z, jo.c_str(), "mail") == "jo.mail/mail-pw" ? 0u : 1u; }},
        {"remove record", [&] { return Zel_removeTargetRecord(z, jo.c_str(), "T:mail"); }},
        {"remove user", [&] { return Zel_removeZelUser(z, jo.c_str()); }},
        {"user left its group", in_users_group, 1},
        {"remove domain", [&] { return Zel_removeZelDomain(z, "East"); }},
        {"remove service", [&] { return Zel_removeTargetService(z, "mail"); }},
        {"remove database", [&] { return Zel_removeDatabase(z); }},
    };
    EXPECT_EQ(transcript(first), expected(first));
    if (ssl) {
        const std::string ann_dn = "CN=" + ann_cn + "," + kPeople;
        CommandResult signed_in = dc->search_as(ann_dn, ann_pw, ann_dn, "(objectClass=*)", {"sAMAccountName"});
        EXPECT_EQ(signed_in.status, 0) << signed_in.err;
        EXPECT_NE(signed_in.out.find("sAMAccountName: " + ann_cn), std::string::npos) << signed_in.out;
        EXPECT_TRUE(dc->search(kPeople, "(userPassword=*)", {"1.1"}).empty()) << "no readable password";
    }

    // The security domain form.
    seed_security_domain(*dc);
    Session v2 = open_on(*dc, GetParam(), 2, SambaDc::admin_dn(), dc->admin_password());
    ASSERT_TRUE(v2);
    z = v2.get();
    ZelTargetRecord app = record("T:app", "app", "jo.app", "app-pw");
    domaintest::DomainRecord ops("Ops", nullptr, {{"resourceName", "app"}}),
        stray("Stray", nullptr, {{"resourceName", "nosuch"}});
    // AD's own words on a refused write reach the caller: a secDN naming no entry.
    const std::string ghost_person = "CN=ghost," + kPeople;
    ZelUser ghost = usertest::user_record("ghost", "User", ghost_person);
    std::vector<Step> second = {
        {"server's words", [&] {
             ZelRC rc = Zel_addZelUser(z, &ghost);
             const std::string detail = Zel_last_error_detail();
             EXPECT_EQ(detail.rfind("server: 000020B5: Referenced object not found", 0), 0u) << detail;
             return rc;
         }, ZEL_RC_REQUEST_ERROR},
        {"add group", [&] { return Zel_addZelDomain(z, &ops.d); }},
        {"add group naming no service", [&] { return Zel_addZelDomain(z, &stray.d); }, ZEL_RC_TS_NOT_FOUND},
        {"remove group", [&] { return Zel_removeZelDomain(z, "Ops"); }},
        {"add user", [&] { return Zel_addZelUser(z, &user); }},
        {"add record", [&] { return Zel_addTargetRecord(z, jo.c_str(), &app); }},
        {"credential", [&] { return credential(z, jo.c_str(), "app") == "jo.app/app-pw" ? 0u : 1u; }},
        {"remove record", [&] { return Zel_removeTargetRecord(z, jo.c_str(), "T:app"); }},
        {"remove user", [&] { return Zel_removeZelUser(z, jo.c_str()); }},
    };
    EXPECT_EQ(transcript(second), expected(second));
}

INSTANTIATE_TEST_SUITE_P(Transports, PeerSambaAD, testing::Values(Transport::Plain, Transport::Ldaps),
                         transport_name);

// The readers group: schema/ad-grant-readers.sh lets one security group read
// the security domain and the Zel database.  A member's credential query
// answers in both forms; a signed-in non-member gets nothing, and finds no
// record below them by searching for it.
TEST(PeerSambaADReaders, OnlyTheGroupReadsCredentials) {
    std::string why;
    SambaDc *dc = dc_or_skip(why);
    if (!dc) GTEST_SKIP() << why;
    const std::string pw = "Reader-pw-AD-1", agent = "CN=agent," + kPeople, outsider = "CN=outsider," + kPeople;
    const std::string agents = "CN=Zel Agents," + kPeople, database = "systemName=ORVZEL," + kBase;
    for (const char *name : {"ro", "agent", "outsider"}) dc->add_account(name, pw);
    dc->add_group("Zel Agents", {agent});
    seed_security_domain(*dc);

    ZelReqIdentifier id{const_cast<char *>("resourceName"), const_cast<char *>("mail")};
    ZelReqIdentifier *ids[] = {&id};
    ZelTargetService mail{const_cast<char *>("mail"), const_cast<char *>("Web Resource"), nullptr, 1, ids};
    const std::string ro_person = "CN=ro," + kPeople;
    ZelUser ro = usertest::user_record("ro", "User", ro_person);
    ZelTargetRecord first = record("T:mail", "mail", "ro.mail", "mail-pw"), second = record("T:app", "app", "ro.app", "app-pw");
    Session v1 = open_on(*dc, Transport::Ldaps, 1, SambaDc::admin_dn(), dc->admin_password());
    ASSERT_TRUE(v1);
    Session v2;
    std::vector<Step> setup = {
        {"create database", [&] { return Zel_createDatabase(v1.get(), kBase.c_str(), SambaDc::admin_dn().c_str(),
                                                              nullptr, nullptr, ZEL_CREATEDB_XR_DEFAULTS); }},
        {"add service", [&] { return Zel_addTargetService(v1.get(), &mail); }},
        {"add user", [&] { return Zel_addZelUser(v1.get(), &ro); }},
        {"add record", [&] { return Zel_addTargetRecord(v1.get(), "ro", &first); }},
        {"open security domain", [&] {
             v2 = open_on(*dc, Transport::Ldaps, 2, SambaDc::admin_dn(), dc->admin_password());
             return v2 ? 0u : 1u;
         }},
        {"add domain user", [&] { return Zel_addZelUser(v2.get(), &ro); }},
        {"add domain record", [&] { return Zel_addTargetRecord(v2.get(), "ro", &second); }},
    };
    ASSERT_EQ(transcript(setup), expected(setup));

    // doctor tells whether the grant is in place.
    auto doctor = [&] {
        return run_command({ZELCTL_PATH, "-H", dc->ldaps_uri(), "-D", SambaDc::admin_dn(), "-y",
                            dc->password_file(dc->admin_password()), "--ca", dc->ca_file(), "--api-version", "1",
                            "doctor"}).out;
    };
    std::string diagnosis = doctor();
    EXPECT_NE(diagnosis.find("warning  ad-readers        no readers grant on "), std::string::npos) << diagnosis;

    // A distribution group's members would read nothing: refused.
    dc->add_group("Zel Mailing", {agent}, false);
    CommandResult refused = dc->grant_readers("CN=Zel Mailing," + kPeople, {kDomain});
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("a distribution group"), std::string::npos) << refused.err;

    // First-generation profiles and their records sit below their people.
    CommandResult granted = dc->grant_readers(agents, {kDomain, database, kPeople});
    ASSERT_EQ(granted.status, 0) << granted.err << granted.out;
    EXPECT_EQ(dc->grant_readers(agents, {kDomain}).out, kDomain + ": already granted\n") << "a second run changes nothing";
    diagnosis = doctor();
    EXPECT_NE(diagnosis.find("ok       ad-readers        readers granted on "), std::string::npos) << diagnosis;
    EXPECT_NE(diagnosis.find(" to " + agents), std::string::npos) << diagnosis;

    // Records made after the grant inherit it, in both forms.
    ZelTargetService late{const_cast<char *>("late"), const_cast<char *>("Web Resource"), nullptr, 1, ids};
    ZelTargetRecord late1 = record("T:late", "late", "ro.late1", "late-pw"), late2 = record("T:late", "late", "ro.late2", "late-pw");
    std::vector<Step> after = {
        {"add service", [&] { return Zel_addTargetService(v1.get(), &late); }},
        {"add record", [&] { return Zel_addTargetRecord(v1.get(), "ro", &late1); }},
        {"add domain resource", [&] {
             return static_cast<ZelRC>(dc->modify("dn: secResourceID=late,cn=Resources," + kDomain +
                                                      "\nobjectClass: secResource\nsecResourceID: late\nsecType: 1\n",
                                                  true).status);
         }},
        {"add domain record", [&] { return Zel_addTargetRecord(v2.get(), "ro", &late2); }},
    };
    ASSERT_EQ(transcript(after), expected(after));

    struct Case {
        const std::string &who;
        uint32_t version;
        const char *resource;
        std::string want;  // the open's status, or what the query answers
    } cases[] = {
        {agent, 1, "mail", "ro.mail/mail-pw"},
        {agent, 2, "app", "ro.app/app-pw"},
        {agent, 1, "late", "ro.late1/late-pw"},
        {agent, 2, "late", "ro.late2/late-pw"},
        {outsider, 1, "mail", "status 29"},  // the database is not there for it
        {outsider, 2, "app", "open 35"},     // nor the security domain
    };
    for (const Case &c : cases) {
        ZelRC rc = 0;
        Session as = open_on(*dc, Transport::Ldaps, c.version, c.who, pw, &rc);
        EXPECT_EQ(rc ? "open " + std::to_string(rc) : credential(as.get(), "ro", c.resource), c.want)
            << c.who << " v" << c.version;
    }
    const std::string records = "(|(objectClass=eTargetRecord)(objectClass=secResCreds))";
    CommandResult seen = dc->search_as(agent, pw, kBase, records, {"1.1"});
    EXPECT_EQ(parse_ldif(seen.out).size(), 4u) << seen.err;
    seen = dc->search_as(outsider, pw, kBase, records, {"1.1"});
    EXPECT_TRUE(parse_ldif(seen.out).empty()) << seen.out;

    EXPECT_EQ(Zel_removeZelUser(v2.get(), "ro"), 0u);
    EXPECT_EQ(Zel_removeDatabase(v1.get()), 0u);
}

// On an AD network the realm's name resolves to the DC, and a subtree search
// of the domain head answers with references to the configuration partition
// under that name.  zelctl runs in a mount namespace of its own whose hosts
// file says so (chasing those references would fail every look-up) and walks
// every family in both forms, as an administrator would.
class PeerSambaADRealm : public PeerSambaAD {};

TEST_P(PeerSambaADRealm, LookupsWithTheRealmResolvingToTheDc) {
    CommandResult probe = run_command({"unshare", "-m", "true"});
    if (probe.status != 0) GTEST_SKIP() << "no private mount namespace here: " << probe.err;
    const bool ssl = GetParam() == Transport::Ldaps;
    const std::string rj = ssl ? "rjs" : "rj", person = "CN=" + rj + "," + kPeople, pz = ssl ? "pzs" : "pz";
    dc->add_account(rj, "Rj-pw-AD-1");
    const std::string records_pw = dc->password_file("record-pw"), person_pw = dc->password_file("Pz-pw-AD-1");
    std::string script = "mount --bind \"$1\" /etc/hosts || exit 99; getent hosts zel.test || exit 98; shift; "
                         "exec \"$@\"";
    std::vector<std::string> argv = {"unshare", "-m", "sh", "-c", script, "sh", dc->hosts_file(), ZELCTL_PATH,
                                     "-H", ssl ? dc->ldaps_uri() : dc->uri(), "-D", SambaDc::admin_dn(), "-y",
                                     dc->password_file(dc->admin_password())};
    if (ssl) argv.insert(argv.end(), {"--ca", dc->ca_file()});

    struct Walk {
        const char *version;
        std::vector<std::string> args;
        int exit = 0;
        std::string shows = "";  // in the output
    };
    const std::vector<std::string> record_pw = {"--password-file", records_pw};
    auto with_pw = [&](std::vector<std::string> args) {
        args.insert(args.end(), record_pw.begin(), record_pw.end());
        return args;
    };
    const std::vector<Walk> walk = {
        {"1", {"info"}, 0, "active-directory"},
        {"1", {"db", "create", kBase, "--default-types", "--admin", SambaDc::admin_dn()}},
        {"1", {"service-type", "add", "Mail", "--id", "mailbox"}},
        {"1", {"service", "add", "wiki", "--type", "Web Resource", "--id", "resourceName=wiki"}},
        {"1", {"service", "list"}, 0, "wiki"},
        {"1", {"domain", "add", "staff", "--member", "wiki"}},
        // A password goes to AD only over an encrypted connection.
        {"1", {"person", "add", kPeople, "--cn", pz, "--sn", "Pz", "--uid", pz, "--password-file", person_pw, "--type",
               "User"}, ssl ? 0 : 1, ssl ? "" : "status 7"},
        {"1", {"user", "add", rj, "--type", "User", "--person", person}},
        {"1", {"user", "update", rj, "--disabled"}},
        {"1", {"user", "update", rj, "--enabled"}},
        {"1", with_pw({"record", "add", rj, "T:wiki", "--service", "wiki", "--account", ""})},
        // A group's record needs the group's own "Resource Group" service, as on slapd.
        {"1", with_pw({"record", "add", rj, "G:staff", "--service", "staff", "--account", "rj.staff"}), 1, "status 14"},
        {"1", {"service", "add", "staff", "--type", "Resource Group", "--id", "groupName=staff"}},
        {"1", with_pw({"record", "add", rj, "G:staff", "--service", "staff", "--account", "rj.staff"})},
        {"1", {"record", "get", rj, "G:staff"}, 0, "rj.staff"},
        {"1", {"record", "remove", rj, "T:wiki"}},
        {"1", {"credential", "get", rj, "wiki"}, 0, "rj.staff"},
        {"1", {"user", "remove", rj}},
        {"2", {"service", "add", "app", "--type", "Web Resource"}, 1, "status 5"},  // seeded
        {"2", {"domain", "add", "ops", "--member", "app"}},
        {"2", {"service", "add", "ops", "--type", "Resource Group"}},
        {"2", {"user", "add", rj, "--person", person}},
        {"2", {"user", "update", rj, "--disabled"}},
        {"2", {"user", "update", rj, "--enabled"}},
        {"2", with_pw({"record", "add", rj, "G:ops", "--service", "ops", "--account", "rj.ops"})},
        {"2", {"credential", "get", rj, "app"}, 0, "rj.ops"},
        {"2", {"user", "remove", rj}},
        {"2", {"domain", "remove", "ops"}},
        {"2", {"service", "remove", "ops"}},
        {"1", {"db", "remove", "--yes"}},
    };
    seed_security_domain(*dc);
    std::string got, want;
    for (const Walk &w : walk) {
        std::vector<std::string> full = argv;
        full.insert(full.end(), {"--api-version", w.version});
        full.insert(full.end(), w.args.begin(), w.args.end());
        CommandResult r = run_command(full);
        ASSERT_NE(r.status, 98) << "the realm must resolve to the DC";
        std::string step = "v" + std::string(w.version) + " " + w.args[0] + " " + (w.args.size() > 1 ? w.args[1] : "");
        got += step + " = " + std::to_string(r.status) + ((r.out + r.err).find(w.shows) == std::string::npos
                                                                 ? " without \"" + w.shows + "\": " + r.out + r.err
                                                                 : "") + "\n";
        want += step + " = " + std::to_string(w.exit) + "\n";
    }
    EXPECT_EQ(got, want);
}

INSTANTIATE_TEST_SUITE_P(Transports, PeerSambaADRealm, testing::Values(Transport::Plain, Transport::Ldaps),
                         transport_name);

}  // namespace
