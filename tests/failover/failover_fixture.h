// A replicated pair holding jo's record for "app", shared by the failover
// suites, and sessions opened on it with short time-outs.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "record/record_fixture.h"
#include "support/directory.h"
#include "support/pair.h"

namespace failovertest {

using namespace recordtest;
using zeltest::ReplicatedPair;
using Clock = std::chrono::steady_clock;

inline const char *kJoApp = "jdoe/pa55word";   // what jo's "app" credential answers

// flags other than plain LDAP check the server against the test CA.
inline ZelRC open_on(const std::string &hosts, ZelSession **out, int32_t flags = ZEL_OPEN_NONSSL) {
    const std::string ca = zeltest::test_tls_files().ca;
    return Zel_open_sec_domain(nullptr, ReplicatedPair::admin_dn(), ReplicatedPair::admin_password(), hosts.c_str(),
                               0, flags, flags == ZEL_OPEN_NONSSL ? nullptr : ca.c_str(), nullptr, nullptr, "Default",
                               out, 2);
}

inline Session open_on(const std::string &hosts, int32_t flags = ZEL_OPEN_NONSSL) {
    ZelSession *s = nullptr;
    ZelRC rc = open_on(hosts, &s, flags);
    EXPECT_EQ(rc, 0u) << "open on " << hosts;
    return Session(rc == 0 ? s : nullptr);
}

// The server a session says it is on.
inline std::string server_of(ZelSession *s) {
    ZelSessionInfo *info = nullptr;
    if (Zel_getSessionInfo(s, &info) != 0) return "(no info)";
    std::string server = info->server ? info->server : "(none)";
    Zel_freeSessionInfo(info);
    return server;
}

inline double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Asks for jo's credential until it answers `expected` or 10 s pass (a read
// on one server right after a write on the other misses it); the last answer.
inline std::string eventually_answers(ZelSession *s, const char *resource, const std::string &expected) {
    auto deadline = Clock::now() + std::chrono::seconds(10);
    std::string got = credential(s, "jo", resource);
    while (got != expected && Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        got = credential(s, "jo", resource);
    }
    return got;
}

// One pair per suite, with both request and connect time-outs set to
// `timeout` seconds for the suite's sessions; every test leaves both servers
// running and answering.
template <int Timeout>
class PairTest : public ::testing::Test {
protected:
    static constexpr int kTimeout = Timeout;

    static void SetUpTestSuite() {
        ASSERT_EQ(Zel_setTimeouts(kTimeout, kTimeout), 0u);
        pair = std::make_unique<ReplicatedPair>(record_profile().seed_ldif);
        Session s = open_on("127.0.0.1:" + std::to_string(pair->port(1)));
        ASSERT_TRUE(s);
        ZelUser jo = user_record("jo", "User", kJo);
        ASSERT_EQ(Zel_addZelUser(s.get(), &jo), 0u);
        ZelTargetRecord app = record("T:app", "app", "jdoe", "pa55word");
        ASSERT_EQ(Zel_addTargetRecord(s.get(), "jo", &app), 0u);
        Session on_two = open_on("127.0.0.1:" + std::to_string(pair->port(2)));
        ASSERT_TRUE(on_two);
        ASSERT_EQ(eventually_answers(on_two.get(), "app", kJoApp), kJoApp) << "the record did not replicate";
    }
    static void TearDownTestSuite() {
        pair.reset();
        Zel_setHoldDown(-1);
        Zel_setTimeouts(-1, -1);
    }
    // Both servers back, and the failures the process remembered forgotten.
    static void heal() {
        pair->heal();
        Zel_setHoldDown(-1);
    }
    void TearDown() override { heal(); }

    static inline std::unique_ptr<ReplicatedPair> pair;
};

}  // namespace failovertest
