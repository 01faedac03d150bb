// The failover of the slapd pair's suites on a 389 Directory Server
// multi-supplier pair: a supplier that hangs or dies leaves reads and writes
// to the other, a short chaos run of agents through hangs and kills, and
// what a partition leaves behind found by doctor and repaired by `user
// regroup`.  One pair for the whole suite.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "record/record_fixture.h"
#include "support/ds389_pair.h"

namespace {

using namespace recordtest;
using zeltest::CommandResult;
using zeltest::Ds389Pair;
using Clock = std::chrono::steady_clock;

constexpr int kTimeout = 2;
const std::string kSuffix = Ds389Pair::suffix();
const std::string kDb = "systemName=ORVZEL," + kSuffix;
const std::string kJo = "cn=Jo," + kSuffix, kKim = "cn=Kim," + kSuffix;
const char *const kConflicts = "(&(objectClass=ldapSubEntry)(nsds5ReplConflict=*))";

std::string group(const char *cn) { return std::string("cn=") + cn + ",cn=Access Groups," + kDb; }

double seconds_since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

std::string person_ldif(const std::string &cn) {
    return "dn: cn=" + cn + "," + kSuffix + "\nchangetype: add\nobjectClass: inetOrgPerson\ncn: " + cn + "\nsn: " + cn + "\nuid: " + cn + "\n\n";
}

class Ds389Failover : public ::testing::Test {
protected:
    static Session open_on(const std::string &hosts) {
        ZelSession *s = nullptr;
        ZelRC rc = Zel_open(nullptr, Ds389Pair::admin_dn(), Ds389Pair::admin_password(), hosts.c_str(), 0,
                            ZEL_OPEN_NONSSL, nullptr, nullptr, nullptr, &s, 1);
        EXPECT_EQ(rc, 0u) << "open on " << hosts;
        return Session(rc == 0 ? s : nullptr);
    }
    static Session open_on(int n) { return open_on("127.0.0.1:" + std::to_string(pair->port(n))); }

    static std::string server_of(ZelSession *s) {
        ZelSessionInfo *info = nullptr;
        if (Zel_getSessionInfo(s, &info) != 0) return "(no info)";
        std::string server = info->server ? info->server : "(none)";
        Zel_freeSessionInfo(info);
        return server;
    }

    // jo's "app" credential asked of s until it answers `expected` or 10 s pass.
    static std::string eventually(ZelSession *s, const std::string &expected) {
        auto deadline = Clock::now() + std::chrono::seconds(10);
        std::string got = credential(s, "Jo", "app");
        while (got != expected && Clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            got = credential(s, "Jo", "app");
        }
        return got;
    }

    static CommandResult zelctl(const std::vector<std::string> &args) {
        std::vector<std::string> argv = {ZELCTL_PATH, "-H", pair->uri(1), "-D", Ds389Pair::admin_dn(),
                                         "-y", pair->password_file(), "--api-version", "1"};
        argv.insert(argv.end(), args.begin(), args.end());
        return zeltest::run_command(argv);
    }

    // A database on server 1 with jo (a "User") and his record for "app",
    // read back through server 2.
    static void SetUpTestSuite() {
        ASSERT_EQ(Zel_setTimeouts(kTimeout, kTimeout), 0u);
        pair = std::make_unique<Ds389Pair>();
        ASSERT_EQ(pair->modify(1, person_ldif("Jo") + person_ldif("Kim")).status, 0);
        Session s = open_on(1);
        ASSERT_TRUE(s);
        ASSERT_EQ(Zel_createDatabase(s.get(), kSuffix.c_str(), nullptr, "sradmin", "Admin-pw-1",
                                     ZEL_CREATEDB_XR_DEFAULTS),
                  0u);
        ZelReqIdentifier id{const_cast<char *>("resourceName"), const_cast<char *>("app")};
        ZelReqIdentifier *ids[] = {&id};
        ZelTargetService app{const_cast<char *>("app"), const_cast<char *>("Web Resource"), nullptr, 1, ids};
        ASSERT_EQ(Zel_addTargetService(s.get(), &app), 0u);
        ZelUser jo = user_record("Jo", "User", kJo);
        ASSERT_EQ(Zel_addZelUser(s.get(), &jo), 0u);
        ZelTargetRecord r = record("T:app", "app", "jdoe", "pa55word");
        ASSERT_EQ(Zel_addTargetRecord(s.get(), "Jo", &r), 0u);
        Session two = open_on(2);
        ASSERT_TRUE(two);
        ASSERT_EQ(eventually(two.get(), "jdoe/pa55word"), "jdoe/pa55word") << "the record did not replicate";
    }
    static void TearDownTestSuite() {
        pair.reset();
        Zel_setTimeouts(-1, -1);
    }
    void TearDown() override { pair->heal(); }

