// A handle's time-outs and the deadline of a request.  See ldap_client.h.
#include "platform/ldap_client_internal.h"

#include <chrono>
#include <optional>
#include <utility>

namespace zel::platform {

namespace {

// A handle's time-out, or nullopt when it has none.
std::optional<std::chrono::microseconds> timeout_of(LDAP *ld, int option) {
    struct timeval *tv = nullptr;
    if (::ldap_get_option(ld, option, &tv) != LDAP_OPT_SUCCESS || tv == nullptr) return std::nullopt;
    std::optional<std::chrono::microseconds> limit;
    if (tv->tv_sec >= 0) limit = std::chrono::seconds(tv->tv_sec) + std::chrono::microseconds(tv->tv_usec);
    ::ldap_memfree(tv);
    return limit;
}

void set_timeout(LDAP *ld, int option, std::optional<std::chrono::microseconds> limit) {
    if (!limit) {
        ::ldap_set_option(ld, option, nullptr);
        return;
    }
    struct timeval tv = {static_cast<time_t>(limit->count() / 1000000),
                         static_cast<suseconds_t>(limit->count() % 1000000)};
    ::ldap_set_option(ld, option, &tv);
}

}  // namespace

std::optional<std::chrono::microseconds> ldap_get_timeout(LDAP *ld, bool request) {
    return timeout_of(ld, request ? LDAP_OPT_TIMEOUT : LDAP_OPT_NETWORK_TIMEOUT);
}

KeptTimeouts::KeptTimeouts(LDAP *ld)
    : ld_(ld), network_(timeout_of(ld, LDAP_OPT_NETWORK_TIMEOUT)), request_(timeout_of(ld, LDAP_OPT_TIMEOUT)) {}

KeptTimeouts::~KeptTimeouts() {
    set_timeout(ld_, LDAP_OPT_NETWORK_TIMEOUT, network_);
    set_timeout(ld_, LDAP_OPT_TIMEOUT, request_);
}

Deadline request_deadline(LDAP *ld) { return request_deadline(ld, std::chrono::steady_clock::now()); }

Deadline request_deadline(LDAP *ld, std::chrono::steady_clock::time_point sent) {
    auto request = timeout_of(ld, LDAP_OPT_TIMEOUT);
    if (!request) return Deadline::max();
    // Without a connect limit, a reconnect gets as long as a request.
    auto network = timeout_of(ld, LDAP_OPT_NETWORK_TIMEOUT);
    return sent + *request + (network ? *network : *request);
}

bool limit_to_deadline(LDAP *ld, Deadline deadline) {
    if (deadline == Deadline::max()) return true;
    auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    for (int option : {LDAP_OPT_NETWORK_TIMEOUT, LDAP_OPT_TIMEOUT}) {
        auto limit = timeout_of(ld, option);
        if (!limit || *limit > left) set_timeout(ld, option, left);
    }
    return true;
}

int ldap_set_timeouts(LDAP *ld, int network_seconds, int request_seconds) {
    if (ld == nullptr) return kParamError;
    const std::pair<int, int> limits[] = {{LDAP_OPT_NETWORK_TIMEOUT, network_seconds},
                                          {LDAP_OPT_TIMEOUT, request_seconds}};
    for (const auto &[option, seconds] : limits) {
        if (seconds < 0) continue;
        // No limit is "no time-out structure": a zero one would mean "do not wait".
        struct timeval tv = {seconds, 0};
        int rc = ::ldap_set_option(ld, option, seconds == 0 ? nullptr : &tv);
        if (rc != LDAP_OPT_SUCCESS) return classic_result(rc);
    }
    return LDAP_SUCCESS;
}

void configured_timeouts(bool &network, bool &request) {
    struct timeval *tv = nullptr;
    network = ::ldap_get_option(nullptr, LDAP_OPT_NETWORK_TIMEOUT, &tv) == LDAP_OPT_SUCCESS && tv != nullptr;
    ::ldap_memfree(tv);
    tv = nullptr;
    request = ::ldap_get_option(nullptr, LDAP_OPT_TIMEOUT, &tv) == LDAP_OPT_SUCCESS && tv != nullptr;
    ::ldap_memfree(tv);
}

}  // namespace zel::platform
