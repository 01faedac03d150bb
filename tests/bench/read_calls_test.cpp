// The directory calls each read operation makes, counted: a change that adds
// a round trip or drops a look-up's size limit shows here.
#include <functional>

#include "dataset.h"
#include "support/env.h"
#include "support/key_files.h"
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

// The directory calls made since the last reset, and how many of them are
// searches bounded by a size limit (look-ups of one entry are).
std::string made() {
    size_t limited = 0;
    for (const fault::Call &c : fault::calls()) limited += c.fn == fault::Fn::Search && c.sizelimit > 0;
    return std::to_string(fault::calls().size()) + " calls, " + std::to_string(limited) + " limited";
}

// The templates seal passwords as a write under a key file does.
class ReadCalls : public DirectoryTest {
protected:
    Profile profile() const override { return two_users(); }
    ScopedEnv key_{"ZEL_KEYFILE", key_file(kKeyLineA + " active\n").c_str()};
};

// A Zel database beside the domain, as every real deployment has one, and a
// first-generation profile of u0: both forms are looked at.
class ReadCallsWithDatabase : public DirectoryTest {
protected:
    ScopedEnv key_{"ZEL_KEYFILE", key_file(kKeyLineA + " active\n").c_str()};
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

TEST_F(ReadCalls, EachReadMakesTheSearchesItsAnswerNeeds) {
    Session s = open_session(*dir, 2);
    ASSERT_TRUE(s);
    // Person, user, then the direct and group records in one search; the
    // candidate groups are asked about in one more.
    struct Case {
        const char *what;
        std::function<void()> call;
        std::string calls;
    } cases[] = {
        {"direct credential", [&] { credential(s.get(), "svc0", 0); }, "3 calls, 2 limited"},
        {"group credential", [&] { credential(s.get(), "svc5", 0); }, "4 calls, 2 limited"},
        {"no credential", [&] { credential(s.get(), "nowhere", ZEL_RC_TR_NOT_FOUND); }, "4 calls, 2 limited"},
        {"target record",
         [&] {
             ZelTargetRecord *r = nullptr;
             EXPECT_EQ(Zel_getTargetRecord(s.get(), "u0", "T:svc0", &r), 0u);
             Zel_freeTargetRecord(r);
         },
         "3 calls, 2 limited"},
        {"target service",
         [&] {
             ZelTargetService *ts = nullptr;
             EXPECT_EQ(Zel_getTargetService(s.get(), "svc1", &ts), 0u);
             Zel_freeTargetService(ts);
         },
         "1 calls, 1 limited"},
        {"user check",
         [&] {
             char *dn = nullptr;
             EXPECT_EQ(Zel_verifyZelUser(s.get(), "cn=u0,ou=People,o=acme", &dn), 1u);
             Zel_memfree(dn);
         },
         "1 calls, 1 limited"},
    };
    for (const Case &c : cases) {
        fault::reset();
        c.call();
        EXPECT_EQ(made(), c.calls) << c.what;
    }
    // A credential's searches name the attributes its answer reads, never all.
    fault::reset();
    credential(s.get(), "svc0", 0);
    for (const fault::Call &c : fault::calls()) EXPECT_FALSE(c.attrs_null) << c.dn << " " << c.filter;
}

// With a database: direct 3 searches, through a group or none 6 (the first
// generation's profile, records and both forms' groups in one search),
// whatever the number of group records; with the user cache on, a repeated
// query sends 1 and 3.
TEST_F(ReadCallsWithDatabase, CredentialQueriesStayWithinTheirSearches) {
    Session s = open_session(*dir, 2);
    ASSERT_TRUE(s);
    struct Case {
        const char *resource;
        ZelRC want;
        std::string calls, cached;
    } cases[] = {
        {"svc0", 0, "3 calls, 2 limited", "1 calls, 0 limited"},
        {"svc5", 0, "6 calls, 3 limited", "3 calls, 0 limited"},
        {"nowhere", ZEL_RC_TR_NOT_FOUND, "6 calls, 3 limited", "3 calls, 0 limited"},
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
    EXPECT_EQ(made(), "5 calls, 3 limited");
    ASSERT_EQ(Zel_setSessionCacheTTL(s.get(), 60), 0u);
    credential(s.get(), "svc0", 0);
    // The session's own write drops what it cached about users.
    ZelUser u0{const_cast<char *>("u0"), const_cast<char *>("User"), nullptr, 1,
               const_cast<char *>("cn=u0,ou=People,o=acme")};
    ASSERT_EQ(Zel_updateZelUser(s.get(), &u0), 0u);
    fault::reset();
    credential(s.get(), "svc0", 0);
    EXPECT_EQ(made(), "3 calls, 2 limited");
}

}  // namespace
