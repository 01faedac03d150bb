// The directory schema: zel.ldif publishes exactly what zel.schema publishes,
// and slapd takes the values and runs the filters that no library test does,
// with the intended matching rules.
#include "support/family_fixture.h"
#include "ZelSession.h"

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <thread>

namespace fs = std::filesystem;
using namespace famtest;

namespace {

// The attribute types and object classes under the Zel arcs (.1 and .2) that
// the server at uri publishes; empty while it does not answer.
std::set<std::string> published_zel_definitions(const std::string &uri) {
    const std::string arc = "( 1.2.840.113556.1.8000.2554.23047.6290.18012.20179.34332.6506410.2954851.";
    CommandResult r = run_command({"ldapsearch", "-x", "-LLL", "-o", "ldif-wrap=no", "-H", uri, "-b",
                                   "cn=Subschema", "-s", "base", "(objectClass=*)", "attributeTypes",
                                   "objectClasses"});
    std::set<std::string> defs;
    for (const std::string &line : lines_of(r.status == 0 ? r.out : "")) {
        size_t colon = line.find(": ");
        if (colon != std::string::npos && (line.find(arc + "1.", colon) == colon + 2 ||
                                           line.find(arc + "2.", colon) == colon + 2))
            defs.insert(line);
    }
    return defs;
}

std::vector<std::string> dns(const std::vector<zeltest::Entry> &entries) {
    std::vector<std::string> out;
    for (const auto &e : entries) out.push_back(e.dn);
    return out;
}

}  // namespace

