// Entry templates of the benchmark directory.  See dataset.h.
#include "dataset.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "zelmgmt.h"

namespace zelbench {

namespace {

std::string container(const std::string &dn, const char *cn) {
    return "dn: " + dn + "\nobjectClass: container\ncn: " + cn + "\n\n";
}

std::string user_dn(int i) { return "principalName=" + user_name(i) + ",cn=Users," + kDomainDn; }

std::string resource_dn(const std::string &id) {
    return "secResourceID=" + id + ",cn=Resources," + kDomainDn;
}

std::string resource_ldif(const std::string &id, const char *type) {
    return "dn: " + resource_dn(id) + "\nobjectClass: top\nobjectClass: secResource\nsecResourceID: " + id +
           "\nsecType: " + type + "\nsecValid: TRUE\n\n";
}

}  // namespace

std::string base64(const std::string &bytes) {
    static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t i = 0; i < bytes.size(); i += 3) {
        uint32_t n = static_cast<uint8_t>(bytes[i]) << 16;
        if (i + 1 < bytes.size()) n |= static_cast<uint8_t>(bytes[i + 1]) << 8;
        if (i + 2 < bytes.size()) n |= static_cast<uint8_t>(bytes[i + 2]);
        out += alphabet[(n >> 18) & 63];
        out += alphabet[(n >> 12) & 63];
        out += i + 1 < bytes.size() ? alphabet[(n >> 6) & 63] : '=';
        out += i + 2 < bytes.size() ? alphabet[n & 63] : '=';
    }
    return out;
}

// What a write under a key file stores is the sealed text with its NUL.
std::string stored_value(const std::string &password, int32_t &length) {
    char *sealed = nullptr;
    if (Zel_sealPassword(password.c_str(), &sealed) != 0 || sealed == nullptr)
        throw std::runtime_error("cannot seal a password: ZEL_KEYFILE must name a usable key file");
    std::string raw(sealed, std::strlen(sealed) + 1);
    Zel_memfree(sealed);
    length = static_cast<int32_t>(raw.size());
    return base64(raw);
}

void make_key_file(const char *path) {
    if (Zel_generateKeyFile(path, 0, nullptr) != 0) throw std::runtime_error(std::string("cannot write a key file at ") + path);
}

std::string user_name(int i) { return "u" + std::to_string(i); }
std::string person_dn(int i) { return "cn=" + user_name(i) + ",ou=People," + kSuffix; }
std::string service_name(int j) { return "svc" + std::to_string(j); }
std::string group_name(int k) { return "grp" + std::to_string(k); }

std::string root_ldif() {
    return std::string("dn: ") + kSuffix + "\nobjectClass: organization\no: acme\n\ndn: " + kDomainDn +
           "\nobjectClass: secAuthorityInfo\nsecAuthority: " + kDomain + "\nversion: 5\n\n";
}

std::string base_ldif() {
    const std::string domain = kDomainDn;
    return container("cn=Users," + domain, "Users") + container("cn=Resources," + domain, "Resources") +
           container("cn=ResourceGroups," + domain, "ResourceGroups") + "dn: ou=People," + kSuffix +
           "\nobjectClass: organizationalUnit\nou: People\n\n";
}

std::string database_ldif() {
    const std::string db = std::string("systemName=ORVZEL,") + kSuffix;
    std::string out = "dn: " + db +
                      "\nobjectClass: top\nobjectClass: cimManagedElement\nobjectClass: cimManagedSystemElement"
                      "\nobjectClass: cimLogicalElement\nobjectClass: eSystem\nobjectClass: eApplicationSystem"
                      "\nsystemName: ORVZEL\n\n";
    for (const char *cn : {"Access Groups", "Zel Domains", "Target Service Types"}) out += container("cn=" + std::string(cn) + "," + db, cn);
    return out;
}

std::string person_ldif(int i) {
    const std::string name = user_name(i);
    return "dn: " + person_dn(i) +
           "\nobjectClass: top\nobjectClass: person\nobjectClass: organizationalPerson"
           "\nobjectClass: inetOrgPerson\nobjectClass: ePerson\ncn: " + name + "\nsn: " + name + "\nuid: " + name +
           "\n\n";
}

