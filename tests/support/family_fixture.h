// The family tests' one fixture: the names of the seeded trees, builders of
// their LDIF and of caller records, the answers of the read calls as text,
// and fresh directories seeded for users, records, resource groups, services
// and databases.  Everything lives under o=acme with the security domain
// Default.
#pragma once

#include <algorithm>
#include <cctype>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "support/session.h"
#include "ZelSession.h"

namespace famtest {

using namespace zeltest;
using fault::Fn;
using Strings = std::vector<std::string>;
using Locations = std::vector<std::pair<std::string, std::string>>;

inline const std::string kDb = "systemName=ORVZEL,o=acme";
inline const std::string kDomain = "secAuthority=Default,o=acme";
inline const std::string kDomainUsers = "cn=Users," + kDomain;
inline const std::string kResources = "cn=Resources," + kDomain;
inline const std::string kGroups = "cn=ResourceGroups," + kDomain;
inline const std::string kOldDomains = "cn=Zel Domains," + kDb;
inline const std::string kJo = "cn=Jo,o=acme", kAnn = "cn=Ann,o=acme", kMax = "cn=Max,o=acme";
inline const std::string kJoDomainUser = "principalName=jo," + kDomainUsers;
inline const std::string kJoProfile = "cn=jo," + kJo;  // first generation
// The administrator a database creation makes when given none.
inline const std::string kDefaultAdmin = "cn=Zel Sr Admin,o=acme";

inline std::string below(const std::string &rdn) { return rdn + "," + kDb; }
inline std::string group(const std::string &cn) { return "cn=" + cn + ",cn=Access Groups," + kDb; }
inline std::string resource_dn(const std::string &id) { return "secResourceID=" + id + "," + kResources; }
inline std::string type_dn(const std::string &type) { return "tsType=" + type + ",cn=Target Service Types," + kDb; }

// LDIF of the entries the seeds are made of.
inline std::string container_ldif(const std::string &dn, const std::string &cn) {
    return "dn: " + dn + "\nobjectClass: container\ncn: " + cn + "\n\n";
}
inline std::string resource_ldif(const std::string &id, const std::string &sec_type, const std::string &description = "") {
    return "dn: " + resource_dn(id) + "\nobjectClass: secResource\nsecResourceID: " + id + "\nsecType: " + sec_type +
           (description.empty() ? "" : "\ndescription: " + description) + "\n\n";
}
// A resource group; the placeholder member keeps an empty group valid.
inline std::string group_ldif(const std::string &id, const Strings &members) {
    std::string out = "dn: secResGroupID=" + id + "," + kGroups + "\nobjectClass: secResGroup\nsecResGroupID: " + id +
                      "\nsecType: 2\nmember: " + kDomain + "\n";
    for (const std::string &m : members) out += "member: " + resource_dn(m) + "\n";
    return out + "\n";
}
inline std::string type_ldif(const std::string &type, const Strings &ids = {}) {
    std::string out = "dn: " + type_dn(type) + "\nobjectClass: eTargetServiceType\ntsType: " + type + "\n";
    for (const std::string &n : ids) out += "reqIdentifierName: " + n + "\n";
    return out + "\n";
}
// A first-generation service below the entry of its type.
inline std::string service_ldif(const std::string &type, const std::string &name, const std::string &description = "",
                                const Strings &ids = {}) {
    std::string out = "dn: tsName=" + name + "," + type_dn(type) + "\nobjectClass: eTargetService\ntsName: " + name +
                      "\ntsType: " + type + "\n";
    if (!description.empty()) out += "description: " + description + "\n";
    for (const std::string &v : ids) out += "reqIdentifier: " + v + "\n";
    return out + "\n";
}

// The seeds.  Users: the database, persons Jo, Ann and Max, the domain's Users.
inline Profile user_profile(Kind kind = Kind::Generic, int domain_version = 5) {
    Profile p;
    p.kind = kind;
    p.domain_version = domain_version;
    p.seed_ldif = database_ldif("o=acme") + person_ldif("o=acme", "Jo", "jo") + person_ldif("o=acme", "Ann", "ann") +
                  person_ldif("o=acme", "Max", "max") + container_ldif(kDomainUsers, "Users");
    return p;
}
// Records: the users' tree, web resources (lower case) and the services group
// records are written for, the groups Ops and Sales, and first-generation
// services with the Zel domain Old holding legacy.
inline Profile record_profile(Kind kind = Kind::Generic) {
    Profile p = user_profile(kind);
    p.seed_ldif += container_ldif(kResources, "Resources") + container_ldif(kGroups, "ResourceGroups");
    for (const char *id : {"app", "mail", "shop", "Sales", "Ops", "Nope", "Old"})
        p.seed_ldif += resource_ldif(id, std::islower(static_cast<unsigned char>(id[0])) ? "1" : "2");
    p.seed_ldif += group_ldif("Ops", {"mail"}) + group_ldif("Sales", {"app", "mail", "shop"}) +
                   type_ldif("Web Application") + service_ldif("Web Application", "legacy") +
                   service_ldif("Web Application", "Old") + "dn: cn=Old," + kOldDomains +
                   "\nobjectClass: eZelDomain\ncn: Old\ntargetLocation: T:legacy\n\n";
    return p;
}
// Resource groups: the database with the service payroll, the resources mail
// and wiki, and an empty ResourceGroups container.
inline Profile domain_profile(Kind kind = Kind::Generic) {
    Profile p;
    p.kind = kind;
    p.seed_ldif = database_ldif("o=acme") + type_ldif("Web") + service_ldif("Web", "payroll") +
                  container_ldif(kResources, "Resources") + resource_ldif("mail", "1") + resource_ldif("wiki", "1") +
                  container_ldif(kGroups, "ResourceGroups");
    return p;
}

// Caller records over borrowed texts.
inline ZelUser user_record(const char *name, const char *type, const std::string &person,
                           const char *description = nullptr, unsigned char enabled = 1) {
    return ZelUser{const_cast<char *>(name), const_cast<char *>(type), const_cast<char *>(description), enabled,
                   person.empty() ? nullptr : const_cast<char *>(person.c_str())};
}
// A literal person (or "" for none, found by uid).
inline ZelUser user_record(const char *name, const char *type, const char *person,
                           const char *description = nullptr, unsigned char enabled = 1) {
    return ZelUser{const_cast<char *>(name), const_cast<char *>(type), const_cast<char *>(description), enabled,
                   (person && *person) ? const_cast<char *>(person) : nullptr};
}
// The record points into the person's text: a temporary would dangle.
ZelUser user_record(const char *, const char *, std::string &&, const char * = nullptr, unsigned char = 1) = delete;

inline ZelTargetRecord record(const char *id, const char *service, const char *account, const char *password,
                              const char *description = nullptr, const char *type = nullptr) {
    return ZelTargetRecord{const_cast<char *>(id),       const_cast<char *>(description), const_cast<char *>(account),
                           const_cast<char *>(password), const_cast<char *>(service),     const_cast<char *>(type)};
}

inline ZelPerson person(const char *cn, const char *uid = nullptr, const char *password = nullptr) {
    return ZelPerson{const_cast<char *>("o=acme"), const_cast<char *>(cn), const_cast<char *>(cn), nullptr,
                     const_cast<char *>(uid), const_cast<char *>(password)};
}

// The records point into their own vectors: they are built in place, never copied.
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
    DomainRecord(const DomainRecord &) = delete;
    DomainRecord &operator=(const DomainRecord &) = delete;
};

