// Failing servers under a session the library connected: the open walks the
// server list until one answers, and a request that fails on the client side
// (server down, time-out, connect error) moves the session to the next
// server, bound again as the same identity.  The adapter re-sends a read on
// the new connection once and never a write; the whole call stays within one
// request time-out plus one connect time-out.  A session on the caller's own
// connection has none of this: the caller owns that connection.
//
// Which servers failed is known to the whole process: a server that refused,
// timed out or dropped a connection is held down for a while (by default the
// request time-out), and opens and reconnects try it only after the others.
// Writes go to the first server of the list that is not held down, so that
// writers who list the same server first write to one server only.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/wiped_bytes.h"
#include "ZelClient.h"
#include "zelmgmt.h"

namespace zel {

class Failover final : public platform::Recovery {
public:
    // `servers` as the open's host list names them; empty: the located server.
    Failover(ZelSession *s, std::vector<std::string> servers, uint16_t port, int32_t flags, const char *keyring,
             const char *cert_label);
    Failover(const Failover &) = delete;
    Failover &operator=(const Failover &) = delete;
    ~Failover() = default;

    size_t server_count() const { return servers_.empty() ? 1 : servers_.size(); }
    // The servers in the order to try them: those not held down in list
    // order, then the held-down ones.
    std::vector<size_t> order() const;
    // Connects s->ld to server i as connect_to_LDAP does; while the open is
    // still binding, a failure on the client side is only noted (lost()).
    ZelRC connect(size_t i, const char *keyring_pw);
    bool lost() const { return lost_; }
    const char *server(size_t i) const { return servers_.empty() ? "the located server" : servers_[i].c_str(); }
    // Tells the process that server i failed on the client side, or answered.
    void failed(size_t i);
    void answered(size_t i);
    // Upgrades `ld`, a new connection to server i, with StartTLS when the
    // open asked for it and the server's entry is not ldaps://.  A classic
    // result.
    int secure(LDAP *ld, size_t i) const;

    // From a successful bind on: a client-side failure reconnects, and the
    // new connection binds as `bind_dn` with `password` (both null: no bind)
    // or, for GSSAPI, from the caller's ticket cache, as the same identity.
    void bound(const char *bind_dn, const char *password, bool gssapi);

    // How often the session moved to another connection: a paged search
    // started before a move restarts from its first page.
    unsigned moves() const { return moves_; }

    LDAP *prepare(LDAP *ld, platform::Request kind, platform::Deadline deadline, int &refusal) override;
    LDAP *recover(LDAP *failed, int classic_rc, platform::Deadline deadline, int &refusal) override;
    bool passes(LDAP *ld, platform::Request kind) const override;

private:
    enum class Bind { None, Simple, Gssapi };
    // A new handle on server i, not connected yet; null when it cannot be made.
    LDAP *handle_for(size_t i);
    // A new bound handle on server i within `deadline`, or null; s->ld is
    // left as it was.  A GSSAPI bind as someone else sets `refusal`.
    LDAP *reach(size_t i, platform::Deadline deadline, int &refusal);
    // Some server of order() reached within `deadline`, first not `skip`.
    LDAP *reach_any(platform::Deadline deadline, size_t skip, int &refusal);
    // Puts `fresh` (on server i) in place of s->ld, which is dropped.
    void switch_to(LDAP *fresh, size_t i, bool reset);
    // After the failures that leave no server: s->ld becomes an unconnected
    // handle, and the next request connects first.
    void stand_down(LDAP *failed);
    // Keeps the handle that passes (see platform::Recovery) in step with the
    // state: called after every change of armed_, refused_, disconnected_ or
    // the session's handle.
    void settle();
    std::string key(size_t i) const;

    ZelSession *s_;
    std::vector<std::string> servers_;
    uint16_t port_;
    int32_t flags_;
    std::string keyring_, cert_label_;
    bool has_keyring_, has_cert_label_;
    size_t current_ = 0;
    bool armed_ = false;
    bool lost_ = false;
    bool disconnected_ = false;   // s->ld is an unconnected stand-in
    bool refused_ = false;        // a re-bind named someone else: the session is done
    unsigned moves_ = 0;
    Bind bind_ = Bind::None;
    std::string bind_dn_;
    std::string identity_;        // the server's name for a GSSAPI session
    std::unique_ptr<platform::WipedBytes> password_;   // with its NUL
    int protocol_version_ = LDAP_VERSION3;
};

// The connect and request time-outs of a new connection: Zel_setTimeouts,
// else ZEL_NETWORK_TIMEOUT / ZEL_TIMEOUT, else the client's configuration,
// else 5 and 30 seconds.  1005 when a variable is not a whole number of
// seconds.
ZelRC apply_timeouts(ZelSession *s);

// How long a failed server is held down: Zel_setHoldDown, else
// ZEL_HOLD_DOWN, else `request_seconds` (the failed connection's request
// time-out).  0: failures are not remembered.
int hold_down_seconds(int request_seconds);
// Forgets every failure remembered so far.
void forget_failures();

// The open's connection: the first server of `host` that answers, bound as
// the caller asked (user null and no GSSAPI: no bind).
ZelRC connect_and_bind(ZelSession *s, const char *host, uint16_t port, int32_t flags, const char *keyring,
                       const char *keyring_pw, const char *cert_label, const char *user, const char *password,
                       const ZelBindCredentials *credentials, char **bind_dn);

}  // namespace zel
