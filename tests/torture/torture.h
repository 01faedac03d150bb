// One runner that puts a public call through every failure it can meet:
// each allocation in turn, and each directory call of each kind in turn
// answering "server down" or a refusal.  A faulted run must answer a status
// the call documents, hand nothing out, and (sanitizer build) leak nothing;
// a failed look-up ahead of the first write must stop the call writing.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "zelmgmt.h"

namespace torture {

using Step = std::function<void(ZelSession *)>;
using Act = std::function<ZelRC(ZelSession *)>;

struct Scenario {
    const char *name;
    Step arrange;  // brings the tree to where the call starts, whatever the last run did
    Act act;       // the call; it checks that a failure handed nothing out
    // Documented statuses a failed look-up may turn into besides the mapped
    // one, e.g. "not found".
    std::vector<ZelRC> also = {};
    ZelRC success = 0;
};

// Runs every scenario against one session; `label` names the family.
void run(const std::string &label, ZelSession *s, const std::vector<Scenario> &scenarios);

// A call handing out one record through `T **`: preset to a stale pointer,
// it must be null after a failure; it is released after success.
template <class T, class Get, class Release>
Act hands_out(Get get, Release release) {
    return [=](ZelSession *s) {
        T *out = reinterpret_cast<T *>(uintptr_t{0x10});
        ZelRC rc = get(s, &out);
        if (rc != 0 && out != nullptr) ADD_FAILURE() << "status " << rc << " yet something was handed out";
        if (rc == 0) release(out);
        return rc;
    };
}

}  // namespace torture
