// Opening and closing sessions against a real directory.
#include <gtest/gtest.h>
#include <ldap.h>

#include "support/env.h"
#include "support/session.h"
#include "ZelSession.h"

using namespace zeltest;
using fault::Fn;

namespace {

class Open : public DirectoryTest {
protected:
    // A version-1 open of `host` (the test server when null) as `user`.
    ZelRC open_at(ZelSession **s, const char *user, const char *password, const char *host = nullptr, int port = 0,
                  int32_t flags = ZEL_OPEN_NONSSL) {
        return Zel_open(nullptr, user, password, host ? host : Directory::host(), host ? port : dir->port(), flags,
                        nullptr, nullptr, nullptr, s, 1);
    }
    ZelRC open_as_admin(ZelSession **s, const char *password = Directory::admin_password()) {
        return open_at(s, dir->admin_dn().c_str(), password);
    }
};

LDAP *bound_connection(const Directory &dir) {
    LDAP *ld = nullptr;
    EXPECT_EQ(ldap_initialize(&ld, dir.uri().c_str()), LDAP_SUCCESS);
    int v3 = LDAP_VERSION3;
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &v3);
    EXPECT_EQ(ldap_simple_bind_s(ld, dir.admin_dn().c_str(), Directory::admin_password()), LDAP_SUCCESS);
    return ld;
}

bool connection_works(LDAP *ld) {
    LDAPMessage *res = nullptr;
    int rc = ldap_search_ext_s(ld, "", LDAP_SCOPE_BASE, "(objectClass=*)", nullptr, 0, nullptr, nullptr, nullptr,
                               0, &res);
    ldap_msgfree(res);
    return rc == LDAP_SUCCESS;
}

}  // namespace

TEST(OpenArguments, VersionIsCheckedFirstThenCredentialsThenDomain) {
    fault::reset();
    ZelSession *s = reinterpret_cast<ZelSession *>(0x1);
    EXPECT_EQ(Zel_open(nullptr, nullptr, nullptr, nullptr, 0, 0, nullptr, nullptr, nullptr, &s, 3),
              ZEL_RC_UNSUPPORTED_VERSION);
    EXPECT_EQ(Zel_open(nullptr, "cn=a", "", nullptr, 0, 0, nullptr, nullptr, nullptr, &s, 2), ZEL_RC_INVALID_ARGUMENT);
    EXPECT_EQ(Zel_open(nullptr, nullptr, "pw", nullptr, 0, 0, nullptr, nullptr, nullptr, &s, 0), ZEL_RC_INVALID_ARGUMENT);
    EXPECT_EQ(Zel_open_ext(nullptr, nullptr, nullptr, nullptr, 0, 0, nullptr, nullptr, nullptr, &s, 7, nullptr, 0),
              ZEL_RC_UNSUPPORTED_VERSION);
    ZelBindCredentials wrong_kind{2, 0, 0, nullptr};
    EXPECT_EQ(Zel_open_ext(nullptr, nullptr, nullptr, nullptr, 0, ZEL_OPEN_GSSAPI, nullptr, nullptr, nullptr, &s, 1,
                           &wrong_kind, 0),
              ZEL_RC_INVALID_ARGUMENT);
    EXPECT_EQ(Zel_open_sec_domain(nullptr, nullptr, nullptr, nullptr, 0, 0, nullptr, nullptr, nullptr, "", &s, 5),
              ZEL_RC_INVALID_ARGUMENT);
    EXPECT_EQ(Zel_open_sec_domain(nullptr, nullptr, nullptr, nullptr, 0, 0, nullptr, nullptr, nullptr, "D", &s, 5),
              ZEL_RC_UNSUPPORTED_VERSION);
    EXPECT_EQ(fault::calls().size(), 0u) << "argument checks must not reach the directory";
}

