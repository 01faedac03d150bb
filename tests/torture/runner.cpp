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

ZelRC clean_run(const Scenario &sc, ZelSession *s, std::map<Fn, int> &made) {
    sc.arrange(s);
    zeltest::fault::reset();
    ZelRC rc = sc.act(s);
    for (Fn fn : {Fn::Search, Fn::Add, Fn::Modify, Fn::ModifyS, Fn::Delete, Fn::SimpleBind})
        made[fn] = std::min(zeltest::fault::count(fn), kCallsPerKind);
    return rc;
}

void each_directory_call_fails(const Scenario &sc, ZelSession *s, const std::map<Fn, int> &made) {
    // Both stand for a whole class: a lost connection and a refusal.
    const std::pair<int, ZelRC> results[] = {{LDAP_SERVER_DOWN, ZEL_RC_DIRECTORY_ERROR},
                                             {LDAP_INSUFFICIENT_ACCESS, ZEL_RC_NOT_AUTHORIZED}};
    for (const auto &[fn, count] : made) {
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
            }
        }
    }
}

}  // namespace

void run(const std::string &label, ZelSession *s, const std::vector<Scenario> &scenarios) {
    for (const Scenario &sc : scenarios) {
        SCOPED_TRACE(label + ": " + sc.name);
        std::map<Fn, int> made;
        ASSERT_EQ(clean_run(sc, s, made), sc.success) << "without a fault";
        sc.arrange(s);
        zeltest::each_allocation_fails(sc.name, sc.success, [&] { return sc.act(s); }, [&] { sc.arrange(s); });
        each_directory_call_fails(sc, s, made);
        zeltest::fault::reset();
    }
}

}  // namespace torture
