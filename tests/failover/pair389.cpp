// The slapd pair's failover steps on a 389 Directory Server multi-supplier
// pair (a supplier that hangs or dies leaves reads and writes to the other,
// a short chaos run of agents through hangs and kills), and what a
// partition leaves behind found by doctor and repaired by `user regroup`.
// One pair for the whole suite.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "failover/failover_fixture.h"
#include "support/ds389_pair.h"

namespace failovertest {
namespace {

using zeltest::CommandResult;
using zeltest::Ds389Pair;

const std::string kSuffix = Ds389Pair::suffix();
const std::string kDb = "systemName=ORVZEL," + kSuffix;
const std::string kJo = "cn=Jo," + kSuffix, kKim = "cn=Kim," + kSuffix;
const char *const kConflicts = "(&(objectClass=ldapSubEntry)(nsds5ReplConflict=*))";

std::string group(const char *cn) { return std::string("cn=") + cn + ",cn=Access Groups," + kDb; }

Session open_389(const std::string &hosts, int32_t flags = ZEL_OPEN_NONSSL) {
    return zeltest::open_version(Ds389Pair::admin_dn(), Ds389Pair::admin_password(), hosts, 0, flags, nullptr, 1);
}

class Ds389Failover : public SuitePair<Ds389Pair, 2> {
protected:
    static Session open_on(int n) { return open_389("127.0.0.1:" + std::to_string(pair->port(n))); }

    static CommandResult zelctl(const std::vector<std::string> &args) {
        std::vector<std::string> argv = {ZELCTL_PATH, "-H", pair->uri(1), "-D", Ds389Pair::admin_dn(),
                                         "-y", pair->password_file(), "--api-version", "1"};
        argv.insert(argv.end(), args.begin(), args.end());
        return zeltest::run_command(argv);
    }

    // A database on server 1 with Jo (a "User") and his record for "app",
    // read back through server 2.
    static void SetUpTestSuite() {
        ASSERT_EQ(Zel_setTimeouts(kTimeout, kTimeout), 0u);
        pair = std::make_unique<Ds389Pair>();
        const std::string people = zeltest::person_ldif(kSuffix, "Jo", "Jo") + zeltest::person_ldif(kSuffix, "Kim", "Kim");
        ASSERT_EQ(pair->server(1).modify(people, true).status, 0);
        Session s = open_on(1);
        ASSERT_TRUE(s);
        ASSERT_EQ(Zel_createDatabase(s.get(), kSuffix.c_str(), nullptr, "sradmin", "Admin-pw-1",
                                     ZEL_CREATEDB_XR_DEFAULTS),
                  0u);
        ASSERT_EQ(famtest::add_service(s.get(), {"app", "Web Resource", nullptr, {{"resourceName", "app"}}}), 0u);
        ASSERT_EQ(zeltest::add_user_with_record(s.get(), "Jo", kJo, "app", "jdoe", "pa55word"), 0u);
        Session two = open_on(2);
        ASSERT_TRUE(two);
        ASSERT_EQ(eventually_answers(two.get(), "app", kJoApp, "Jo"), kJoApp) << "the record did not replicate";
    }
    static Rig rig() { return {*pair, open_389, "Jo", kTimeout, ""}; }
};

TEST_F(Ds389Failover, TheOtherSupplierAnswersReadsAndWrites) {
    follow_strikes(rig(), {{1, Fault::Hang}, {2, Fault::Refuse}});
}

// Agents ask for Jo's credential while the suppliers hang, die and come
// back one at a time.
TEST_F(Ds389Failover, ShortChaosRun) {
    const int32_t plain = ZEL_OPEN_NONSSL;
    run_chaos(rig(), {{plain, plain, plain, plain},
                      {},
                      {{1, &ServerPair::hang, 1}, {3.5, &ServerPair::resume, 1},  // all move to 2
                       {4.5, &ServerPair::stop, 2}, {6, &ServerPair::start, 2},    // back to 1
                       {7, &ServerPair::stop, 1}, {8.5, &ServerPair::start, 1}},
                      10, kTimeout + 1.0});
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
    const std::vector<zeltest::Entry> visible = pair->server(1).search("cn=Kim," + kKim, "(objectClass=*)", {"userType"});
    ASSERT_EQ(visible.size(), 1u);
    const std::string type = visible.front().first("userType");
    const std::string kept = group(type == "User" ? "Users" : "Middle Tier Servers"),
                      dropped = group(type == "User" ? "Middle Tier Servers" : "Users");

    CommandResult doctor = zelctl({"doctor"});
    EXPECT_EQ(doctor.status, 3) << doctor.out << doctor.err;
    const std::vector<zeltest::Entry> conflicts = pair->server(1).search(kSuffix, kConflicts);
    ASSERT_EQ(conflicts.size(), 1u);
    EXPECT_NE(doctor.out.find("danger   repl-conflicts    1 replication conflict entry: " + conflicts.front().dn),
              std::string::npos) << doctor.out;
    EXPECT_NE(doctor.out.find("danger   group-members     1 access-group membership not called for: " + kKim +
                              " in " + dropped),
              std::string::npos) << doctor.out;

    CommandResult dry = zelctl({"user", "regroup", "--dry-run"});
    EXPECT_EQ(dry.status, 0) << dry.err;
    EXPECT_NE(dry.out.find("take " + kKim + " out of " + dropped), std::string::npos) << dry.out;
    EXPECT_EQ(pair->server(1).search(kDb, "(member=" + kKim + ")").size(), 2u) << "a dry run writes nothing";

    CommandResult regroup = zelctl({"user", "regroup"});
    EXPECT_EQ(regroup.status, 0) << regroup.out << regroup.err;
    for (int n = 1; n <= 2; ++n) {
        EXPECT_TRUE(pair->wait_for(n, dropped, "(member=" + kKim + ")", 0)) << "server " << n;
        EXPECT_EQ(pair->server(n).search(kept, "(member=" + kKim + ")").size(), 1u) << "server " << n;
    }
    // With the conflict entry gone as well, nothing is in danger.
    ASSERT_EQ(pair->server(1).modify("dn: " + conflicts.front().dn + "\nchangetype: delete\n").status, 0);
    EXPECT_TRUE(pair->wait_for(2, kSuffix, kConflicts, 0));
    doctor = zelctl({"doctor"});
    EXPECT_EQ(doctor.status, 0) << doctor.out;
    EXPECT_NE(doctor.out.find("ok       group-members"), std::string::npos) << doctor.out;
}

}  // namespace
}  // namespace failovertest
