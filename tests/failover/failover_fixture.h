// Sessions on a replicated pair whose servers fail under them: the steps
// the slapd pair's and the 389 pair's suites share, driven over the pair
// interface, and the slapd suites' fixture (jo's record for "app" on a pair
// shared by the suite, sessions with short time-outs).
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/family_fixture.h"
#include "support/directory.h"
#include "support/pair.h"
#include "support/peers_fixture.h"

namespace failovertest {

using namespace famtest;
using zeltest::ReplicatedPair;
using zeltest::ServerPair;
using Clock = std::chrono::steady_clock;

inline const char *kJoApp = "jdoe/pa55word";   // what jo's "app" credential answers

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

// Asks for user's credential until it answers `expected` or 10 s pass (a
// read on one server right after a write on the other misses it); the last
// answer.
inline std::string eventually_answers(ZelSession *s, const char *resource, const std::string &expected,
                                      const std::string &user = "jo") {
    auto deadline = Clock::now() + std::chrono::seconds(10);
    std::string got = credential(s, user.c_str(), resource);
    while (got != expected && Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        got = credential(s, user.c_str(), resource);
    }
    return got;
}

// What the shared steps need: the pair, sessions on it, and whose "app"
// credential they read and write.
struct Rig {
    ServerPair &pair;
    std::function<zeltest::Session(const std::string &hosts, int32_t flags)> open;
    std::string user;
    int timeout;             // the request and connect time-outs, in seconds
    std::string tls_hosts;   // the ldaps:// servers; empty where there are none
};

// The faults a server meets; heal() undoes them.
enum class Fault { Refuse, Hang };
struct Strike {
    int server;
    Fault fault;
};

// One live session through each strike, on the server the session is on:
// the read goes to the other server within the time-out, a write lands
// there, and the struck server, back, answers the write.
void follow_strikes(const Rig &rig, const std::vector<Strike> &strikes);

// Agents asking for the credential (and writers updating records "mail",
// "shop" of their own) on sessions of the given security, while the servers
// fail on a schedule.  Every call comes back within `bound` seconds with
// success or a documented status, every agent is answered again after each
// fault, and at the end both servers hold each writer's last acknowledged
// value (or one written later whose write timed out).
struct ChaosPlan {
    struct Event {
        double at;
        void (ServerPair::*act)(int);
        int server;
    };
    std::vector<int32_t> agents, writers;
    std::vector<Event> schedule;  // in pairs: a fault, then its end
    double end, bound;
};
void run_chaos(const Rig &rig, const ChaosPlan &plan);

// On the security domain; flags other than plain LDAP check the server
// against the test CA.
inline Session open_on(const std::string &hosts, int32_t flags = ZEL_OPEN_NONSSL) {
    const std::string ca = zeltest::test_tls_files().ca;
    return zeltest::open_version(ReplicatedPair::admin_dn(), ReplicatedPair::admin_password(), hosts, 0, flags,
                                 flags == ZEL_OPEN_NONSSL ? nullptr : ca.c_str(), 2);
}

// One pair of type P per suite (the derived suite makes it), with both
// time-outs set to `Timeout` seconds; every test leaves both servers running
// and answering.
template <class P, int Timeout>
class SuitePair : public ::testing::Test {
protected:
    static constexpr int kTimeout = Timeout;

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

    static inline std::unique_ptr<P> pair;
};

// The slapd pair, with jo's record for "app" on it.
template <int Timeout>
class PairTest : public SuitePair<ReplicatedPair, Timeout> {
protected:
    using Base = SuitePair<ReplicatedPair, Timeout>;
    using Base::kTimeout;
    using Base::pair;

    static void SetUpTestSuite() {
        ASSERT_EQ(Zel_setTimeouts(kTimeout, kTimeout), 0u);
        pair = std::make_unique<ReplicatedPair>(record_profile().seed_ldif);
        Session s = open_on("127.0.0.1:" + std::to_string(pair->port(1)));
        ASSERT_TRUE(s);
        ASSERT_EQ(zeltest::add_user_with_record(s.get(), "jo", kJo, "app", "jdoe", "pa55word"), 0u);
        Session on_two = open_on("127.0.0.1:" + std::to_string(pair->port(2)));
        ASSERT_TRUE(on_two);
        ASSERT_EQ(eventually_answers(on_two.get(), "app", kJoApp), kJoApp) << "the record did not replicate";
    }
    static Rig rig() {
        return {*pair, [](const std::string &hosts, int32_t flags) { return open_on(hosts, flags); }, "jo", kTimeout,
                pair->tls_uri(1) + " " + pair->tls_uri(2)};
    }
};

}  // namespace failovertest
