// Eight sessions on eight threads against one directory: reads, writes and
// credential queries side by side, opened over TLS so the client's one-time
// initialisation, the locale and the key file are shared process-wide state
// in use at once.  Run under ThreadSanitizer it must stay silent.
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/family_fixture.h"
#include "support/env.h"
#include "support/key_files.h"

namespace {

using namespace famtest;

constexpr int kThreads = 8;
constexpr int kRounds = 15;

// The statuses seen by one thread that are not success, as text.
std::string one_thread(const Directory &dir, int t) {
    std::string bad;
    auto check = [&](const char *what, ZelRC rc) { bad += rc ? std::string(what) + "=" + std::to_string(rc) + " " : ""; };
    const std::string admin = dir.admin_dn();
    ZelSession *s = nullptr;
    check("open", Zel_open_sec_domain(nullptr, admin.c_str(), Directory::admin_password(), Directory::host(),
                                      dir.ldaps_port(), ZEL_OPEN_SSL, Directory::ca_file().c_str(), "unused",
                                      nullptr, "Default", &s, 2));
    if (!s) return bad;
    const std::string name = "team" + std::to_string(t);
    ZelDomainLocation mail{const_cast<char *>("resourceName"), const_cast<char *>("mail")};
    ZelDomainLocation *locations[] = {&mail};
    ZelDomain d{const_cast<char *>(name.c_str()), const_cast<char *>("Team"), 1, locations};
    ZelTargetRecord app = record("T:app", "app", "jdoe", "pa55word");
    for (int i = 0; i < kRounds; ++i) {
        check("add domain", Zel_addZelDomain(s, &d));
        ZelDomain *got = nullptr;
        check("get domain", Zel_getZelDomain(s, name.c_str(), &got));
        Zel_freeZelDomain(got);
        check("remove domain", Zel_removeZelDomain(s, name.c_str()));
        check("update record", Zel_updateTargetRecord(s, "jo", &app));
        std::string c = credential(s, "jo", i % 2 ? "app" : "shop");
        if (c != "jdoe/pa55word" && c != "sales/pw") bad += "credential=" + c + " ";
        ZelTargetServiceList *services = nullptr;
        check("services", Zel_getAllTargetService(s, &services));
        Zel_freeTargetServices(services);
        Zel_memfree(Zel_get_locale());
        if (t == 0) Zel_set_locale("C.UTF-8");
    }
    Zel_close(s, 1);
    return bad;
}

TEST_F(RecordTest, EightSessionsOnEightThreads) {
    open_with_jo(2);
    ScopedEnv keys("ZEL_KEYFILE", key_file(kKeyLineA + " active\n").c_str());
    ZelTargetRecord app = record("T:app", "app", "jdoe", "pa55word"), sales = record("G:Sales", "Sales", "sales", "pw");
    ASSERT_EQ(std::make_pair(Zel_addTargetRecord(s.get(), "jo", &app), Zel_addTargetRecord(s.get(), "jo", &sales)),
              std::make_pair(0u, 0u));

    std::vector<std::string> seen(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) threads.emplace_back([&, t] { seen[t] = one_thread(*dir, t); });
    for (std::thread &th : threads) th.join();
    EXPECT_EQ(seen, std::vector<std::string>(kThreads)) << "every call of every thread succeeded";
    EXPECT_EQ(dir->search("o=acme", "sub", "(|(cn=team*)(secResGroupID=team*))").size(), 0u) << "nothing left behind";
}

}  // namespace
