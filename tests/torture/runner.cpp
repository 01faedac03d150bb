#include <gtest/gtest.h>
#include <ldap.h>

#include <algorithm>
#include <map>

#include "support/alloc_faults.h"
#include "torture/torture.h"

namespace torture {

namespace {

using zeltest::fault::Fn;

// How far each kind of directory call is failed in turn; a call making more
// is failed at the first ones only, which is where the state changes.
constexpr int kCallsPerKind = 8;

bool is_write(Fn fn) { return fn == Fn::Add || fn == Fn::Modify || fn == Fn::ModifyS || fn == Fn::Delete; }

int writes_made() {
    int n = 0;
    for (const zeltest::fault::Call &c : zeltest::fault::calls()) n += is_write(c.fn);
    return n;
}

// How many searches the call makes before its first write: the look-ups
// that decide whether it writes at all.
int searches_before_writing() {
    int searches = 0;
    for (const zeltest::fault::Call &c : zeltest::fault::calls()) {
        if (is_write(c.fn)) return searches;
        searches += c.fn == Fn::Search;
    }
    return searches;
}

struct CleanRun {
    ZelRC rc;
    std::map<Fn, int> made;
    int checks;  // searches before the first write
};

CleanRun clean_run(const Scenario &sc, ZelSession *s) {
    sc.arrange(s);
    zeltest::fault::reset();
    CleanRun run{sc.act(s), {}, searches_before_writing()};
    for (Fn fn : {Fn::Search, Fn::Add, Fn::Modify, Fn::ModifyS, Fn::Delete, Fn::SimpleBind})
        run.made[fn] = std::min(zeltest::fault::count(fn), kCallsPerKind);
    return run;
}

void each_directory_call_fails(const Scenario &sc, ZelSession *s, const CleanRun &clean) {
    // Both stand for a whole class: a lost connection and a refusal.
    const std::pair<int, ZelRC> results[] = {{LDAP_SERVER_DOWN, ZEL_RC_DIRECTORY_ERROR},
                                             {LDAP_INSUFFICIENT_ACCESS, ZEL_RC_NOT_AUTHORIZED}};
    for (const auto &[fn, count] : clean.made) {
        for (int n = 1; n <= count; ++n) {
            for (const auto &[result, mapped] : results) {
                zeltest::fault::reset();  // a planned failure the last run did not reach
                sc.arrange(s);
                zeltest::fault::reset();
                zeltest::fault::fail_call(fn, n, result);
                ZelRC rc = sc.act(s);
                std::vector<ZelRC> allowed = sc.also;
                allowed.insert(allowed.end(), {sc.success, mapped});
                EXPECT_TRUE(std::find(allowed.begin(), allowed.end(), rc) != allowed.end())
                    << zeltest::fault::name(fn) << " #" << n << " answering " << result << " gave " << rc;
                // A look-up that fails before anything is written leaves the directory as it was.
                if (fn == Fn::Search && n <= clean.checks && rc == mapped) {
                    EXPECT_EQ(writes_made(), 0) << "search #" << n << " failed, yet the call wrote";
                }
            }
        }
    }
}

}  // namespace

void run(const std::string &label, ZelSession *s, const std::vector<Scenario> &scenarios) {
    for (const Scenario &sc : scenarios) {
        SCOPED_TRACE(label + ": " + sc.name);
        const CleanRun clean = clean_run(sc, s);
        ASSERT_EQ(clean.rc, sc.success) << "without a fault";
        sc.arrange(s);
        zeltest::each_allocation_fails(sc.name, sc.success, [&] { return sc.act(s); }, [&] { sc.arrange(s); });
        each_directory_call_fails(sc, s, clean);
        zeltest::fault::reset();
    }
}

}  // namespace torture
