#include "support/ds389_pair.h"

#include <chrono>
#include <stdexcept>
#include <thread>

namespace zeltest {
namespace {

const char *const kManager = "cn=replication manager,cn=config";
const char *const kManagerPassword = "Repl-389-pw";

std::string agreement_dn(int n) {
    return "cn=to-s" + std::to_string(3 - n) + ",cn=replica,cn=\"" + Ds389Pair::suffix() + "\",cn=mapping tree,cn=config";
}

void must(const CommandResult &r, const std::string &what) {
    if (r.status != 0) throw std::runtime_error(what + " failed: " + r.err + r.out);
}

}  // namespace

// Managers and replicas on both servers before any agreement: an agreement
// starts at once, and one made before its peer has a manager waits a second
// to try again.
Ds389Pair::Ds389Pair() {
    for (auto &s : servers_) s = std::make_unique<Ds389>(suffix());
    password_file_ = server(1).password_file(admin_password());
    must(server(1).modify(suffix_entry_ldif(suffix()), true), "the suffix entry");
    for (int n = 1; n <= 2; ++n)
        must(server(n).modify(std::string("dn: ") + kManager + "\nobjectClass: top\nobjectClass: netscapeServer\n"
                                  "objectClass: nsAccount\ncn: replication manager\nuserPassword: " + kManagerPassword +
                                  "\n\ndn: cn=replica,cn=\"" + suffix() + "\",cn=mapping tree,cn=config\n"
                                  "objectClass: top\nobjectClass: nsds5Replica\ncn: replica\nnsDS5ReplicaRoot: " +
                                  suffix() + "\nnsDS5ReplicaId: " + std::to_string(n) +
                                  "\nnsDS5ReplicaType: 3\nnsDS5Flags: 1\nnsDS5ReplicaBindDN: " + kManager + "\n",
                              true),
             "the replica of server " + std::to_string(n));
    // Agreements that wait 5 ms instead of 100 for the peer's answers:
    // changes made back to back reach it in milliseconds.
    for (int n = 1; n <= 2; ++n)
        must(server(n).modify("dn: " + agreement_dn(n) + "\nobjectClass: top\nobjectClass: nsds5replicationagreement\n"
                                  "cn: to-s" + std::to_string(3 - n) + "\nnsDS5ReplicaRoot: " + suffix() +
                                  "\nnsDS5ReplicaHost: 127.0.0.1\nnsDS5ReplicaPort: " + std::to_string(port(3 - n)) +
                                  "\nnsDS5ReplicaTransportInfo: LDAP\nnsDS5ReplicaBindMethod: SIMPLE\n"
                                  "nsDS5ReplicaBindDN: " + kManager + "\nnsDS5ReplicaCredentials: " + kManagerPassword +
                                  "\nnsds5ReplicaWaitForAsyncResults: 5\n",
                              true),
             "the agreement of server " + std::to_string(n));
    // Server 2 gets the suffix by a total update from server 1.
    must(server(1).modify("dn: " + agreement_dn(1) + "\nchangetype: modify\nreplace: nsds5BeginReplicaRefresh\n"
                          "nsds5BeginReplicaRefresh: start\n"),
         "starting the total update");
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    for (;;) {
        const std::vector<Entry> a = server(1).search(agreement_dn(1), "(objectClass=*)",
                                                      {"nsds5BeginReplicaRefresh", "nsds5ReplicaLastInitStatus"});
        const std::string status = a.empty() ? "" : a.front().first("nsds5ReplicaLastInitStatus");
        if (!a.empty() && !a.front().has("nsds5BeginReplicaRefresh")) {
            if (status.find("Total update succeeded") != std::string::npos) break;
            if (status.find("rror") != std::string::npos || status.find("ail") != std::string::npos)
                throw std::runtime_error("the total update failed: " + status);
        }
        if (std::chrono::steady_clock::now() > deadline) throw std::runtime_error("the total update: " + status);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (!wait_for(2, suffix(), "(objectClass=organization)")) throw std::runtime_error("the suffix is not on server 2");
}

void Ds389Pair::heal() {
    for (int n = 1; n <= 2; ++n) {
        resume(n);
        start(n);  // a running server is left as it is
    }
    if (cut_) partition(false);
}

void Ds389Pair::partition(bool cut) {
    for (int n = 1; n <= 2; ++n)
        must(server(n).modify("dn: " + agreement_dn(n) + "\nchangetype: modify\nreplace: nsds5ReplicaEnabled\n"
                              "nsds5ReplicaEnabled: " + (cut ? "off" : "on") + "\n"),
             "switching replication");
    cut_ = cut;
}

bool Ds389Pair::wait_for(int n, const std::string &base, const std::string &filter, size_t count, int seconds) const {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    for (;;) {
        if (server(n).search(base, filter, {"1.1"}).size() == count) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

}  // namespace zeltest
