// One runner that puts a public call through every failure it can meet:
// each allocation in turn, and each directory call of each kind in turn
// answering "server down" or a refusal.  A faulted run must answer a status
// the call documents, hand nothing out, and (sanitizer build) leak nothing.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "support/directory.h"
#include "zelmgmt.h"

namespace torture {

struct Scenario {
    const char *name;
    // Brings the tree back to where the call starts; must not depend on a
    // previous run having succeeded.
    std::function<void(ZelSession *)> arrange;
    // The call itself; it checks that a failure handed nothing out.
    std::function<ZelRC(ZelSession *)> act;
    // Statuses a failed look-up may legitimately turn into besides the
    // mapped directory status (e.g. "not found" once a search failed).
    std::vector<ZelRC> also = {};
    ZelRC success = 0;  // what the call answers without a fault
};

// Runs every scenario against one session; `label` names the family.
void run(const std::string &label, ZelSession *s, const std::vector<Scenario> &scenarios);

// `*out` must be null after a failure and usable after success; it is
// released either way.  The out pointer is preset to a stale value so a call
// that forgets to clear it is caught.
template <class T, class Free>
ZelRC handed_out(ZelRC rc, T **where, Free release) {
    T *out = *where;
    if (rc != 0 && out != nullptr) {
        ADD_FAILURE() << "status " << rc << " yet something was handed out";
        return rc;  // not ours to release: it may be the stale value
    }
    if (rc == 0 && out == nullptr) ADD_FAILURE() << "success without a result";
    release(out);
    return rc;
}
template <class T>
T *stale() {
    return reinterpret_cast<T *>(static_cast<uintptr_t>(0x10));
}

}  // namespace torture