    static inline std::unique_ptr<Ds389Pair> pair;
};

TEST_F(Ds389Failover, TheOtherSupplierAnswersReadsAndWrites) {
    const struct {
        const char *name;
        void (Ds389Pair::*fault)(int);
        const char *password;
    } faults[] = {{"hung", &Ds389Pair::hang, "hung-pw"}, {"killed", &Ds389Pair::kill, "killed-pw"}};
    std::string current = "jdoe/pa55word";
    for (const auto &f : faults) {
        SCOPED_TRACE(std::string("the session's server ") + f.name);
        Session s = open_on(pair->hosts());
        ASSERT_TRUE(s);
        // The fault strikes the server the session is on.
        const int on = server_of(s.get()) == pair->uri(1) ? 1 : 2, other = 3 - on;
        ((*pair).*f.fault)(on);
        auto start = Clock::now();
        EXPECT_EQ(credential(s.get(), "Jo", "app"), current);
        EXPECT_LT(seconds_since(start), kTimeout + 1);
        EXPECT_EQ(server_of(s.get()), pair->uri(other));
        ZelTargetRecord r = record("T:app", "app", "jdoe", f.password);
        EXPECT_EQ(Zel_updateTargetRecord(s.get(), "Jo", &r), 0u);
        const std::string changed = std::string("jdoe/") + f.password;
        EXPECT_EQ(credential(s.get(), "Jo", "app"), changed);
        // Back on its feet, the struck server gets the write made on the other.
        pair->heal();
        Session back = open_on(on);
        ASSERT_TRUE(back);
        EXPECT_EQ(eventually(back.get(), changed), changed);
        current = changed;
    }
}

// Agents, each with its own session, ask for jo's credential while the
// suppliers hang, die and come back one at a time.  Every call comes back
// within the time-out plus a second, with the credential or a documented
// status, and every agent is answered again after each fault.
TEST_F(Ds389Failover, ShortChaosRun) {
    constexpr int kAgents = 4;
    struct Event {
        double at;
        void (Ds389Pair::*act)(int);
        int server;
    };
    const std::vector<Event> schedule = {
        {1, &Ds389Pair::hang, 1}, {3.5, &Ds389Pair::resume, 1},  // all move to 2
        {4.5, &Ds389Pair::kill, 2}, {6, &Ds389Pair::start, 2},    // back to 1
        {7, &Ds389Pair::kill, 1}, {8.5, &Ds389Pair::start, 1},
    };
    constexpr double kEnd = 10;
    struct Call {
        double start, end;
        ZelRC rc;
    };
    // Whatever the last answer was, jo's password is now one of the test above's.
    const std::string expected = credential(open_on(1).get(), "Jo", "app");
    ASSERT_EQ(expected.rfind("jdoe/", 0), 0u) << expected;

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
                std::string got = credential(s.get(), "Jo", "app");
                ZelRC rc = got == expected ? 0u : got.rfind("status ", 0) == 0 ? std::stoul(got.substr(7)) : ~0u;
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
            EXPECT_TRUE(c.rc == 0 || std::strncmp(Zel_strerror(c.rc), "ZEL_RC_", 7) == 0)
                << "status " << c.rc << " at " << c.start - offset << " s";
        }
        for (size_t i = 0; i < schedule.size(); i += 2) {
            double from = offset + schedule[i].at;
            double to = offset + (i + 2 < schedule.size() ? schedule[i + 2].at : kEnd);
            bool answered = false;
            for (const Call &c : calls[a]) answered = answered || (c.start >= from && c.end < to && c.rc == 0);
            EXPECT_TRUE(answered) << "no answer between " << from - offset << " and " << to - offset << " s";
        }
    }
}

