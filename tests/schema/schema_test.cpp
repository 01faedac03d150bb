// The directory schema: zel.ldif publishes exactly what zel.schema publishes,
// and slapd accepts every entry shape the library writes and answers the
// filters the library searches with.
#include "support/directory.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

namespace fs = std::filesystem;
using zeltest::CommandResult;
using zeltest::Directory;
using zeltest::Entry;
using zeltest::run_command;

namespace {

const std::string kZelArc = "2.25.119667364065569931186836884430712018531";

std::string read_text(const std::string &path) {
    std::ifstream f(path);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

std::string collapse_spaces(const std::string &s) {
    std::string out;
    for (char c : s) {
        bool space = c == ' ' || c == '\t' || c == '\n' || c == '\r';
        if (space) {
            if (!out.empty() && out.back() != ' ') out.push_back(' ');
        } else {
            out.push_back(c);
        }
    }
    while (!out.empty() && out.back() == ' ') out.pop_back();
    return out;
}

std::string base64(const std::string &in) {
    static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    size_t i = 0;
    for (; i + 2 < in.size(); i += 3) {
        unsigned v = (static_cast<unsigned char>(in[i]) << 16) | (static_cast<unsigned char>(in[i + 1]) << 8) |
                     static_cast<unsigned char>(in[i + 2]);
        for (int shift : {18, 12, 6, 0}) out.push_back(alphabet[(v >> shift) & 63]);
    }
    if (i < in.size()) {
        unsigned v = static_cast<unsigned char>(in[i]) << 16;
        if (i + 1 < in.size()) v |= static_cast<unsigned char>(in[i + 1]) << 8;
        out.push_back(alphabet[(v >> 18) & 63]);
        out.push_back(alphabet[(v >> 12) & 63]);
        out.push_back(i + 1 < in.size() ? alphabet[(v >> 6) & 63] : '=');
        out.push_back('=');
    }
    return out;
}

// The attribute types and object classes under the Zel arcs (.1 and .2) that
// the server at uri publishes, whitespace collapsed, prefixed by their kind.
std::set<std::string> published_zel_definitions(const std::string &uri) {
    CommandResult r = run_command({"ldapsearch", "-x", "-LLL", "-o", "ldif-wrap=no", "-H", uri, "-b",
                                   "cn=Subschema", "-s", "base", "(objectClass=*)", "attributeTypes",
                                   "objectClasses"});
    EXPECT_EQ(r.status, 0) << r.err;
    std::set<std::string> defs;
    std::istringstream in(r.out);
    std::string line;
    while (std::getline(in, line)) {
        size_t colon = line.find(": ");
        if (colon == std::string::npos) continue;
        std::string value = collapse_spaces(line.substr(colon + 2));
        if (value.rfind("( " + kZelArc + ".1.", 0) == 0 || value.rfind("( " + kZelArc + ".2.", 0) == 0)
            defs.insert(line.substr(0, colon) + ": " + value);
    }
    return defs;
}

uint16_t free_port() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    bool ok = fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
              getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0;
    close(fd);
    return ok ? ntohs(a.sin_port) : 0;
}

// A slapd configured through cn=config from the standard schema LDIF files
// and zel.ldif, as an operator of a cn=config server would load it.
class ConfigServer {
public:
    ConfigServer() {
        std::string templ = (fs::temp_directory_path() / "zeltest-cnconfig-XXXXXX").string();
        if (!mkdtemp(templ.data())) throw std::runtime_error("mkdtemp failed");
        dir_ = templ;
        fs::create_directory(dir_ + "/slapd.d");
    }
    ~ConfigServer() {
        if (pid_ <= 0) std::ifstream(dir_ + "/slapd.pid") >> pid_;
        if (pid_ > 0) kill(pid_, SIGKILL);
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }

    // slapadd -n0 output on failure, "" on success.
    std::string load(const std::vector<std::string> &schema_ldifs) {
        std::string ldif = "dn: cn=config\nobjectClass: olcGlobal\ncn: config\nolcPidFile: " + dir_ +
                           "/slapd.pid\n\ndn: cn=schema,cn=config\nobjectClass: olcSchemaConfig\ncn: schema\n\n";
        for (const auto &file : schema_ldifs) ldif += read_text(file) + "\n";
        CommandResult r = run_command({"slapadd", "-n0", "-F", dir_ + "/slapd.d"}, ldif);
        return r.status == 0 ? "" : r.err + r.out;
    }