TEST_F(Open, SucceedsAndCloseUnbindsTheConnectionItMade) {
    ZelSession *s = nullptr;
    ASSERT_EQ(open_as_admin(&s), 0u);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->version, 1u);
    EXPECT_EQ(s->owns_connection, 1);
    EXPECT_EQ(s->dir_kind, ZEL_DIR_GENERIC);
    EXPECT_EQ(s->domain_dn, nullptr) << "version 1 opens without a security domain";
    EXPECT_EQ(s->database_dn, nullptr);
    EXPECT_EQ(Zel_close(s, 0), 0u);
    EXPECT_EQ(fault::count(Fn::Unbind), 1);
}

// A wrong password is the trace level test's open.
TEST_F(Open, BindOutcomes) {
    ZelSession *s = nullptr;
    // A name without "=" is looked up after an anonymous bind; discovery has
    // not run yet, so the lookup finds nothing.
    EXPECT_EQ(open_at(&s, "jo", "pw"), ZEL_RC_ENTRY_NOT_FOUND);
    auto binds = fault::calls(Fn::SimpleBind);
    ASSERT_EQ(binds.size(), 1u);
    EXPECT_EQ(binds[0].dn, "");
    EXPECT_FALSE(binds[0].has_credentials);
    EXPECT_EQ(fault::count(Fn::Search), 0) << "no suffix is known while binding";

    // A refused anonymous bind maps with its own default.
    const std::string admin = dir->admin_dn();
    const struct {
        int bind_result;
        const char *user;
        ZelRC want;
    } refusals[] = {{LDAP_INAPPROPRIATE_AUTH, "jo", ZEL_RC_NOT_AUTHORIZED},
                    {777, "jo", ZEL_RC_ENTRY_NOT_FOUND},
                    {777, admin.c_str(), ZEL_RC_AUTHENTICATION_FAILED}};
    for (const auto &r : refusals) {
        fault::reset();
        fault::fail_call(Fn::SimpleBind, 1, r.bind_result);
        EXPECT_EQ(open_at(&s, r.user, "pw"), r.want) << r.user << " " << r.bind_result;
    }

    // Time-outs from the environment are whole seconds, or nothing opens.
    for (const char *bad : {"", "5s", "-1", "99999999"}) {
        ScopedEnv timeout("ZEL_TIMEOUT", bad);
        EXPECT_EQ(open_as_admin(&s), ZEL_RC_INVALID_ARGUMENT) << bad;
    }
}

