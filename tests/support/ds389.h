// A private 389 Directory Server for a test: one instance on a free
// loopback port, every file in a temporary folder, the zelmgmt schema in the
// server's own form, one backend for the suffix (its entry is left to the
// caller).  Started by the constructor, stopped (by its own pid) by the
// destructor.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/directory.h"

namespace zeltest {

class Ds389 {
public:
    explicit Ds389(std::string suffix = "o=acme");
    ~Ds389();
    Ds389(const Ds389 &) = delete;
    Ds389 &operator=(const Ds389 &) = delete;

    uint16_t port() const { return port_; }
    std::string uri() const;
    const std::string &suffix() const { return suffix_; }
    static const char *admin_dn() { return "cn=Directory Manager"; }
    static const char *admin_password() { return "Manager-389"; }

    // A file holding a password (no newline) for the tools' -y option, so
    // that no password shows on a command line.
    std::string password_file(const std::string &password) const;

    // ldapmodify (with add = true: ldapadd) as the directory manager.
    CommandResult modify(const std::string &ldif, bool add = false) const;
    // ldapsearch bound as bind_dn with password (anonymous when bind_dn is
    // empty); attrs empty means all user attributes.
    CommandResult search_as(const std::string &bind_dn, const std::string &password,
                            const std::string &base, const std::string &filter,
                            const std::vector<std::string> &attrs = {}) const;
    // The entries below base as the directory manager sees them.
    std::vector<Entry> search(const std::string &base, const std::string &filter = "(objectClass=*)",
                              const std::vector<std::string> &attrs = {}) const;

private:
    void write_config();
    void start();
    void add_backend();
    void stop();  // also removes every file

    std::string suffix_;
    std::string dir_, config_dir_;
    uint16_t port_ = 0;
    pid_t pid_ = -1;
};

}  // namespace zeltest
