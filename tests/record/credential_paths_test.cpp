// The merged credential query against the step-by-step one over random
// directories: both storage forms, with and without a Zel database, inactive
// users, up to 20 group records in random order, groups that hold the
// resource or not (or do not exist), missing services, names that need
// escaping and records that spell a group's name in another case or with
// other spaces.  Every answer must agree in status, account and password; the
// cached path and the explanation must agree with them.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <stdexcept>

#include "dataset.h"
#include "platform/dn_escape.h"
#include "platform/password_mask.h"
#include "support/env.h"
#include "support/family_fixture.h"
#include "ZelPlatform.h"
#include "ZelSession.h"

using namespace famtest;

namespace {

const std::vector<std::string> kResources = {"app", "mail", "we*b", "a(b)", "c,d", "e+f", "x\\y", "#h", "S\xc3\xa9", "sp ace"};
const std::string kPeople = "ou=People,o=acme";

using Attrs = std::vector<std::pair<std::string, std::string>>;

// An entry in LDIF with every value in base64: names here hold what plain
// lines cannot.  A type written "type:" takes a value already in base64.
void entry(std::string &ldif, const std::string &dn, const Attrs &attrs) {
    ldif += "dn:: " + zelbench::base64(dn) + "\n";
    for (const auto &[type, value] : attrs)
        ldif += type.back() == ':' ? type + ": " + value + "\n" : type + ":: " + zelbench::base64(value) + "\n";
    ldif += "\n";
}
Attrs classes(std::initializer_list<const char *> names) {
    Attrs out;
    for (const char *n : names) out.emplace_back("objectClass", n);
    return out;
}
Attrs operator+(Attrs a, const Attrs &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

std::string esc(const std::string &value) { return plat::escape_dn_value(value); }
std::string domain_resource(const std::string &r) { return "secResourceID=" + esc(r) + ",cn=Resources," + kDomain; }

std::string group_name(int k) {
    static const char *odd[] = {"g*", "g(", "g,", "g=", "g+", "g\\", "#g", "G\xc3\xa9", "g s"};
    return k % 3 == 1 ? std::string(odd[(k / 3) % 9]) + std::to_string(k) : "g" + std::to_string(k);
}

// A group's name as a record may spell it: the directory matches names
// ignoring case (beyond ASCII too) and insignificant spaces.
std::string spelled(const std::string &name, std::mt19937 &rng) {
    std::string out;
    const unsigned how = rng() % 8;
    if (how & 1) out += ' ';
    for (size_t i = 0; i < name.size(); ++i) {
        char c = name[i];
        if ((how & 2) && c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
        if ((how & 2) && c == '\xa9' && i > 0 && name[i - 1] == '\xc3') c = '\x89';  // é -> É
        out += c;
        if ((how & 4) && c == ' ') out += ' ';
    }
    if (how == 7) out += ' ';
    return out;
}

std::string user_name(int i) {
    static const char *odd[] = {"u(", "u,", "u\\", "u*", "\xc3\xbc"};
    return i % 4 == 1 ? std::string(odd[(i / 4) % 5]) + std::to_string(i) : "u" + std::to_string(i);
}

// A password as a write without a key file stores it: masked, with its NUL,
// in base64 for an LDIF "::" line.
std::string masked_value(const std::string &password) {
    char *masked = plat::util_encode(password.c_str());
    if (masked == nullptr) throw std::runtime_error("cannot mask a password");
    std::string raw(masked, std::strlen(masked) + 1);
    std::free(masked);
    return zelbench::base64(raw);
}

// A record's account names it: "<form>/<id>", so an answer shows its record.
void add_record(std::string &l, std::mt19937 &rng, int form, const std::string &parent, const std::string &id) {
    const std::string masked = masked_value("secret-" + std::to_string(rng()));
    if (form == 2)
        entry(l, "secResCredsID=" + esc(id) + ",cn=ResCreds," + parent,
              {{"objectClass", "secResCreds"}, {"secResCredsID", id}, {"secType", id[0] == 'G' ? "2" : "1"},
               {"secUid", "2/" + id}, {"secAuthnData:", masked}});
    else
        entry(l, "cn=" + esc(id) + "," + parent,
              classes({"cimManagedElement", "cimSetting", "eTargetRecord"}) +
                  Attrs{{"cn", id}, {"targetService", "tsName=x"}, {"tsType", "Web Application"},
                        {"launchable", "false"}, {"uid", "1/" + id}, {"secretKey:", masked}});
}

std::string random_directory(uint32_t seed, bool with_database, int users) {
    std::mt19937 rng(seed);
    auto chance = [&](int percent) { return static_cast<int>(rng() % 100) < percent; };
    std::string l;
    for (const char *cn : {"Users", "Resources", "ResourceGroups"})
        entry(l, std::string("cn=") + cn + "," + kDomain, {{"objectClass", "container"}, {"cn", cn}});
    entry(l, kPeople, {{"objectClass", "organizationalUnit"}, {"ou", "People"}});
    // "gone" is asked for and exists nowhere.
    for (const std::string &r : kResources)
        entry(l, domain_resource(r), {{"objectClass", "secResource"}, {"secResourceID", r}, {"secType", "1"}});
    const int groups = 24;
    // The members each group (or Zel domain) holds, as values of `type`.
    auto holding = [&](Attrs held, const char *type, const std::function<std::string(const std::string &)> &value) {
        for (const std::string &r : kResources)
            if (chance(25)) held.emplace_back(type, value(r));
        return held;
    };
    for (int k = 0; k < groups; ++k) {
        const std::string g = group_name(k);
        if (chance(60))
            entry(l, "secResGroupID=" + esc(g) + ",cn=ResourceGroups," + kDomain,
                  holding({{"objectClass", "secResGroup"}, {"secResGroupID", g}, {"secType", "2"}, {"member", kDomain}},
                          "member", domain_resource));
        if (with_database && chance(50))
            entry(l, "cn=" + esc(g) + ",cn=Zel Domains," + kDb,
                  holding({{"objectClass", "eZelDomain"}, {"cn", g}}, "targetLocation",
                          [](const std::string &r) { return "T:" + r; }));
    }
    auto records = [&](int form, const std::string &parent) {
        std::vector<std::string> ids;
        for (const std::string &r : kResources)
            if (chance(20)) ids.push_back("T:" + r);
        std::vector<int> order(groups + 2);
        for (size_t k = 0; k < order.size(); ++k) order[k] = static_cast<int>(k);
        std::shuffle(order.begin(), order.end(), rng);
        int count = static_cast<int>(rng() % 21);
        for (int k = 0; k < count; ++k)
            ids.push_back(order[k] == groups ? "G:" : order[k] == groups + 1 ? "G:missing" : "G:" + spelled(group_name(order[k]), rng));
        std::shuffle(ids.begin(), ids.end(), rng);
        for (const std::string &id : ids) add_record(l, rng, form, parent, id);
    };
    for (int i = 0; i < users; ++i) {
        const std::string name = user_name(i), cn = "P" + std::to_string(i), person = "cn=" + cn + "," + kPeople;
        entry(l, person, classes({"person", "organizationalPerson", "inetOrgPerson", "ePerson"}) +
                             Attrs{{"cn", cn}, {"sn", "P"}, {"uid", name}});
        if (chance(75)) {
            const std::string dn = "principalName=" + esc(name) + "," + kDomainUsers;
            entry(l, dn, classes({"cimManagedElement", "eUser", "secUser"}) +
                             Attrs{{"principalName", name}, {"secDN", person}, {"secAuthority", "Default:"},
                                   {"secLoginType", "Default:LDAP"}, {"secAcctValid", chance(20) ? "FALSE" : "TRUE"}});
            entry(l, "cn=ResCreds," + dn, {{"objectClass", "container"}, {"cn", "ResCreds"}});
            records(2, dn);
        }
        if (with_database && chance(50)) {
            const std::string dn = "cn=" + esc(name) + "," + person;
            entry(l, dn, classes({"cimManagedElement", "eUser", "eZelUser"}) +
                             Attrs{{"cn", name}, {"associatedName", person}, {"userType", "User"},
                                   {"userState", chance(20) ? "Inactive" : "Active"}});
            records(1, dn);
        }
    }
    return l;
}

struct Answer {
    ZelRC rc = 0;
    std::string account, password;
    bool operator==(const Answer &o) const { return rc == o.rc && account == o.account && password == o.password; }
};

std::ostream &operator<<(std::ostream &os, const Answer &a) {
    return os << "status " << a.rc << " " << a.account << (a.password.empty() ? "" : " (password)");
}

Answer ask(ZelSession *s, const std::string &user, const std::string &resource) {
    ZelCredentialRequest req{nullptr, nullptr, const_cast<char *>(resource.c_str())};
    ZelCredential c{};
    Answer a;
    a.rc = Zel_getCredential(s, user.c_str(), &req, &c);
    if (c.userId) a.account = c.userId;
    if (c.password) a.password = c.password;
    Zel_memfree(c.userId);
    Zel_memfree(c.password);
    return a;
}

// The explanation names the record whose account came back, and no password.
void expect_explained(ZelSession *s, const std::string &user, const std::string &resource, const Answer &got) {
    ZelCredentialRequest req{nullptr, nullptr, const_cast<char *>(resource.c_str())};
    ZelCredentialExplanation *e = nullptr;
    ZelRC rc = Zel_explainCredential(s, user.c_str(), &req, &e);
    if (rc != 0) {
        EXPECT_EQ(rc, got.rc);
        EXPECT_EQ(e, nullptr);
        return;
    }
    EXPECT_EQ(e->status, got.rc);
    std::string answered;
    if (e->answerStep >= 0) {
        const ZelExplainStep *step = e->steps[e->answerStep];
        answered = std::to_string(step->form) + "/" +
                   (step->kind == ZEL_STEP_DIRECT ? std::string(step->name) : "G:" + std::string(step->name));
    }
    // A record without a password answers with 13 and no account handed out.
    if (got.rc == 0) {
        EXPECT_EQ(answered, got.account);
    } else if (got.rc == ZEL_RC_TR_NOT_FOUND) {
        EXPECT_EQ(e->answerStep, -1);
    }
    for (int32_t i = 0; i < e->stepCount; ++i)
        for (const char *text : {e->steps[i]->dn, e->steps[i]->name})
            EXPECT_TRUE(text == nullptr || std::string(text).find("secret-") == std::string::npos);
    Zel_freeCredentialExplanation(e);
}

class CredentialPaths : public DirectoryTest, public ::testing::WithParamInterface<bool> {
protected:
    Profile profile() const override {
        Profile p;
        p.seed_ldif = (GetParam() ? database_ldif("o=acme") : "") + random_directory(seed_, GetParam(), kUsers);
        return p;
    }
    static constexpr int kUsers = 24;
    uint32_t seed_ = env_number("ZEL_CREDENTIAL_SEED", std::random_device{}());
};

TEST_P(CredentialPaths, MergedAnswersAsStepwise) {
    SCOPED_TRACE("ZEL_CREDENTIAL_SEED=" + std::to_string(seed_));
    std::vector<std::string> users{"nobody", "u*"};
    for (int i = 0; i < kUsers; ++i) users.push_back(user_name(i));
    // Named by a profile's DN: the person is its parent as the caller
    // spells it, which the directory's own spelling need not match.
    for (int i : {0, 2, 3, 4, 6, 7, 8}) {
        users.push_back("cn=" + esc(user_name(i)) + ",cn=P" + std::to_string(i) + "," + kPeople);
        users.push_back("CN=" + esc(user_name(i)) + ",CN=P" + std::to_string(i) + ",OU=PEOPLE,o=acme");
    }
    std::vector<std::string> resources = kResources;
    resources.push_back("gone");
    int answered = 0;
    for (uint32_t version : GetParam() ? std::vector<uint32_t>{2, 1} : std::vector<uint32_t>{2}) {
        Session plain = open_session(*dir, version), cached = open_session(*dir, version);
        ASSERT_TRUE(plain && cached);
        ASSERT_EQ(Zel_setSessionCacheTTL(cached.get(), 3600), 0u);
        for (const std::string &user : users) {
            for (const std::string &resource : resources) {
                SCOPED_TRACE("version " + std::to_string(version) + " user " + user + " resource " + resource);
                plain->stepwise_credentials = true;
                Answer reference = ask(plain.get(), user, resource);
                plain->stepwise_credentials = false;
                ASSERT_EQ(ask(plain.get(), user, resource), reference);
                ASSERT_EQ(ask(cached.get(), user, resource), reference);
                expect_explained(plain.get(), user, resource, reference);
                answered += reference.rc == 0;
            }
        }
    }
    // The directory is worth comparing over only if many questions have answers.
    EXPECT_GT(answered, 20);
}

INSTANTIATE_TEST_SUITE_P(Database, CredentialPaths, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool> &i) { return i.param ? "With" : "Without"; });

}  // namespace
