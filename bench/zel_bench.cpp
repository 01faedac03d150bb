// The library's read paths against the same searches issued raw, on a
// directory a driver script has bulk-loaded and started (see run_bench.sh).
//
//   zel_bench key <file>                          a new key file, for ZEL_KEYFILE
//   zel_bench ldif <users>                        LDIF of the directory, for slapadd (passwords
//                                                 sealed under ZEL_KEYFILE's key, as a write stores them)
//   zel_bench people <users>                      the same before any Zel user (import_bench.sh)
//   zel_bench document <users>                    an import document of those users and records
//   zel_bench run <port> <users> <csv> [rounds]   timings table, rows appended to csv
//   zel_bench instr <port> <users> <op> lib|raw <calls>
//                                                 calls for callgrind (bench_measured_*)
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include "delay_proxy.h"
#include "operations.h"

using namespace zelbench;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kSamples = 50;
constexpr int kThreads = 8;
constexpr int kCallsPerThread = 1500;
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

// The second side does the same work every round: when its rounds differ by
// more than this (10th to 90th percentile, over the median), the machine was
// busy and no verdict is given.
constexpr double kNoisySpread = 0.10;
// Nor when other processes used more than this share of one CPU while a row
// was timed: a steady load slows both sides alike and leaves the rounds even.
constexpr double kNoisyOthers = 0.10;

struct Row {
    std::string op;
    double lib_us, raw_us, ratio, ratio_min, ratio_max, searches;
    int required;
    double spread = 0;  // of the second side's per-round times: how busy the machine was
    double others = 0;  // share of a CPU other processes used meanwhile
    bool noisy() const { return spread > kNoisySpread || others > kNoisyOthers; }
};

int noisy_rows = 0;
// A round lasts at least this long per side: shorter ones are at the mercy
// of a single interruption.
constexpr double kRoundSeconds = 0.1;

// CPU time of the whole machine and of this program and the directory
// server (ZEL_BENCH_SERVER_PID), in clock ticks, from /proc.
struct CpuTimes {
    long long machine = -1, ours = 0;
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
    if (in >> cpu >> user >> nice >> system >> idle >> iowait >> irq >> softirq >> steal && cpu == "cpu")
        t.machine = user + nice + system + steal;  // interrupts: mostly this program's own traffic
    t.ours = process_ticks("self");
    if (const char *server = std::getenv("ZEL_BENCH_SERVER_PID")) t.ours += process_ticks(server);
    return t;
}

// The share of one CPU the rest of the machine used since `before`; 0 where
// /proc cannot tell.
double others_share(const CpuTimes &before, Clock::time_point since) {
    CpuTimes now = cpu_times();
    double wall = seconds_since(since);
    if (before.machine < 0 || now.machine < 0 || wall <= 0) return 0;
    double others = static_cast<double>((now.machine - before.machine) - (now.ours - before.ours));
    return others > 0 ? others / static_cast<double>(sysconf(_SC_CLK_TCK)) / wall : 0;
}

double spread_of(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    size_t n = v.size();
    if (n < 2) return 0;
    double lo = v[n / 10], hi = v[n - 1 - n / 10];
    return (hi - lo) / median(v);
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
    double a = median(first), b = median(second);
    Row row{what, a, b, a / b, *std::min_element(ratios.begin(), ratios.end()),
            *std::max_element(ratios.begin(), ratios.end()), 0, 0};
    row.spread = spread_of(second);
    row.others = others_share(before, began);
    if (row.noisy()) ++noisy_rows;
    return row;
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

// Calls per second of kThreads threads, each on its own session or connection.
double throughput(int port, bool library, const std::vector<Sample> &xs) {
    std::vector<std::thread> threads;
    std::vector<int> failed(kThreads, 0);
    // Sessions, connections and replays are made before the clock starts.
    std::vector<ZelSession *> sessions(kThreads, nullptr);
    std::vector<LDAP *> raws(kThreads, nullptr);
    std::vector<std::vector<Replay>> replays(kThreads);
    ZelSession *recorder = open_session(port);
    if (!recorder) fail("no session");
    for (int t = 0; t < kThreads; ++t) {
        if (library && !(sessions[t] = open_session(port))) fail("no session");
        if (!library && !(raws[t] = open_raw(port))) fail("no raw connection");
        if (!library) replays[t] = prepare(recorder, 0, xs).replays;
    }
    Zel_close(recorder, 1);
    int n = static_cast<int>(xs.size());
    Clock::time_point start = Clock::now();
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            failed[t] = library ? bench_measured_lib(sessions[t], 0, xs.data(), n, kCallsPerThread)
                                : bench_measured_raw(raws[t], replays[t].data(), n, kCallsPerThread);
        });
    for (std::thread &th : threads) th.join();
    double rate = kThreads * kCallsPerThread / seconds_since(start);
    for (int t = 0; t < kThreads; ++t) {
        if (sessions[t]) Zel_close(sessions[t], 1);
        if (raws[t]) ldap_unbind_ext(raws[t], nullptr, nullptr);
        if (failed[t]) fail("a threaded call failed");
    }
    return rate;
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

