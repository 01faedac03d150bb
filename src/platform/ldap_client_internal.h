// What the files of the directory-client adapter (ldap_*.cpp) share among
// themselves.  The library includes ldap_client.h, never this.
#pragma once

#include "platform/ldap_client.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>

namespace zel::platform {

constexpr int kParamError = 89;   // classic LDAP_PARAM_ERROR
constexpr int kNoMemory = 90;     // classic LDAP_NO_MEMORY
constexpr int kServerDown = 81;   // classic LDAP_SERVER_DOWN
constexpr int kTimeout = 85;      // classic LDAP_TIMEOUT
constexpr int kConnectError = 91; // classic LDAP_CONNECT_ERROR

// Connection handle for a classic host argument (see ldap_init), never
// chasing referrals; null when the host is malformed or OpenLDAP refuses it.
LDAP *open_handle(const char *host, int port, bool ssl);

// Has every connection of the handle send without raising SIGPIPE; false
// when libldap refuses the connection hook.
bool send_without_sigpipe(LDAP *ld);

// Frees what OpenLDAP allocated, whatever path leaves the scope.
struct LdapText {
    char *text = nullptr;
    ~LdapText() { ::ldap_memfree(text); }
};

// A parsed URL, freed whatever path leaves the scope.
struct UrlDesc {
    LDAPURLDesc *desc = nullptr;
    ~UrlDesc() {
        if (desc != nullptr) ::ldap_free_urldesc(desc);
    }
};

// What the calling thread last found attached to a handle: good while the
// registry's generation is still the one it was found under.  Every
// request asks, so the answer it asked for last is kept at hand.
struct RecoveryHint {
    LDAP *ld;
    Recovery *recovery;
    uint64_t generation;
};
extern __thread RecoveryHint t_recovery_hint;
extern std::atomic<uint64_t> recovery_generation;   // counts attaches and detaches
// The registry's answer for `ld`, kept as the thread's hint.
Recovery *look_up_recovery(LDAP *ld);

// The recovery attached to a handle, or null.
inline Recovery *recovery_of(LDAP *ld) {
    const RecoveryHint &hint = t_recovery_hint;
    if (hint.ld == ld && hint.generation == recovery_generation.load(std::memory_order_acquire))
        return hint.recovery;
    return look_up_recovery(ld);
}

inline bool lost_connection(int classic_rc) {
    // Classic numbers: OpenLDAP's own names for these stand for negative codes.
    return classic_rc == kServerDown || classic_rc == kTimeout || classic_rc == kConnectError;
}

// The attempts of one request on a handle that may have a recovery
// attached: the handle the recovery chooses and, when the request failed on
// the client side, the new handle the recovery connected (a read is sent
// once more there, within what is left of the request's deadline).
//
//   Attempts attempts(ld, Request::Read);
//   int rc = 0;
//   for (LDAP *h = attempts.first(rc); h != nullptr; h = attempts.next(rc, res))
//       rc = send(h);
//
// No closure holds the request: the arguments stay where the caller has
// them, and a healthy handle costs a lookup, a clock read and one check.
class Attempts {
public:
    Attempts(LDAP *ld, Request kind) : ld_(ld), kind_(kind) {}
    Attempts(const Attempts &) = delete;
    Attempts &operator=(const Attempts &) = delete;

    // The handle to send on first, or null when the recovery refuses the
    // request (`rc` then holds the classic result it answers).
    LDAP *first(int &rc) {
        recovery_ = recovery_of(ld_);
        if (recovery_ == nullptr) return ld_;
        // The deadline counts from now; the handle's time-outs are read only
        // when a reconnect needs them.
        sent_ = std::chrono::steady_clock::now();
        timed_ = resent_ = false;
        if (recovery_->passes_now(ld_, kind_)) return use_ = ld_;
        return prepared(rc);
    }
    // After an attempt that answered `rc`: the handle to send on once more,
    // or null when `rc` (which a refusal may replace) is the answer.  A
    // search's earlier result (`*drop`, when given) is freed before a resend.
    LDAP *next(int &rc, LDAPMessage **drop = nullptr) {
        if (!lost_connection(rc) || recovery_ == nullptr) return nullptr;
        return recovered(rc, drop);
    }

private:
    LDAP *prepared(int &rc);
    LDAP *recovered(int &rc, LDAPMessage **drop);

    // Only ld_, kind_ and recovery_ count without a recovery; the rest is
    // set by first() when there is one.
    LDAP *ld_;
    Request kind_;
    bool timed_;    // deadline_ is worked out: only the recovery needs it
    bool resent_;
    Recovery *recovery_ = nullptr;
    LDAP *use_;     // where the first attempt went
    std::chrono::steady_clock::time_point sent_;
    Deadline deadline_;
    std::optional<KeptTimeouts> kept_;   // the resend's handle, put back as it was
};

// Runs call(handle) as Attempts describes: a write or a bind is never sent
// twice.
template <class Call>
int write_with_recovery(LDAP *ld, Call &&call) {
    Attempts attempts(ld, Request::Write);
    int rc = 0;
    for (LDAP *handle = attempts.first(rc); handle != nullptr; handle = attempts.next(rc)) rc = call(handle);
    return rc;
}

template <class Call>
int bind_with_recovery(LDAP *ld, Call &&call) {
    Attempts attempts(ld, Request::Bind);
    int rc = 0;
    for (LDAP *handle = attempts.first(rc); handle != nullptr; handle = attempts.next(rc)) rc = call(handle);
    return rc;
}

}  // namespace zel::platform