// A slapd configured through cn=config from the standard schema LDIF files and
// zel.ldif, as an operator of such a server would load it, listening on a
// socket in its own folder.
TEST(SchemaFiles, LdifAndSchemaFormsPublishTheSameDefinitions) {
    const std::string dir = zeltest::make_temp_dir("cnconfig");
    struct Cleanup {
        std::string dir;
        ~Cleanup() {
            pid_t pid = -1;
            if (std::ifstream(dir + "/slapd.pid") >> pid && pid > 0) kill(pid, SIGKILL);
            std::error_code ec;
            fs::remove_all(dir, ec);
        }
    } cleanup{dir};
    fs::create_directory(dir + "/slapd.d");
    std::string ldif = "dn: cn=config\nobjectClass: olcGlobal\ncn: config\nolcPidFile: " + dir +
                       "/slapd.pid\n\ndn: cn=schema,cn=config\nobjectClass: olcSchemaConfig\ncn: schema\n\n";
    for (const std::string file : {"/etc/ldap/schema/core.ldif", "/etc/ldap/schema/cosine.ldif",
                                   "/etc/ldap/schema/inetorgperson.ldif", ZEL_SOURCE_DIR "/schema/zel.ldif"}) {
        std::ifstream f(file);
        ldif += std::string(std::istreambuf_iterator<char>(f), {}) + "\n";
    }
    CommandResult r = run_command({"slapadd", "-n0", "-F", dir + "/slapd.d"}, ldif);
    ASSERT_EQ(r.status, 0) << "slapadd -n0 refused zel.ldif: " << r.err << r.out;
    std::string uri = "ldapi://";
    for (char c : dir + "/ldapi") uri += c == '/' ? std::string("%2F") : std::string(1, c);
    ASSERT_EQ(run_command({"slapd", "-F", dir + "/slapd.d", "-h", uri}).status, 0) << "slapd did not start";

    std::set<std::string> ldif_defs;
    for (int i = 0; i < 500 && ldif_defs.empty(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        ldif_defs = published_zel_definitions(uri);
    }
    zeltest::Directory from_schema_file;
    std::set<std::string> schema_defs = published_zel_definitions(from_schema_file.uri());
    ASSERT_FALSE(schema_defs.empty());

    std::vector<std::string> only_ldif, only_schema;
    std::set_difference(ldif_defs.begin(), ldif_defs.end(), schema_defs.begin(), schema_defs.end(),
                        std::back_inserter(only_ldif));
    std::set_difference(schema_defs.begin(), schema_defs.end(), ldif_defs.begin(), ldif_defs.end(),
                        std::back_inserter(only_schema));
    EXPECT_TRUE(only_ldif.empty()) << "only in zel.ldif:\n" << testing::PrintToString(only_ldif);
    EXPECT_TRUE(only_schema.empty()) << "only in zel.schema:\n" << testing::PrintToString(only_schema);
}

class SchemaEntries : public FamilyTest {};

// What no library test writes or asks of slapd.  In the Zel database: a
// profile's access values in the ACI dialect (creation on that kind stops
// before any profile), a service type's in the NDS dialect (creation sets it
// without a check), a stored password of bytes that are no text, and member
// values matched as DNs.  In the security domain: users, their credential
// containers and credentials (one with an empty account), resources, and the
// matching rules of the searches the library makes.  Every other entry
// shape, with each kind's access values, is written through the library by
// the creation, user, service, domain and record tests.
TEST_F(SchemaEntries, ValuesAndFiltersNoLibraryTestWrites) {
    const std::string person = "cn=Jo Smith,o=acme", user = "cn=jo," + person;
    // Masked passwords are stored with their NUL; keep bytes that are no text.
    const std::string secret("m4sk\0\xff\x80!", 8), secret_base64 = "bTRzawD/gCE=";
    dir->add(database_ldif("o=acme") + person_ldif("o=acme", "Jo Smith", "jo") + "dn: " + user +
             "\nobjectClass: top\nobjectClass: cimManagedElement\nobjectClass: eUser\nobjectClass: eZelUser"
             "\ncn: jo\nassociatedName: " + person + "\nuserType: User\nuserState: Active"
             "\nACI: (targetattr != \"secretKey\")(version 3.0; acl \"User access\"; allow(read, search, compare)"
             "userdn = \"ldap:///" + person + "\";)\n\n"
             "dn: " + type_dn("Web Resource") + "\nobjectClass: eTargetServiceType"
             "\ntsType: Web Resource\nACL: 16#subtree#" + group("Administrators") + "#[Entry Rights]\n\n"
             "dn: cn=T:app1," + user + "\nobjectClass: top\nobjectClass: cimManagedElement\nobjectClass: cimSetting"
             "\nobjectClass: eTargetRecord\ncn: T:app1\nsecretKey:: " + secret_base64 + "\n");
    dir->modify("dn: " + group("Administrators") + "\nchangetype: modify\nadd: member\nmember: " + person + "\n");
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_EQ(dir->entry("cn=T:app1," + user).first("secretKey"), secret);
    EXPECT_EQ(dns(dir->search(kDb, "sub", "(member=CN=Jo Smith, O=ACME)")), Strings{group("Administrators")});

    const std::string ann = "cn=Ann Lee,o=acme", ann_user = "principalName=ann," + kDomainUsers;
    const std::string app = resource_dn("app1"), masked("bWFza2Vk\0", 9), masked_base64 = "YldGemEyVmsA";
    dir->add(person_ldif("o=acme", "Ann Lee", "ann") + container_ldif(kDomainUsers, "Users") + "dn: " + ann_user +
             "\nobjectClass: top\nobjectClass: cimManagedElement\nobjectClass: eUser\nobjectClass: secUser"
             "\nprincipalName: ann\nsecDN: " + ann + "\nsecAuthority: Default:\nsecLoginType: Default:LDAP"
             "\nsecAcctValid: TRUE\ndescription: ann\n\n" + container_ldif("cn=ResCreds," + ann_user, "ResCreds") +
             "dn: secResCredsId=T:app1,cn=ResCreds," + ann_user +
             "\nobjectClass: top\nobjectClass: secResCreds\nsecResCredsID: T:app1\nsecType: 1\nsecValid: TRUE"
             "\nsecUid: ann1\nsecAuthnData:: " + masked_base64 + "\nsecAuthnLength: 9\nsecAuthnType: 2\n\n"
             // An update with an empty account name stores an empty secUid.
             "dn: secResCredsId=G:Sales,cn=ResCreds," + ann_user +
             "\nobjectClass: top\nobjectClass: secResCreds\nsecResCredsID: G:Sales\nsecType: 2\nsecValid: TRUE"
             "\nsecUid:\n\n" + container_ldif(kResources, "Resources") +
             "dn: " + app + "\nobjectClass: top\nobjectClass: secResource\nsecResourceID: app1\nsecType: 1"
             "\nsecValid: TRUE\ndescription: first app\n");
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_EQ(dir->entry("secResCredsID=T:app1,cn=ResCreds," + ann_user).first("secAuthnData"), masked);
    EXPECT_EQ(dir->entry("secResCredsID=G:Sales,cn=ResCreds," + ann_user).values("secUid"), Strings{""});
    // The person DN in the profile filter is whatever the caller passed;
    // the match must not depend on its spelling.
    EXPECT_EQ(dns(dir->search(kDomain, "sub",
                              "(&(objectClass=secUser)(secDN=CN=ann lee, O=Acme)(secAuthority=Default:))")),
              Strings{ann_user});
    EXPECT_EQ(dir->search(kDomain, "sub", "(&(objectClass=secUser)(secDN=" + ann + ")(secAuthority=Default))").size(),
              0u);
    EXPECT_EQ(dir->search(kDomain, "sub", "(&(objectClass=secUser)(secAcctValid=true))").size(), 1u);
    EXPECT_EQ(dir->search(ann_user, "sub", "secResCredsID=T:app1").size(), 1u);
    EXPECT_EQ(dns(dir->search(ann_user, "sub", "(secResCredsID=G:*)")),
              Strings{"secResCredsID=G:Sales,cn=ResCreds," + ann_user});
    EXPECT_EQ(dns(dir->search(kResources, "sub", "(&(objectClass=secResource)(secResourceID=APP1))")), Strings{app});
}
