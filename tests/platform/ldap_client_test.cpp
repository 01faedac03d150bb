#include "platform/ldap_client.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <string>

#include "support/alloc_faults.h"
#include "support/directory.h"
#include "support/fault_injection.h"
#include "support/session.h"
#include "ZelRoutines.h"

namespace {

namespace zp = zel::platform;
namespace fault = zeltest::fault;
using fault::Fn;

void *by_value(intptr_t v) { return reinterpret_cast<void *>(v); }

// Every wrapper reaches its own OpenLDAP call and translates its result.
TEST(LdapCalls, ReachOpenLdapAndTranslateResults) {
    fault::reset();
    LDAP *ld = zp::ldap_init("127.0.0.1", 1);
    ASSERT_NE(ld, nullptr);

    fault::fail_call(Fn::Search, 1, LDAP_TIMEOUT);
    fault::fail_call(Fn::Search, 2, LDAP_FILTER_ERROR);
    timeval zero{0, 0};
    timeval five{5, 0};
    LDAPMessage *res = nullptr;
    EXPECT_EQ(zp::ldap_search_ext_s(ld, "o=acme", LDAP_SCOPE_BASE, "(objectClass=*)", nullptr, 1,
                                    nullptr, nullptr, &zero, 2, &res), 85);
    EXPECT_EQ(zp::ldap_search_ext_s(ld, "o=acme", LDAP_SCOPE_BASE, "(objectClass=*)", nullptr, 1,
                                    nullptr, nullptr, &five, 2, &res), 87);
    auto searches = fault::calls(Fn::Search);
    ASSERT_EQ(searches.size(), 2u);
    EXPECT_TRUE(searches[0].timeout_null);   // zero means no limit
    EXPECT_FALSE(searches[1].timeout_null);

    // The writes and simple binds are failed through the library by the torture runner.
    fault::fail_call(Fn::SaslBind, 1, LDAP_LOCAL_ERROR);
    EXPECT_EQ(zp::ldap_sasl_bind_s(ld, nullptr, "GSSAPI", nullptr, nullptr, nullptr, nullptr), 82);
    EXPECT_EQ(fault::count(Fn::SaslBind), 1);

    // Codes the classic interface never had fold onto its numbers.
    EXPECT_EQ(zp::classic_result(LDAP_REFERRAL_LIMIT_EXCEEDED), 97);
    EXPECT_GT(zp::classic_result(INT_MIN), 0);

    // Not injected: init was lazy, the bind finds nobody listening.
    EXPECT_EQ(zp::ldap_simple_bind_s(ld, nullptr, nullptr), 81);
    EXPECT_EQ(zp::ldap_unbind(ld), 0);
    EXPECT_EQ(fault::count(Fn::Unbind), 1);

    // A null handle is refused before OpenLDAP sees it.
    fault::reset();
    EXPECT_EQ(zp::ldap_simple_bind_s(nullptr, nullptr, nullptr), 89);
    EXPECT_EQ(zp::ldap_unbind(nullptr), 89);
    EXPECT_EQ(zp::ldap_set_option(nullptr, zp::kOptDeref, by_value(1), zp::OptionPassing::ByValue), 89);
    EXPECT_TRUE(fault::calls().empty());
}

// A search cut at the limit the caller asked for hands its entries back as
// success; one the server's smaller limit cut stays "size limit exceeded".
TEST(LdapCalls, OnlyTheRequestedSizeLimitCountsAsSuccess) {
    zeltest::Profile profile;
    profile.server_size_limit = 1;
    profile.seed_ldif = zeltest::person_ldif("o=acme", "A", "twin") + zeltest::person_ldif("o=acme", "B", "twin");
    zeltest::Directory dir(profile);
    LDAP *ld = zp::ldap_init(zeltest::Directory::host(), dir.port());   // anonymous: the limit applies
    ASSERT_NE(ld, nullptr);
    for (auto [asked, expected] : {std::pair{1, 0}, std::pair{2, 4}}) {
        LDAPMessage *res = nullptr;
        EXPECT_EQ(zp::ldap_search_ext_s(ld, "o=acme", LDAP_SCOPE_SUBTREE, "(uid=twin)", nullptr, 1, nullptr,
                                        nullptr, nullptr, asked, &res), expected) << asked;
        ldap_msgfree(res);
    }
    zp::ldap_unbind(ld);
}

TEST(LdapInit, BuildsUrisFromClassicHostArgument) {
    struct Case {
        const char *host;
        int port;
        const char *uri;
    };
    for (const Case &c : {Case{"127.0.0.1", 1, "ldap://127.0.0.1:1"},
                          Case{"ldap.example.com", 0, "ldap://ldap.example.com:389"},
                          Case{"::1", 389, "ldap://[::1]:389"},
                          Case{"[::1]:1389", 389, "ldap://[::1]:1389"},
                          Case{" h1  h2:1389 ", 389, "ldap://h1:389 ldap://h2:1389"},
                          // URIs keep their scheme and default port; bare hosts take the argument's.
                          Case{"LDAPS://h1/ ldap://h2:1 h3", 1389, "ldaps://h1:636 ldap://h2:1 ldap://h3:1389"}}) {
        fault::reset();
        LDAP *ld = zp::ldap_init(c.host, c.port);
        EXPECT_NE(ld, nullptr) << c.host;
        auto inits = fault::calls(Fn::Initialize);
        ASSERT_EQ(inits.size(), 1u) << c.host;
        EXPECT_EQ(inits[0].dn, c.uri);
        if (ld != nullptr) zp::ldap_unbind(ld);
    }
    fault::reset();
    for (const char *bad : {"", "  ", "a/b", "h?x", "h#x", "user@h", "host:99999", "host:", "[::1",
                            "[::1]x", "h\xC3\xA4", "ldap://", "ldap://h/o=x", "ldap://h:1/??sub", "ldapi://h",
                            "ldap://h1 ldap://u@h2"}) {
        EXPECT_EQ(zp::ldap_init(bad, 389), nullptr) << bad;
    }
    EXPECT_EQ(zp::ldap_init(nullptr, 389), nullptr);
    EXPECT_EQ(zp::ldap_init("h", 70000), nullptr);
    EXPECT_EQ(fault::count(Fn::Initialize), 0);

    fault::fail_call(Fn::Initialize, 1, LDAP_NO_MEMORY);
    EXPECT_EQ(zp::ldap_init("h", 389), nullptr);
    fault::reset();
}

int option(LDAP *ld, int openldap_option) {
    int value = -1;
    EXPECT_EQ(ldap_get_option(ld, openldap_option, &value), LDAP_OPT_SUCCESS);
    return value;
}

// As the open sequence sets them: 0x03/0x01/0x00 by address under version 3
// and by value under version 2.  The caller's stated passing decides, never
// the handle's protocol version: a by-value 3 on a version-3 handle is 3.
TEST(LdapOptions, ClassicNumbersMapToOpenLdap) {
    using P = zp::OptionPassing;
    LDAP *ld = zp::ldap_init("127.0.0.1", 1);
    ASSERT_NE(ld, nullptr);
    int v3 = 3, v2 = 2, v5 = 5, three = 3, zero = 0;
    EXPECT_EQ(zp::ldap_set_option(ld, zp::kOptProtocolVersion, &v3, P::ByAddress), 0);
    EXPECT_EQ(zp::ldap_set_option(ld, zp::kOptDeref, by_value(1), P::ByValue), 0);
    EXPECT_EQ(zp::ldap_set_option(ld, zp::kOptSslTimeout, nullptr, P::ByValue), 0);
    EXPECT_EQ(zp::ldap_set_option(ld, zp::kOptSizeLimit, &three, P::ByAddress), 0);
    EXPECT_EQ(zp::ldap_set_option(ld, zp::kOptDesc, &zero, P::ByAddress), 0);
    EXPECT_EQ(zp::ldap_set_option(ld, zp::kOptApiInfo, &zero, P::ByAddress), 0);
    EXPECT_EQ(option(ld, LDAP_OPT_PROTOCOL_VERSION), 3);
    EXPECT_EQ(option(ld, LDAP_OPT_DEREF), LDAP_DEREF_SEARCHING);
    EXPECT_EQ(option(ld, LDAP_OPT_SIZELIMIT), 3);
    EXPECT_EQ(zp::ldap_set_option(ld, zp::kOptSizeLimit, nullptr, P::ByAddress), 89);
    EXPECT_EQ(zp::ldap_set_option(ld, zp::kOptSizeLimit, by_value(4), P::ByValue), 0);
    EXPECT_EQ(zp::ldap_set_option(ld, zp::kOptApiInfo, by_value(3), P::ByValue), 0);
    EXPECT_EQ(option(ld, LDAP_OPT_SIZELIMIT), 4);

    EXPECT_EQ(zp::ldap_set_option(ld, zp::kOptProtocolVersion, &v2, P::ByAddress), 0);
    EXPECT_EQ(zp::ldap_set_option(ld, zp::kOptSizeLimit, by_value(7), P::ByValue), 0);
    EXPECT_EQ(zp::ldap_set_option(ld, zp::kOptDesc, by_value(0), P::ByValue), 0);
    EXPECT_EQ(zp::ldap_set_option(ld, zp::kOptApiInfo, by_value(0), P::ByValue), 0);
    EXPECT_EQ(option(ld, LDAP_OPT_SIZELIMIT), 7);

    // Refused values leave the handle as it was.
    EXPECT_EQ(zp::ldap_set_option(ld, zp::kOptProtocolVersion, &v5, P::ByAddress), 89);
    EXPECT_EQ(zp::ldap_set_option(ld, zp::kOptProtocolVersion, nullptr, P::ByAddress), 89);
    EXPECT_EQ(zp::ldap_set_option(ld, zp::kOptProtocolVersion, by_value(3), P::ByValue), 89);
    EXPECT_EQ(zp::ldap_set_option(ld, zp::kOptSizeLimit, by_value(-1), P::ByValue), 89);
    EXPECT_EQ(zp::ldap_set_option(ld, zp::kOptDeref, by_value(9), P::ByValue), 89);
    EXPECT_EQ(zp::ldap_set_option(ld, zp::kOptDeref, &zero, P::ByAddress), 89);
    EXPECT_EQ(zp::ldap_set_option(ld, zp::kOptSslTimeout, &zero, P::ByAddress), 89);
    EXPECT_EQ(zp::ldap_set_option(ld, 0x7777, &zero, P::ByAddress), 89);
    EXPECT_EQ(option(ld, LDAP_OPT_PROTOCOL_VERSION), 2);
    EXPECT_EQ(option(ld, LDAP_OPT_SIZELIMIT), 7);
    zp::ldap_unbind(ld);
}

// The SSL state is process-wide: whichever test runs first initialises it,
// with the test CA every SSL test uses.
int client_init_with_test_ca() {
    int reason = -1;
    int rc = zp::ldap_ssl_client_init(zeltest::Directory::ca_file().c_str(), "unused", 0, &reason);
    EXPECT_EQ(reason, 0);
    return rc;
}

// A second initialisation answers "already initialised"; a client
// certificate that cannot be read gives no handle.
TEST(LdapSsl, ClientInitOnceAndUnreadableCertificates) {
    int first = client_init_with_test_ca();
    EXPECT_TRUE(first == 0 || first == zp::kSslAlreadyInitialised) << first;
    EXPECT_EQ(client_init_with_test_ca(), zp::kSslAlreadyInitialised);
    // The CA stays with the library's own handles, not in libldap's defaults.
    char *global_ca = nullptr;
    ASSERT_EQ(ldap_get_option(nullptr, LDAP_OPT_X_TLS_CACERTFILE, &global_ca), LDAP_OPT_SUCCESS);
    EXPECT_NE(global_ca ? std::string(global_ca) : "", zeltest::Directory::ca_file());
    ldap_memfree(global_ca);

    fault::reset();
    EXPECT_EQ(zp::ldap_ssl_init("127.0.0.1", 1, "/nonexistent/client.pem"), nullptr);
    EXPECT_EQ(zp::ldap_ssl_init("127.0.0.1", 1, "/tmp"), nullptr);
    EXPECT_EQ(fault::count(Fn::Initialize), 0);   // refused before a handle existed
    fault::reset();
}

// "host:port security replica suffix" per server, in list order.
std::string describe(const zp::ServerInfo *list) {
    std::string out;
    for (; list != nullptr; list = list->next) {
        out += std::string(list->host) + ":" + std::to_string(list->port) + " " +
               std::to_string(list->sec_type) + " " + std::to_string(list->replica_type) + " " +
               (list->suffix ? list->suffix : "-") + ";";
    }
    return out;
}

TEST(LdapServerLocate, ListsConfiguredUrisAndHandsOutNothingOnFailure) {
    zeltest::ClientDefaults restore;
    struct Case {
        const char *uris;
        const char *base;
        int rc;
        const char *servers;
    };
    for (const Case &c : {Case{"ldap://h1:1389 ldapi:/// ldaps://h2", "o=acme", 0,
                               "h1:1389 1 1 o=acme;h2:636 2 1 o=acme;"},
                          Case{"ldap://[::1]", nullptr, 0, "::1:389 1 1 -;"},
                          Case{"ldapi:///", "o=acme", LDAP_NO_SUCH_OBJECT, ""},
                          Case{"", "o=acme", LDAP_NO_SUCH_OBJECT, ""}}) {
        zeltest::ClientDefaults::set(c.uris, c.base);
        auto *sentinel = reinterpret_cast<zp::ServerInfo *>(&restore);
        zp::ServerInfo *list = sentinel;   // a failure must set it to null
        EXPECT_EQ(zp::ldap_server_locate(nullptr, &list), c.rc) << c.uris;
        ASSERT_NE(list, sentinel);
        EXPECT_EQ(describe(list), c.servers);
        zp::ldap_server_free_list(list);
    }
    EXPECT_EQ(zp::ldap_server_locate(nullptr, nullptr), 89);

    // A configured suffix too long for its buffer is refused: stored empty it
    // would widen every search to the whole directory.
    const std::string base = "o=" + std::string(1000, 'x');
    zeltest::ClientDefaults::set("ldap://h1", base.c_str());
    ZelSession s{};
    char *host = nullptr;
    int port = 0;
    char *suffixes[20];
    EXPECT_EQ(locate_LDAP_Server(&s, 1, &host, &port, suffixes), ZEL_RC_INVALID_ARGUMENT);
    EXPECT_EQ(suffixes[0], nullptr);
    std::free(host);

    // Each allocation in turn fails: the partial list is freed (the leak
    // checker of the sanitizer build watches) and nothing is handed out.
    zeltest::ClientDefaults::set("ldap://h1 ldaps://h2 ldap://h3", "o=acme");
    zeltest::each_allocation_fails("locate", 0, [] {
        zp::ServerInfo *list = nullptr;
        int rc = zp::ldap_server_locate(nullptr, &list);
        EXPECT_TRUE(rc == 0 || list == nullptr) << "handed out after " << rc;
        zp::ldap_server_free_list(list);
        return rc == 90 ? ZEL_RC_NO_MEMORY : static_cast<ZelRC>(rc);  // the client's "no memory"
    });
}

}  // namespace
