// A real Kerberos sign-on: a KDC of a private realm, a slapd that takes
// GSSAPI binds, and a ticket got with kinit.  The library binds with the
// ticket alone and resolves a principal to the person through the realm
// entry.
#include <gtest/gtest.h>

#include <ldap.h>

#include <memory>
#include <string>

#include "support/family_fixture.h"
#include "support/peers_fixture.h"
#include "support/kerberos.h"
#include "ZelSession.h"

namespace {

using namespace zeltest;
using famtest::credential;
using famtest::record;
using famtest::kAnn;
using famtest::user_record;

// The caller's own connection: libldap would put this machine's name in
// place of "localhost" in the service principal, and the test realm only
// knows ldap/localhost.
LDAP *connection_to(uint16_t port) {
    LDAP *ld = nullptr;
    std::string uri = "ldap://localhost:" + std::to_string(port);
    int three = LDAP_VERSION3;
    if (ldap_initialize(&ld, uri.c_str()) != LDAP_SUCCESS) return nullptr;
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &three);
    ldap_set_option(ld, LDAP_OPT_X_SASL_NOCANON, LDAP_OPT_ON);
    return ld;
}

// A directory that maps the realm's principals to persons, where the
// administrator has given Ann a record for "mail".  machine_name: its service
// principal is the one libldap asks for by default (KerberosRealm).
std::unique_ptr<Directory> directory_with_anns_record(const KerberosRealm &realm, bool machine_name = false) {
    Profile p;
    p.extra_config = realm.slapd_config("o=acme", machine_name);
    p.seed_ldif = database_ldif("o=acme") + person_ldif("o=acme", "Ann", "ann") + person_ldif("o=acme", "Bob", "bob") +
                  "dn: krbRealmName=" + std::string(realm.realm()) + ",o=acme\nobjectClass: krbRealm\nkrbRealmName: " +
                  realm.realm() + "\nprincSubtree: cn=Principals,o=acme\n\n"
                  "dn: cn=Principals,o=acme\nobjectClass: container\ncn: Principals\n\n"
                  "dn: cn=ann,cn=Principals,o=acme\nobjectClass: container\nobjectClass: eKrbPrincipal\ncn: ann\n"
                  "krbPrincipalName: " + realm.principal() + "\nkrbAliasedObjectName: " + kAnn + "\n\n";
    auto dir = std::make_unique<Directory>(p);

    Session admin = open_session(*dir, 1);
    EXPECT_TRUE(admin);
    if (!admin) return dir;
    char *names[] = {const_cast<char *>("host")};
    ZelTargetServiceType web{const_cast<char *>("Web"), 1, names};
    EXPECT_EQ(Zel_addTargetServiceType(admin.get(), &web), 0u);
    EXPECT_EQ(famtest::add_service(admin.get(), {"mail", "Web", nullptr, {{"host", "mail.acme"}}}), 0u);
    EXPECT_EQ(add_user_with_record(admin.get(), "ann", kAnn, "mail", "ann.mail", "mail-pw"), 0u);
    return dir;
}

std::string whoami(LDAP *ld) {
    struct berval *who = nullptr;
    if (ldap_whoami_s(ld, &who, nullptr, nullptr) != LDAP_SUCCESS) return "whoami failed";
    std::string text(who->bv_val, who->bv_len);
    ber_bvfree(who);
    return text;
}

TEST(PeerKerberos, TicketSignOnAndPrincipalCredential) {
    KerberosRealm realm("ann");
    std::unique_ptr<Directory> dir = directory_with_anns_record(realm);
    ASSERT_FALSE(HasFailure());

    ZelSession *raw = nullptr;
    LDAP *ld = connection_to(dir->port());
    ASSERT_NE(ld, nullptr);
    ZelRC rc = Zel_open(ld, nullptr, nullptr, nullptr, 0, ZEL_OPEN_NONSSL | ZEL_OPEN_GSSAPI, nullptr, nullptr,
                        nullptr, &raw, 1);
    if (rc != 0) ldap_unbind_ext_s(ld, nullptr, nullptr);
    ASSERT_EQ(rc, 0u);
    Session signed_on(raw);
    EXPECT_EQ(whoami(signed_on->ld), "dn:cn=ann,o=acme");

    EXPECT_EQ(credential(signed_on.get(), realm.principal().c_str(), "mail"), "ann.mail/mail-pw");
    EXPECT_EQ(credential(signed_on.get(), "nobody@ZEL.TEST", "mail"), "status 28");
}

// A session the library connected itself binds again with the ticket when
// its server restarts under it, and the read is answered on the new
// connection.  A ticket cache that names someone else by then does not
// carry the session over to them: the session refuses every later call.
TEST(PeerKerberos, TicketSessionBindsAgainAfterTheServerRestarts) {
    KerberosRealm realm("ann");
    std::unique_ptr<Directory> dir = directory_with_anns_record(realm, true);
    ASSERT_FALSE(HasFailure());
    ZelSession *raw = nullptr;
    ZelRC rc = Zel_open(nullptr, nullptr, nullptr, "localhost", dir->port(), ZEL_OPEN_NONSSL | ZEL_OPEN_GSSAPI,
                        nullptr, nullptr, nullptr, &raw, 1);
    Session s(raw);
    ASSERT_EQ(rc, 0u);
    EXPECT_EQ(credential(s.get(), realm.principal().c_str(), "mail"), "ann.mail/mail-pw");

    dir->restart();
    EXPECT_EQ(credential(s.get(), realm.principal().c_str(), "mail"), "ann.mail/mail-pw")
        << "the read is re-sent after a new GSSAPI bind";
    EXPECT_EQ(whoami(s->ld), "dn:cn=ann,o=acme") << "bound again as Ann, not anonymously";

    realm.sign_in_as("bob");
    dir->restart();
    for (int call = 0; call < 2; ++call)
        EXPECT_EQ(credential(s.get(), realm.principal().c_str(), "mail"), "status 4") << "call " << call;
}

}  // namespace
