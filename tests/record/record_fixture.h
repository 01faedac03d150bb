// The Zel user tree plus what target records need: web resources and
// resource groups in the security domain, and a first-generation service
// with a Zel domain holding it.
#pragma once

#include <cctype>
#include <string>

#include "user/user_fixture.h"

namespace recordtest {

using namespace usertest;

inline const std::string kDomain = "secAuthority=Default,o=acme";
inline const std::string kJoDomainUser = "principalName=jo," + kDomainUsers;
inline const std::string kJoProfile = "cn=jo," + kJo;  // first generation

inline std::string resource_dn(const std::string &id) { return "secResourceID=" + id + ",cn=Resources," + kDomain; }

inline std::string container_ldif(const std::string &dn, const char *cn) {
    return "dn: " + dn + "\nobjectClass: container\ncn: " + cn + "\n\n";
}

inline Profile record_profile(Kind kind = Kind::Generic) {
    Profile p = seeded(kind);
    p.seed_ldif += container_ldif("cn=Resources," + kDomain, "Resources") +
                   container_ldif("cn=ResourceGroups," + kDomain, "ResourceGroups");
    // Web resources, and the services that group records are written for.
    for (const char *id : {"app", "mail", "shop", "Sales", "Ops", "Nope", "Old"})
        p.seed_ldif += "dn: " + resource_dn(id) + "\nobjectClass: secResource\nsecResourceID: " + id +
                       "\nsecType: " + (std::islower(static_cast<unsigned char>(id[0])) ? "1" : "2") + "\n\n";
    // Groups list member resources; the placeholder keeps an empty group valid.
    auto group = [&](const char *id, std::initializer_list<const char *> members) {
        p.seed_ldif += "dn: secResGroupID=" + std::string(id) + ",cn=ResourceGroups," + kDomain +
                       "\nobjectClass: secResGroup\nsecResGroupID: " + id + "\nsecType: 2\nmember: " + kDomain + "\n";
        for (const char *m : members) p.seed_ldif += "member: " + resource_dn(m) + "\n";
        p.seed_ldif += "\n";
    };
    group("Ops", {"mail"});
    group("Sales", {"app", "mail", "shop"});
    const std::string type = "tsType=Web Application,cn=Target Service Types," + kDb;
    p.seed_ldif += "dn: " + type + "\nobjectClass: eTargetServiceType\ntsType: Web Application\n\n"
                   "dn: tsName=legacy," + type + "\nobjectClass: eTargetService\ntsName: legacy\ntsType: Web Application\n\n"
                   "dn: tsName=Old," + type + "\nobjectClass: eTargetService\ntsName: Old\ntsType: Web Application\n\n"
                   "dn: cn=Old,cn=Zel Domains," + kDb + "\nobjectClass: eZelDomain\ncn: Old\ntargetLocation: T:legacy\n\n";
    return p;
}

inline ZelTargetRecord record(const char *id, const char *service, const char *account, const char *password,
                              const char *description = nullptr, const char *type = nullptr) {
    ZelTargetRecord r{};
    r.targetRecordId = const_cast<char *>(id);
    r.targetServiceName = const_cast<char *>(service);
    r.userId = const_cast<char *>(account);
    r.password = const_cast<char *>(password);
    r.description = const_cast<char *>(description);
    r.targetServiceType = const_cast<char *>(type);
    return r;
}

// The account and password a credential query answers, or the status.
inline std::string credential(ZelSession *s, const char *user, const char *resource) {
    ZelCredentialRequest req{nullptr, nullptr, const_cast<char *>(resource)};
    ZelCredential c{};
    ZelRC rc = Zel_getCredential(s, user, &req, &c);
    std::string out = rc ? "status " + std::to_string(rc) : std::string(c.userId ? c.userId : "(null)") + "/" + c.password;
    Zel_memfree(c.userId);
    Zel_memfree(c.password);
    return out;
}

class RecordTest : public UserTest {
protected:
    Profile profile() const override { return record_profile(); }
    // Opens a session of `version` and registers jo as a Zel user in its form.
    void open_with_jo(uint32_t version) {
        open(version);
        ZelUser jo = user_record("jo", "User", kJo);
        ASSERT_EQ(Zel_addZelUser(s.get(), &jo), 0u);
        fault::reset();
    }
};

}  // namespace recordtest
