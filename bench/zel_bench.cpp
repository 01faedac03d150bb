// The library's read paths against the same searches issued raw, on a
// directory a driver script has bulk-loaded and started (see run_bench.sh).
//
//   zel_bench key <file>                          a new key file, for ZEL_KEYFILE
//   zel_bench ldif <users>                        LDIF of the directory, for slapadd (passwords
//                                                 sealed under ZEL_KEYFILE's key, as a write stores them)
//   zel_bench people <users>                      the same before any Zel user (import_bench.sh)
//   zel_bench document <users>                    an import document of those users and records
//   zel_bench run <port> <users> <csv> [rounds]   timings table, rows appended to csv
//   zel_bench growth <port> <users> <port> <users> <csv> [rounds]
//                                                 per-call time in the second directory against the
//                                                 first, both up at once, rows appended to csv
//   zel_bench instr <port> <users> <op> lib|raw <calls>
//                                                 calls for callgrind (bench_measured_*)
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <unistd.h>

#include "delay_proxy.h"
#include "operations.h"

using namespace zelbench;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kSamples = 50;
constexpr int kThreads = 8;
// The 8-thread rates: rounds of this many calls per thread and side.
constexpr int kCallsPerThread = 100;
constexpr int kRateRounds = 15;
constexpr int kWrites = 300;

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

[[noreturn]] void fail(const std::string &why) {
    std::fprintf(stderr, "zel_bench: %s\n", why.c_str());
    std::exit(1);
}

// One operation's replays, recorded from a library call per sample.
struct Prepared {
    std::vector<Replay> replays;
    double searches_per_call = 0;
};

Prepared prepare(ZelSession *s, int op, const std::vector<Sample> &xs, bool show = false) {
    Prepared p;
    long before = searches_made();
    for (const Sample &x : xs) {
        start_recording();
        if (!call_library(s, op, x)) fail(std::string(operations()[op].name) + " failed for " + x.user);
        std::vector<Search> made = stop_recording();
        if (show && &x == &xs.front())
            for (const Search &m : made)
                std::fprintf(stderr, "  %s: base \"%s\" scope %d filter %s size limit %d\n", operations()[op].name,
                             m.base.c_str(), m.scope, m.filter.c_str(), m.sizelimit);
        p.replays.emplace_back(std::move(made), operations()[op].answers_password);
    }
    p.searches_per_call = static_cast<double>(searches_made() - before) / static_cast<double>(xs.size());
    return p;
}

}  // namespace

extern "C" {
// Kept out of line: callgrind counts what runs inside these two.
__attribute__((noinline)) int bench_measured_lib(ZelSession *s, int op, const Sample *xs, int n, int calls) {
    int failed = 0;
    for (int i = 0; i < calls; ++i) failed += !call_library(s, op, xs[i % n]);
    return failed;
}
__attribute__((noinline)) int bench_measured_raw(LDAP *ld, const Replay *rs, int n, int calls) {
    int failed = 0;
    for (int i = 0; i < calls; ++i) failed += !rs[i % n].run(ld);
    return failed;
}
}

namespace {

// A ratio's verdict stands on the median of its per-round ratios: "ok" or
// "MISSED" only when the median's 95% band (distribution-free, from the
// rounds' order statistics) lies wholly on one side of the target.  Calls
// alternate between the sides, so a slower machine slows both alike and
// leaves the ratio; what is left of the noise shows as a wider band.  The
// second side's own spread over the rounds is shown beside it: how steady
// the machine ran, which the per-call times (not the verdicts) depend on.
//
// No verdict when other processes, or the host of a virtual machine, took
// more than this share of one CPU while a row was timed.
constexpr double kNoisyOthers = 0.10;

struct Row {
    std::string op;
    double lib_us, raw_us, ratio, ratio_min, ratio_max, searches;
    int required;
    double band_lo = 0, band_hi = 0;  // the median ratio's 95% band
    double spread = 0;  // of the second side's per-round times: how steady the machine ran
    double others = 0;  // share of a CPU other processes used meanwhile
    double steal = 0;   // share of a CPU the virtual machine's host held back
    bool busy() const { return others + steal > kNoisyOthers; }
};

int busy_rows = 0, unsure_rows = 0;
double most_steal = 0;  // the highest steal share of a busy row
// A round lasts at least this long per side: shorter ones are at the mercy
// of a single interruption.
constexpr double kRoundSeconds = 0.1;

// CPU time of the whole machine and of this program and the directory
// servers (ZEL_BENCH_SERVER_PID, their process ids separated by spaces), in
// clock ticks, from /proc.
struct CpuTimes {
    long long machine = -1, ours = 0, steal = 0;
};

long long process_ticks(const std::string &pid) {
    std::ifstream in("/proc/" + pid + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t close = text.rfind(')');
    if (close == std::string::npos) return 0;
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    long long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14) utime = std::atoll(field.c_str());
        if (i == 15) stime = std::atoll(field.c_str());
    }
    return utime + stime;
}

