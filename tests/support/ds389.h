// A private 389 Directory Server for a test: one instance on a free
// loopback port, every file in a temporary folder, the zelmgmt schema in the
// server's own form, one backend for the suffix (its entry is left to the
// caller).  Started by the constructor; a test can hang it, kill it and start
// it again on the same port and data; the destructor kills it (by its own
// pid) and removes every file.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "support/peers_fixture.h"

namespace zeltest {

class Ds389 : public PeerTools {
public:
    explicit Ds389(std::string suffix = "o=acme");
    ~Ds389();
    Ds389(const Ds389 &) = delete;
    Ds389 &operator=(const Ds389 &) = delete;

    uint16_t port() const { return port_; }
    std::string uri() const { return "ldap://127.0.0.1:" + std::to_string(port_); }
    const std::string &suffix() const { return suffix_; }
    static const char *admin_dn() { return "cn=Directory Manager"; }
    static const char *admin_password() { return "Manager-389"; }

    void hang();
    void resume();
    // SIGKILL: instant (a clean stop takes seconds), and the server starts
    // again cleanly.
    void kill();
    // Starts it unless it runs; waits until it listens.
    void start();

private:
    void write_config();
    void add_backend();

    std::string suffix_;
    std::string dir_, config_dir_;
    uint16_t port_ = 0;
    pid_t pid_ = -1;
};

}  // namespace zeltest
