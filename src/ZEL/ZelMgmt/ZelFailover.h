// Failing servers under a session the library connected: the open walks the
// server list until one answers, and a request that fails on the client side
// (server down, time-out, connect error) moves the session to the next
// server, bound again as the same identity.  The adapter re-sends a read on
// the new connection once and never a write.  A session on the caller's own
// connection has none of this: the caller owns that connection.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/wiped_bytes.h"
#include "zel_internal.h"

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
    // Connects s->ld to server i as connect_to_LDAP does; while the open is
    // still binding, a failure on the client side is only noted (lost()).
    ZelRC connect(size_t i, const char *keyring_pw);
    bool lost() const { return lost_; }
    const char *server(size_t i) const { return servers_.empty() ? "the located server" : servers_[i].c_str(); }

    // From a successful bind on: a client-side failure reconnects, and the
    // new connection binds as `bind_dn` with `password` (both null: no bind)
    // or, for GSSAPI, from the caller's ticket cache.
    void bound(const char *bind_dn, const char *password, bool gssapi);

    LDAP *recover(LDAP *failed, int classic_rc) override;

private:
    enum class Bind { None, Simple, Gssapi };
    // A new bound handle on server i, or null; s->ld is left as it was.
    LDAP *reach(size_t i);

    ZelSession *s_;
    std::vector<std::string> servers_;
    uint16_t port_;
    int32_t flags_;
    std::string keyring_, cert_label_;
    bool has_keyring_, has_cert_label_;
    size_t current_ = 0;
    bool armed_ = false;
    bool lost_ = false;
    Bind bind_ = Bind::None;
    std::string bind_dn_;
    std::unique_ptr<platform::WipedBytes> password_;   // with its NUL
    int protocol_version_ = LDAP_VERSION3;
};

// The connect and request time-outs of a new connection: Zel_setTimeouts,
// else ZEL_NETWORK_TIMEOUT / ZEL_TIMEOUT, else the client's configuration,
// else 5 and 30 seconds.  1005 when a variable is not a whole number of
// seconds.
ZelRC apply_timeouts(ZelSession *s);

// The open's connection: the first server of `host` that answers, bound as
// the caller asked (user null and no GSSAPI: no bind).
ZelRC connect_and_bind(ZelSession *s, const char *host, uint16_t port, int32_t flags, const char *keyring,
                       const char *keyring_pw, const char *cert_label, const char *user, const char *password,
                       const ZelBindCredentials *credentials, char **bind_dn);

}  // namespace zel
