// A seeded tree for the resource group tests: a first-generation Zel
// database with two services, the security domain's Resources with two more,
// and its (empty) ResourceGroups container.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "support/session.h"
#include "ZelHolders.h"

namespace domaintest {

using namespace zeltest;
using fault::Fn;
using Values = std::vector<std::string>;
using Locations = std::vector<std::pair<std::string, std::string>>;

inline const std::string kDb = "systemName=ORVZEL,o=acme";
inline const std::string kOldDomains = "cn=Zel Domains," + kDb;
inline const std::string kGroups = "cn=ResourceGroups,secAuthority=Default,o=acme";
inline const std::string kResources = "cn=Resources,secAuthority=Default,o=acme";

inline std::string resource_dn(const std::string &id) { return "secResourceID=" + id + "," + kResources; }

inline Profile seeded(Kind kind = Kind::Generic) {
    Profile p;
    p.kind = kind;
    p.seed_ldif = database_ldif("o=acme") + "dn: tsType=Web,cn=Target Service Types," + kDb +
                  "\nobjectClass: eTargetServiceType\ntsType: Web\n\n" +
                  "dn: tsName=payroll,tsType=Web,cn=Target Service Types," + kDb +
                  "\nobjectClass: eTargetService\ntsName: payroll\ntsType: Web\n\n" +
                  "dn: " + kResources + "\nobjectClass: container\ncn: Resources\n\n" +
                  "dn: " + resource_dn("mail") + "\nobjectClass: secResource\nsecResourceID: mail\nsecType: 1\n\n" +
                  "dn: " + resource_dn("wiki") + "\nobjectClass: secResource\nsecResourceID: wiki\nsecType: 1\n\n" +
                  "dn: " + kGroups + "\nobjectClass: container\ncn: ResourceGroups\n\n";
    return p;
}

// A caller's domain record over borrowed texts.
struct DomainRecord {
    Locations given;
    std::vector<ZelDomainLocation> slots;
    std::vector<ZelDomainLocation *> pointers;
    ZelDomain d{};

    DomainRecord(const char *name, const char *description, Locations locations = {}) : given(std::move(locations)) {
        for (const auto &l : given)
            slots.push_back({const_cast<char *>(l.first.c_str()), const_cast<char *>(l.second.c_str())});
        for (auto &l : slots) pointers.push_back(&l);
        d = {const_cast<char *>(name), const_cast<char *>(description), static_cast<int32_t>(slots.size()),
             pointers.empty() ? nullptr : pointers.data()};
    }
};

inline Locations services(const Values &names) {
    Locations out;
    for (const std::string &n : names) out.emplace_back("resourceName", n);
    return out;
}

// The read_domain text of service members.
inline std::string members(const Values &names) {
    std::string out;
    for (const std::string &n : names) out += " resourceName:" + n;
    return out;
}

// A record as "<name> [<description>] <type>:<value>...", "-" for a missing field.
inline std::string domain_text(const ZelDomain *d) {
    auto text = [](const char *t) { return std::string(t ? t : "-"); };
    std::string out = text(d->name) + " [" + text(d->description) + "]";
    for (int32_t i = 0; i < d->locationCount; ++i)
        out += " " + text(d->locations[i]->type) + ":" + text(d->locations[i]->value);
    return out;
}

// Zel_getZelDomain as "<status>" and, when a record came back, its text.
inline std::string read_domain(ZelSession *s, const char *name) {
    ZelDomain *d = nullptr;
    std::string out = std::to_string(Zel_getZelDomain(s, name, &d));
    if (d) out += " " + domain_text(d);
    Zel_freeZelDomain(d);
    return out;
}

class DomainTest : public VersionedSessionTest {
protected:
    Profile profile() const override { return seeded(); }
};

}  // namespace domaintest
