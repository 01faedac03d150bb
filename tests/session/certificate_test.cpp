// An LDAPS open refused for the server's certificate says why, in the
// thread's error detail, in the trace and in zelctl's message; a server that
// is simply not there is not blamed on its certificate.
#include <gtest/gtest.h>
#include <ldap.h>

#include "support/env.h"
#include "support/key_files.h"
#include "support/session.h"

using namespace zeltest;

namespace {

struct Refusal {
    const char *name;
    std::string uri;     // "localhost" is checked as the machine's own name, which the certificate lacks
    std::string ca;
    const char *detail;  // what Zel_last_error_detail says
};

// A caller's ldaps connection checked against the given CA file.
LDAP *connection(const std::string &uri, const char *ca) {
    LDAP *ld = nullptr;
    int three = LDAP_VERSION3, demand = LDAP_OPT_X_TLS_DEMAND, client_context = 0;
    if (ldap_initialize(&ld, uri.c_str()) != LDAP_SUCCESS) return nullptr;
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &three);
    ldap_set_option(ld, LDAP_OPT_X_TLS_CACERTFILE, ca);
    ldap_set_option(ld, LDAP_OPT_X_TLS_REQUIRE_CERT, &demand);
    ldap_set_option(ld, LDAP_OPT_X_TLS_NEWCTX, &client_context);
    return ld;
}

}  // namespace

TEST(CertificateRefused, SaysWhyOnlyWhenItIsTheCertificate) {
    Directory dir;
    const std::string port = std::to_string(dir.ldaps_port());
    const Refusal cases[] = {
        {"name", "ldaps://localhost:" + port, Directory::ca_file(),
         "server certificate refused: the certificate does not name the host connected to"},
        {"unknown CA", "ldaps://127.0.0.1:" + port, "/etc/ssl/certs/ca-certificates.crt",
         "server certificate refused: the certificate is not signed by a trusted CA (or is not valid now)"},
        {"no server", "ldaps://127.0.0.1:1", Directory::ca_file(), ""},
    };
    for (const Refusal &c : cases) {
        LDAP *ld = connection(c.uri, c.ca.c_str());
        ASSERT_NE(ld, nullptr);
        ZelSession *s = nullptr;
        testing::internal::CaptureStdout();
        {
            ScopedEnv debug("ZEL_DEBUG", "2");
            EXPECT_EQ(Zel_open(ld, dir.admin_dn().c_str(), Directory::admin_password(), nullptr, 0, 0, nullptr,
                               nullptr, nullptr, &s, 1),
                      ZEL_RC_DIRECTORY_ERROR)
                << c.name;
        }
        std::string trace = testing::internal::GetCapturedStdout();
        EXPECT_STREQ(Zel_last_error_detail(), c.detail) << c.name;
        EXPECT_EQ(trace.find("certificate refused") != std::string::npos, *c.detail != '\0') << trace;
        ldap_unbind_ext(ld, nullptr, nullptr);
    }
    // A later open starts without the old detail.
    Session ok = open_session(dir, 1);
    EXPECT_STREQ(Zel_last_error_detail(), "");

    // zelctl prints it after the status.
    CommandResult r = run_command({ZELCTL_PATH, "-H", "ldaps://localhost:" + port, "--ca", Directory::ca_file(), "-D",
                                   dir.admin_dn(), "-y", key_file(Directory::admin_password()), "info"});
    EXPECT_NE(r.err.find("(status 2): server certificate refused: the certificate does not name the host"),
              std::string::npos)
        << r.err;
}