CpuTimes cpu_times() {
    CpuTimes t;
    std::ifstream in("/proc/stat");
    std::string cpu;
    long long user, nice, system, idle, iowait, irq, softirq, steal;  // ticks of all CPUs
    if (in >> cpu >> user >> nice >> system >> idle >> iowait >> irq >> softirq >> steal && cpu == "cpu") {
        t.machine = user + nice + system + steal;  // interrupts: mostly this program's own traffic
        t.steal = steal;
    }
    t.ours = process_ticks("self");
    if (const char *servers = std::getenv("ZEL_BENCH_SERVER_PID")) {
        std::istringstream pids(servers);
        for (std::string pid; pids >> pid;) t.ours += process_ticks(pid);
    }
    return t;
}

// The shares of one CPU that other processes, and the host of a virtual
// machine, took since `before`; 0 where /proc cannot tell.  Steal time is
// time the CPUs were ready to run and the host gave it to someone else.
void others_share(const CpuTimes &before, Clock::time_point since, Row &row) {
    CpuTimes now = cpu_times();
    double wall = seconds_since(since);
    if (before.machine < 0 || now.machine < 0 || wall <= 0) return;
    double per_cpu_second = static_cast<double>(sysconf(_SC_CLK_TCK)) * wall;
    double steal = static_cast<double>(now.steal - before.steal);
    double others = static_cast<double>((now.machine - before.machine) - (now.ours - before.ours)) - steal;
    row.others = others > 0 ? others / per_cpu_second : 0;
    row.steal = steal > 0 ? steal / per_cpu_second : 0;
}

// The 95% band of the median of `v`'s distribution: between the k-th
// smallest and the k-th largest value, k the largest count for which fewer
// than k of n values fall below the median with a chance of at most 2.5%
// (binomial, p = 1/2).  With 30 rounds: the 10th to the 21st.
std::pair<double, double> median_band(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    if (n == 0) return {0, 0};
    double term = std::pow(0.5, static_cast<double>(n)), below = 0;  // P(X = j), P(X < k)
    size_t k = 0;
    while (k < n / 2 && below + term <= 0.025) {
        below += term;
        ++k;
        term = term * static_cast<double>(n - k + 1) / static_cast<double>(k);
    }
    // Fewer than k values below the median, or above it, with at most 2.5%
    // chance each: the band runs from the k-th smallest to the k-th largest.
    if (k == 0) return {v.front(), v.back()};
    return {v[k - 1], v[n - k]};
}

double spread_of(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    size_t n = v.size();
    if (n < 2) return 0;
    double lo = v[n / 10], hi = v[n - 1 - n / 10];
    return (hi - lo) / median(v);
}

// A row from its rounds: the two sides' medians, the rounds' ratios (median,
// range, band), the second side's spread, and the machine's other load
// since `began`.
Row summed_up(const std::string &what, const std::vector<double> &first, const std::vector<double> &second,
              const std::vector<double> &ratios, const CpuTimes &before, Clock::time_point began) {
    Row row{what, median(first), median(second), median(ratios), *std::min_element(ratios.begin(), ratios.end()),
            *std::max_element(ratios.begin(), ratios.end()), 0, 0};
    std::tie(row.band_lo, row.band_hi) = median_band(ratios);
    row.spread = spread_of(second);
    others_share(before, began, row);
    if (row.busy()) most_steal = std::max(most_steal, row.steal);
    return row;
}

