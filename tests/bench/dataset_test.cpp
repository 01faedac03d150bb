// The benchmark's bulk-load templates give the very entries the library
// writes: one directory filled through the library, one from the templates.
#include <map>

#include "dataset.h"
#include "platform/password_mask.h"
#include "support/family_fixture.h"
#include "support/env.h"
#include "support/key_files.h"

using namespace famtest;

namespace {

Profile bench_profile(const std::string &extra) {
    Profile p;
    p.seed_ldif = zelbench::base_ldif() + zelbench::person_ldif(0) + extra;
    return p;
}

// Every entry under the suffix without operational attributes, stored
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
            v = clear ? clear : "(not opened)";
            std::free(clear);
        }
        if (e.attrs["secauthndata"].empty()) e.attrs.erase("secauthndata");
        out[e.dn] = e.attrs;
    }
    return out;
}

TEST(BenchDataset, TemplatesMatchWhatTheLibraryWrites) {
    // Templates seal passwords as a write under a key file does.
    ScopedEnv key("ZEL_KEYFILE", key_file(kKeyLineA + " active\n").c_str());
    Directory by_library(bench_profile(""));
    Session s = open_session(by_library, 2);
    ASSERT_TRUE(s);
    const std::string person = zelbench::person_dn(0);
    ZelUser user = user_record("u0", "User", person);
    ASSERT_EQ(Zel_addZelUser(s.get(), &user), 0u);

    std::vector<std::string> services;
    for (int j = 0; j < zelbench::kServicesPerGroup; ++j) services.push_back(zelbench::service_name(j));
    const std::string group_name = zelbench::group_name(0);
    auto add_service = [&](const std::string &name, const char *type) {
        ZelTargetService ts{const_cast<char *>(name.c_str()), const_cast<char *>(type), nullptr, 0, nullptr};
        ASSERT_EQ(Zel_addTargetService(s.get(), &ts), 0u) << name;
    };
    for (const std::string &name : services) add_service(name, "Web Resource");
    add_service(group_name, "Resource Group");
    famtest::DomainRecord group(group_name.c_str(), nullptr, famtest::services(services));
    ASSERT_EQ(Zel_addZelDomain(s.get(), &group.d), 0u);

    struct { const char *id, *service, *account, *password; } records[] = {
        {"T:svc0", "svc0", "u0", "pw-u0"}, {"G:grp0", "grp0", "gu0", "gpw-u0"}};
    std::string templated;
    for (const auto &r : records) {
        ZelTargetRecord tr = record(r.id, r.service, r.account, r.password);
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
