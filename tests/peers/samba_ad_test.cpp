// The library against a real AD domain controller (Samba): one DC per run of
// the suite, the schema loaded from schema/zel-ad.ldif, every family walked
// in both storage forms over plain LDAP and LDAPS, through the library and
// through zelctl with the realm's DNS name resolving to the DC.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/family_fixture.h"
#include "peers/family_walk.h"
#include "support/samba_dc.h"
#include "ZelSession.h"

namespace {

using namespace zeltest;
using famtest::credential;
using famtest::record;

const std::string kBase = SambaDc::base();
const std::string kDomain = "secAuthority=Default," + kBase;
const std::string kPeople = "CN=Users," + kBase;

enum class Transport { Plain, Ldaps };

// The security domain tree, once.
void seed_security_domain(const SambaDc &dc) {
    CommandResult seeded = dc.modify(walk::security_domain_ldif(kBase), true);
    ASSERT_TRUE(seeded.status == 0 || seeded.status == LDAP_ALREADY_EXISTS) << seeded.err;
}

Session open_on(const SambaDc &dc, Transport t, uint32_t version, const std::string &user, const std::string &pw,
                ZelRC *rc_out = nullptr) {
    const bool ssl = t == Transport::Ldaps;
    return open_version(user, pw, dc.address(), 0, ssl ? ZEL_OPEN_SSL : ZEL_OPEN_NONSSL,
                              ssl ? dc.ca_file().c_str() : nullptr, version, rc_out);
}

// The shared DC; skipped, with the reason, where it cannot start.
class PeerSambaADReaders : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why;
        dc = SambaDc::shared(why);
        if (!dc) GTEST_SKIP() << "the AD domain controller cannot start: " << why;
    }
    SambaDc *dc = nullptr;
};

class PeerSambaAD : public PeerSambaADReaders, public testing::WithParamInterface<Transport> {};

// The family walk through the library, then through zelctl as an
// administrator on an AD network runs it: there the realm's name resolves to
// the DC, and a subtree search of the domain head answers with references to
// the configuration partition under that name, so zelctl runs in a mount
// namespace of its own whose hosts file says so (chasing those references
// would fail every look-up).  Every step must answer as on slapd, except that
// a password goes to AD only over an encrypted connection.
TEST_P(PeerSambaAD, EveryFamilyInBothStorageForms) {
    const bool ssl = GetParam() == Transport::Ldaps;
    const std::string t_name = ssl ? "s" : "";  // the two transports share the DC
    seed_security_domain(*dc);
    walk::Target t{kBase, kPeople, SambaDc::admin_dn(),
                   [&](uint32_t v) { return open_on(*dc, GetParam(), v, SambaDc::admin_dn(), dc->admin_password()); },
                   {}, [&](const std::string &pw) { return dc->password_file(pw); },
                   [&](const std::string &name) {
                       dc->add_account(name, "Jo-pw-AD-1");
                       return "CN=" + name + "," + kPeople;
                   },
                   [&](const std::string &base, const std::string &filter) {
                       return dc->search(base, filter, {"1.1"}).size();
                   },
                   ssl ? 0u : ZEL_RC_NOT_AUTHORIZED, ZEL_RC_TS_NOT_FOUND, true};
    Session s = t.open(1);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->dir_kind, ZEL_DIR_ACTIVE_DIRECTORY);
    // The default administrator is an account: refused before any write
    // without a password of the caller's, or over a plain connection.
    EXPECT_EQ(Zel_createDatabase(s.get(), kBase.c_str(), nullptr, nullptr, nullptr, 0), ZEL_RC_INVALID_ARGUMENT);
    EXPECT_TRUE(dc->search(kBase, "(cn=Zel Sr Admin)", {"1.1"}).empty());
    EXPECT_EQ(Zel_createDatabase(s.get(), kBase.c_str(), nullptr, nullptr, "Zel-Admin-pw-AD-1", 0),
              ssl ? 0u : ZEL_RC_NOT_AUTHORIZED);
    if (ssl) {
        EXPECT_EQ(Zel_removeDatabase(s.get()), 0u);
    }
    s.reset();
    walk::run(t, walk::Driver::Library, "l" + t_name);
    {  // AD's own words on a refused write reach the caller: a secDN naming no entry.
        Session v2 = t.open(2);
        const std::string ghost_person = "CN=ghost," + kPeople;
        ZelUser ghost = famtest::user_record("ghost", "User", ghost_person);
        EXPECT_EQ(Zel_addZelUser(v2.get(), &ghost), ZEL_RC_REQUEST_ERROR);
        const std::string detail = Zel_last_error_detail();
        EXPECT_EQ(detail.rfind("server: 000020B5: Referenced object not found", 0), 0u) << detail;
    }
    if (ssl) {  // the person the walk made signs in with its password
        const std::string pz = "CN=pzls," + kPeople;
        CommandResult signed_in = dc->search_as(pz, "Pz-pw-AD-1", pz, "(objectClass=*)", {"sAMAccountName"});
        EXPECT_EQ(signed_in.status, 0) << signed_in.err;
        EXPECT_NE(signed_in.out.find("sAMAccountName: pzls"), std::string::npos) << signed_in.out;
        EXPECT_TRUE(dc->search(kPeople, "(userPassword=*)", {"1.1"}).empty()) << "no readable password";
    }

    CommandResult probe = run_command({"unshare", "-m", "true"});
    if (probe.status != 0) GTEST_SKIP() << "no private mount namespace here: " << probe.err;
    const std::string script = "mount --bind \"$1\" /etc/hosts || exit 99; getent hosts zel.test || exit 98; shift; "
                               "exec \"$@\"";
    t.zelctl = {"unshare", "-m", "sh", "-c", script, "sh", dc->hosts_file(), ZELCTL_PATH,
                "-H", ssl ? dc->ldaps_uri() : dc->uri(), "-D", SambaDc::admin_dn(), "-y",
                dc->password_file(dc->admin_password())};
    if (ssl) t.zelctl.insert(t.zelctl.end(), {"--ca", dc->ca_file()});
    std::vector<std::string> info = t.zelctl;
    info.push_back("info");
    CommandResult r = run_command(info);
    ASSERT_NE(r.status, 98) << "the realm must resolve to the DC";
    EXPECT_NE(r.out.find("active-directory"), std::string::npos) << r.out << r.err;
    walk::run(t, walk::Driver::Zelctl, "z" + t_name);
}

