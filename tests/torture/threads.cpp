// Eight sessions on eight threads against one directory: reads, writes and
// credential queries side by side, opened over TLS so the client's one-time
// initialisation, the locale and the key file are shared process-wide state
// in use at once.  Run under ThreadSanitizer it must stay silent.
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/password_mask.h"

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

// Decrypts on several threads while the key file's link is switched between
// two files that both hold the value's key: the kept keys are replaced while
// other callers still use the ones before, and every decrypt reads the value.
TEST(KeyFileThreads, DecryptsWhileTheKeyFileIsSwitched) {
    const std::string first = key_file(kKeyLineA + " active\n" + kKeyLineB + "\n");
    const std::string second = key_file(kKeyLineB + " active\n" + kKeyLineA + "\n");
    // Past the clock step within which a changed file is not kept: each is kept when seen.
    struct stat made {};
    ASSERT_EQ(stat(second.c_str(), &made), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(made.st_ctim.tv_nsec == 0 ? 2100 : 150));
    const std::string link = first + ".link", staged = link + ".new";
    ASSERT_EQ(symlink(first.c_str(), link.c_str()), 0);
    ScopedEnv keys("ZEL_KEYFILE", link.c_str());
    std::unique_ptr<char, decltype(&std::free)> sealed(zel::platform::util_encode("pw"), &std::free);
    ASSERT_NE(sealed, nullptr);

    std::atomic<bool> done{false};
    std::atomic<int> decrypts{0}, wrong{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < 4; ++t)
        readers.emplace_back([&] {
            while (!done.load()) {
                char *clear = zel::platform::util_decode(sealed.get());
                wrong += clear == nullptr || std::strcmp(clear, "pw") != 0;
                ++decrypts;
                std::free(clear);
            }
        });
    // At least 200 switches, and on until the readers have decrypted across
    // them: on a busy machine the readers may only start once the switching
    // is done.
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    for (int i = 0; (i < 200 || decrypts.load() < 200) && std::chrono::steady_clock::now() < give_up; ++i) {
        symlink((i % 2 ? first : second).c_str(), staged.c_str());
        rename(staged.c_str(), link.c_str());
    }
    done = true;
    for (std::thread &th : readers) th.join();
    unlink(link.c_str());
    EXPECT_GT(decrypts.load(), 0);
    EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
