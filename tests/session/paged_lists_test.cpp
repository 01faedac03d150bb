// Lists and the rekey of everything as an administrator who is not the
// directory's root: the server caps unpaged answers at 500 entries, and only
// reading page by page gets past that.
#include <memory>
#include <set>
#include <ldap.h>

#include "platform/password_mask.h"
#include "support/env.h"
#include "support/family_fixture.h"
#include "support/key_files.h"
#include "support/progress_log.h"
#include "support/session.h"
#include "ZelSession.h"

using namespace zeltest;
using fault::Fn;

namespace {

constexpr int kServices = 2000;
constexpr int kGroups = 600;
constexpr int kRecords = 520;
const char *const kOperatorDn = "cn=Operator,o=acme";
const char *const kOperatorPassword = "op-secret";

// Services and groups of the security domain, and target records under two
// suffixes (all but one in the first), their passwords masked as a write
// without a key file stores them.
Profile capped_directory() {
    Profile p;
    p.suffixes = {"o=acme", "o=beta"};
    p.server_size_limit = 500;
    std::string ldif = person_ldif("o=acme", "Operator", "op", kOperatorPassword);
    ldif += famtest::container_ldif(famtest::kResources, "Resources");
    for (int i = 0; i < kServices; ++i) ldif += famtest::resource_ldif("svc" + std::to_string(i), "1");
    ldif += famtest::container_ldif(famtest::kGroups, "ResourceGroups");
    for (int i = 0; i < kGroups; ++i) ldif += famtest::group_ldif("grp" + std::to_string(i), {});
    char *masked = zel::platform::util_encode("pa55word");
    for (const char *suffix : {"o=acme", "o=beta"}) {
        const std::string holder = std::string("cn=ResCreds,") + suffix;
        ldif += famtest::container_ldif(holder, "ResCreds");
        for (int i = 0; i < (suffix == p.suffixes[0] ? kRecords - 1 : 1); ++i)
            ldif += "dn: secResCredsID=T:svc" + std::to_string(i) + "," + holder +
                    "\nobjectClass: secResCreds\nsecResCredsID: T:svc" + std::to_string(i) +
                    "\nsecAuthnData: " + masked + "\n\n";
    }
    std::free(masked);
    p.seed_ldif = ldif;
    return p;
}

struct Report {
    ZelRC status = 0;
    bool handed_out = false;
    int rewritten = 0, unreadable = 0, refused = 0;
};

Report rekey_everything(ZelSession *s) {
    ZelRekeyReport *r = nullptr;
    Report out;
    out.status = Zel_rekeyTargetRecords(s, nullptr, &r);
    if (r) out = {out.status, true, r->rewritten, r->unreadableCount, r->failedCount};
    Zel_freeRekeyReport(r);
    return out;
}

std::set<std::string> names_of(const ZelTargetServiceList *services) {
    std::set<std::string> names;
    for (int32_t i = 0; i < services->count; ++i) names.insert(services->services[i]->name);
    return names;
}

class PagedLists : public testing::Test {
protected:
    static void SetUpTestSuite() { dir_ = std::make_unique<Directory>(capped_directory()); }
    static void TearDownTestSuite() { dir_.reset(); }
    void SetUp() override {
        fault::reset();
        s = open_session_as(*dir_, kOperatorDn, kOperatorPassword);
        ASSERT_TRUE(s);
        ASSERT_EQ(s->paged_results, 1) << "slapd lists the paged-results control";
    }
    static inline std::unique_ptr<Directory> dir_;
    Session s;
};

TEST_F(PagedLists, ListsReadEveryPage) {
    // Without paging the same lists meet the server's limit: the test bites.
    for (int paged : {1, 0}) {
        SCOPED_TRACE(paged);
        s->paged_results = paged;
        ZelRC expected = paged ? 0 : ZEL_RC_LIMIT_EXCEEDED;
        ZelTargetServiceList *services = nullptr;
        ASSERT_EQ(Zel_getAllTargetService(s.get(), &services), expected);
        ZelDomainList *groups = nullptr;
        ASSERT_EQ(Zel_getAllZelDomain(s.get(), &groups), expected);
        if (!paged) continue;
        EXPECT_EQ(names_of(services).size(), static_cast<size_t>(kServices));
        EXPECT_EQ(groups->count, kGroups);
        Zel_freeTargetServices(services);
        Zel_freeZelDomains(groups);
    }
}

// A page's cookie belongs to the connection that handed it out: a list
// whose connection is replaced half-way starts again on the new one and
// comes back whole, each service once.
TEST_F(PagedLists, AListThatMeetsAReconnectStartsAgain) {
    // Once the session has read what it keeps, the list is its only search:
    // the second search is its second page.
    ZelTargetServiceList *services = nullptr;
    ASSERT_EQ(Zel_getAllTargetService(s.get(), &services), 0u);
    Zel_freeTargetServices(services);
    fault::reset();
    fault::fail_call(Fn::Search, 2, LDAP_SERVER_DOWN);
    services = nullptr;
    ASSERT_EQ(Zel_getAllTargetService(s.get(), &services), 0u);
    EXPECT_EQ(services->count, kServices);
    EXPECT_EQ(names_of(services).size(), static_cast<size_t>(kServices));
    Zel_freeTargetServices(services);
    EXPECT_GT(fault::count(Fn::Search), 5) << "the list started again";
}

// The operator may read but not write: every record is read and left
// current without a key file; with one, every refused write is listed and
// the run still hands out its report.  Both runs count every record of
// both suffixes.
TEST_F(PagedLists, RekeyOfEverythingReadsEveryPageAndGoesOnPastRefusals) {
    ProgressLog current;
    ASSERT_EQ(current.watch(s.get()), 0u);
    Report r = rekey_everything(s.get());
    EXPECT_EQ(r.status, 0u);
    EXPECT_EQ(r.rewritten + r.refused + r.unreadable, 0);
    EXPECT_EQ(current.problem(kRecords), "");

    ProgressLog refused;
    ASSERT_EQ(refused.watch(s.get()), 0u);
    ScopedEnv env("ZEL_KEYFILE", key_file(kKeyLineA + " active\n").c_str());
    r = rekey_everything(s.get());
    EXPECT_EQ(r.status, ZEL_RC_NOT_AUTHORIZED);
    EXPECT_TRUE(r.handed_out);
    EXPECT_EQ(r.refused, kRecords);
    EXPECT_EQ(r.rewritten, 0);
    EXPECT_EQ(refused.problem(kRecords), "");
}

// A suffix that cannot be searched does not lose what the others rewrote.
TEST_F(PagedLists, RekeyReportsWhatItDidWhenASuffixFails) {
    Session root = open_session(*dir_);
    ASSERT_TRUE(root);
    ScopedEnv env("ZEL_KEYFILE", key_file(kKeyLineA + " active\n").c_str());
    fault::reset();
    // Two pages of the first suffix, then the second suffix's search.
    fault::fail_call(Fn::Search, 3, LDAP_UNWILLING_TO_PERFORM);
    Report r = rekey_everything(root.get());
    auto searches = fault::calls(Fn::Search);
    ASSERT_EQ(searches.size(), 3u);
    EXPECT_EQ(searches[2].dn, "o=beta");
    EXPECT_NE(r.status, 0u);
    EXPECT_TRUE(r.handed_out);
    EXPECT_EQ(r.rewritten, kRecords - 1);
    EXPECT_EQ(rekey_everything(root.get()).rewritten, 1) << "the second suffix's record is left for the next run";
}

}  // namespace
