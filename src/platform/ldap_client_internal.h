// What the files of the directory-client adapter (ldap_*.cpp) share among
// themselves.  The library includes ldap_client.h, never this.
#pragma once

#include "platform/ldap_client.h"

#include <chrono>

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

// The recovery attached to a handle, or null.
Recovery *recovery_of(LDAP *ld);

// Runs call(handle) on the handle the recovery chooses and, when it failed
// on the client side, lets the recovery connect again; a read is sent once
// more on the new handle, within what is left of the call's deadline.
// `before_resend` drops what the failed attempt left.
template <class Call, class Drop>
int with_recovery(LDAP *ld, Request kind, Call &&call, Drop &&before_resend) {
    Recovery *recovery = recovery_of(ld);
    if (recovery == nullptr) return call(ld);
    // The deadline counts from now; the handle's time-outs are read only
    // when a reconnect needs them.
    const auto sent = std::chrono::steady_clock::now();
    LDAP *use = ld;
    Deadline deadline = Deadline::max();
    int refusal = kServerDown;
    const bool passes = recovery->passes(ld, kind);
    if (!passes) {
        deadline = request_deadline(ld, sent);
        if ((use = recovery->prepare(ld, kind, deadline, refusal)) == nullptr) return refusal;
    }
    int rc = call(use);
    if (!connection_lost(rc)) return rc;
    if (passes) deadline = request_deadline(ld, sent);
    refusal = 0;
    LDAP *fresh = recovery->recover(use, rc, deadline, refusal);   // `use` may be gone from here on
    if (refusal != 0) return refusal;
    if (fresh == nullptr || kind != Request::Read) return rc;
    before_resend();
    KeptTimeouts kept(fresh);
    if (!limit_to_deadline(fresh, deadline)) return rc;
    return call(fresh);
}

template <class Call>
int write_with_recovery(LDAP *ld, Call &&call) {
    return with_recovery(ld, Request::Write, call, [] {});
}

template <class Call>
int bind_with_recovery(LDAP *ld, Call &&call) {
    return with_recovery(ld, Request::Bind, call, [] {});
}

}  // namespace zel::platform
