// A real Kerberos sign-on: a KDC of a private realm, a slapd that takes
// GSSAPI binds, and a ticket got with kinit.  The library binds with the
// ticket alone and resolves a principal to the person through the realm
// entry.
#include <gtest/gtest.h>

#include <ldap.h>

#include <memory>
#include <string>

#include "record/record_fixture.h"
#include "support/kerberos.h"

namespace {

using namespace zeltest;
using recordtest::credential;
using recordtest::record;
using usertest::kAnn;
using usertest::user_record;

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

TEST(PeerKerberos, TicketSignOnAndPrincipalCredential) {
    KerberosRealm realm("ann");
    Profile p;
    p.extra_config = realm.slapd_config("o=acme");
    p.seed_ldif = database_ldif("o=acme") + person_ldif("o=acme", "Ann", "ann") +
                  "dn: krbRealmName=" + realm.realm() + ",o=acme\nobjectClass: krbRealm\nkrbRealmName: " +
                  realm.realm() + "\nprincSubtree: cn=Principals,o=acme\n\n"
                  "dn: cn=Principals,o=acme\nobjectClass: container\ncn: Principals\n\n"
                  "dn: cn=ann,cn=Principals,o=acme\nobjectClass: container\nobjectClass: eKrbPrincipal\ncn: ann\n"
                  "krbPrincipalName: " + realm.principal() + "\nkrbAliasedObjectName: " + kAnn + "\n\n";
    Directory dir(p);

    // The administrator gives Ann a record; she reads it signed on with her ticket.
    Session admin = open_session(dir, 1);
    ASSERT_TRUE(admin);
    char *names[] = {const_cast<char *>("host")};
    ZelTargetServiceType web{const_cast<char *>("Web"), 1, names};
    ASSERT_EQ(Zel_addTargetServiceType(admin.get(), &web), 0u);
    ZelReqIdentifier host{const_cast<char *>("host"), const_cast<char *>("mail.acme")};
    ZelReqIdentifier *ids[] = {&host};
    ZelTargetService mail{const_cast<char *>("mail"), const_cast<char *>("Web"), nullptr, 1, ids};
    ASSERT_EQ(Zel_addTargetService(admin.get(), &mail), 0u);
    ZelUser ann = user_record("ann", "User", kAnn);
    ASSERT_EQ(Zel_addZelUser(admin.get(), &ann), 0u);
    ZelTargetRecord r = record("T:mail", "mail", "ann.mail", "mail-pw");
    ASSERT_EQ(Zel_addTargetRecord(admin.get(), "ann", &r), 0u);

    ZelSession *raw = nullptr;
    LDAP *ld = connection_to(dir.port());
    ASSERT_NE(ld, nullptr);
    ZelRC rc = Zel_open(ld, nullptr, nullptr, nullptr, 0, ZEL_OPEN_NONSSL | ZEL_OPEN_GSSAPI, nullptr, nullptr,
                        nullptr, &raw, 1);
    if (rc != 0) ldap_unbind_ext_s(ld, nullptr, nullptr);
    ASSERT_EQ(rc, 0u);
    Session signed_on(raw);
    struct berval *who = nullptr;
    ASSERT_EQ(ldap_whoami_s(signed_on->ld, &who, nullptr, nullptr), LDAP_SUCCESS);
    EXPECT_EQ(std::string(who->bv_val, who->bv_len), "dn:cn=ann,o=acme");
    ber_bvfree(who);

    EXPECT_EQ(credential(signed_on.get(), realm.principal().c_str(), "mail"), "ann.mail/mail-pw");
    EXPECT_EQ(credential(signed_on.get(), "nobody@ZEL.TEST", "mail"), "status 28");
}

}  // namespace
