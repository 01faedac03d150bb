// Two slapd replicating each other (multi-provider: syncprov and a
// refreshAndPersist consumer each way) on loopback ports in a temporary
// folder, with the Zel schema, the suffix o=acme and its security domain.
// Server 1 is seeded offline; server 2 starts empty and pulls.  A test can
// hang a server (SIGSTOP: connections are still accepted, nothing answers),
// resume it, stop it and start it again on the same port and data.  Each
// server also serves ldaps:// on a port of its own and StartTLS on its
// plain port, with a certificate of the test CA (test_tls_files()).
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <cstdint>
#include <string>

#include "support/directory.h"

namespace zeltest {

// Two servers replicating each other, as the failover steps drive them:
// numbered 1 and 2, on loopback ports, each of which can hang, resume, stop
// and start again on the same port and data.
class ServerPair {
public:
    virtual ~ServerPair() = default;
    virtual uint16_t port(int n) const = 0;
    std::string uri(int n) const { return "ldap://127.0.0.1:" + std::to_string(port(n)); }
    // "127.0.0.1:P1 127.0.0.1:P2": the host argument of an open.
    std::string hosts() const {
        return "127.0.0.1:" + std::to_string(port(1)) + " 127.0.0.1:" + std::to_string(port(2));
    }
    virtual void hang(int n) = 0;    // SIGSTOP: connections are accepted, nothing answers
    virtual void resume(int n) = 0;
    virtual void stop(int n) = 0;    // gone, until start(n)
    virtual void start(int n) = 0;   // waits until it listens
    // Both servers running and answering again, whatever a test did.
    virtual void heal() = 0;
};

// A server process of a test, signalled by its pid: each returns once the
// signal has taken effect; end() also reaps it and clears the pid.
void hang_process(pid_t pid);
void resume_process(pid_t pid);

class ReplicatedPair : public ServerPair {
public:
    explicit ReplicatedPair(const std::string &seed_ldif = "");
    ~ReplicatedPair() override;
    ReplicatedPair(const ReplicatedPair &) = delete;
    ReplicatedPair &operator=(const ReplicatedPair &) = delete;

    static const char *suffix() { return "o=acme"; }
    static const char *admin_dn() { return "cn=Manager,o=acme"; }
    static const char *admin_password() { return "secret"; }

    uint16_t port(int n) const override { return ports_[n - 1]; }
    uint16_t tls_port(int n) const { return tls_ports_[n - 1]; }
    std::string tls_uri(int n) const { return "ldaps://127.0.0.1:" + std::to_string(tls_port(n)); }

    void hang(int n) override { hang_process(pids_[n - 1]); }
    void resume(int n) override { resume_process(pids_[n - 1]); }
    void stop(int n) override { end_process(pids_[n - 1], SIGTERM); }
    void start(int n) override;
    void heal() override;
    // Waits until server n holds dn (true) or `seconds` pass (false).
    bool wait_for(int n, const std::string &dn, int seconds = 10) const;

private:
    void write_config(int n);
    std::string dir_;
    uint16_t ports_[2] = {0, 0};
    uint16_t tls_ports_[2] = {0, 0};
    pid_t pids_[2] = {-1, -1};
};

}  // namespace zeltest
