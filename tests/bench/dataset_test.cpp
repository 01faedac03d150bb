// The benchmark's bulk-load templates give the very entries the library
// writes: one directory filled through the library, one from the templates.
#include <map>

#include "dataset.h"
#include "platform/password_mask.h"
#include "support/session.h"

using namespace zeltest;

namespace {

Profile bench_profile(const std::string &extra) {
    Profile p;
    p.seed_ldif = zelbench::base_ldif() + zelbench::person_ldif(0) + extra;
    return p;
}

// Every entry under the suffix without operational attributes, masked
// passwords replaced by their clear text.
std::map<std::string, std::map<std::string, std::vector<std::string>>> contents(const Directory &d) {
    static const char *const operational[] = {"entrycsn", "createtimestamp", "modifytimestamp", "creatorsname",
                                              "modifiersname", "entryuuid", "structuralobjectclass",
                                              "subschemasubentry", "hassubordinates", "entrydn"};
    std::map<std::string, std::map<std::string, std::vector<std::string>>> out;
    for (Entry &e : d.search(d.suffix())) {
        for (const char *a : operational) e.attrs.erase(a);
        for (std::string &v : e.attrs["secauthndata"]) {
            char *clear = zel::platform::util_decode(v.c_str());
            v = clear ? clear : "(not unmasked)";
            std::free(clear);
        }
        if (e.attrs["secauthndata"].empty()) e.attrs.erase("secauthndata");
        out[e.dn] = e.attrs;
    }
    return out;
}

TEST(BenchDataset, TemplatesMatchWhatTheLibraryWrites) {
    Directory by_library(bench_profile(""));
    Session s = open_session(by_library, 2);
    ASSERT_TRUE(s);
    ZelUser user{};
    user.userName = const_cast<char *>("u0");
    user.userType = const_cast<char *>("User");
    user.enabled = 1;
    std::string person = zelbench::person_dn(0);
    user.personDN = person.data();
    ASSERT_EQ(Zel_addZelUser(s.get(), &user), 0u);

    std::vector<std::string> names;
    for (int j = 0; j < zelbench::kServicesPerGroup; ++j) names.push_back(zelbench::service_name(j));
    names.push_back(zelbench::group_name(0));
    std::vector<ZelDomainLocation> locations;
    for (std::string &name : names) {
        ZelTargetService ts{};
        ts.name = name.data();
        ts.type = const_cast<char *>(name == names.back() ? "Resource Group" : "Web Resource");
        ASSERT_EQ(Zel_addTargetService(s.get(), &ts), 0u) << name;
        if (name != names.back()) locations.push_back({const_cast<char *>("resourceName"), name.data()});
    }
    std::vector<ZelDomainLocation *> location_list;
    for (ZelDomainLocation &l : locations) location_list.push_back(&l);
    ZelDomain group{names.back().data(), nullptr, static_cast<int32_t>(location_list.size()), location_list.data()};
    ASSERT_EQ(Zel_addZelDomain(s.get(), &group), 0u);

    struct { const char *id, *service, *account, *password; } records[] = {
        {"T:svc0", "svc0", "u0", "pw-u0"}, {"G:grp0", "grp0", "gu0", "gpw-u0"}};
    std::string templated;
    for (const auto &r : records) {
        ZelTargetRecord tr{};
        tr.targetRecordId = const_cast<char *>(r.id);
        tr.targetServiceName = const_cast<char *>(r.service);
        tr.userId = const_cast<char *>(r.account);
        tr.password = const_cast<char *>(r.password);
        ASSERT_EQ(Zel_addTargetRecord(s.get(), "u0", &tr), 0u) << r.id;
        templated += zelbench::record_ldif(0, r.id, r.account, r.password);
    }
    for (int j = 0; j < zelbench::kServicesPerGroup; ++j) templated += zelbench::service_ldif(j);
    Directory from_templates(bench_profile(zelbench::zel_user_ldif(0) + templated + zelbench::group_ldif(0)));
    auto written = contents(by_library);
    EXPECT_EQ(written.size(), 23u);  // 2 roots, 4 containers, 3 per user, 11 resources, 1 group, 2 records
    EXPECT_EQ(written, contents(from_templates));
}

}  // namespace