// Two sides timed in rounds of passes over the samples, one call per sample
// and side: `call(first, i)` makes sample i's call of the first side (or the
// second) and answers whether it failed.  A round makes as many passes as
// last at least kRoundSeconds, judged by an untimed one.  The row holds the
// medians and the spread of the per-round ratios; `sides` name the two in a
// failure.
template <class Call>
Row interleaved(int n, int rounds, Call &&call, const std::string &what, const char *const (&sides)[2]) {
    auto pass = [&](int r, double &t_first, double &t_second, int calls) {
        // Call by call, the side that goes first alternating: a burst of load
        // on the machine falls on both sides alike.
        for (int i = 0; i < n; ++i) {
            for (int side = 0; side < 2; ++side) {
                bool is_first = (side == 0) == ((r + i) % 2 == 0);
                Clock::time_point start = Clock::now();
                bool failed = call(is_first, i);
                (is_first ? t_first : t_second) += seconds_since(start) * 1e6 / calls;
                if (failed) fail(what + ": " + sides[is_first ? 0 : 1] + " call failed");
            }
        }
    };
    double probe_first = 0, probe_second = 0;
    Clock::time_point probe = Clock::now();
    pass(0, probe_first, probe_second, n);
    int passes = std::max(1, static_cast<int>(kRoundSeconds * 2 / seconds_since(probe) + 0.999));
    std::vector<double> first, second, ratios;
    CpuTimes before = cpu_times();
    Clock::time_point began = Clock::now();
    for (int r = 0; r < rounds; ++r) {
        double t_first = 0, t_second = 0;
        for (int p = 0; p < passes; ++p) pass(r + p, t_first, t_second, n * passes);
        first.push_back(t_first);
        second.push_back(t_second);
        ratios.push_back(t_first / t_second);
    }
    // The ratio judged is the rounds' own: each round's two sides ran side by
    // side, where the two sides' medians may come from different rounds.
    return summed_up(what, first, second, ratios, before, began);
}

// Library and raw interleaved.
Row time_reads(ZelSession *s, LDAP *ld, int op, const std::vector<Sample> &xs, int rounds) {
    Prepared p = prepare(s, op, xs, std::getenv("ZEL_BENCH_SHOW") != nullptr);
    int n = static_cast<int>(xs.size());
    // Recording warmed the library's side; one untimed pass warms the raw one.
    if (bench_measured_raw(ld, p.replays.data(), n, n)) fail(std::string(operations()[op].name) + ": raw call failed");
    Row row = interleaved(
        n, rounds,
        [&](bool library, int i) {
            return library ? bench_measured_lib(s, op, xs.data() + i, 1, 1) != 0
                           : bench_measured_raw(ld, p.replays.data() + i, 1, 1) != 0;
        },
        operations()[op].name, {"library", "raw"});
    row.searches = p.searches_per_call;
    row.required = operations()[op].required_searches;
    return row;
}

// credential-direct on a session with the audit trail on (the first side),
// against the same calls on the plain session.
Row time_audit_trail(int port, ZelSession *plain, const std::vector<Sample> &xs, int rounds) {
    char folder[] = "/tmp/zel-bench-audit-XXXXXX";
    if (!mkdtemp(folder)) fail("no folder for the audit trail");
    const std::string trail = std::string(folder) + "/trail";
    setenv("ZEL_AUDIT", trail.c_str(), 1);
    ZelSession *audited = open_session(port);
    unsetenv("ZEL_AUDIT");
    if (!audited) fail("no session");
    int n = static_cast<int>(xs.size());
    if (bench_measured_lib(audited, 0, xs.data(), n, n)) fail("credential-direct with the trail on failed");
    Row row = interleaved(
        n, rounds,
        [&](bool trailed, int i) { return bench_measured_lib(trailed ? audited : plain, 0, xs.data() + i, 1, 1) != 0; },
        "credential-direct-audit", {"trailed", "plain"});
    Zel_close(audited, 1);
    unlink(trail.c_str());
    rmdir(folder);
    return row;
}