inline Locations services(const Strings &names) {
    Locations out;
    for (const std::string &n : names) out.emplace_back("resourceName", n);
    return out;
}

// A service with its identifier pairs.
struct ServiceRecord {
    std::vector<ZelReqIdentifier> pairs;
    std::vector<ZelReqIdentifier *> pointers;
    ZelTargetService ts{};

    ServiceRecord(const char *name, const char *type, const char *description,
                  std::vector<std::pair<const char *, const char *>> ids = {}) {
        for (auto &p : ids) pairs.push_back({const_cast<char *>(p.first), const_cast<char *>(p.second)});
        for (auto &p : pairs) pointers.push_back(&p);
        ts = {const_cast<char *>(name), const_cast<char *>(type), const_cast<char *>(description),
              static_cast<int32_t>(pairs.size()), pointers.empty() ? nullptr : pointers.data()};
    }
    ServiceRecord(const ServiceRecord &) = delete;
    ServiceRecord &operator=(const ServiceRecord &) = delete;
};

inline ZelRC add_service(ZelSession *s, const ServiceRecord &r) {
    return Zel_addTargetService(s, const_cast<ZelTargetService *>(&r.ts));
}

// Answers as text: "(null)" for a missing field, "status N" for a failure.
inline std::string text(const char *t) { return t ? t : "(null)"; }
inline std::string status(ZelRC rc) { return "status " + std::to_string(rc); }

