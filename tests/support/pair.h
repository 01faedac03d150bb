// Two slapd replicating each other (multi-provider: syncprov and a
// refreshAndPersist consumer each way) on loopback ports in a temporary
// folder, with the Zel schema, the suffix o=acme and its security domain.
// Server 1 is seeded offline; server 2 starts empty and pulls.  A test can
// hang a server (SIGSTOP: connections are still accepted, nothing answers),
// resume it, stop it and start it again on the same port and data.  Each
// server also serves ldaps:// on a port of its own and StartTLS on its
// plain port, with a certificate of the test CA (test_tls_files()).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace zeltest {

class ReplicatedPair {
public:
    explicit ReplicatedPair(const std::string &seed_ldif = "");
    ~ReplicatedPair();
    ReplicatedPair(const ReplicatedPair &) = delete;
    ReplicatedPair &operator=(const ReplicatedPair &) = delete;

    static const char *suffix() { return "o=acme"; }
    static const char *admin_dn() { return "cn=Manager,o=acme"; }
    static const char *admin_password() { return "secret"; }

    // Servers are numbered 1 and 2.
    uint16_t port(int n) const { return ports_[n - 1]; }
    std::string uri(int n) const;
    uint16_t tls_port(int n) const { return tls_ports_[n - 1]; }
    std::string tls_uri(int n) const;
    // "127.0.0.1:P1 127.0.0.1:P2": the host argument of an open.
    std::string hosts() const;

    void hang(int n);
    void resume(int n);
    void stop(int n);    // SIGTERM, waits for the exit
    void start(int n);   // waits until it listens
    // Both servers running and answering again, whatever a test did.
    void heal();
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