// Calls per second of kThreads threads, each on its own session (the
// library) or connection (raw), in rounds that alternate the two sides, so
// that a machine whose speed changes meets both alike.  The row's ratio is
// the median of the rounds' library/raw rates; lib_us and raw_us hold the
// two sides' median rates.
Row throughput(int port, const std::vector<Sample> &xs) {
    // Sessions, connections and replays are made before the clock starts.
    std::vector<ZelSession *> sessions(kThreads, nullptr);
    std::vector<LDAP *> raws(kThreads, nullptr);
    std::vector<std::vector<Replay>> replays(kThreads);
    ZelSession *recorder = open_session(port);
    if (!recorder) fail("no session");
    for (int t = 0; t < kThreads; ++t) {
        if (!(sessions[t] = open_session(port))) fail("no session");
        if (!(raws[t] = open_raw(port))) fail("no raw connection");
        replays[t] = prepare(recorder, 0, xs).replays;
    }
    Zel_close(recorder, 1);
    const int n = static_cast<int>(xs.size());
    auto rate = [&](bool library) {
        std::vector<std::thread> threads;
        std::vector<int> failed(kThreads, 0);
        Clock::time_point start = Clock::now();
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([&, t] {
                failed[t] = library ? bench_measured_lib(sessions[t], 0, xs.data(), n, kCallsPerThread)
                                    : bench_measured_raw(raws[t], replays[t].data(), n, kCallsPerThread);
            });
        for (std::thread &th : threads) th.join();
        for (int f : failed)
            if (f) fail("a threaded call failed");
        return kThreads * kCallsPerThread / seconds_since(start);
    };
    rate(true);  // untimed: every connection warm
    rate(false);
    std::vector<double> lib, raw, ratios;
    CpuTimes before = cpu_times();
    Clock::time_point began = Clock::now();
    for (int r = 0; r < kRateRounds; ++r) {
        double first = rate(r % 2 == 0), second = rate(r % 2 != 0);
        lib.push_back(r % 2 == 0 ? first : second);
        raw.push_back(r % 2 == 0 ? second : first);
        ratios.push_back(lib.back() / raw.back());
    }
    Row row = summed_up("threads", lib, raw, ratios, before, began);
    for (int t = 0; t < kThreads; ++t) {
        Zel_close(sessions[t], 1);
        ldap_unbind_ext(raws[t], nullptr, nullptr);
    }
    return row;
}

// Zel_addTargetRecord per second: each user gets a record for the service
// after its own.
double writes_per_second(ZelSession *s, const Layout &layout) {
    int count = std::min(kWrites, layout.users);
    Clock::time_point start = Clock::now();
    for (int u = 0; u < count; ++u) {
        std::string user = user_name(u), id = "T:" + service_name((layout.direct_service(u) + 1) % layout.services());
        ZelTargetRecord r{};
        r.targetRecordId = id.data();
        r.targetServiceName = id.data() + 2;
        r.userId = user.data();
        r.password = const_cast<char *>("bench-pw");
        if (ZelRC rc = Zel_addTargetRecord(s, user.c_str(), &r)) fail("Zel_addTargetRecord: " + std::to_string(rc));
    }
    return count / seconds_since(start);
}

// A timed row's verdict: none ("busy") when the machine was too busy to
// judge, "ok" or "MISSED" when the median's band lies wholly on one side of
// the target, none ("unsure") when it holds the target.  Counted for the
// run's last word.
const char *mark(const Row &r, bool band_meets, bool band_misses) {
    if (r.busy()) {
        ++busy_rows;
        return "busy";
    }
    if (band_meets) return "ok";
    if (band_misses) return "MISSED";
    ++unsure_rows;
    return "unsure";
}
const char *at_most(double target, const Row &r) { return mark(r, r.band_hi <= target, r.band_lo > target); }
const char *at_least(double target, const Row &r) { return mark(r, r.band_lo >= target, r.band_hi < target); }

// Microseconds per call of one credential operation over the samples, and
// the searches each call sent.
std::pair<double, double> per_call(ZelSession *s, int op, const std::vector<Sample> &xs, int passes) {
    int n = static_cast<int>(xs.size());
    if (bench_measured_lib(s, op, xs.data(), n, n)) fail(std::string(operations()[op].name) + " failed");  // warm
    long before = searches_made();
    Clock::time_point start = Clock::now();
    if (bench_measured_lib(s, op, xs.data(), n, n * passes)) fail(std::string(operations()[op].name) + " failed");
    double calls = static_cast<double>(n) * passes;
    return {seconds_since(start) * 1e6 / calls, static_cast<double>(searches_made() - before) / calls};
}

