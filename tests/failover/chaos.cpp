// Eight sign-on agents, each with its own session on the pair, asking for
// credentials while the servers hang, stop and come back on a fixed
// schedule, one fault at a time.  Every call must come back within the
// request time-out plus a second with success or a documented status, and
// after each fault every agent must be answered again.
#include <atomic>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "failover/failover_fixture.h"

namespace failovertest {
namespace {

using Chaos = PairTest<2>;

constexpr int kAgents = 8;

struct Call {
    double start, end;   // seconds since the schedule began
    ZelRC rc;
};

// What the harness does at `at` seconds.
struct Event {
    double at;
    void (ReplicatedPair::*act)(int);
    int server;
};

bool documented(ZelRC rc) { return rc == 0 || std::strncmp(Zel_strerror(rc), "ZEL_RC_", 7) == 0; }

TEST_F(Chaos, AgentsAreAnsweredThroughHangsStopsAndRestarts) {
    // The sessions start on server 1; each fault strikes where they are.
    const std::vector<Event> schedule = {
        {2, &ReplicatedPair::hang, 1},  {5, &ReplicatedPair::resume, 1},  // all move to 2
        {6, &ReplicatedPair::stop, 2},  {9, &ReplicatedPair::start, 2},   // back to 1
        {10, &ReplicatedPair::hang, 1}, {13, &ReplicatedPair::resume, 1},
        {14, &ReplicatedPair::stop, 2}, {17, &ReplicatedPair::start, 2},
    };
    constexpr double kEnd = 20;

    std::vector<std::vector<Call>> calls(kAgents);
    std::atomic<bool> done{false};
    std::atomic<int> opened{0};
    const auto epoch = Clock::now();
    std::vector<std::thread> agents;
    for (int a = 0; a < kAgents; ++a) {
        agents.emplace_back([&, a] {
            Session s = open_on(pair->hosts());
            ++opened;
            if (!s) return;
            while (!done) {
                double start = seconds_since(epoch);
                ZelCredentialRequest req{nullptr, nullptr, const_cast<char *>("app")};
                ZelCredential c{};
                ZelRC rc = Zel_getCredential(s.get(), "jo", &req, &c);
                if (rc == 0 && (c.userId == nullptr || std::strcmp(c.userId, "jdoe") != 0)) rc = ~0u;
                Zel_memfree(c.userId);
                Zel_memfree(c.password);
                calls[a].push_back({start, seconds_since(epoch), rc});
            }
        });
    }
    while (opened < kAgents) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const double offset = seconds_since(epoch);
    for (const Event &e : schedule) {
        std::this_thread::sleep_until(epoch + std::chrono::duration<double>(offset + e.at));
        ((*pair).*e.act)(e.server);
    }
    std::this_thread::sleep_until(epoch + std::chrono::duration<double>(offset + kEnd));
    done = true;
    for (std::thread &t : agents) t.join();

    for (int a = 0; a < kAgents; ++a) {
        SCOPED_TRACE("agent " + std::to_string(a));
        ASSERT_FALSE(calls[a].empty());
        for (const Call &c : calls[a]) {
            EXPECT_LE(c.end - c.start, kTimeout + 1.0) << "call at " << c.start - offset << " s";
            EXPECT_TRUE(documented(c.rc)) << "status " << c.rc << " at " << c.start - offset << " s";
        }
        // Answered again after each fault, before the next one strikes.
        for (size_t i = 0; i < schedule.size(); i += 2) {
            double from = offset + schedule[i].at;
            double to = offset + (i + 2 < schedule.size() ? schedule[i + 2].at : kEnd);
            bool answered = false;
            for (const Call &c : calls[a]) answered = answered || (c.start >= from && c.end < to && c.rc == 0);
            EXPECT_TRUE(answered) << "no answer between " << from - offset << " and " << to - offset << " s";
        }
    }
}

}  // namespace
}  // namespace failovertest
