// A caller's name is a plain value whatever it holds: filter and DN syntax,
// or a long name beyond ASCII.  Each goes through every family in both
// storage forms, is read back as given and removed again, and nothing that
// was written stays behind.
#include <algorithm>

#include "platform/dn_escape.h"
#include "platform/filter_format.h"
#include "support/family_fixture.h"

namespace {

using namespace famtest;

std::string repeated(const char *text, int times) {
    std::string out;
    while (times-- > 0) out += text;
    return out;
}

// The field of what a read handed out (taken once the read has run), or its status.
template <class T>
std::string read_name(ZelRC rc, T *const *record, char *T::*field, void (*release)(T *)) {
    std::string out = rc ? "status " + std::to_string(rc) : std::string((*record)->*field);
    release(*record);
    return out;
}

// Everything below o=acme that names `name` in one of the places the library writes it.
std::vector<Entry> left_behind(const Directory &dir, const std::string &name) {
    const std::string v = zel::platform::escape_filter_value(name);
    std::string filter = "(|";
    for (const char *attr : {"cn", "sn", "uid", "tsName", "tsType", "secResourceID", "secResGroupID", "principalName"})
        filter += std::string("(") + attr + "=" + v + ")";
    for (const char *attr : {"cn", "secResCredsID", "targetLocation"}) filter += std::string("(") + attr + "=T:" + v + ")";
    return dir.search("o=acme", "sub", filter + ")");
}

TEST_F(RecordTest, NamesRoundTripThroughEveryFamily) {
    // Filter and DN syntax; 70 three-byte and 110 two-byte characters.  (The
    // test server stores no RDN much over 240 bytes, "secResCredsId=T:" and
    // the name included, whatever the library sends.)
    const std::string names[] = {"a(b)*c\\d,e+f=g\"h", repeated("\xE4\xB8\xAD", 70), repeated("\xD0\xB6", 110)};
    std::vector<std::string> got, want;
    for (uint32_t version : {1u, 2u}) {
        open_with_jo(version);
        ZelSession *ss = s.get();
        const bool v1 = version == 1;
        for (const std::string &name : names) {
            char *n = const_cast<char *>(name.c_str());
            // A user name with "=" would be a profile DN.
            std::string user_name = name;
            user_name.erase(std::remove(user_name.begin(), user_name.end(), '='), user_name.end());
            char *u = const_cast<char *>(user_name.c_str());
            const std::string id = "T:" + name, person = "cn=" + zel::platform::escape_dn_value(name) + ",o=acme";
            const std::string pattern = name.substr(0, name.size() / 2) + "*";
            char location_type[] = "resourceName", web[] = "Web Resource", acme[] = "o=acme", user_type[] = "User";
            ZelTargetServiceType type{n, 0, nullptr};
            ZelTargetService ts{n, v1 ? n : web, nullptr, 0, nullptr};
            ZelDomainLocation other{location_type, const_cast<char *>(v1 ? "legacy" : "app")}, where{location_type, n};
            ZelDomainLocation *locations[] = {&where, &other};
            ZelDomain d{n, nullptr, 2, locations};
            ZelTargetRecord r = record(id.c_str(), n, "jdoe", "pw");
            ZelPerson p{acme, n, n, nullptr, u, nullptr};
            ZelTargetService *service = nullptr;
            ZelDomain *domain = nullptr;
            ZelTargetRecord *rec = nullptr;
            ZelUser *user = nullptr;
            char *profile = nullptr;

            std::vector<std::string> row;
            for (ZelRC rc : {v1 ? Zel_addTargetServiceType(ss, &type) : 0u, Zel_addTargetService(ss, &ts),
                             Zel_addZelDomain(ss, &d), Zel_removeLocationFromDomain(ss, n, location_type, n),
                             Zel_addLocationToDomain(ss, n, location_type, n), Zel_addTargetRecord(ss, "jo", &r),
                             Zel_create_ePerson(ss, &p, user_type)})
                row.push_back(std::to_string(rc));
            row.push_back(read_name(Zel_getTargetService(ss, n, &service), &service, &ZelTargetService::name,
                                    Zel_freeTargetService));
            ZelRC rc = Zel_getZelDomain(ss, n, &domain);
            // Taken out and put back, the member comes last.
            row.push_back(rc || domain->locationCount != 2 ? "status " + std::to_string(rc)
                                                             : std::string(domain->locations[1]->value));
            Zel_freeZelDomain(domain);
            row.push_back(read_name(Zel_getTargetRecord(ss, "jo", id.c_str(), &rec), &rec,
                                    &ZelTargetRecord::targetRecordId, Zel_freeTargetRecord));
            row.push_back(read_name(Zel_getZelUser(ss, u, &user), &user, &ZelUser::userName, Zel_freeZelUser));
            row.push_back(std::to_string(Zel_verifyZelUser(ss, person.c_str(), &profile)));
            Zel_memfree(profile);
            // The name finds its own credential; a pattern made of its start finds nothing.
            row.insert(row.end(), {credential(ss, "jo", n), credential(ss, "jo", pattern.c_str())});
            for (ZelRC removed : {Zel_removeZelUser(ss, u), Zel_removeTargetRecord(ss, "jo", id.c_str()),
                                  Zel_removeZelDomain(ss, n), Zel_removeTargetService(ss, n),
                                  v1 ? Zel_removeTargetServiceType(ss, n) : 0u})
                row.push_back(std::to_string(removed));
            dir->modify("dn: " + person + "\nchangetype: delete\n");
            row.push_back(std::to_string(left_behind(*dir, name).size()) + " left");

            const std::string what = "v" + std::to_string(version) + " " + std::to_string(name.size()) + " bytes: ";
            // The name itself is shown as N, so a difference stays readable.
            std::string line;
            for (const std::string &x : row)
                line += (x == name ? "N" : x == id ? "T:N" : x == user_name ? "U" : x) + "|";
            got.push_back(what + line);
            want.push_back(what + "0|0|0|0|0|0|0|N|N|T:N|" + (user_name == name ? "N" : "U") +
                           "|1|jdoe/pw|status 24|0|0|0|0|0|0 left|");
        }
    }
    EXPECT_EQ(got, want);
}

}  // namespace
