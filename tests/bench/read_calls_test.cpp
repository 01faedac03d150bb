// The directory calls each read operation makes, pinned: a change that adds
// a round trip, widens a search or drops its size limit shows here.
#include <functional>

#include "dataset.h"
#include "support/session.h"

using namespace zeltest;

namespace {

Profile two_users() {
    Profile p;
    p.seed_ldif = zelbench::base_ldif();
    zelbench::Layout layout{2};
    for (int j = 0; j < layout.services(); ++j) p.seed_ldif += zelbench::service_ldif(j);
    p.seed_ldif += zelbench::group_ldif(0);
    for (int i = 0; i < layout.users; ++i)
        p.seed_ldif += zelbench::person_ldif(i) + zelbench::zel_user_ldif(i) +
                       zelbench::record_ldif(i, "T:svc" + std::to_string(i), "a", "pw") +
                       zelbench::record_ldif(i, "G:grp0", "g", "gpw");
    return p;
}

// One line per directory call: what was asked, not what came back.
std::vector<std::string> made() {
    std::vector<std::string> out;
    for (const fault::Call &c : fault::calls()) {
        std::string line = std::string(c.fn == fault::Fn::Search ? "search" : fault::name(c.fn)) + " " + c.dn;
        if (c.fn == fault::Fn::Search) {
            line += " scope=" + std::to_string(c.scope) + " " + c.filter + " limit=" + std::to_string(c.sizelimit);
            if (c.attrsonly) line += " attrsonly";
            for (const std::string &a : c.attrs) line += " +" + a;
        }
        out.push_back(line);
    }
    return out;
}

class ReadCalls : public DirectoryTest {
protected:
    Profile profile() const override { return two_users(); }
};

// A Zel database beside the domain, as every real deployment has one, and a
// first-generation profile of u0: both forms are looked at.
class ReadCallsWithDatabase : public DirectoryTest {
protected:
    Profile profile() const override {
        Profile p = two_users();
        p.seed_ldif += database_ldif("o=acme") + "dn: cn=u0,cn=u0,ou=People,o=acme\nobjectClass: cimManagedElement\nobjectClass: eUser\n"
                       "objectClass: eZelUser\ncn: u0\nassociatedName: cn=u0,ou=People,o=acme\nuserState: Active\n\n";
        return p;
    }
};

void credential(ZelSession *s, const char *resource, ZelRC want) {
    ZelCredentialRequest req{nullptr, nullptr, const_cast<char *>(resource)};
    ZelCredential c{};
    EXPECT_EQ(Zel_getCredential(s, "u0", &req, &c), want) << resource;
    Zel_memfree(c.userId);
    Zel_memfree(c.password);
}

const std::string kPerson = "search o=acme scope=2 (&(objectClass=Person)(uid=u0)) limit=2 attrsonly +1.1";
const std::string kUser = "search secAuthority=Default,o=acme scope=2 (&(objectClass=secUser)"
                          "(secDN=cn=u0,ou=People,o=acme)(secAuthority=Default:)) limit=2 "
                          "+objectClass +secAcctValid +userState";
const std::string kProfile = "search cn=u0,ou=People,o=acme scope=1 (associatedName=cn=u0,ou=People,o=acme) limit=2 "
                             "+objectClass +userState";
const std::string kRecords = "search principalName=u0,cn=Users,secAuthority=Default,o=acme scope=2 ";
const std::string kOldRecords = "search cn=u0,cn=u0,ou=People,o=acme scope=2 ";
const std::string kMember = "(member=secResourceID=";
// A record search that may answer a credential asks for what the answer reads.
const std::string kCredentialAttrs = " +uid +secUid +secretKey +secAuthnData +principalName";

// The direct record and the group records of one form in one search.
std::string records(const std::string &resource) {
    return kRecords + "(|(secResCredsID=T:" + resource + ")(secResCredsID=G:*)) limit=0" + kCredentialAttrs;
}
std::string old_records(const std::string &resource) {
    return kOldRecords + "(&(objectClass=eTargetRecord)(|(cn=T:" + resource + ")(cn=G:*))) limit=0" + kCredentialAttrs;
}
std::string held(const std::string &resource) {
    return kMember + resource + ",cn=Resources,secAuthority=Default,o=acme)";
}

TEST_F(ReadCalls, EachReadMakesTheSearchesItsAnswerNeeds) {
    Session s = open_session(*dir, 2);
    ASSERT_TRUE(s);
    // The candidate groups are asked about in one search.
    auto group_pass = [&](const std::string &resource) -> std::vector<std::string> {
        return {kPerson, kUser, records(resource),
                "search cn=ResourceGroups,secAuthority=Default,o=acme scope=1 (&" + held(resource) +
                    "(|(secResGroupID=grp0))) limit=0 +1.1"};
    };
    struct Case {
        const char *what;
        std::function<void()> call;
        std::vector<std::string> calls;
    } cases[] = {
        {"direct credential", [&] { credential(s.get(), "svc0", 0); }, {kPerson, kUser, records("svc0")}},
        {"group credential", [&] { credential(s.get(), "svc5", 0); }, group_pass("svc5")},
        {"no credential", [&] { credential(s.get(), "nowhere", ZEL_RC_TR_NOT_FOUND); }, group_pass("nowhere")},
        {"target record",
         [&] {
             ZelTargetRecord *r = nullptr;
             EXPECT_EQ(Zel_getTargetRecord(s.get(), "u0", "T:svc0", &r), 0u);
             Zel_freeTargetRecord(r);
         },
         {kPerson, kUser, kRecords + "secResCredsID=T:svc0 limit=0"}},
        {"target service",
         [&] {
             ZelTargetService *ts = nullptr;
             EXPECT_EQ(Zel_getTargetService(s.get(), "svc1", &ts), 0u);
             Zel_freeTargetService(ts);
         },
         {"search cn=Resources,secAuthority=Default,o=acme scope=2 (&(objectClass=secResource)(secResourceID=svc1)) "
          "limit=2"}},
        {"user check",
         [&] {
             char *dn = nullptr;
             EXPECT_EQ(Zel_verifyZelUser(s.get(), "cn=u0,ou=People,o=acme", &dn), 1u);
             Zel_memfree(dn);
         },
         {kUser}},
    };
    for (const Case &c : cases) {
        fault::reset();
        c.call();
        EXPECT_EQ(made(), c.calls) << c.what;
    }
}

// With a database: direct 3 searches, through a group or none 6, whatever
// the number of group records; with the user cache on, a repeated query
// sends 1 and 3.
TEST_F(ReadCallsWithDatabase, CredentialQueriesStayWithinTheirSearches) {
    Session s = open_session(*dir, 2);
    ASSERT_TRUE(s);
    // Both forms' groups in one search below the base the containers share.
    auto groups = [&](const std::string &resource) {
        return "search o=acme scope=2 (|(&" + held(resource) + "(|(secResGroupID=grp0)))(&(&(objectClass=eZelDomain)"
               "(targetLocation=T:" + resource + "))(|(cn=grp0)))) limit=0 +1.1";
    };
    auto through_groups = [&](const std::string &resource) -> std::vector<std::string> {
        return {kPerson, kUser, records(resource), kProfile, old_records(resource), groups(resource)};
    };
    struct Case {
        const char *resource;
        ZelRC want;
        std::vector<std::string> calls, cached;
    } cases[] = {
        {"svc0", 0, {kPerson, kUser, records("svc0")}, {records("svc0")}},
        {"svc5", 0, through_groups("svc5"), {records("svc5"), old_records("svc5"), groups("svc5")}},
        {"nowhere", ZEL_RC_TR_NOT_FOUND, through_groups("nowhere"),
         {records("nowhere"), old_records("nowhere"), groups("nowhere")}},
    };
    for (const Case &c : cases) {
        ASSERT_EQ(Zel_setSessionCacheTTL(s.get(), 0), 0u);
        fault::reset();
        credential(s.get(), c.resource, c.want);
        EXPECT_EQ(made(), c.calls) << c.resource;
        ASSERT_EQ(Zel_setSessionCacheTTL(s.get(), 60), 0u);
        credential(s.get(), c.resource, c.want);
        fault::reset();
        credential(s.get(), c.resource, c.want);
        EXPECT_EQ(made(), c.cached) << c.resource << " cached";
    }
    // A record read looks the person up once for both forms.
    ASSERT_EQ(Zel_setSessionCacheTTL(s.get(), 0), 0u);
    fault::reset();
    ZelTargetRecord *r = nullptr;
    EXPECT_EQ(Zel_getTargetRecord(s.get(), "u0", "T:nowhere", &r), ZEL_RC_TR_NOT_FOUND);
    EXPECT_EQ(made(), (std::vector<std::string>{kPerson, kUser, kRecords + "secResCredsID=T:nowhere limit=0", kProfile,
                                                kOldRecords + "(&(objectClass=eTargetRecord)(cn=T:nowhere)) limit=0"}));
    ASSERT_EQ(Zel_setSessionCacheTTL(s.get(), 60), 0u);
    credential(s.get(), "svc0", 0);
    // The session's own write drops what it cached about users.
    ZelUser u0{const_cast<char *>("u0"), const_cast<char *>("User"), nullptr, 1,
               const_cast<char *>("cn=u0,ou=People,o=acme")};
    ASSERT_EQ(Zel_updateZelUser(s.get(), &u0), 0u);
    fault::reset();
    credential(s.get(), "svc0", 0);
    EXPECT_EQ(made(), (std::vector<std::string>{kPerson, kUser, records("svc0")}));
}

}  // namespace
