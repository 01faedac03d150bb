// The directory calls each read operation makes, counted: a change that adds
// a round trip or drops a look-up's size limit shows here.
#include <functional>

#include "dataset.h"
#include "support/env.h"
#include "support/key_files.h"
#include "support/family_fixture.h"

using namespace zeltest;

namespace {

// The bench's layout for two users; with a Zel database beside the domain, as
// every real deployment has one, and a first-generation profile of u0, so
// that both forms are looked at.
Profile two_users(bool with_database) {
    Profile p;
    p.seed_ldif = zelbench::base_ldif();
    zelbench::Layout layout{2};
    for (int j = 0; j < layout.services(); ++j) p.seed_ldif += zelbench::service_ldif(j);
    p.seed_ldif += zelbench::group_ldif(0);
    for (int i = 0; i < layout.users; ++i)
        p.seed_ldif += zelbench::person_ldif(i) + zelbench::zel_user_ldif(i) +
                       zelbench::record_ldif(i, "T:svc" + std::to_string(i), "a", "pw") +
                       zelbench::record_ldif(i, "G:grp0", "g", "gpw");
    if (with_database)
        p.seed_ldif += database_ldif("o=acme") + "dn: cn=u0,cn=u0,ou=People,o=acme\nobjectClass: cimManagedElement\n"
                       "objectClass: eUser\nobjectClass: eZelUser\ncn: u0\nassociatedName: cn=u0,ou=People,o=acme\n"
                       "userState: Active\n\n";
    return p;
}

// The directory calls made since the last reset, and how many of them are
// searches bounded by a size limit (look-ups of one entry are): "calls/limited".
std::string made() {
    size_t limited = 0;
    for (const fault::Call &c : fault::calls()) limited += c.fn == fault::Fn::Search && c.sizelimit > 0;
    return std::to_string(fault::calls().size()) + "/" + std::to_string(limited);
}

// The templates seal passwords as a write under a key file does.
class ReadCalls : public DirectoryTest, public testing::WithParamInterface<bool> {
protected:
    Profile profile() const override { return two_users(GetParam()); }
    ScopedEnv key_{"ZEL_KEYFILE", key_file(kKeyLineA + " active\n").c_str()};
};

// A credential through its record: person, user, then the direct and group
// records in one search; the candidate groups are asked about in one more.
// With a database the search about groups also reads the first
// generation's profile, and one more its records, whatever the number of
// group records.  A
// record read looks the person up once for both forms.  With the user cache
// on, a repeated read sends only what the cache does not hold.
TEST_P(ReadCalls, CredentialQueriesStayWithinTheirSearches) {
    Session s = open_session(*dir, 2);
    ASSERT_TRUE(s);
    // u0's direct record and the group's, as the templates seed them.
    auto answers = [&](const char *resource, const std::string &want) {
        EXPECT_EQ(famtest::credential(s.get(), "u0", resource), want) << resource;
    };
    auto record = [&](const char *id, ZelRC want) {
        ZelTargetRecord *r = nullptr;
        EXPECT_EQ(Zel_getTargetRecord(s.get(), "u0", id, &r), want);
        Zel_freeTargetRecord(r);
    };
    // Calls/limited, then again with the user cache on, for the call repeated.
    struct Case {
        const char *what;
        std::function<void()> call;
        const char *domain_only, *with_database;
    } cases[] = {
        {"direct credential", [&] { answers("svc0", "a/pw"); }, "3/2 1/0", "3/2 1/0"},
        {"group credential", [&] { answers("svc5", "g/gpw"); }, "4/2 2/0", "5/2 3/0"},
        {"no credential", [&] { answers("nowhere", famtest::status(ZEL_RC_TR_NOT_FOUND)); }, "4/2 2/0", "5/2 3/0"},
        {"target record", [&] { record("T:svc0", 0); }, "3/2 1/0", "3/2 1/0"},
        {"no target record", [&] { record("T:nowhere", ZEL_RC_TR_NOT_FOUND); }, "3/2 1/0", "5/3 2/0"},
        {"target service",
         [&] {
             ZelTargetService *ts = nullptr;
             EXPECT_EQ(Zel_getTargetService(s.get(), "svc1", &ts), 0u);
             Zel_freeTargetService(ts);
         },
         "1/1 1/1", "1/1 1/1"},
        {"user check",
         [&] {
             char *dn = nullptr;
             EXPECT_EQ(Zel_verifyZelUser(s.get(), "cn=u0,ou=People,o=acme", &dn), 1u);
             Zel_memfree(dn);
         },
         "1/1 1/1", "1/1 1/1"},
    };
    for (const Case &c : cases) {
        ASSERT_EQ(Zel_setSessionCacheTTL(s.get(), 0), 0u);
        fault::reset();
        c.call();
        std::string calls = made();
        ASSERT_EQ(Zel_setSessionCacheTTL(s.get(), 60), 0u);
        c.call();
        fault::reset();
        c.call();
        EXPECT_EQ(calls + " " + made(), GetParam() ? c.with_database : c.domain_only) << c.what;
    }
    // A credential's searches name the attributes its answer reads, never all.
    ASSERT_EQ(Zel_setSessionCacheTTL(s.get(), 0), 0u);
    fault::reset();
    answers("svc0", "a/pw");
    for (const fault::Call &c : fault::calls()) EXPECT_FALSE(c.attrs_null) << c.dn << " " << c.filter;
    // The session's own write drops what it cached about users.
    ASSERT_EQ(Zel_setSessionCacheTTL(s.get(), 60), 0u);
    answers("svc0", "a/pw");
    ZelUser u0{const_cast<char *>("u0"), const_cast<char *>("User"), nullptr, 1,
               const_cast<char *>("cn=u0,ou=People,o=acme")};
    ASSERT_EQ(Zel_updateZelUser(s.get(), &u0), 0u);
    fault::reset();
    answers("svc0", "a/pw");
    EXPECT_EQ(made(), "3/2");
}

INSTANTIATE_TEST_SUITE_P(Deployments, ReadCalls, testing::Bool(),
                         [](const testing::TestParamInfo<bool> &i) { return i.param ? "WithDatabase" : "DomainOnly"; });

}  // namespace
