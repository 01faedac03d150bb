// The shipped OpenLDAP access rules, in both of their forms, seen by binds:
// the Zel administrator sets everything up through the library, then each
// role reads and writes the records, the catalogue and the access groups of
// both storage forms directly, and asks for a credential through the library.
#ifndef LDAP_DEPRECATED
#define LDAP_DEPRECATED 1
#endif
#include <ldap.h>

#include <cstring>

#include "support/family_fixture.h"
#include "ZelHolders.h"

using namespace famtest;

namespace {

struct Person {
    const char *cn, *uid, *type;  // type null: no Zel profile
    std::string dn() const { return std::string("cn=") + cn + ",o=acme"; }
    std::string password() const { return std::string("pw-") + uid; }
};
const Person kAgent{"Agent", "agent", "Middle Tier Server"}, kAnn{"Ann", "ann", "User"},
    kXr{"Xavier", "xr", "XR User"}, kOlga{"Olga", "olga", "User"};
const Person kZelAdmin{"Zel Sr Admin", "admin", nullptr};

struct Form {
    uint32_t version;
    const char *service, *type;
    std::string record_of(const Person &p) const {
        return version < 2 ? std::string("cn=T:") + service + ",cn=" + p.uid + "," + p.dn()
                           : std::string("secResCredsId=T:") + service + ",cn=ResCreds,principalName=" + p.uid +
                                 ",cn=Users,secAuthority=Default,o=acme";
    }
};
const Form kForms[] = {{1, "mail", "Mail Service"}, {2, "wiki", "Web Resource"}};

enum class Seen { Nothing, Entry, Password };
const char *seen_name(Seen s) { return s == Seen::Nothing ? "nothing" : s == Seen::Entry ? "entry" : "password"; }

struct LdapClose {
    void operator()(LDAP *ld) const { ldap_unbind_ext_s(ld, nullptr, nullptr); }
};
using Ldap = std::unique_ptr<LDAP, LdapClose>;

Ldap bind_as(const Directory &dir, const Person *who) {
    LDAP *ld = nullptr;
    EXPECT_EQ(ldap_initialize(&ld, dir.uri().c_str()), LDAP_SUCCESS);
    Ldap held(ld);
    int v3 = LDAP_VERSION3;
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &v3);
    if (who) {
        std::string pw = who->password(), dn = who->dn();
        berval cred{pw.size(), pw.data()};
        EXPECT_EQ(ldap_sasl_bind_s(ld, dn.c_str(), LDAP_SASL_SIMPLE, &cred, nullptr, nullptr, nullptr), 0) << dn;
    }
    return held;
}

Seen look_at(LDAP *ld, const std::string &dn) {
    LDAPMessage *res = nullptr;
    const char *attrs[] = {"*", nullptr};
    ldap_search_ext_s(ld, dn.c_str(), LDAP_SCOPE_BASE, "(objectClass=*)", const_cast<char **>(attrs), 0, nullptr,
                      nullptr, nullptr, 0, &res);
    LDAPMessage *e = ldap_first_entry(ld, res);
    Seen seen = Seen::Nothing;
    if (e) {
        berval **key = ldap_get_values_len(ld, e, "secretKey"), **data = ldap_get_values_len(ld, e, "secAuthnData");
        seen = key || data ? Seen::Password : Seen::Entry;
        ldap_value_free_len(key);
        ldap_value_free_len(data);
    }
    ldap_msgfree(res);
    return seen;
}

bool can_change(LDAP *ld, const std::string &dn) {
    char text[] = "changed";
    char *vals[] = {text, nullptr};
    LDAPMod mod{LDAP_MOD_REPLACE, const_cast<char *>("description"), {vals}};
    LDAPMod *mods[] = {&mod, nullptr};
    return ldap_modify_ext_s(ld, dn.c_str(), mods, nullptr, nullptr) == LDAP_SUCCESS;
}