// During a partition kim is made a "User" on one supplier and a "Middle Tier
// Server" on the other.  One profile becomes a conflict entry, both group
// additions survive: kim reads what agents read.  doctor says so, and
// `user regroup` takes kim out of the group the visible profile does not
// call for.
TEST_F(Ds389Failover, PartitionLeftoversFoundAndRepaired) {
    pair->partition(true);
    {
        Session one = open_on(1), two = open_on(2);
        ASSERT_TRUE(one && two);
        ZelUser as_user = user_record("Kim", "User", kKim), as_agent = user_record("Kim", "Middle Tier Server", kKim);
        ASSERT_EQ(Zel_addZelUser(one.get(), &as_user), 0u);
        ASSERT_EQ(Zel_addZelUser(two.get(), &as_agent), 0u);
    }
    pair->partition(false);
    for (int n = 1; n <= 2; ++n) {
        ASSERT_TRUE(pair->wait_for(n, kSuffix, kConflicts)) << "no conflict entry on server " << n;
        ASSERT_TRUE(pair->wait_for(n, kDb, "(member=" + kKim + ")", 2)) << "kim not in both groups on " << n;
    }
    const std::vector<zeltest::Entry> visible = pair->search(1, "cn=Kim," + kKim, "(objectClass=*)", {"userType"});
    ASSERT_EQ(visible.size(), 1u);
    const std::string type = visible.front().first("userType");
    const std::string kept = group(type == "User" ? "Users" : "Middle Tier Servers"),
                      dropped = group(type == "User" ? "Middle Tier Servers" : "Users");

    CommandResult doctor = zelctl({"doctor"});
    EXPECT_EQ(doctor.status, 3) << doctor.out << doctor.err;
    const std::vector<zeltest::Entry> conflicts = pair->search(1, kSuffix, kConflicts);
    ASSERT_EQ(conflicts.size(), 1u);
    EXPECT_NE(doctor.out.find("danger   repl-conflicts    1 replication conflict entry: " + conflicts.front().dn),
              std::string::npos) << doctor.out;
    EXPECT_NE(doctor.out.find("danger   group-members     1 access-group membership not called for: " + kKim +
                              " in " + dropped),
              std::string::npos) << doctor.out;

    CommandResult dry = zelctl({"user", "regroup", "--dry-run"});
    EXPECT_EQ(dry.status, 0) << dry.err;
    EXPECT_NE(dry.out.find("take " + kKim + " out of " + dropped), std::string::npos) << dry.out;
    EXPECT_EQ(pair->search(1, kDb, "(member=" + kKim + ")").size(), 2u) << "a dry run writes nothing";

    CommandResult regroup = zelctl({"user", "regroup"});
    EXPECT_EQ(regroup.status, 0) << regroup.out << regroup.err;
    for (int n = 1; n <= 2; ++n) {
        EXPECT_TRUE(pair->wait_for(n, dropped, "(member=" + kKim + ")", 0)) << "server " << n;
        EXPECT_EQ(pair->search(n, kept, "(member=" + kKim + ")").size(), 1u) << "server " << n;
    }
    // With the conflict entry gone as well, nothing is in danger.
    ASSERT_EQ(pair->modify(1, "dn: " + conflicts.front().dn + "\nchangetype: delete\n").status, 0);
    EXPECT_TRUE(pair->wait_for(2, kSuffix, kConflicts, 0));
    doctor = zelctl({"doctor"});
    EXPECT_EQ(doctor.status, 0) << doctor.out;
    EXPECT_NE(doctor.out.find("ok       group-members"), std::string::npos) << doctor.out;
}

}  // namespace
