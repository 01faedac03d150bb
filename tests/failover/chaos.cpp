// Eight sign-on agents, each with its own session on the pair (plain,
// ldaps:// or StartTLS), asking for credentials, and two writers updating
// records of their own, while the servers hang, stop and come back on a
// fixed schedule, one fault at a time.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "failover/failover_fixture.h"

namespace failovertest {
namespace {

const char *const kWritten[] = {"mail", "shop"};   // each writer's service

struct Call {
    double start, end;   // seconds since the schedule began
    ZelRC rc;
    std::string value;   // a write's password
};

bool documented(ZelRC rc) { return rc == 0 || std::strncmp(Zel_strerror(rc), "ZEL_RC_", 7) == 0; }

}  // namespace

void run_chaos(const Rig &rig, const ChaosPlan &plan) {
    ServerPair &pair = rig.pair;
    const size_t agents = plan.agents.size(), writers = plan.writers.size();
    auto hosts_for = [&](int32_t flags) { return flags == ZEL_OPEN_SSL ? rig.tls_hosts : pair.hosts(); };
    Session on[2];
    for (int n = 0; n < 2; ++n) on[n] = rig.open("127.0.0.1:" + std::to_string(pair.port(n + 1)), ZEL_OPEN_NONSSL);
    ASSERT_TRUE(on[0] && on[1]);
    const std::string expected = credential(on[0].get(), rig.user.c_str(), "app");
    for (size_t w = 0; w < writers; ++w) {
        const std::string id = std::string("T:") + kWritten[w];
        ZelTargetRecord r = record(id.c_str(), kWritten[w], "jdoe", "start");
        ZelRC rc = Zel_addTargetRecord(on[0].get(), rig.user.c_str(), &r);
        ASSERT_TRUE(rc == 0 || rc == ZEL_RC_ALREADY_EXISTS) << rc;
        ASSERT_EQ(Zel_updateTargetRecord(on[0].get(), rig.user.c_str(), &r), 0u);
        ASSERT_EQ(eventually_answers(on[1].get(), kWritten[w], "jdoe/start", rig.user), "jdoe/start");
    }

    std::vector<std::vector<Call>> calls(agents), writes(writers);
    std::atomic<bool> done{false};
    std::atomic<size_t> opened{0};
    const auto epoch = Clock::now();
    std::vector<std::thread> threads;
    for (size_t a = 0; a < agents + writers; ++a) {
        threads.emplace_back([&, a] {
            const bool agent = a < agents;
            const int32_t flags = agent ? plan.agents[a] : plan.writers[a - agents];
            Session s = rig.open(hosts_for(flags), flags);
            ++opened;
            if (!s) return;
            const std::string id = agent ? "" : std::string("T:") + kWritten[a - agents];
            for (int n = 0; !done; ++n) {
                double start = seconds_since(epoch);
                if (agent) {
                    std::string got = credential(s.get(), rig.user.c_str(), "app");
                    ZelRC rc = got == expected ? 0u : got.rfind("status ", 0) == 0 ? std::stoul(got.substr(7)) : ~0u;
                    calls[a].push_back({start, seconds_since(epoch), rc, {}});
                    continue;
                }
                const std::string value = "v" + std::to_string(n);
                ZelTargetRecord r = record(id.c_str(), kWritten[a - agents], "jdoe", value.c_str());
                ZelRC rc = Zel_updateTargetRecord(s.get(), rig.user.c_str(), &r);
                writes[a - agents].push_back({start, seconds_since(epoch), rc, value});
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
        });
    }
    while (opened < agents + writers) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const double offset = seconds_since(epoch);
    for (const ChaosPlan::Event &e : plan.schedule) {
        std::this_thread::sleep_until(epoch + std::chrono::duration<double>(offset + e.at));
        (pair.*e.act)(e.server);
    }
    std::this_thread::sleep_until(epoch + std::chrono::duration<double>(offset + plan.end));
    done = true;
    for (std::thread &t : threads) t.join();
    for (int n = 0; n < 2; ++n) on[n] = rig.open("127.0.0.1:" + std::to_string(pair.port(n + 1)), ZEL_OPEN_NONSSL);

    auto in_time = [&](const std::vector<Call> &made) {
        ASSERT_FALSE(made.empty());
        for (const Call &c : made) {
            EXPECT_LE(c.end - c.start, plan.bound) << "call at " << c.start - offset << " s";
            EXPECT_TRUE(documented(c.rc)) << "status " << c.rc << " at " << c.start - offset << " s";
        }
    };
    for (size_t a = 0; a < agents; ++a) {
        SCOPED_TRACE("agent " + std::to_string(a));
        in_time(calls[a]);
        // Answered again after each fault, before the next one strikes.
        for (size_t i = 0; i < plan.schedule.size(); i += 2) {
            double from = offset + plan.schedule[i].at;
            double to = offset + (i + 2 < plan.schedule.size() ? plan.schedule[i + 2].at : plan.end);
            bool answered = false;
            for (const Call &c : calls[a]) answered = answered || (c.start >= from && c.end < to && c.rc == 0);
            EXPECT_TRUE(answered) << "no answer between " << from - offset << " and " << to - offset << " s";
        }
    }

    // Once replication settled, both servers agree on the last acknowledged
    // value, or on a later one whose outcome is unknown.
    for (size_t w = 0; w < writers; ++w) {
        SCOPED_TRACE("writer " + std::to_string(w));
        in_time(writes[w]);
        size_t last_ok = writes[w].size();
        for (size_t i = 0; i < writes[w].size(); ++i)
            if (writes[w][i].rc == 0) last_ok = i;
        ASSERT_LT(last_ok, writes[w].size()) << "no write was acknowledged";
        std::vector<std::string> allowed = {"jdoe/" + writes[w][last_ok].value};
        for (size_t i = last_ok + 1; i < writes[w].size(); ++i)
            if (writes[w][i].rc == ZEL_RC_TIMEOUT) allowed.push_back("jdoe/" + writes[w][i].value);
        std::string held[2];
        auto deadline = Clock::now() + std::chrono::seconds(10);
        do {
            for (int n = 0; n < 2; ++n) held[n] = credential(on[n].get(), rig.user.c_str(), kWritten[w]);
            if (held[0] == held[1]) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        } while (Clock::now() < deadline);
        EXPECT_EQ(held[0], held[1]) << "the servers disagree";
        EXPECT_NE(std::find(allowed.begin(), allowed.end(), held[0]), allowed.end()) << held[0];
    }
}

namespace {

using Chaos = PairTest<2>;

// The sessions start on server 1; each fault strikes where they are.
TEST_F(Chaos, AgentsAreAnsweredThroughHangsStopsAndRestarts) {
    const int32_t plain = ZEL_OPEN_NONSSL, ssl = ZEL_OPEN_SSL, starttls = ZEL_OPEN_STARTTLS;
    run_chaos(rig(), {{plain, ssl, starttls, plain, ssl, starttls, plain, ssl},
                      {plain, starttls},
                      {{2, &ServerPair::hang, 1}, {5, &ServerPair::resume, 1},   // all move to 2
                       {6, &ServerPair::stop, 2}, {9, &ServerPair::start, 2},    // back to 1
                       {10, &ServerPair::hang, 1}, {13, &ServerPair::resume, 1},
                       {14, &ServerPair::stop, 2}, {17, &ServerPair::start, 2}},
                      20, 2 * kTimeout + 0.5});
}

}  // namespace
}  // namespace failovertest