    // Starts slapd as a daemon; its pid file tells which process to stop.
    bool start() {
        port_ = free_port();
        CommandResult r = run_command({"slapd", "-F", dir_ + "/slapd.d", "-h", uri() + "/"});
        if (r.status != 0) return false;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (std::chrono::steady_clock::now() < deadline) {
            std::ifstream pidfile(dir_ + "/slapd.pid");
            if (pidfile >> pid_ && pid_ > 0 &&
                run_command({"ldapsearch", "-x", "-H", uri(), "-b", "", "-s", "base", "1.1"}).status == 0)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }

    std::string uri() const { return "ldap://127.0.0.1:" + std::to_string(port_); }

private:
    std::string dir_;
    uint16_t port_ = 0;
    pid_t pid_ = -1;
};

std::vector<std::string> sorted_lower(std::vector<std::string> v) {
    for (auto &s : v)
        for (char &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    std::sort(v.begin(), v.end());
    return v;
}

std::vector<std::string> object_classes(const Entry &e) { return sorted_lower(e.values("objectClass")); }

std::vector<std::string> dns(const std::vector<Entry> &entries) {
    std::vector<std::string> out;
    for (const auto &e : entries) out.push_back(e.dn);
    return out;
}

}  // namespace

TEST(SchemaFiles, LdifAndSchemaFormsPublishTheSameDefinitions) {
    const std::string src = ZEL_SOURCE_DIR;
    ConfigServer config;
    std::string error = config.load({"/etc/ldap/schema/core.ldif", "/etc/ldap/schema/cosine.ldif",
                                     "/etc/ldap/schema/inetorgperson.ldif", src + "/schema/zel.ldif"});
    ASSERT_EQ(error, "") << "slapadd -n0 refused zel.ldif";
    ASSERT_TRUE(config.start()) << "slapd did not start from cn=config";

    Directory from_schema_file;
    std::set<std::string> ldif_defs = published_zel_definitions(config.uri());
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

class SchemaEntries : public zeltest::DirectoryTest {};

// The Zel database as creation and the user, service, domain and record
// operations write it, with the access-control values of every directory kind
// on the entries that receive them.
TEST_F(SchemaEntries, ZelDatabaseTreeIsAcceptedAndSearchable) {
    const std::string db = "systemName=ORVZEL,o=acme";
    const std::string person = "cn=Jo Smith,o=acme";
    const std::string admins = "cn=Administrators,cn=Access Groups," + db;
    const std::string user = "cn=jo," + person;
    // Masked passwords are stored with their NUL; keep bytes that are no text.
    const std::string secret("m4sk\0\xff\x80!", 8);

    dir->add("dn: " + db +
             "\nobjectClass: top\nobjectClass: cimManagedElement\nobjectClass: cimManagedSystemElement"
             "\nobjectClass: cimLogicalElement\nobjectClass: eSystem\nobjectClass: eApplicationSystem"
             "\nsystemName: ORVZEL\ndescription: Orv Zel Meta-data"
             "\nEntryOwner: group:CN=ANYBODY\nOwnerPropagate: true\nAclPropagate: true"
             "\nAclEntry: group:CN=ANYBODY:normal:rsc\nACL: 16#subtree#[Root]#[Entry Rights]"
             "\nACI: (targetattr = *)(version 3.0; acl \"Anonymous access\"; allow (read, search, compare)"
             "userdn = \"ldap:///anyone\";)"
             // The database entry is the placeholder member of new groups,
             // so it also receives the member-side membership values.
             "\nsecurityEquals: " + admins + "\ngroupMembership: " + admins + "\n\n"
             "dn: cn=Access Groups," + db +
             "\nobjectClass: top\nobjectClass: container\ncn: Access Groups"
             "\nEntryOwner: group:" + admins + "\nAclEntry: group:cn=x:normal:rsc\nAclPropagate: true"
             "\nACI: (targetattr = *)(version 3.0; acl \"MTS access\"; allow(read, search, compare)groupdn = "
             "\"ldap:///cn=x\";)\nACL: 3#subtree#cn=x#[All Attributes Rights]\n\n"
             "dn: cn=Zel Domains," + db + "\nobjectClass: top\nobjectClass: container\ncn: Zel Domains\n\n"
             "dn: cn=Target Service Types," + db +
             "\nobjectClass: top\nobjectClass: container\ncn: Target Service Types\n\n"
             "dn: " + person +
             "\nobjectClass: top\nobjectClass: Person\nobjectClass: organizationalPerson"
             "\nobjectClass: inetOrgPerson\nobjectClass: ePerson\ncn: Jo Smith\nsn: Smith\nuid: jo"
             "\nuserPassword: qim\ndescription: a person"
             "\nsecurityEquals: " + admins + "\ngroupMembership: " + admins +
             "\nACL: 16#subtree#" + admins + "#[Entry Rights]\nACL: 16#subtree#[Root]#secretKey\n\n"
             "dn: " + admins +
             "\nobjectClass: accessGroup\ncn: Administrators\nmember: " + person +
             "\nEntryOwner: group:cn=Senior Administrators,cn=Access Groups," + db +
             "\nAclEntry: group:cn=x:normal:rsc\nACL: 16#subtree#cn=y#[Entry Rights]\n\n"
             "dn: tsType=Web Resource,cn=Target Service Types," + db +
             "\nobjectClass: top\nobjectClass: eTargetServiceType\ntsType: Web Resource"
             "\nreqIdentifierName: resourceName\nreqIdentifierName: host"
             "\nEntryOwner: group:" + admins + "\nACL: 16#subtree#" + admins + "#[Entry Rights]\n\n"
             "dn: tsName=app1,tsType=Web Resource,cn=Target Service Types," + db +
             "\nobjectClass: top\nobjectClass: eTargetService\ntsName: app1\ntsType: Web Resource"
             "\ndescription: first app\nreqIdentifier: resourceName=app1host=h1\n\n"
             "dn: cn=Sales,cn=Zel Domains," + db +
             "\nobjectClass: top\nobjectClass: eZelDomain\ncn: Sales\ntargetLocation: T:app1"
             "\ntargetLocation: H:host1\n\n"
             "dn: " + user +
             "\nobjectClass: top\nobjectClass: cimManagedElement\nobjectClass: eUser\nobjectClass: eZelUser"
             "\ncn: jo\nassociatedName: " + person + "\nuserType: User\nuserState: Active\ndescription: jo"
             "\nEntryOwner: group:" + admins + "\nOwnerPropagate: true"
             "\nAclEntry: access-id:" + person + ":normal:rsc:sensitive:rsc:critical:rsc"
             "\nAclEntry: group:cn=Middle Tier Servers:normal:rsc\nAclPropagate: true"
             "\nACI: (targetattr != \"secretKey\")(version 3.0; acl \"User access\"; allow(read, search, compare)"
             "userdn = \"ldap:///" + person + "\";)"
             "\nACL: 16#subtree#" + admins + "#[Entry Rights]\n\n"
             "dn: cn=T:app1," + user +
             "\nobjectClass: top\nobjectClass: cimManagedElement\nobjectClass: cimSetting"
             "\nobjectClass: eTargetRecord\ncn: T:app1\ntargetService: tsName=app1\ntsType: Web Resource"
             "\nlaunchable: false\nuid: jo1\nsecretKey:: " + base64(secret) + "\n\n"
             "dn: cn=G:Sales," + user +
             "\nobjectClass: top\nobjectClass: cimManagedElement\nobjectClass: cimSetting"
             "\nobjectClass: eTargetRecord\ncn: G:Sales\nprincipalName: jo-sales\nlaunchable: false\n");
    ASSERT_FALSE(HasFatalFailure());

    EXPECT_EQ(object_classes(dir->entry(db)),
              sorted_lower({"top", "cimManagedElement", "cimManagedSystemElement", "cimLogicalElement",
                            "eSystem", "eApplicationSystem"}));
    EXPECT_EQ(object_classes(dir->entry(person)),
              sorted_lower({"top", "Person", "organizationalPerson", "inetOrgPerson", "ePerson"}));
    EXPECT_EQ(object_classes(dir->entry(user)), sorted_lower({"top", "cimManagedElement", "eUser", "eZelUser"}));
    Entry record = dir->entry("cn=T:app1," + user);
    EXPECT_EQ(object_classes(record), sorted_lower({"top", "cimManagedElement", "cimSetting", "eTargetRecord"}));
    EXPECT_EQ(record.first("secretKey"), secret);
    EXPECT_EQ(dir->entry(user).values("AclEntry").size(), 2u);

    // The searches the library makes over this tree.
    EXPECT_EQ(dns(dir->search("o=acme", "sub", "(&(objectClass=eApplicationSystem)(systemName=ORVZEL))")),
              std::vector<std::string>{db});
    EXPECT_EQ(dns(dir->search(person, "one", "(associatedName=" + person + ")")), std::vector<std::string>{user});
    EXPECT_EQ(dir->search(db, "sub", "(&(objectClass=eTargetService)(tsName=*))").size(), 1u);
    EXPECT_EQ(dir->search(db, "sub", "(&(objectClass=eTargetService)(tsName=APP1))").size(), 1u);
    EXPECT_EQ(dir->search(db, "sub", "(&(objectClass=eTargetServiceType)(tsType=web resource))").size(), 1u);
    EXPECT_EQ(dir->search(db, "sub", "(&(objectClass=eZelDomain)(cn=*))").size(), 1u);
    EXPECT_EQ(dir->search("cn=Sales,cn=Zel Domains," + db, "base",
                          "(&(objectClass=eZelDomain)(targetLocation=T:app1))").size(), 1u);
    EXPECT_EQ(dir->search("cn=Sales,cn=Zel Domains," + db, "base", "(targetLocation=T:app2)").size(), 0u);
    EXPECT_EQ(dir->search(user, "sub", "(&(objectClass=eTargetRecord)(cn=*))").size(), 2u);
    EXPECT_EQ(dns(dir->search(user, "sub", "(&(objectClass=eTargetRecord)(cn=G:*))")),
              std::vector<std::string>{"cn=G:Sales," + user});
    EXPECT_EQ(dns(dir->search(db, "sub", "(member=CN=Jo Smith, O=ACME)")), std::vector<std::string>{admins});
    EXPECT_EQ(dns(dir->search("o=acme", "sub", "(&(objectClass=Person)(uid=jo))")),
              std::vector<std::string>{person});
    EXPECT_EQ(dns(dir->search("o=acme", "sub", "(&(objectClass=ePerson)(cn=Jo Smith))")),
              std::vector<std::string>{person});
}

// The security domain below secAuthority=Default,o=acme: users, their
// credential containers and credentials, resources and resource groups.
TEST_F(SchemaEntries, SecurityDomainTreeIsAcceptedAndSearchable) {
    const std::string domain = dir->domain_dn();
    const std::string person = "cn=Ann Lee,o=acme";
    const std::string user = "principalName=ann,cn=Users," + domain;
    const std::string app = "secResourceID=app1,cn=Resources," + domain;
    const std::string group = "secResGroupID=Sales,cn=ResourceGroups," + domain;
    const std::string masked("bWFza2Vk\0", 9);

    Entry seeded = dir->entry(domain);
    EXPECT_EQ(object_classes(seeded), std::vector<std::string>{"secauthorityinfo"});
    EXPECT_EQ(seeded.first("version"), "5");

    dir->add("dn: " + person + "\nobjectClass: inetOrgPerson\nobjectClass: ePerson\ncn: Ann Lee\nsn: Lee\n\n" +
             "dn: cn=Users," + domain + "\nobjectClass: top\nobjectClass: container\ncn: Users\n\n"
             "dn: " + user +
             "\nobjectClass: top\nobjectClass: cimManagedElement\nobjectClass: eUser\nobjectClass: secUser"
             "\nprincipalName: ann\nsecDN: " + person + "\nsecAuthority: Default:\nsecLoginType: Default:LDAP"
             "\nsecAcctValid: TRUE\ndescription: ann\n\n"
             "dn: cn=ResCreds," + user + "\nobjectClass: top\nobjectClass: container\ncn: ResCreds\n\n"
             "dn: secResCredsId=T:app1,cn=ResCreds," + user +
             "\nobjectClass: top\nobjectClass: secResCreds\nsecResCredsID: T:app1\nsecType: 1\nsecValid: TRUE"
             "\nsecUid: ann1\nsecAuthnData:: " + base64(masked) + "\nsecAuthnLength: 9\nsecAuthnType: 2\n\n"
             // An update with an empty account name stores an empty secUid.
             "dn: secResCredsId=G:Sales,cn=ResCreds," + user +
             "\nobjectClass: top\nobjectClass: secResCreds\nsecResCredsID: G:Sales\nsecType: 2\nsecValid: TRUE"
             "\nsecUid:\n\n"
             "dn: cn=Resources," + domain + "\nobjectClass: top\nobjectClass: container\ncn: Resources\n\n"
             "dn: " + app + "\nobjectClass: top\nobjectClass: secResource\nsecResourceID: app1\nsecType: 1"
             "\nsecValid: TRUE\ndescription: first app\n\n"
             "dn: cn=ResourceGroups," + domain +
             "\nobjectClass: top\nobjectClass: container\ncn: ResourceGroups\n\n"
             "dn: " + group + "\nobjectClass: top\nobjectClass: secResGroup\nsecResGroupID: Sales\nsecType: 2"
             "\nsecValid: TRUE\nmember: " + app + "\n");
    ASSERT_FALSE(HasFatalFailure());

    EXPECT_EQ(object_classes(dir->entry(user)), sorted_lower({"top", "cimManagedElement", "eUser", "secUser"}));
    Entry creds = dir->entry("secResCredsID=T:app1,cn=ResCreds," + user);
    EXPECT_EQ(creds.first("secAuthnData"), masked);
    EXPECT_EQ(creds.first("secAuthnLength"), "9");
    EXPECT_EQ(dir->entry("secResCredsID=G:Sales,cn=ResCreds," + user).values("secUid"),
              std::vector<std::string>{""});

    EXPECT_EQ(dns(dir->search("o=acme", "sub",
                              "(&(secAuthority=Default)(objectClass=secAuthorityInfo)(version=*))")),
              std::vector<std::string>{domain});
    // The person DN in the profile filter is whatever the caller passed;
    // the match must not depend on its spelling.
    EXPECT_EQ(dns(dir->search(domain, "sub",
                              "(&(objectClass=secUser)(secDN=CN=ann lee, O=Acme)(secAuthority=Default:))")),
              std::vector<std::string>{user});
    EXPECT_EQ(dir->search(domain, "sub", "(&(objectClass=secUser)(secDN=" + person + ")(secAuthority=Default))")
                  .size(),
              0u);
    EXPECT_EQ(dir->search(domain, "sub", "(&(objectClass=secUser)(secAcctValid=true))").size(), 1u);
    EXPECT_EQ(dir->search(user, "sub", "secResCredsID=T:app1").size(), 1u);
    EXPECT_EQ(dir->search(user, "sub", "secResCredsID=*").size(), 2u);
    EXPECT_EQ(dns(dir->search(user, "sub", "(secResCredsID=G:*)")),
              std::vector<std::string>{"secResCredsID=G:Sales,cn=ResCreds," + user});
    EXPECT_EQ(dns(dir->search("cn=Resources," + domain, "sub",
                              "(&(objectClass=secResource)(secResourceID=APP1))")),
              std::vector<std::string>{app});
    EXPECT_EQ(dir->search("cn=ResourceGroups," + domain, "sub", "(&(objectClass=secResGroup)(secResGroupID=*))")
                  .size(),
              1u);
    EXPECT_EQ(dir->search(group, "base", "(member=" + app + ")").size(), 1u);
}

// Kerberos principals resolve through a realm entry and its principal
// subtree, or through an identity mapped onto the person.
TEST_F(SchemaEntries, KerberosEntriesAreAcceptedAndSearchable) {
    const std::string person = "cn=Jo Smith,o=acme";
    const std::string principals = "ou=principals,o=acme";
    dir->add("dn: " + person +
             "\nobjectClass: inetOrgPerson\nobjectClass: ePerson\ncn: Jo Smith\nsn: Smith"
             "\naltSecurityIdentities: Kerberos:jo@OTHER.ORG\n\n"
             "dn: krbRealmName=ACME.COM,o=acme\nobjectClass: krbRealm\nkrbRealmName: ACME.COM"
             "\nprincSubtree: " + principals + "\nprincSubtree: o=acme\n\n"
             "dn: " + principals + "\nobjectClass: organizationalUnit\nou: principals\n\n"
             "dn: uid=jo,ou=principals,o=acme\nobjectClass: account\nobjectClass: eKrbPrincipal\nuid: jo"
             "\nkrbPrincipalName: jo@ACME.COM\nkrbAliasedObjectName: " + person + "\n");
    ASSERT_FALSE(HasFatalFailure());

    auto realms = dir->search("o=acme", "sub", "(&(objectClass=krbRealm)(krbRealmName=ACME.COM))");
    ASSERT_EQ(realms.size(), 1u);
    EXPECT_EQ(realms[0].values("princSubtree"), (std::vector<std::string>{principals, "o=acme"}));

    auto principal = dir->search(principals, "sub", "(&(objectClass=*)(krbPrincipalName=jo@ACME.COM))");
    ASSERT_EQ(principal.size(), 1u);
    EXPECT_EQ(principal[0].first("krbAliasedObjectName"), person);

    EXPECT_EQ(dns(dir->search("o=acme", "sub",
                              "(&(objectClass=*)(altSecurityIdentities=Kerberos:jo@OTHER.ORG))")),
              std::vector<std::string>{person});
}
