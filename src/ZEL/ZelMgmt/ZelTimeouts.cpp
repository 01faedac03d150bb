// The time-outs every connection the library makes is given.
#include <atomic>
#include <cstdlib>

#include "ZelFailover.h"
#include "ZelClient.h"
#include "ZelSession.h"
#include "ZelTrace.h"

namespace {

constexpr int kUnset = -1;
constexpr int kMalformed = -2;
constexpr int kDefaultNetworkSeconds = 5;
constexpr int kDefaultRequestSeconds = 30;
constexpr int32_t kMaxSeconds = 1000000;   // about 11 days: past any useful limit

// Set by Zel_setTimeouts for every later connection; kUnset leaves the choice
// to the environment.
std::atomic<int> g_network_seconds{kUnset};
std::atomic<int> g_request_seconds{kUnset};
std::atomic<int> g_hold_down_seconds{kUnset};

// Whole seconds as digits only: no sign, blank or unit.
int seconds_from_environment(const char *name) {
    const char *text = std::getenv(name);
    if (text == nullptr) return kUnset;
    if (*text == '\0') return kMalformed;
    long value = 0;
    for (const char *p = text; *p; ++p) {
        if (*p < '0' || *p > '9') return kMalformed;
        value = value * 10 + (*p - '0');
        if (value > kMaxSeconds) return kMalformed;
    }
    return static_cast<int>(value);
}

// The caller's setting, else the environment's, else none when the client's
// configuration has one (kUnset leaves the handle as it made it), else the
// library's default.
int choose(const std::atomic<int> &set, const char *variable, bool configured, int fallback) {
    int seconds = set.load();
    if (seconds == kUnset) seconds = seconds_from_environment(variable);
    if (seconds == kUnset) seconds = configured ? kUnset : fallback;
    return seconds;
}

}  // namespace

namespace zel {

ZelRC apply_timeouts(ZelSession *s) {
    bool configured_network = false, configured_request = false;
    platform::configured_timeouts(configured_network, configured_request);
    int network = choose(g_network_seconds, "ZEL_NETWORK_TIMEOUT", configured_network, kDefaultNetworkSeconds);
    int request = choose(g_request_seconds, "ZEL_TIMEOUT", configured_request, kDefaultRequestSeconds);
    if (network == kMalformed || request == kMalformed) {
        trace_line(s, kTraceFailures, "zelmgmt:ZEL_TIMEOUT and ZEL_NETWORK_TIMEOUT take whole seconds.");
        return ZEL_RC_INVALID_ARGUMENT;
    }
    return platform::ldap_set_timeouts(s->ld, network, request) == LDAP_SUCCESS ? 0 : ZEL_RC_SET_OPTION_FAILED;
}

int hold_down_seconds(int request_seconds) {
    int seconds = g_hold_down_seconds.load();
    if (seconds == kUnset) seconds = seconds_from_environment("ZEL_HOLD_DOWN");
    // A malformed variable is not worth failing a request over: the default.
    if (seconds < 0) seconds = request_seconds;
    return seconds;
}

}  // namespace zel

extern "C" {

ZEL_API ZelRC Zel_setTimeouts(int32_t networkSeconds, int32_t requestSeconds) {
    if (networkSeconds < kUnset || networkSeconds > kMaxSeconds || requestSeconds < kUnset ||
        requestSeconds > kMaxSeconds)
        return ZEL_RC_INVALID_ARGUMENT;
    g_network_seconds = networkSeconds;
    g_request_seconds = requestSeconds;
    return 0;
}

ZEL_API ZelRC Zel_setHoldDown(int32_t seconds) {
    if (seconds < kUnset || seconds > kMaxSeconds) return ZEL_RC_INVALID_ARGUMENT;
    g_hold_down_seconds = seconds;
    zel::forget_failures();
    return 0;
}

}  // extern "C"