// The credential queries on each path: step by step (ZEL_CREDENTIAL_PATH),
// merged, and merged with a warm user cache; on loopback and through a
// relay that holds each message 1 ms each way, as a network would.
void credential_paths(int port, const Layout &layout, const std::vector<Sample> &xs, std::ofstream &out) {
    struct Path {
        const char *name;
        bool stepwise;
        uint32_t ttl;
    } paths[] = {{"stepwise", true, 0}, {"merged", false, 0}, {"cached", false, 3600}};
    DelayProxy relay(port, 1000);
    std::printf("%-9s %-18s %9s %9s %16s\n", "path", "operation", "searches", "us/call", "us/call +1ms/way");
    for (const Path &p : paths) {
        if (p.stepwise)
            setenv("ZEL_CREDENTIAL_PATH", "stepwise", 1);
        else
            unsetenv("ZEL_CREDENTIAL_PATH");
        ZelSession *local = open_session(port), *remote = open_session(relay.port());
        if (!local || !remote) fail("cannot reach the directory");
        if (Zel_setSessionCacheTTL(local, p.ttl) || Zel_setSessionCacheTTL(remote, p.ttl)) fail("cache");
        for (int op = 0; op < 3; ++op) {
            auto [us, searches] = per_call(local, op, xs, 4);
            auto [relayed_us, relayed_searches] = per_call(remote, op, xs, 1);
            (void)relayed_searches;
            std::printf("%-9s %-18s %9.2f %9.1f %16.1f\n", p.name, operations()[op].name, searches, us, relayed_us);
            out << layout.users << ',' << operations()[op].name << '/' << p.name << ',' << us << ',' << relayed_us
                << ",,,," << searches << ",\n";
        }
        Zel_close(local, 1);
        Zel_close(remote, 1);
    }
    unsetenv("ZEL_CREDENTIAL_PATH");
}

// Untimed calls of every operation on both sides for about a second, so the
// first row does not pay for a cold machine (clock speed, caches, the
// server's pages).
void warm_up(ZelSession *s, LDAP *ld, const std::vector<Sample> &xs) {
    int n = static_cast<int>(xs.size());
    std::vector<Prepared> prepared;
    for (size_t op = 0; op < operations().size(); ++op) prepared.push_back(prepare(s, static_cast<int>(op), xs));
    Clock::time_point start = Clock::now();
    while (seconds_since(start) < 1.0)
        for (size_t op = 0; op < operations().size(); ++op)
            if (bench_measured_lib(s, static_cast<int>(op), xs.data(), n, n) ||
                bench_measured_raw(ld, prepared[op].replays.data(), n, n))
                fail(std::string(operations()[op].name) + ": a warming call failed");
}

// The run's last word on the verdicts it withheld, and its exit status: 3
// when it withheld any.
int last_word() {
    if (busy_rows > 0)
        std::printf("No verdict in %d row%s: other processes and the host (steal) took more than %.0f%% of a CPU "
                    "while timed.\n",
                    busy_rows, busy_rows == 1 ? "" : "s", kNoisyOthers * 100);
    // Steal time is the host's doing: nothing stopped on this machine
    // quiets it, so say so rather than have the run repeated in vain.
    if (most_steal > kNoisyOthers / 2)
        std::printf("The host of this virtual machine held its CPUs back for up to %.0f%% of one CPU (steal time): "
                    "stopping processes here will not help; run on a machine whose CPUs are its own.\n",
                    most_steal * 100);
    if (unsure_rows > 0)
        std::printf("No verdict in %d row%s: the median ratio's 95%% band holds the target; more rounds "
                    "(ZEL_BENCH_ROUNDS) narrow it.\n",
                    unsure_rows, unsure_rows == 1 ? "" : "s");
    return busy_rows || unsure_rows ? 3 : 0;
}