std::string zel_user_ldif(int i) {
    const std::string name = user_name(i), dn = user_dn(i);
    return "dn: " + dn +
           "\nobjectClass: top\nobjectClass: cimManagedElement\nobjectClass: eUser\nobjectClass: secUser"
           "\nprincipalName: " + name + "\nsecDN: " + person_dn(i) + "\nsecAuthority: " + kDomain +
           ":\nsecLoginType: " + kDomain + ":LDAP\nsecAcctValid: TRUE\n\n" +
           "dn: cn=ResCreds," + dn + "\nobjectClass: top\nobjectClass: container\ncn: ResCreds\n\n";
}

std::string service_ldif(int j) { return resource_ldif(service_name(j), "1"); }

std::string group_ldif(int k) {
    const std::string id = group_name(k);
    std::string out = resource_ldif(id, "2") + "dn: secResGroupID=" + id + ",cn=ResourceGroups," + kDomainDn +
                      "\nobjectClass: top\nobjectClass: secResGroup\nsecResGroupID: " + id +
                      "\nsecType: 2\nsecValid: TRUE\n";
    for (int j = k * kServicesPerGroup; j < (k + 1) * kServicesPerGroup; ++j)
        out += "member: " + resource_dn(service_name(j)) + "\n";
    return out + "\n";
}

std::string record_ldif(int i, const std::string &id, const std::string &account, const std::string &password) {
    int32_t length = 0;
    std::string stored = stored_value(password, length);
    return "dn: secResCredsID=" + id + ",cn=ResCreds," + user_dn(i) +
           "\nobjectClass: top\nobjectClass: secResCreds\nsecResCredsID: " + id + "\nsecType: " +
           (id[0] == 'G' ? "2" : "1") + "\nsecValid: TRUE\nsecUid: " + account + "\nsecAuthnData:: " + stored +
           "\nsecAuthnLength: " + std::to_string(length) + "\nsecAuthnType: 2\n\n";
}

void write_directory_ldif(std::ostream &out, const Layout &layout) {
    out << root_ldif() << base_ldif() << database_ldif();
    for (int j = 0; j < layout.services(); ++j) out << service_ldif(j);
    for (int k = 0; k < layout.groups(); ++k) out << group_ldif(k);
    for (int i = 0; i < layout.users; ++i) {
        out << person_ldif(i) << zel_user_ldif(i)
            << record_ldif(i, "T:" + service_name(layout.direct_service(i)), user_name(i), "pw-" + user_name(i))
            << record_ldif(i, "G:" + group_name(layout.group_of(i)), "g" + user_name(i), "gpw-" + user_name(i));
    }
}

void write_people_ldif(std::ostream &out, const Layout &layout) {
    out << root_ldif() << base_ldif();
    for (int j = 0; j < layout.services(); ++j) out << service_ldif(j);
    for (int k = 0; k < layout.groups(); ++k) out << group_ldif(k);
    for (int i = 0; i < layout.users; ++i) out << person_ldif(i);
}

void write_import_document(std::ostream &out, const Layout &layout) {
    out << "{\"format\":\"zelmgmt-export\",\"version\":1,\"exported\":\"\",\"storage\":2,"
           "\"passwords\":\"omit\",\"users\":[";
    for (int i = 0; i < layout.users; ++i)
        out << (i ? "," : "") << "{\"name\":\"" << user_name(i) << "\",\"enabled\":true,\"person\":\""
            << person_dn(i) << "\"}";
    out << "],\"records\":[";
    for (int i = 0; i < layout.users; ++i) {
        std::string service = service_name(layout.direct_service(i));
        out << (i ? "," : "") << "{\"user\":\"" << user_name(i) << "\",\"id\":\"T:" << service
            << "\",\"service\":\"" << service << "\",\"account\":\"" << user_name(i) << "\"}";
    }
    out << "]}\n";
}

}  // namespace zelbench