INSTANTIATE_TEST_SUITE_P(Transports, PeerSambaAD, testing::Values(Transport::Plain, Transport::Ldaps),
                         [](const testing::TestParamInfo<Transport> &p) {
                             return p.param == Transport::Plain ? "Ldap" : "Ldaps";
                         });

// The readers group: schema/ad-grant-readers.sh lets one security group read
// the security domain and the Zel database.  A member's credential query
// answers in both forms; a signed-in non-member gets nothing, and finds no
// record below them by searching for it.
TEST_F(PeerSambaADReaders, OnlyTheGroupReadsCredentials) {
    const std::string pw = "Reader-pw-AD-1", agent = "CN=agent," + kPeople, outsider = "CN=outsider," + kPeople;
    const std::string agents = "CN=Zel Agents," + kPeople, database = "systemName=ORVZEL," + kBase;
    for (const char *name : {"ro", "agent", "outsider"}) dc->add_account(name, pw);
    dc->add_group("Zel Agents", {agent});
    seed_security_domain(*dc);

    const std::string ro_person = "CN=ro," + kPeople;
    Session v1 = open_on(*dc, Transport::Ldaps, 1, SambaDc::admin_dn(), dc->admin_password());
    ASSERT_TRUE(v1);
    ASSERT_EQ(Zel_createDatabase(v1.get(), kBase.c_str(), SambaDc::admin_dn().c_str(), nullptr, nullptr,
                                 ZEL_CREATEDB_XR_DEFAULTS), 0u);
    ASSERT_EQ(famtest::add_service(v1.get(), {"mail", "Web Resource", nullptr, {{"resourceName", "mail"}}}), 0u);
    ASSERT_EQ(add_user_with_record(v1.get(), "ro", ro_person, "mail", "ro.mail", "mail-pw"), 0u);
    Session v2 = open_on(*dc, Transport::Ldaps, 2, SambaDc::admin_dn(), dc->admin_password());
    ASSERT_TRUE(v2);
    ASSERT_EQ(add_user_with_record(v2.get(), "ro", ro_person, "app", "ro.app", "app-pw"), 0u);

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
    ZelTargetRecord late1 = record("T:late", "late", "ro.late1", "late-pw"), late2 = record("T:late", "late", "ro.late2", "late-pw");
    ASSERT_EQ(famtest::add_service(v1.get(), {"late", "Web Resource", nullptr, {{"resourceName", "mail"}}}), 0u);
    ASSERT_EQ(Zel_addTargetRecord(v1.get(), "ro", &late1), 0u);
    ASSERT_EQ(dc->modify("dn: secResourceID=late,cn=Resources," + kDomain +
                             "\nobjectClass: secResource\nsecResourceID: late\nsecType: 1\n", true).status, 0);
    ASSERT_EQ(Zel_addTargetRecord(v2.get(), "ro", &late2), 0u);

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

}  // namespace
