// The benchmark's directory: LDIF for slapadd, written from templates of the
// entries the library itself writes, so a bulk load looks like a directory
// filled through the library.
//
// Layout for n users, beside an empty Zel database: persons cn=u<i>,ou=People,o=acme, each a Zel user of
// the Default security domain with a direct record "T:svc<i % services>" and
// a group record "G:grp<i % groups>"; web resources svc<j>, and resource
// groups grp<k> holding svc<k*10> .. svc<k*10+9>.
#pragma once

#include <ostream>
#include <cstdint>
#include <string>

namespace zelbench {

inline const char *const kSuffix = "o=acme";
inline const char *const kDomain = "Default";
inline const char *const kDomainDn = "secAuthority=Default,o=acme";
inline const char *const kAdminDn = "cn=Manager,o=acme";
inline const char *const kAdminPassword = "secret";
constexpr int kServicesPerGroup = 10;

struct Layout {
    int users;
    int services() const { return users / 10 > 10 ? users / 10 : 10; }
    int groups() const { return services() / kServicesPerGroup; }
    // The resources a user's records are for.
    int direct_service(int user) const { return user % services(); }
    int group_of(int user) const { return user % groups(); }
    // A resource the user's group holds that has no direct record of the user.
    int group_service(int user) const {
        int first = group_of(user) * kServicesPerGroup;
        int s = first + user % kServicesPerGroup;
        return s != direct_service(user) ? s : first + (user + 1) % kServicesPerGroup;
    }
};

std::string user_name(int i);
std::string person_dn(int i);
std::string service_name(int j);
std::string group_name(int k);

// The suffix and the security domain entry.
std::string root_ldif();
// The domain's containers and ou=People.
std::string base_ldif();
// A Zel database beside the domain, as every deployment has one: sessions
// then look at first-generation records too.
std::string database_ldif();
std::string person_ldif(int i);
// Person i's Zel user with the user's credentials container.
std::string zel_user_ldif(int i);
// A web resource, or a resource group's service entry and group entry.
std::string service_ldif(int j);
std::string group_ldif(int k);
// Bytes in base64, as an LDIF "::" line holds them.
std::string base64(const std::string &bytes);
// A password as a write under the key file ZEL_KEYFILE names stores it:
// sealed (Zel_sealPassword), with its NUL, in base64 for an LDIF "::" line;
// `length` as secAuthnLength holds it.  Throws std::runtime_error when
// ZEL_KEYFILE names no usable key file.
std::string stored_value(const std::string &password, int32_t &length);
// A new key file at `path` (Zel_generateKeyFile); throws when it cannot be written.
void make_key_file(const char *path);
// A target record of user i; `id` is "T:<service>" or "G:<group>".
std::string record_ldif(int i, const std::string &id, const std::string &account, const std::string &password);
// Everything for the layout's users.  Throws std::runtime_error when sealing fails.
void write_directory_ldif(std::ostream &out, const Layout &layout);
// The same directory before any Zel user: persons, services and groups only.
void write_people_ldif(std::ostream &out, const Layout &layout);
// An export document (zelctl import) of the layout's Zel users, each with
// its direct record, passwords left out.
void write_import_document(std::ostream &out, const Layout &layout);

}  // namespace zelbench