ZelRC open_as(const Directory &dir, const Person *who, uint32_t version, Session &out) {
    std::string dn = who ? who->dn() : "", pw = who ? who->password() : "";
    const char *user = who ? dn.c_str() : nullptr, *password = who ? pw.c_str() : nullptr;
    ZelSession *s = nullptr;
    ZelRC rc = version < 2 ? Zel_open(nullptr, user, password, Directory::host(), dir.port(), ZEL_OPEN_NONSSL,
                                      nullptr, nullptr, nullptr, &s, version)
                           : Zel_open_sec_domain(nullptr, user, password, Directory::host(), dir.port(),
                                                 ZEL_OPEN_NONSSL, nullptr, nullptr, nullptr, "Default", &s, version);
    out.reset(rc == 0 ? s : nullptr);
    return rc;
}

class ShippedAccessRules : public DirectoryTest, public testing::WithParamInterface<AccessRules> {
protected:
    Profile profile() const override {
        Profile p;
        p.access_rules = GetParam();
        return p.seeded("dn: cn=Users,secAuthority=Default,o=acme\nobjectClass: container\ncn: Users\n\n");
    }
    // The directory's own administrator makes the database and the persons;
    // the Zel administrator all the rest, through the library.
    void SetUp() override {
        DirectoryTest::SetUp();
        Session root = open_session(*dir, 1);
        ASSERT_EQ(Zel_createDatabase(root.get(), "o=acme", nullptr, kZelAdmin.uid, kZelAdmin.password().c_str(), 0),
                  0u);
        for (const Person *p : {&kAgent, &kAnn, &kXr, &kOlga}) {
            const std::string pw = p->password();
            ZelPerson made = person(p->cn, p->uid, pw.c_str());
            ASSERT_EQ(Zel_create_ePerson(root.get(), &made, nullptr), 0u);
        }
        for (const Form &f : kForms) {
            Session admin;
            ASSERT_EQ(open_as(*dir, &kZelAdmin, f.version, admin), 0u);
            for (const Person *p : {&kAgent, &kAnn, &kXr, &kOlga}) {
                const std::string dn = p->dn();
                ZelUser u = user_record(p->uid, p->type, dn);
                ASSERT_EQ(Zel_addZelUser(admin.get(), &u), 0u) << p->uid;
            }
            char *identifiers[] = {const_cast<char *>("url")};
            ZelTargetServiceType type{const_cast<char *>(f.type), 1, identifiers};
            ASSERT_EQ(f.version < 2 ? Zel_addTargetServiceType(admin.get(), &type) : 0u, 0u);  // domains: built in
            ASSERT_EQ(add_service(admin.get(), f.version < 2 ? ServiceRecord(f.service, f.type, nullptr, {{"url", "x"}})
                                                           : ServiceRecord(f.service, f.type, nullptr)),
                      0u);
            const std::string team = std::string("team-") + f.service, id = std::string("T:") + f.service;
            DomainRecord group(team.c_str(), nullptr);
            ASSERT_EQ(Zel_addZelDomain(admin.get(), &group.d), 0u);
            for (const Person *p : {&kAnn, &kXr}) {
                const std::string pw = secret(f, *p);
                ZelTargetRecord r = record(id.c_str(), f.service, p->uid, pw.c_str(), nullptr, f.type);
                ASSERT_EQ(Zel_addTargetRecord(admin.get(), p->uid, &r), 0u) << p->uid;
            }
        }
    }
    static std::string secret(const Form &f, const Person &p) {
        return std::string(p.uid) + "@" + f.service;
    }
    std::string catalogue(const Form &f) const {
        const std::string filter = std::string(f.version < 2 ? "(cn=" : "(secResGroupID=") + "team-" + f.service + ")";
        auto found = dir->search(f.version < 2 ? kDb : "secAuthority=Default,o=acme", "sub", filter);
        return found.size() == 1 ? found.front().dn : "";
    }
};