int run(int port, const Layout &layout, const char *csv, int rounds) {
    ZelSession *s = open_session(port);
    LDAP *ld = open_raw(port);
    if (!s || !ld) fail("cannot reach the directory");
    std::vector<Sample> xs = samples(layout, kSamples);
    std::ofstream out(csv, std::ios::app);
    warm_up(s, ld, xs);
    std::printf("\n%d users, %d rounds of at least %.0f ms per side, passes over %d samples\n", layout.users, rounds,
                kRoundSeconds * 1000, kSamples);
    std::printf("%-18s %9s %9s %9s %7s %13s %13s %7s %7s %6s %7s\n", "operation", "searches", "required",
                "lib us", "raw us", "ratio (band)", "(min-max)", "spread", "others", "steal", "<=1.05");
    for (size_t op = 0; op < operations().size(); ++op) {
        Row r = time_reads(s, ld, static_cast<int>(op), xs, rounds);
        std::printf("%-18s %9.2f %9d %9.1f %7.1f %5.3f (%.2f-%.2f) (%.2f-%.2f) %6.1f%% %6.0f%% %5.0f%% %7s\n",
                    r.op.c_str(), r.searches, r.required, r.lib_us, r.raw_us, r.ratio, r.band_lo, r.band_hi,
                    r.ratio_min, r.ratio_max, r.spread * 100, r.others * 100, r.steal * 100, at_most(1.05, r));
        out << layout.users << ',' << r.op << ',' << r.lib_us << ',' << r.raw_us << ',' << r.ratio << ','
            << r.ratio_min << ',' << r.ratio_max << ',' << r.searches << ',' << r.required << ',' << r.band_lo << ','
            << r.band_hi << ',' << r.spread << ',' << r.busy() << '\n';
    }
    credential_paths(port, layout, xs, out);
    Row a = time_audit_trail(port, s, xs, rounds);
    std::printf("credential-direct, audit trail on %.1f us, off %.1f us: ratio %.3f (band %.2f-%.2f, min-max "
                "%.2f-%.2f) spread %.1f%% (<=1.15 %s)\n",
                a.lib_us, a.raw_us, a.ratio, a.band_lo, a.band_hi, a.ratio_min, a.ratio_max, a.spread * 100,
                at_most(1.15, a));
    out << layout.users << ',' << a.op << ',' << a.lib_us << ',' << a.raw_us << ',' << a.ratio << ',' << a.ratio_min
        << ',' << a.ratio_max << ",,," << a.band_lo << ',' << a.band_hi << ',' << a.spread << ',' << a.busy() << '\n';
    Row t = throughput(port, xs);
    std::printf("%d threads, credential-direct: library %.0f/s, raw %.0f/s, ratio %.3f (band %.2f-%.2f, min-max "
                "%.2f-%.2f) (>=0.9 %s)\n",
                kThreads, t.lib_us, t.raw_us, t.ratio, t.band_lo, t.band_hi, t.ratio_min, t.ratio_max,
                at_least(0.9, t));
    out << layout.users << ",threads-calls-per-s," << t.lib_us << ',' << t.raw_us << ',' << t.ratio << ','
        << t.ratio_min << ',' << t.ratio_max << ",,," << t.band_lo << ',' << t.band_hi << ',' << t.spread << ','
        << t.busy() << '\n';
    double writes = writes_per_second(s, layout);
    std::printf("writes: Zel_addTargetRecord %.0f/s\n", writes);
    out << layout.users << ",writes-per-s," << writes << ",,,,,,\n";
    Zel_close(s, 1);
    ldap_unbind_ext(ld, nullptr, nullptr);
    return last_word();
}

// Per-call time in the large directory against the small one.  Runs made one
// after the other meet the machine at different speeds; here both
// directories are up at once and calls alternate between them, round by
// round, as the library and raw calls do in a timings table, so the growth
// is judged on the rounds' own ratios.  The raw side's growth, beside it, is
// the directory's share.
int growth(int small_port, const Layout &small, int large_port, const Layout &large, const char *csv, int rounds) {
    ZelSession *s_small = open_session(small_port), *s_large = open_session(large_port);
    LDAP *ld_small = open_raw(small_port), *ld_large = open_raw(large_port);
    if (!s_small || !s_large || !ld_small || !ld_large) fail("cannot reach the directories");
    std::vector<Sample> x_small = samples(small, kSamples), x_large = samples(large, kSamples);
    std::ofstream out(csv, std::ios::app);
    warm_up(s_small, ld_small, x_small);
    warm_up(s_large, ld_large, x_large);
    std::printf("\nper-call time %d -> %d users, both directories up at once (%d rounds; target <= 1.2x):\n",
                small.users, large.users, rounds);
    std::printf("%-18s %9s %9s %13s %13s %10s %7s %6s %7s\n", "operation", "small us", "large us", "growth (band)",
                "(min-max)", "raw growth", "others", "steal", "<=1.2");
    const int n = kSamples;
    for (size_t op = 0; op < operations().size(); ++op) {
        const int o = static_cast<int>(op);
        const std::string name = operations()[op].name;
        Prepared p_small = prepare(s_small, o, x_small), p_large = prepare(s_large, o, x_large);
        if (bench_measured_raw(ld_small, p_small.replays.data(), n, n) ||
            bench_measured_raw(ld_large, p_large.replays.data(), n, n))
            fail(name + ": raw call failed");
        Row lib = interleaved(
            n, rounds,
            [&](bool large_side, int i) {
                return large_side ? bench_measured_lib(s_large, o, x_large.data() + i, 1, 1) != 0
                                  : bench_measured_lib(s_small, o, x_small.data() + i, 1, 1) != 0;
            },
            name, {"large directory", "small directory"});
        Row raw = interleaved(
            n, rounds,
            [&](bool large_side, int i) {
                return large_side ? bench_measured_raw(ld_large, p_large.replays.data() + i, 1, 1) != 0
                                  : bench_measured_raw(ld_small, p_small.replays.data() + i, 1, 1) != 0;
            },
            name + " raw", {"large directory", "small directory"});
        std::printf("%-18s %9.1f %9.1f %5.3f (%.2f-%.2f) (%.2f-%.2f) %10.3f %6.0f%% %5.0f%% %7s\n", name.c_str(),
                    lib.raw_us, lib.lib_us, lib.ratio, lib.band_lo, lib.band_hi, lib.ratio_min, lib.ratio_max,
                    raw.ratio, lib.others * 100, lib.steal * 100, at_most(1.2, lib));
        out << large.users << ",growth-from-" << small.users << '/' << name << ',' << lib.lib_us << ','
            << lib.raw_us << ',' << lib.ratio << ',' << lib.ratio_min << ',' << lib.ratio_max << ",,,"
            << lib.band_lo << ',' << lib.band_hi << ',' << lib.spread << ',' << lib.busy() << '\n';
    }
    Zel_close(s_small, 1);
    Zel_close(s_large, 1);
    ldap_unbind_ext(ld_small, nullptr, nullptr);
    ldap_unbind_ext(ld_large, nullptr, nullptr);
    return last_word();
}

