// How long failing over takes on a replicated pair: an open whose first
// server refuses or hangs, the next open of the same process (which knows
// that server failed), and a query of a live session whose server hangs.
// A hang costs the request time-out (set to 1 s here) by design; the figure
// past it is the library's own.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "support/pair.h"
#include "zelmgmt.h"

namespace {

using Clock = std::chrono::steady_clock;
using zeltest::ReplicatedPair;

constexpr int kTimeoutSeconds = 1;
constexpr int kRounds = 5;

double ms_since(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

ZelSession *open_on(const std::string &hosts) {
    ZelSession *s = nullptr;
    ZelRC rc = Zel_open_sec_domain(nullptr, ReplicatedPair::admin_dn(), ReplicatedPair::admin_password(), hosts.c_str(),
                                   0, ZEL_OPEN_NONSSL, nullptr, nullptr, nullptr, "Default", &s, 2);
    if (rc != 0) std::fprintf(stderr, "failover_bench: open failed with %u\n", rc);
    return s;
}

// A read that reaches the directory: the answer (no such user) does not matter.
void query(ZelSession *s) {
    ZelCredentialRequest req{nullptr, nullptr, const_cast<char *>("app")};
    ZelCredential c{};
    Zel_getCredential(s, "nobody", &req, &c);
}

void report(const char *what, std::vector<double> ms) {
    std::sort(ms.begin(), ms.end());
    std::printf("  %-34s %8.1f ms  (min %.1f, max %.1f)\n", what, ms[ms.size() / 2], ms.front(), ms.back());
}

}  // namespace

int main() {
    Zel_setTimeouts(kTimeoutSeconds, kTimeoutSeconds);
    ReplicatedPair pair;
    std::vector<double> refused, hung, second, live;
    for (int round = 0; round < kRounds; ++round) {
        pair.stop(1);
        auto start = Clock::now();
        ZelSession *s = open_on(pair.hosts());
        refused.push_back(ms_since(start));
        if (s) Zel_close(s, 1);
        pair.heal();

        Zel_setHoldDown(-1);   // each round starts with nothing remembered
        pair.hang(1);
        start = Clock::now();
        s = open_on(pair.hosts());
        hung.push_back(ms_since(start));
        if (s) Zel_close(s, 1);
        start = Clock::now();
        s = open_on(pair.hosts());
        second.push_back(ms_since(start));
        if (s) Zel_close(s, 1);
        pair.heal();
        Zel_setHoldDown(-1);

        s = open_on(pair.hosts());
        if (!s) return 1;
        query(s);
        pair.hang(1);
        start = Clock::now();
        query(s);
        live.push_back(ms_since(start));
        pair.heal();
        Zel_close(s, 1);
    }
    std::printf("failover on a replicated pair (request and connect time-outs %d s; median of %d):\n",
                kTimeoutSeconds, kRounds);
    report("open, first server refuses", refused);
    report("open, first server hangs", hung);
    report("second open, first server hung", second);
    report("live query, server hangs", live);
    return 0;
}
