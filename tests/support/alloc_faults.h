// Proves a call survives every allocation failure.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <new>

#include "support/fault_injection.h"
#include "zelmgmt.h"

namespace zeltest {

// Runs call with the nth allocation (C or C++) failing, n = 1, 2, ... until a run no
// longer meets the fault.  Every run that met it must answer 1012 (call
// checks that nothing was handed out and releases what was); after_failure
// puts the directory back for the next round.  The run without a fault must
// answer `success`.  The sanitizer build catches anything leaked on the way.
inline void each_allocation_fails(const char *what, ZelRC success, const std::function<ZelRC()> &call,
                                  const std::function<void()> &after_failure = [] {}) {
    for (long n = 1; n < 2000; ++n) {
        fault::fail_allocation(n);
        ZelRC rc = 0;
        try {
            rc = call();
        } catch (const std::bad_alloc &) {
            fault::fail_allocation(0);
            ADD_FAILURE() << what << ": allocation " << n << " failed in the test's own code, not the library's";
            return;
        }
        bool fired = fault::allocation_failed();
        fault::fail_allocation(0);
        if (!fired) {
            EXPECT_EQ(rc, success) << what << " without a fault";
            EXPECT_GT(n, 1) << what << " allocates nothing?";
            return;
        }
        EXPECT_EQ(rc, ZEL_RC_NO_MEMORY) << what << ": allocation " << n;
        after_failure();
    }
    ADD_FAILURE() << what << " never completed";
}

}  // namespace zeltest
