// A throw-away Kerberos realm for a test: a KDC on a free loopback port, its
// database and every client file in a temporary folder, a keytab for the
// directory's service principal ldap/localhost, and a ticket for one user
// principal in a private credential cache.  The environment points the
// Kerberos library (of this process and of the servers it starts) at these
// files for the life of the object; the KDC is stopped by its own pid.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/env.h"

namespace zeltest {

class KerberosRealm {
public:
    static const char *realm() { return "ZEL.TEST"; }
    // user: the principal's name in the realm; it gets a ticket.
    explicit KerberosRealm(const std::string &user);
    ~KerberosRealm();
    KerberosRealm(const KerberosRealm &) = delete;
    KerberosRealm &operator=(const KerberosRealm &) = delete;

    std::string principal() const { return user_ + "@" + realm(); }
    // Adds the principal `user` and puts its ticket in the credential cache,
    // in place of the first user's (what kinit as someone else does).
    void sign_in_as(const std::string &user);
    // slapd.conf lines that make a directory accept GSSAPI binds from this
    // realm, mapping a principal to the entry below base whose uid is its name.
    // The directory's service principal is ldap/localhost, which clients reach
    // without host name canonicalisation; with machine_name it is ldap/<this
    // machine's name>, the one libldap asks for by default on loopback.
    std::string slapd_config(const std::string &base, bool machine_name = false) const;

private:
    void write_config();
    void run_admin(const std::vector<std::string> &argv, const std::string &input) const;
    void start_kdc();
    void stop();  // also removes every file and restores the environment

    std::string user_, dir_;
    uint16_t port_ = 0;
    pid_t pid_ = -1;
    std::vector<std::unique_ptr<ScopedEnv>> env_;
};

}  // namespace zeltest