// The account and password a credential query answers, or the status.
inline std::string credential(ZelSession *s, const char *user, const char *resource) {
    ZelCredentialRequest req{nullptr, nullptr, const_cast<char *>(resource)};
    ZelCredential c{};
    ZelRC rc = Zel_getCredential(s, user, &req, &c);
    std::string out = rc ? status(rc) : text(c.userId) + "/" + c.password;
    Zel_memfree(c.userId);
    Zel_memfree(c.password);
    return out;
}

// What Zel_verifyZelUser answers and the DN it hands out ("(not handed out)"
// for none); the buffer is the caller's whatever the answer.
inline std::pair<ZelRC, std::string> verify(ZelSession *s, const std::string &person) {
    char *dn = nullptr;
    ZelRC rc = Zel_verifyZelUser(s, person.c_str(), &dn);
    std::string out = dn ? dn : "(not handed out)";
    Zel_memfree(dn);
    return {rc, out};
}

// "name|type|description|enabled|person", or the status.
inline std::string read_user(ZelSession *s, const char *name) {
    ZelUser *u = nullptr;
    ZelRC rc = Zel_getZelUser(s, name, &u);
    if (rc != 0) return (u ? "handed out on failure " : "status ") + std::to_string(rc);
    std::string out = text(u->userName) + "|" + text(u->userType) + "|" + text(u->description) + "|" +
                      std::to_string(u->enabled) + "|" + text(u->personDN);
    Zel_freeZelUser(u);
    return out;
}

// The record's fields in order, or the status and whether anything was handed out.
inline Strings read_record(ZelSession *s, const char *user, const char *target) {
    ZelTargetRecord *r = nullptr;
    ZelRC rc = Zel_getTargetRecord(s, user, target, &r);
    if (rc != 0) return {status(rc), r ? "handed out" : ""};
    Strings out{text(r->targetRecordId), text(r->description),       text(r->userId),
                text(r->password),       text(r->targetServiceName), text(r->targetServiceType)};
    Zel_freeTargetRecord(r);
    return out;
}

