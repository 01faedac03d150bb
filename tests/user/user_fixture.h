// A seeded tree for the Zel user tests: a first-generation Zel database with
// its access groups, a security domain with its cn=Users container, and a
// few persons.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "support/session.h"

namespace usertest {

using namespace zeltest;
using fault::Fn;

inline const std::string kDb = "systemName=ORVZEL,o=acme";
inline const std::string kJo = "cn=Jo,o=acme";
inline const std::string kAnn = "cn=Ann,o=acme";
inline const std::string kMax = "cn=Max,o=acme";
inline const std::string kDomainUsers = "cn=Users,secAuthority=Default,o=acme";

inline std::string group(const char *cn) { return std::string("cn=") + cn + ",cn=Access Groups," + kDb; }

inline ZelUser user_record(const char *name, const char *type, const std::string &person,
                           const char *description = nullptr, unsigned char enabled = 1) {
    ZelUser u{};
    u.userName = const_cast<char *>(name);
    u.userType = const_cast<char *>(type);
    u.description = const_cast<char *>(description);
    u.enabled = enabled;
    u.personDN = person.empty() ? nullptr : const_cast<char *>(person.c_str());
    return u;
}
// A literal person (or "" for none, found by uid).
inline ZelUser user_record(const char *name, const char *type, const char *person,
                           const char *description = nullptr, unsigned char enabled = 1) {
    return ZelUser{const_cast<char *>(name), const_cast<char *>(type), const_cast<char *>(description), enabled,
                   (person && *person) ? const_cast<char *>(person) : nullptr};
}
// The record points into the person's text: a temporary would dangle.
ZelUser user_record(const char *, const char *, std::string &&, const char * = nullptr, unsigned char = 1) = delete;

// What Zel_verifyZelUser answers and the DN it hands out ("(not handed out)"
// for none); the buffer is the caller's whatever the answer.
inline std::pair<ZelRC, std::string> verify(ZelSession *s, const std::string &person) {
    char *dn = nullptr;
    ZelRC rc = Zel_verifyZelUser(s, person.c_str(), &dn);
    std::string text = dn ? dn : "(not handed out)";
    Zel_memfree(dn);
    return {rc, text};
}

inline Profile seeded(Kind kind = Kind::Generic, int domain_version = 5) {
    Profile p;
    p.kind = kind;
    p.domain_version = domain_version;
    p.seed_ldif = database_ldif("o=acme") + person_ldif("o=acme", "Jo", "jo") + person_ldif("o=acme", "Ann", "ann") +
                  person_ldif("o=acme", "Max", "max") +
                  "dn: " + kDomainUsers + "\nobjectClass: top\nobjectClass: container\ncn: Users\n\n";
    return p;
}

// A fresh seeded directory per test; `version` picks the storage form.
class UserTest : public VersionedSessionTest {
protected:
    Profile profile() const override { return seeded(); }
    std::vector<std::string> members(const char *cn) const {
        std::vector<std::string> out;
        Entry e = dir->entry(group(cn));
        for (const std::string &m : e.values("member"))
            if (m != kDb) out.push_back(m);  // the seed's placeholder member
        return out;
    }
};

// The same tree on another directory kind or security domain version.
template <Kind K, int DomainVersion = 5>
class SeededAs : public UserTest {
protected:
    Profile profile() const override { return seeded(K, DomainVersion); }
};

}  // namespace usertest
