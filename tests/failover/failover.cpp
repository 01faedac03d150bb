// Opens and live sessions on a replicated pair whose servers refuse, hang,
// stop and come back.
#include "failover/failover_fixture.h"

namespace failovertest {
namespace {

using Failover = PairTest<1>;

// The faults a server meets, and how to undo them (heal() does).
enum class Fault { Refuse, Hang };

void inflict(ReplicatedPair &pair, int n, Fault fault) {
    if (fault == Fault::Refuse) pair.stop(n);
    else pair.hang(n);
}

TEST_F(Failover, OpenMovesPastAServerThatRefusesOrHangs) {
    const std::string p1 = std::to_string(pair->port(1)), p2 = std::to_string(pair->port(2));
    const struct {
        Fault fault;
        std::string hosts;
    } cases[] = {
        {Fault::Refuse, "127.0.0.1:" + p1 + " 127.0.0.1:" + p2},
        {Fault::Hang, "ldap://127.0.0.1:" + p1 + "/  ldap://127.0.0.1:" + p2},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.hosts);
        inflict(*pair, 1, c.fault);
        auto start = Clock::now();
        Session s = open_on(c.hosts);
        // Within the connect and the request time-out of the first server.
        EXPECT_LT(seconds_since(start), 2 * kTimeout + 1);
        ASSERT_TRUE(s);
        EXPECT_EQ(server_of(s.get()), pair->uri(2));
        EXPECT_EQ(credential(s.get(), "jo", "app"), kJoApp);
        pair->heal();
    }
}

TEST_F(Failover, ALiveSessionMovesOnAndWrapsRound) {
    Session s = open_on(pair->hosts());
    ASSERT_TRUE(s);
    ASSERT_EQ(server_of(s.get()), pair->uri(1));
    // Each fault strikes the server the session is on; the read is re-sent
    // on the other one, round to the first again.
    const struct {
        int server;
        Fault fault;
    } steps[] = {{1, Fault::Hang}, {2, Fault::Refuse}, {1, Fault::Refuse}, {2, Fault::Hang}};
    for (const auto &step : steps) {
        SCOPED_TRACE("server " + std::to_string(step.server) + (step.fault == Fault::Hang ? " hangs" : " stops"));
        inflict(*pair, step.server, step.fault);
        auto start = Clock::now();
        EXPECT_EQ(credential(s.get(), "jo", "app"), kJoApp);
        EXPECT_LT(seconds_since(start), kTimeout + 1);
        EXPECT_EQ(server_of(s.get()), pair->uri(3 - step.server));
        pair->heal();
    }
}

TEST_F(Failover, OneServerThatRestartsAnswersTheNextRead) {
    Session s = open_on("127.0.0.1:" + std::to_string(pair->port(1)));
    ASSERT_TRUE(s);

    pair->stop(1);
    pair->start(1);
    EXPECT_EQ(credential(s.get(), "jo", "app"), kJoApp) << "the read is re-sent on a new connection";

    // A write is never re-sent: at worst the first fails, the second goes through.
    pair->stop(1);
    pair->start(1);
    ZelTargetRecord shop = record("T:shop", "shop", "jdoe", "sh0p");
    ZelRC first = Zel_addTargetRecord(s.get(), "jo", &shop);
    if (first != 0) {
        EXPECT_EQ(first, ZEL_RC_DIRECTORY_ERROR);
        EXPECT_EQ(Zel_addTargetRecord(s.get(), "jo", &shop), 0u);
    }
    EXPECT_EQ(credential(s.get(), "jo", "shop"), "jdoe/sh0p");
    EXPECT_EQ(Zel_removeTargetRecord(s.get(), "jo", "T:shop"), 0u);

    // Hung with nowhere else to go: a failure within the time-outs (the
    // request, then the bind of the reconnect), reported as that look-up
    // reports any failed search, and answers once it is back.
    pair->hang(1);
    auto start = Clock::now();
    EXPECT_EQ(credential(s.get(), "jo", "app").rfind("status ", 0), 0u);
    EXPECT_LT(seconds_since(start), 2 * kTimeout + 1);
    pair->resume(1);
    EXPECT_EQ(credential(s.get(), "jo", "app"), kJoApp);
}

TEST_F(Failover, AWriteOnOneServerIsAnsweredByTheOtherAMomentLater) {
    Session one = open_on("127.0.0.1:" + std::to_string(pair->port(1)));
    Session two = open_on("127.0.0.1:" + std::to_string(pair->port(2)));
    ASSERT_TRUE(one && two);
    ZelTargetRecord mail = record("T:mail", "mail", "jo.mail", "ma1l");
    ASSERT_EQ(Zel_addTargetRecord(one.get(), "jo", &mail), 0u);
    EXPECT_EQ(eventually_answers(two.get(), "mail", "jo.mail/ma1l"), "jo.mail/ma1l");
    ASSERT_EQ(Zel_removeTargetRecord(two.get(), "jo", "T:mail"), 0u);
    EXPECT_EQ(eventually_answers(one.get(), "mail", "status 24"), "status 24");
}

}  // namespace
}  // namespace failovertest