// A resource group as "<name> [<description>] <type>:<value>...", "-" for a missing field.
inline std::string domain_text(const ZelDomain *d) {
    auto field = [](const char *t) { return std::string(t ? t : "-"); };
    std::string out = field(d->name) + " [" + field(d->description) + "]";
    for (int32_t i = 0; i < d->locationCount; ++i)
        out += " " + field(d->locations[i]->type) + ":" + field(d->locations[i]->value);
    return out;
}
// The domain_text of service members.
inline std::string member_text(const Strings &names) {
    std::string out;
    for (const std::string &n : names) out += " resourceName:" + n;
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

// "name|type|description|id=value|...".
inline std::string service_text(const ZelTargetService *t) {
    std::string out = text(t->name) + "|" + text(t->type) + "|" + text(t->description);
    for (int32_t i = 0; i < t->reqIdentifierCount; ++i)
        out += "|" + text(t->reqIdentifiers[i]->name) + "=" + text(t->reqIdentifiers[i]->value);
    return out;
}

// What a call traces at the highest level.
inline std::string traced(ZelSession *s, const std::function<void()> &fn) {
    s->debug_level = 10;
    testing::internal::CaptureStdout();
    fn();
    s->debug_level = 0;
    return testing::internal::GetCapturedStdout();
}

// The attribute types of a recorded write, and the values of each
// modification of one type.
inline Strings types_sent(const fault::Call &call) {
    Strings out;
    for (const fault::Mod &m : call.mods) out.push_back(m.type);
    return out;
}
inline std::vector<Strings> sent_values(const fault::Call &call, const std::string &type) {
    std::vector<Strings> out;
    for (const fault::Mod &m : call.mods)
        if (m.type == type) out.push_back(m.values);
    return out;
}
inline int writes() { return fault::count(Fn::Add) + fault::count(Fn::Modify); }

// A fresh seeded directory per test; open(version) picks the storage form.
class FamilyTest : public VersionedSessionTest {
protected:
    // The members of an access group, without the seed's placeholder.
    Strings members(const std::string &cn) const {
        Strings out;
        const Entry e = dir->entry(group(cn));
        for (const std::string &m : e.values("member"))
            if (m != kDb) out.push_back(m);
        return out;
    }
    // Every DN below base, sorted.
    Strings tree(const std::string &base = "o=acme") const {
        Strings out;
        for (const Entry &e : dir->search(base)) out.push_back(e.dn);
        std::sort(out.begin(), out.end());
        return out;
    }
    void TearDown() override {
        s.reset();
        VersionedSessionTest::TearDown();
    }
    // Opens a session of `version` and registers jo as a Zel user in its form.
    void open_with_jo(uint32_t version) {
        open(version);
        ZelUser jo = user_record("jo", "User", kJo);
        ASSERT_EQ(Zel_addZelUser(s.get(), &jo), 0u);
        fault::reset();
    }
};

template <Kind K = Kind::Generic, int DomainVersion = 5>
class SeededAs : public FamilyTest {
protected:
    Profile profile() const override { return user_profile(K, DomainVersion); }
};
using UserTest = SeededAs<>;

class RecordTest : public FamilyTest {
protected:
    Profile profile() const override { return record_profile(); }
};
template <Kind K>
class RecordAs : public RecordTest {
protected:
    Profile profile() const override { return record_profile(K); }
};

class DomainTest : public FamilyTest {
protected:
    Profile profile() const override { return domain_profile(); }
};

// A first-generation session on a database with the service types Web
// (identifiers host and port), Host and Open (none), and services below Web
// and Host; the calls made on the way are cleared from the record.
class TargetServiceV1 : public FamilyTest {
protected:
    Profile profile() const override {
        return Profile().seeded(
            database_ldif("o=acme") + type_ldif("Web", {"host", "port"}) + type_ldif("Host") + type_ldif("Open") +
            service_ldif("Web", "portal", "The portal", {"host=portal.acme"}) + service_ldif("Host", "mainframe") +
            service_ldif("Host", "twin") + service_ldif("Web", "twin") +
            service_ldif("Web", "odd", "", {"plain=value", "==lead==double", "name=first=second", "alone"}));
    }
    void SetUp() override {
        FamilyTest::SetUp();
        open(1);
        // Locates the database, so the tests see only their own calls and traces.
        ASSERT_EQ(Zel_removeTargetService(s.get(), "none"), ZEL_RC_TS_NOT_FOUND);
        fault::reset();
    }
};

// A fresh directory for the security domain cases, which seed what they need.
class TargetServiceDomain : public FamilyTest {};

// An empty suffix and a first-generation session on it, for the database calls.
template <Kind K = Kind::Generic>
class DatabaseTestAs : public FamilyTest {
protected:
    Profile profile() const override { return Profile().kind_is(K); }
    void SetUp() override {
        FamilyTest::SetUp();
        open(1);
    }
    ZelRC create(unsigned char flags = 0, const char *admin = nullptr, const char *suffix = "o=acme") {
        return Zel_createDatabase(s.get(), suffix, admin, nullptr, nullptr, flags);
    }
    Strings values(const std::string &dn, const char *attr) const { return dir->entry(dn).values(attr); }
};
using DatabaseTest = DatabaseTestAs<>;
using OrvDatabase = DatabaseTestAs<Kind::Orv>;

}  // namespace famtest
