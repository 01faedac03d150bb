// Seed entries and helpers shared by the target service tests.
#pragma once

#include <string>
#include <vector>

#include "support/session.h"

namespace tstest {

inline std::string database_dn(const zeltest::Directory &dir) { return "systemName=ORVZEL," + dir.suffix(); }
inline std::string type_dn(const zeltest::Directory &dir, const std::string &type) {
    return "tsType=" + type + ",cn=Target Service Types," + database_dn(dir);
}
inline std::string resources_dn(const zeltest::Directory &dir) { return "cn=Resources," + dir.domain_dn(); }

inline std::string type_ldif(const zeltest::Directory &dir, const std::string &type, const std::vector<std::string> &ids) {
    std::string out = "dn: " + type_dn(dir, type) + "\nobjectClass: eTargetServiceType\ntsType: " + type + "\n";
    for (const std::string &n : ids) out += "reqIdentifierName: " + n + "\n";
    return out + "\n";
}

// A first-generation service below the entry of its type.
inline std::string service_ldif(const zeltest::Directory &dir, const std::string &type, const std::string &name,
                                const std::string &description = "", const std::vector<std::string> &ids = {}) {
    std::string out = "dn: tsName=" + name + "," + type_dn(dir, type) + "\nobjectClass: eTargetService\ntsName: " +
                      name + "\ntsType: " + type + "\n";
    if (!description.empty()) out += "description: " + description + "\n";
    for (const std::string &v : ids) out += "reqIdentifier: " + v + "\n";
    return out + "\n";
}

inline std::string resources_ldif(const zeltest::Directory &dir) {
    return "dn: " + resources_dn(dir) + "\nobjectClass: container\ncn: Resources\n\n";
}

inline std::string resource_ldif(const zeltest::Directory &dir, const std::string &id, const std::string &sec_type,
                                 const std::string &description = "") {
    return "dn: secResourceID=" + id + "," + resources_dn(dir) + "\nobjectClass: secResource\nsecResourceID: " + id +
           "\nsecType: " + sec_type + (description.empty() ? "" : "\ndescription: " + description) + "\n\n";
}

// The values of each modification of one attribute in a recorded call.
inline std::vector<std::vector<std::string>> sent_values(const zeltest::fault::Call &call, const std::string &type) {
    std::vector<std::vector<std::string>> out;
    for (const zeltest::fault::Mod &m : call.mods)
        if (m.type == type) out.push_back(m.values);
    return out;
}

// A first-generation session on a Zel database with the service types Web
// (identifiers host and port), Host and Open (none), and services below Web
// and Host; the calls made on the way are cleared from the record.
class TargetServiceV1 : public zeltest::DirectoryTest {
protected:
    void SetUp() override {
        zeltest::DirectoryTest::SetUp();
        dir->add(zeltest::database_ldif(dir->suffix()) + type_ldif(*dir, "Web", {"host", "port"}) +
                 type_ldif(*dir, "Host", {}) + type_ldif(*dir, "Open", {}) +
                 service_ldif(*dir, "Web", "portal", "The portal", {"host=portal.acme"}) +
                 service_ldif(*dir, "Host", "mainframe") + service_ldif(*dir, "Host", "twin") +
                 service_ldif(*dir, "Web", "twin") +
                 service_ldif(*dir, "Web", "odd", "", {"plain=value", "==lead==double", "name=first=second", "alone"}));
        s = zeltest::open_session(*dir, 1);
        ASSERT_TRUE(s);
        // Locates the database, so the tests see only their own calls and traces.
        ASSERT_EQ(Zel_removeTargetService(s.get(), "none"), ZEL_RC_TS_NOT_FOUND);
        zeltest::fault::reset();
    }
    zeltest::Session s;
};

// A fresh directory for the security domain cases, which seed what they need.
class TargetServiceDomain : public zeltest::DirectoryTest {};

}  // namespace tstest