TEST_P(ShippedAccessRules, EachRoleReadsAndWritesWhatItMay) {
    struct Row {
        const char *name;
        const Person *who;  // null: anonymous
        Seen anns_record, xrs_record;
        bool changes_anns, changes_xrs, reads_catalogue, reads_access_groups, gets_anns_credential;
    };
    const Seen N = Seen::Nothing, E = Seen::Entry, P = Seen::Password;
    const Row rows[] = {
        {"administrator", &kZelAdmin, P, P, true, true, true, true, true},
        {"sign-on agent", &kAgent, P, P, false, false, true, true, true},
        {"user, own records", &kAnn, E, N, false, false, true, false, false},
        {"XR user, own records", &kXr, N, E, false, true, false, false, false},
        {"another user", &kOlga, N, N, false, false, true, false, false},
        {"anonymous", nullptr, N, N, false, false, false, false, false},
    };
    const std::string access_group = group("Middle Tier Servers");
    for (const Form &f : kForms) {
        ASSERT_FALSE(catalogue(f).empty());
        for (const Row &r : rows) {
            SCOPED_TRACE(std::string(r.name) + ", storage form " + std::to_string(f.version));
            Ldap ld = bind_as(*dir, r.who);
            EXPECT_STREQ(seen_name(look_at(ld.get(), f.record_of(kAnn))), seen_name(r.anns_record));
            EXPECT_STREQ(seen_name(look_at(ld.get(), f.record_of(kXr))), seen_name(r.xrs_record));
            EXPECT_EQ(look_at(ld.get(), catalogue(f)) != Seen::Nothing, r.reads_catalogue);
            EXPECT_EQ(look_at(ld.get(), access_group) != Seen::Nothing, r.reads_access_groups);
            EXPECT_EQ(can_change(ld.get(), f.record_of(kAnn)), r.changes_anns);
            EXPECT_EQ(can_change(ld.get(), f.record_of(kXr)), r.changes_xrs);

            // The question a sign-on agent asks, through the library.
            Session s;
            ZelCredential c{};
            ZelCredentialRequest q{nullptr, nullptr, const_cast<char *>(f.service)};
            bool answered = open_as(*dir, r.who, f.version, s) == 0 && Zel_getCredential(s.get(), "ann", &q, &c) == 0;
            EXPECT_EQ(answered && c.password && c.password == secret(f, kAnn), r.gets_anns_credential);
            Zel_memfree(c.userId);
            Zel_memfree(c.password);
        }
    }
    // Whoever may not read a password cannot find one by searching for it; nobody
    // finds a person's password.
    for (const Person *who : {static_cast<const Person *>(nullptr), &kOlga, &kAnn}) {
        Ldap ld = bind_as(*dir, who);
        LDAPMessage *res = nullptr;
        ldap_search_ext_s(ld.get(), "o=acme", LDAP_SCOPE_SUBTREE, "(|(secretKey=*)(secAuthnData=*)(userPassword=*))", nullptr, 0,
                          nullptr, nullptr, nullptr, 0, &res);
        EXPECT_EQ(ldap_count_entries(ld.get(), res), 0) << (who ? who->uid : "anonymous");
        ldap_msgfree(res);
    }
}

// The services are hidden from a user outside the access groups, yet in the
// security domain form they set their own record's password through the library.
TEST_P(ShippedAccessRules, AUserOutsideTheGroupsSetsTheirOwnPassword) {
    Session xr, admin;
    ASSERT_EQ(open_as(*dir, &kXr, 2, xr), 0u);
    ASSERT_EQ(open_as(*dir, &kZelAdmin, 2, admin), 0u);
    ZelTargetService *hidden = nullptr;
    EXPECT_EQ(Zel_getTargetService(xr.get(), "wiki", &hidden), ZEL_RC_TS_NOT_FOUND);
    Zel_freeTargetService(hidden);
    char id[] = "T:wiki", service[] = "wiki", password[] = "xr-chose-this";
    ZelTargetRecord r{id, nullptr, nullptr, password, service, nullptr};
    ASSERT_EQ(Zel_updateTargetRecord(xr.get(), "xr", &r), 0u);
    ZelTargetRecord *stored = nullptr;
    ASSERT_EQ(Zel_getTargetRecord(admin.get(), "xr", id, &stored), 0u);
    EXPECT_STREQ(stored->password, password);
    EXPECT_STREQ(stored->userId, "xr");  // what the update left out stays
    Zel_freeTargetRecord(stored);
    // Someone else's record stays out of reach.
    EXPECT_NE(Zel_updateTargetRecord(xr.get(), "ann", &r), 0u);
}

INSTANTIATE_TEST_SUITE_P(Forms, ShippedAccessRules, testing::Values(AccessRules::SlapdConf, AccessRules::CnConfig),
                         [](const testing::TestParamInfo<AccessRules> &i) {
                             return i.param == AccessRules::SlapdConf ? "SlapdConf" : "CnConfig";
                         });

}  // namespace
