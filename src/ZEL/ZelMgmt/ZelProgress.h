// Progress of a long-running call, told to the caller's hook
// (Zel_setProgressCallback).  Each report is one call of the hook on the
// caller's thread; with no hook set nothing is reported and nothing extra is
// asked of the directory.
#pragma once

#include "zelmgmt.h"

namespace zel {

// Counts one call's walk for as long as it lives: it reports 0 of a total not
// known yet when it starts.  A run begun inside another one leaves the outer
// count alone.
class ProgressRun {
public:
    explicit ProgressRun(ZelSession *s);
    ~ProgressRun();
    ProgressRun(const ProgressRun &) = delete;
    ProgressRun &operator=(const ProgressRun &) = delete;

    // Somebody listens: work done only to count (a listing) is skipped otherwise.
    bool wanted() const { return owns_; }
    // The entries the walk will visit, once they are listed.
    void set_total(int64_t total);
    // The walk is complete: the last report has done == total, whatever the
    // listing said (entries may come and go meanwhile).
    void finish();

private:
    ZelSession *s_;
    bool owns_;
};

// One more entry done in the run counting on the session, if there is one.
void progress_step(ZelSession *s);

}  // namespace zel
