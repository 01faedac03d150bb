// What open learns from the root DSE and the security domain entry.
#include <gtest/gtest.h>

#include <vector>
#include <ldap.h>

#include "support/session.h"
#include "ZelHolders.h"
#include "ZelSession.h"

using namespace zeltest;
using fault::Fn;

namespace {

std::vector<std::string> suffix_list(const ZelSession *s) {
    std::vector<std::string> out;
    for (ZelSuffixNode *n = s->suffixes; n; n = n->next) out.emplace_back(n->suffix);
    return out;
}

struct KindCase {
    const char *name;
    Profile profile;
    int32_t dir_kind;
    int32_t host_kind;
};

Profile root_dse(std::vector<std::pair<std::string, std::string>> values) {
    Profile p;
    p.root_dse = std::move(values);
    return p;
}

class DiscoveryByKind : public testing::TestWithParam<KindCase> {};

}  // namespace

TEST_P(DiscoveryByKind, RootDseDecidesVendorAndHost) {
    fault::reset();
    Directory dir(GetParam().profile);
    Session s = open_session(dir, 2);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->dir_kind, GetParam().dir_kind);
    EXPECT_EQ(s->host_kind, GetParam().host_kind);
    EXPECT_EQ(suffix_list(s.get()), std::vector<std::string>{"o=acme"});
    // The root DSE is read once, base scope, with a size limit of 2.
    auto root = fault::calls(Fn::Search)[0];
    EXPECT_EQ(root.dn, "");
    EXPECT_EQ(root.scope, LDAP_SCOPE_BASE);
    EXPECT_EQ(root.sizelimit, 2);
}

// The host word is case-sensitive; a Novell server needs a new enough version.
INSTANTIATE_TEST_SUITE_P(
    Profiles, DiscoveryByKind,
    testing::Values(KindCase{"Generic", Profile{}, ZEL_DIR_GENERIC, ZEL_HOST_OTHER},
                    KindCase{"Orv", Profile{}.kind_is(Kind::Orv), ZEL_DIR_ORV, ZEL_HOST_OTHER},
                    KindCase{"OrvTessan", Profile{}.kind_is(Kind::OrvTessan), ZEL_DIR_ORV, ZEL_HOST_TESSAN},
                    KindCase{"OrvKelmar", Profile{}.kind_is(Kind::OrvKelmar), ZEL_DIR_ORV, ZEL_HOST_KELMAR},
                    KindCase{"Netscape", Profile{}.kind_is(Kind::Netscape), ZEL_DIR_NETSCAPE, ZEL_HOST_OTHER},
                    KindCase{"EDirectory", Profile{}.kind_is(Kind::EDirectory), ZEL_DIR_EDIRECTORY, ZEL_HOST_OTHER},
                    // AD's configuration and schema partitions hold no Zel entries.
                    KindCase{"ActiveDirectory",
                             root_dse({{"namingContexts", "CN=Configuration,o=acme"},
                                       {"namingContexts", "CN=Schema,CN=Configuration,o=acme"}})
                                 .kind_is(Kind::ActiveDirectory),
                             ZEL_DIR_ACTIVE_DIRECTORY, ZEL_HOST_OTHER},
                    KindCase{"OrvLowerCaseHost", root_dse({{"orvdirectoryversion", "tessan 6.4"}}), ZEL_DIR_ORV,
                             ZEL_HOST_OTHER},
                    KindCase{"OldNovell", root_dse({{"vendorName", "novell, inc."}, {"vendorVersion", "84"}}),
                             ZEL_DIR_GENERIC, ZEL_HOST_OTHER}),
    [](const testing::TestParamInfo<KindCase> &p) { return std::string(p.param.name); });

// With several marks the attribute the server returns last decides.
TEST(Discovery, LastMarkReturnedWins) {
    Profile p;
    p.root_dse = {{"netscapemdsuffix", "cn=ldbm"}, {"forestFunctionality", "7"}};
    Directory dir(p);
    CommandResult r = run_command({"ldapsearch", "-x", "-LLL", "-H", dir.uri(), "-b", "", "-s", "base",
                                   "objectClass=*", "netscapemdsuffix", "forestFunctionality"});
    ASSERT_EQ(r.status, 0);
    size_t ns = r.out.find("netscapemdsuffix"), ad = r.out.find("forestFunctionality");
    ASSERT_NE(ns, std::string::npos);
    ASSERT_NE(ad, std::string::npos);
    Session s = open_session(dir, 2);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->dir_kind, ns < ad ? ZEL_DIR_ACTIVE_DIRECTORY : ZEL_DIR_NETSCAPE);
}

TEST(Discovery, RefusedRootDse) {
    Directory dir;
    ZelSession *s = nullptr;
    // Insufficient access marks Novell NDS; its partitions come from the root's children.
    fault::reset();
    fault::fail_call(Fn::Search, 1, LDAP_INSUFFICIENT_ACCESS);
    fault::set_search_rewrite([&](std::string &base, int &scope, std::string &) {
        if (base.empty() && scope == LDAP_SCOPE_ONELEVEL) {
            base = dir.suffix();
            scope = LDAP_SCOPE_BASE;
        }
    });
    ASSERT_EQ(try_open(dir, 2, &s), 0u);
    EXPECT_EQ(s->dir_kind, ZEL_DIR_NDS);
    EXPECT_EQ(suffix_list(s), std::vector<std::string>{"o=acme"});
    Zel_close(s, 1);
    fault::set_search_rewrite(nullptr);

    // Any other refusal is mapped, with the root DSE's own default.
    fault::reset();
    fault::fail_call(Fn::Search, 1, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(try_open(dir, 2, &s), ZEL_RC_NO_SUCH_OBJECT);
    fault::reset();
    fault::fail_call(Fn::Search, 1, 777);
    EXPECT_EQ(try_open(dir, 2, &s), ZEL_RC_ROOT_DSE_FAILED);
}

TEST(Discovery, SecurityDomainMustExistOnceAndGivesItsVersion) {
    ZelSession *s = nullptr;
    Profile unversioned;
    unversioned.domain_version = 0;
    Directory dir(unversioned);
    ASSERT_EQ(try_open(dir, 2, &s), 0u);
    EXPECT_EQ(s->domain_version, 0);
    Zel_close(s, 1);
    // The Orv filter asks for a version: a domain without one is not found.
    Directory orv_dir(unversioned.kind_is(Kind::Orv));
    EXPECT_EQ(try_open(orv_dir, 2, &s), ZEL_RC_SECURITY_DOMAIN_NOT_FOUND);

    Directory twice(Profile{}.seeded("dn: ou=copy,o=acme\nobjectClass: organizationalUnit\nou: copy\n\n"
                                     "dn: secAuthority=Default,ou=copy,o=acme\nobjectClass: secAuthorityInfo\n"
                                     "secAuthority: Default\n\n"));
    EXPECT_EQ(try_open(twice, 2, &s), ZEL_RC_SECURITY_DOMAIN_NOT_FOUND) << "two domain entries count as none";
}