int instr(int port, const Layout &layout, const std::string &name, bool library, int calls) {
    int op = -1;
    for (size_t i = 0; i < operations().size(); ++i)
        if (name == operations()[i].name) op = static_cast<int>(i);
    if (op < 0) fail("no operation " + name);
    ZelSession *s = open_session(port);
    LDAP *ld = open_raw(port);
    if (!s || !ld) fail("cannot reach the directory");
    std::vector<Sample> xs = samples(layout, kSamples);
    Prepared p = prepare(s, op, xs, std::getenv("ZEL_BENCH_SHOW") != nullptr);
    const char *in_place = std::getenv("ZEL_BENCH_RAW_IN_PLACE");
    raw_reads_in_place = in_place != nullptr && std::strcmp(in_place, "1") == 0;
    // One untimed pass warms the caches of both paths alike.
    int failed = library ? bench_measured_lib(s, op, xs.data(), kSamples, kSamples)
                         : bench_measured_raw(ld, p.replays.data(), kSamples, kSamples);
    failed += library ? bench_measured_lib(s, op, xs.data(), kSamples, calls)
                      : bench_measured_raw(ld, p.replays.data(), kSamples, calls);
    Zel_close(s, 1);
    ldap_unbind_ext(ld, nullptr, nullptr);
    return failed ? 1 : 0;
}

}  // namespace

int main(int argc, char **argv) {
    std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "key" && argc == 3) {
        make_key_file(argv[2]);
        return 0;
    }
    if (mode == "ldif" && argc == 3) {
        std::ios::sync_with_stdio(false);
        write_directory_ldif(std::cout, Layout{std::atoi(argv[2])});
        return std::cout ? 0 : 1;
    }
    if ((mode == "people" || mode == "document") && argc == 3) {
        std::ios::sync_with_stdio(false);
        Layout layout{std::atoi(argv[2])};
        if (mode == "people") write_people_ldif(std::cout, layout);
        else write_import_document(std::cout, layout);
        return std::cout ? 0 : 1;
    }
    if (mode == "run" && (argc == 5 || argc == 6))
        return run(std::atoi(argv[2]), Layout{std::atoi(argv[3])}, argv[4], argc == 6 ? std::atoi(argv[5]) : 30);
    if (mode == "growth" && (argc == 7 || argc == 8))
        return growth(std::atoi(argv[2]), Layout{std::atoi(argv[3])}, std::atoi(argv[4]), Layout{std::atoi(argv[5])},
                      argv[6], argc == 8 ? std::atoi(argv[7]) : 30);
    if (mode == "instr" && argc == 7)
        return instr(std::atoi(argv[2]), Layout{std::atoi(argv[3])}, argv[4], std::strcmp(argv[5], "lib") == 0,
                     std::atoi(argv[6]));
    std::fprintf(stderr, "usage: see the top of bench/zel_bench.cpp\n");
    return 2;
}
