// Two private 389 Directory Servers replicating each other (a supplier
// replica on each, one agreement each way) on loopback ports, every file in a
// temporary folder, with the zelmgmt schema and the suffix o=acme (its entry
// made on server 1 and carried over by the first total update).  Built by
// ds389_pair.sh beside this file; a test can hang a server (SIGSTOP), kill
// it, start it again on the same port and data, and cut replication both
// ways to make a partition.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/directory.h"

namespace zeltest {

class Ds389Pair {
public:
    Ds389Pair();
    ~Ds389Pair();
    Ds389Pair(const Ds389Pair &) = delete;
    Ds389Pair &operator=(const Ds389Pair &) = delete;

    static const char *suffix() { return "o=acme"; }
    static const char *admin_dn() { return "cn=Directory Manager"; }
    static const char *admin_password() { return "Manager-389"; }

    // Servers are numbered 1 and 2.
    uint16_t port(int n) const { return ports_[n - 1]; }
    std::string uri(int n) const { return "ldap://127.0.0.1:" + std::to_string(port(n)); }
    // "127.0.0.1:P1 127.0.0.1:P2": the host argument of an open.
    std::string hosts() const;

    void hang(int n);
    void resume(int n);
    void kill(int n);   // SIGKILL: instant, and the server restarts cleanly
    void start(int n);  // waits until it answers
    // Both servers running and answering, replication on, whatever a test did.
    void heal();
    void partition(bool cut);  // replication both ways off (true) or on again

    // A file with the directory manager's password, for the tools' -y.
    const std::string &password_file() const { return password_file_; }
    // ldapmodify as the directory manager on server n.
    CommandResult modify(int n, const std::string &ldif) const;
    // Entries below base on server n, subentries (conflict entries) included
    // when the filter names them.
    std::vector<Entry> search(int n, const std::string &base, const std::string &filter,
                              const std::vector<std::string> &attrs = {"1.1"}) const;
    // Waits until server n answers `filter` below base with `count` entries
    // (true) or `seconds` pass (false).
    bool wait_for(int n, const std::string &base, const std::string &filter, size_t count = 1,
                  int seconds = 10) const;

private:
    CommandResult script(const std::vector<std::string> &args) const;
    std::string dir_, password_file_;
    uint16_t ports_[2] = {0, 0};
    bool cut_ = false;
};

}  // namespace zeltest