const char *mark(bool met) { return met ? "ok" : "MISSED"; }
// A timed row's verdict, or none when the machine was too busy to judge.
const char *mark(bool met, const Row &r) { return r.noisy() ? "busy" : mark(met); }

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

int run(int port, const Layout &layout, const char *csv, int rounds) {
    ZelSession *s = open_session(port);
    LDAP *ld = open_raw(port);
    if (!s || !ld) fail("cannot reach the directory");
    std::vector<Sample> xs = samples(layout, kSamples);
    std::ofstream out(csv, std::ios::app);
    warm_up(s, ld, xs);
    std::printf("\n%d users, %d rounds of at least %.0f ms per side, passes over %d samples\n", layout.users, rounds,
                kRoundSeconds * 1000, kSamples);
    std::printf("%-18s %9s %9s %9s %7s %13s %7s %7s %7s\n", "operation", "searches", "required", "lib us", "raw us",
                "ratio (min-max)", "spread", "others", "<=1.05");
    for (size_t op = 0; op < operations().size(); ++op) {
        Row r = time_reads(s, ld, static_cast<int>(op), xs, rounds);
        std::printf("%-18s %9.2f %9d %9.1f %7.1f %5.3f (%.2f-%.2f) %6.1f%% %6.0f%% %7s\n", r.op.c_str(), r.searches,
                    r.required, r.lib_us, r.raw_us, r.ratio, r.ratio_min, r.ratio_max, r.spread * 100,
                    r.others * 100, mark(r.ratio <= 1.05, r));
        out << layout.users << ',' << r.op << ',' << r.lib_us << ',' << r.raw_us << ',' << r.ratio << ','
            << r.ratio_min << ',' << r.ratio_max << ',' << r.searches << ',' << r.required << '\n';
    }
    credential_paths(port, layout, xs, out);
    Row a = time_audit_trail(port, s, xs, rounds);
    std::printf("credential-direct, audit trail on %.1f us, off %.1f us: ratio %.3f (%.2f-%.2f) spread %.1f%% "
                "(<=1.15 %s)\n",
                a.lib_us, a.raw_us, a.ratio, a.ratio_min, a.ratio_max, a.spread * 100, mark(a.ratio <= 1.15, a));
    out << layout.users << ',' << a.op << ',' << a.lib_us << ',' << a.raw_us << ',' << a.ratio << ',' << a.ratio_min
        << ',' << a.ratio_max << ",,\n";
    double lib_rate = throughput(port, true, xs), raw_rate = throughput(port, false, xs);
    std::printf("%d threads, credential-direct: library %.0f/s, raw %.0f/s, ratio %.3f (>=0.9 %s)\n", kThreads,
                lib_rate, raw_rate, lib_rate / raw_rate, noisy_rows ? "busy" : mark(lib_rate / raw_rate >= 0.9));
    out << layout.users << ",threads-calls-per-s," << lib_rate << ',' << raw_rate << ',' << lib_rate / raw_rate
        << ",,,,\n";
    double writes = writes_per_second(s, layout);
    std::printf("writes: Zel_addTargetRecord %.0f/s\n", writes);
    out << layout.users << ",writes-per-s," << writes << ",,,,,,\n";
    Zel_close(s, 1);
    ldap_unbind_ext(ld, nullptr, nullptr);
    if (noisy_rows > 0) {
        std::printf("The machine was busy: in %d rows the raw side's rounds spread more than %.0f%%, or other "
                    "processes used more than %.0f%% of a CPU. These timings give no verdict; run again on a quiet "
                    "machine.\n",
                    noisy_rows, kNoisySpread * 100, kNoisyOthers * 100);
        return 3;
    }
    return 0;
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
    if (mode == "instr" && argc == 7)
        return instr(std::atoi(argv[2]), Layout{std::atoi(argv[3])}, argv[4], std::strcmp(argv[5], "lib") == 0,
                     std::atoi(argv[6]));
    std::fprintf(stderr, "usage: see the top of bench/zel_bench.cpp\n");
    return 2;
}
