#include "support/pair.h"

#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "support/directory.h"

namespace zeltest {

namespace {

// slapd's consumer takes its client defaults from ldap.conf unless told not to.
const std::map<std::string, std::string> kNoClientConfig = {{"LDAPNOINIT", "1"}};

std::string domain_ldif() {
    return std::string("dn: secAuthority=Default,") + ReplicatedPair::suffix() +
           "\nobjectClass: secAuthorityInfo\nsecAuthority: Default\nversion: 5\n\n";
}

}  // namespace

ReplicatedPair::ReplicatedPair(const std::string &seed_ldif) {
    dir_ = make_temp_dir("pair");
    const std::vector<uint16_t> ports = free_ports(4);
    std::copy(ports.begin(), ports.begin() + 2, ports_);
    std::copy(ports.begin() + 2, ports.end(), tls_ports_);
    write_config(1);
    write_config(2);
    // Offline seeding with server id 1 and contextCSN: server 2 then pulls
    // everything at its first refresh instead of waiting for a retry.
    CommandResult seeded = run_command(
        {"slapadd", "-f", dir_ + "/s1/slapd.conf", "-S", "1", "-w", "-q"},
        suffix_entry_ldif(suffix()) + domain_ldif() + seed_ldif, kNoClientConfig);
    if (seeded.status != 0) throw std::runtime_error("slapadd failed: " + seeded.err);
    start(1);
    start(2);
    if (!wait_for(2, suffix(), 15)) throw std::runtime_error("the suffix did not reach server 2");
}

ReplicatedPair::~ReplicatedPair() {
    for (pid_t &pid : pids_) end_process(pid, SIGKILL);   // the data is thrown away
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
}

void ReplicatedPair::write_config(int n) {
    const std::string src = ZEL_SOURCE_DIR;
    const std::string d = dir_ + "/s" + std::to_string(n);
    std::filesystem::create_directories(d + "/db");
    const TlsFiles tls = test_tls_files();
    std::ostringstream conf;
    conf << server_config_head(d) << "moduleload syncprov\n"
         << "TLSCACertificateFile " << tls.ca << "\nTLSCertificateFile " << tls.cert
         << "\nTLSCertificateKeyFile " << tls.key << "\n"
         << "serverID " << n << "\n"
         << "access to * by dn.exact=\"" << admin_dn() << "\" manage by * read\n"
         << "database mdb\nsuffix \"" << suffix() << "\"\n"
         << "rootdn \"" << admin_dn() << "\"\nrootpw " << admin_password() << "\n"
         << "directory " << d << "/db\nmaxsize 33554432\n"
         << "include " << src << "/schema/zel-indexes.conf\n"
         << "index entryCSN,entryUUID eq\n"
         // retry every second for ever (the default is once an hour); no
         // timeout=, which makes a stop wait for the consumer that long.
         << "syncrepl rid=00" << 3 - n << " provider=" << uri(3 - n) << " bindmethod=simple binddn=\""
         << admin_dn() << "\" credentials=" << admin_password() << " searchbase=\"" << suffix()
         << "\" type=refreshAndPersist retry=\"1 +\" network-timeout=2\n"
         << "multiprovider on\noverlay syncprov\n";
    write_file(d + "/slapd.conf", conf.str());
}

void ReplicatedPair::start(int n) {
    const std::string d = dir_ + "/s" + std::to_string(n);
    pids_[n - 1] = spawn_server({"env", "LDAPNOINIT=1", "slapd", "-f", d + "/slapd.conf", "-h",
                                 uri(n) + "/ " + tls_uri(n) + "/", "-d", "0"},
                                d + "/slapd.log", {port(n), tls_port(n)});
}

namespace {

// The state letter of a process ('T' when stopped), from /proc.
char process_state(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    size_t paren = text.rfind(')');
    return paren != std::string::npos && paren + 2 < text.size() ? text[paren + 2] : '?';
}

// A signal takes effect a moment after kill() returns: wait until it has.
void signal_and_wait(pid_t pid, int signal, bool stopped) {
    if (pid <= 0) return;
    kill(pid, signal);
    for (int i = 0; i < 1000 && (process_state(pid) == 'T') != stopped; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

}  // namespace

void hang_process(pid_t pid) { signal_and_wait(pid, SIGSTOP, true); }

void resume_process(pid_t pid) { signal_and_wait(pid, SIGCONT, false); }

void ReplicatedPair::heal() {
    for (int n = 1; n <= 2; ++n) {
        if (pids_[n - 1] > 0) resume(n);
        else start(n);
    }
}

bool ReplicatedPair::wait_for(int n, const std::string &dn, int seconds) const {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    do {
        CommandResult r = run_command({"ldapsearch", "-x", "-H", uri(n), "-D", admin_dn(), "-w", admin_password(),
                                       "-b", dn, "-s", "base", "-o", "nettimeout=1", "-l", "2", "1.1"});
        if (r.status == 0) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    } while (std::chrono::steady_clock::now() < deadline);
    return false;
}

}  // namespace zeltest
