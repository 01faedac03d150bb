// Two private 389 Directory Servers replicating each other (a supplier
// replica on each, one agreement each way) on loopback ports, with the
// zelmgmt schema and the suffix o=acme (its entry made on server 1 and
// carried over by the first total update).  A test can hang a server, kill
// it, start it again on the same port and data, and cut replication both
// ways to make a partition.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/ds389.h"
#include "support/pair.h"

namespace zeltest {

class Ds389Pair : public ServerPair {
public:
    Ds389Pair();

    static const char *suffix() { return "o=acme"; }
    static const char *admin_dn() { return Ds389::admin_dn(); }
    static const char *admin_password() { return Ds389::admin_password(); }

    Ds389 &server(int n) const { return *servers_[n - 1]; }
    uint16_t port(int n) const override { return server(n).port(); }
    void hang(int n) override { server(n).hang(); }
    void resume(int n) override { server(n).resume(); }
    void stop(int n) override { server(n).kill(); }
    void start(int n) override { server(n).start(); }
    // Both servers running and answering, replication on.
    void heal() override;
    void partition(bool cut);  // replication both ways off (true) or on again

    // A file with the directory manager's password, for the tools' -y.
    const std::string &password_file() const { return password_file_; }
    // Waits until server n answers `filter` below base with `count` entries
    // (true) or `seconds` pass (false).  Subentries (conflict entries) answer
    // when the filter names them.
    bool wait_for(int n, const std::string &base, const std::string &filter, size_t count = 1,
                  int seconds = 10) const;

private:
    std::unique_ptr<Ds389> servers_[2];
    std::string password_file_;
    bool cut_ = false;
};

}  // namespace zeltest