TEST_F(Open, ProtocolErrorRebindsOnceWithVersionTwo) {
    ZelSession *s = nullptr;
    fault::fail_call(Fn::SimpleBind, 1, LDAP_PROTOCOL_ERROR);
    ASSERT_EQ(open_as_admin(&s), 0u);
    int version = 0;
    ldap_get_option(s->ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    EXPECT_EQ(version, LDAP_VERSION2);
    EXPECT_EQ(fault::count(Fn::SimpleBind), 2);
    Zel_close(s, 1);

    fault::reset();
    fault::fail_call(Fn::SimpleBind, 1, LDAP_PROTOCOL_ERROR);
    fault::fail_call(Fn::SimpleBind, 2, LDAP_PROTOCOL_ERROR);
    EXPECT_EQ(open_as_admin(&s), ZEL_RC_PROTOCOL_ERROR)
        << "the second answer is final";
}

// A bind on a ticket alone is the Kerberos peer's; here the credentials given.
TEST_F(Open, GssapiBindSendsTheCredentialsGiven) {
    ZelSession *s = nullptr;
    fault::fail_call(Fn::SaslBind, 1, LDAP_SUCCESS);  // stands in for a KDC-backed server
    const char token[] = "token";
    ZelBindCredentials creds{1, 0, 5, token};
    ASSERT_EQ(Zel_open_ext(nullptr, nullptr, nullptr, Directory::host(), dir->port(),
                           ZEL_OPEN_NONSSL | ZEL_OPEN_GSSAPI, nullptr, nullptr, nullptr, &s, 1, &creds, 0),
              0u);
    auto sasl = fault::calls(Fn::SaslBind);
    ASSERT_EQ(sasl.size(), 1u);
    EXPECT_EQ(sasl[0].mechanism, "GSSAPI");
    EXPECT_TRUE(sasl[0].has_credentials);
    EXPECT_EQ(fault::count(Fn::SimpleBind), 0);
    Zel_close(s, 1);
}

TEST_F(Open, CallersConnectionIsUsedAsBoundAndSurvivesFailureAndClose) {
    LDAP *ld = bound_connection(*dir);
    fault::reset();
    ZelSession *s = nullptr;
    ASSERT_EQ(Zel_open(ld, nullptr, nullptr, nullptr, 0, 0, nullptr, nullptr, nullptr, &s, 1), 0u);
    EXPECT_EQ(fault::count(Fn::SimpleBind), 0) << "no user: no bind";
    EXPECT_EQ(s->owns_connection, 0);
    // The session chases no referrals; the caller gets its setting back.
    int chases = -1;
    ldap_get_option(ld, LDAP_OPT_REFERRALS, &chases);
    EXPECT_EQ(chases, 0);
    Zel_close(s, 0);
    EXPECT_EQ(fault::count(Fn::Unbind), 0);
    EXPECT_TRUE(connection_works(ld));
    ldap_get_option(ld, LDAP_OPT_REFERRALS, &chases);
    EXPECT_NE(chases, 0);  // libldap reads "on" as -1

    // A user binds on the caller's connection; a later failure leaves it bound.
    ZelRC rc = Zel_open_sec_domain(ld, dir->admin_dn().c_str(), Directory::admin_password(), nullptr, 0, 0,
                                   nullptr, nullptr, nullptr, "NoSuchDomain", &s, 2);
    EXPECT_EQ(rc, ZEL_RC_SECURITY_DOMAIN_NOT_FOUND);
    EXPECT_EQ(s, nullptr);
    EXPECT_EQ(fault::count(Fn::Unbind), 0);
    EXPECT_TRUE(connection_works(ld));
    ldap_unbind_ext(ld, nullptr, nullptr);
}

TEST_F(Open, LocatedServerAndUnreachableServers) {
    ZelSession *s = nullptr;
    const std::string admin_dn = dir->admin_dn();
    {
        ScopedEnv plain("ZEL_NONSSL", "");
        dir->make_default_server();
        ASSERT_EQ(Zel_open(nullptr, admin_dn.c_str(), Directory::admin_password(), nullptr, 0, 0, nullptr, nullptr,
                           nullptr, &s, 1),
                  0u);
        Zel_close(s, 1);
        // The configured server is plain LDAP: asking for SSL finds none.
        EXPECT_EQ(Zel_open(nullptr, admin_dn.c_str(), "pw", nullptr, 0, ZEL_OPEN_SSL, nullptr, nullptr, nullptr,
                           &s, 1),
                  ZEL_RC_CONNECT_FAILED);
    }
    // Nothing listens on the port: the lazy connection fails at the bind.
    fault::reset();
    EXPECT_EQ(open_at(&s, admin_dn.c_str(), "pw", Directory::host(), 1), ZEL_RC_DIRECTORY_ERROR);
    fault::reset();
    fault::fail_call(Fn::Initialize, 1, LDAP_PARAM_ERROR);
    EXPECT_EQ(open_at(&s, admin_dn.c_str(), "pw", Directory::host(), 1), ZEL_RC_CONNECT_FAILED);
}

// SSL as the flags ask, over ZEL_NONSSL, on the default port of each.
TEST_F(Open, SslChoiceFollowsFlagsOverTheEnvironmentAndDefaultPorts) {
    ZelSession *s = nullptr;
    ScopedEnv plain("ZEL_NONSSL", "1");
    for (const auto &[flags, uri] : {std::pair{0, "ldap://127.0.0.1:389"}, {ZEL_OPEN_SSL, "ldaps://127.0.0.1:636"},
                                     {ZEL_OPEN_SSL | ZEL_OPEN_NONSSL, "ldap://127.0.0.1:389"}}) {
        fault::reset();
        open_at(&s, dir->admin_dn().c_str(), "pw", "127.0.0.1", 0, flags);
        auto inits = fault::calls(Fn::Initialize);
        EXPECT_EQ(inits.empty() ? std::string() : inits[0].dn, uri);
    }
}
