#include "support/ds389_pair.h"

#include <signal.h>

#include <chrono>
#include <fstream>
#include <stdexcept>
#include <thread>

#ifndef ZEL_SOURCE_DIR
#error "ZEL_SOURCE_DIR must name the source tree"
#endif
#ifndef ZEL_BINARY_DIR
#error "ZEL_BINARY_DIR must name the build tree"
#endif

namespace zeltest {
namespace {

const char *const kScript = ZEL_SOURCE_DIR "/tests/support/ds389_pair.sh";

pid_t read_pid(const std::string &text) { return text.empty() ? -1 : static_cast<pid_t>(std::stol(text)); }

}  // namespace

Ds389Pair::Ds389Pair() {
    dir_ = make_temp_dir("ds389pair");
    CommandResult up = script({"start", dir_});
    if (up.status != 0) {
        script({"destroy", dir_});
        throw std::runtime_error("the 389 pair did not come up: " + up.out + up.err);
    }
    for (int n = 1; n <= 2; ++n) {
        std::ifstream port(dir_ + "/s" + std::to_string(n) + "/port");
        int p = 0;
        port >> p;
        ports_[n - 1] = static_cast<uint16_t>(p);
    }
    password_file_ = dir_ + "/rootpw";
}

Ds389Pair::~Ds389Pair() { script({"destroy", dir_}); }

CommandResult Ds389Pair::script(const std::vector<std::string> &args) const {
    std::vector<std::string> argv = {"bash", kScript};
    argv.insert(argv.end(), args.begin(), args.end());
    // Agreements that wait less for the peer's answers: changes made back to
    // back reach it in milliseconds instead of a tenth of a second.
    return run_command(argv, "",
                       {{"SCHEMA_LDIF", std::string(ZEL_BINARY_DIR) + "/schema/99zel.ldif"},
                        {"REPL_WAIT_ASYNC", "5"}, {"SUFFIX", suffix()}, {"ROOTPW", admin_password()}});
}

std::string Ds389Pair::hosts() const {
    return "127.0.0.1:" + std::to_string(port(1)) + " 127.0.0.1:" + std::to_string(port(2));
}

void Ds389Pair::hang(int n) {
    pid_t pid = read_pid(script({"pid", dir_, std::to_string(n)}).out);
    if (pid > 0) ::kill(pid, SIGSTOP);
}

void Ds389Pair::resume(int n) {
    pid_t pid = read_pid(script({"pid", dir_, std::to_string(n)}).out);
    if (pid > 0) ::kill(pid, SIGCONT);
}

void Ds389Pair::kill(int n) { script({"kill", dir_, std::to_string(n)}); }

void Ds389Pair::start(int n) {
    CommandResult r = script({"start1", dir_, std::to_string(n)});
    if (r.status != 0) throw std::runtime_error("389 server " + std::to_string(n) + " did not start: " + r.err);
}

void Ds389Pair::heal() {
    for (int n = 1; n <= 2; ++n) {
        resume(n);
        start(n);  // a running server is left as it is
    }
    if (cut_) partition(false);
}

void Ds389Pair::partition(bool cut) {
    CommandResult r = script({"agreements", dir_, cut ? "off" : "on"});
    if (r.status != 0) throw std::runtime_error("switching replication failed: " + r.err);
    cut_ = cut;
}

CommandResult Ds389Pair::modify(int n, const std::string &ldif) const {
    return run_command({"ldapmodify", "-x", "-H", uri(n), "-D", admin_dn(), "-y", password_file_}, ldif);
}

std::vector<Entry> Ds389Pair::search(int n, const std::string &base, const std::string &filter,
                                     const std::vector<std::string> &attrs) const {
    std::vector<std::string> argv = {"ldapsearch", "-x", "-LLL", "-o", "ldif-wrap=no", "-H", uri(n),
                                     "-D", admin_dn(), "-y", password_file_, "-b", base, filter};
    argv.insert(argv.end(), attrs.begin(), attrs.end());
    CommandResult r = run_command(argv);
    return r.status == 0 ? parse_ldif(r.out) : std::vector<Entry>{};
}

bool Ds389Pair::wait_for(int n, const std::string &base, const std::string &filter, size_t count,
                         int seconds) const {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    for (;;) {
        if (search(n, base, filter).size() == count) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

}  // namespace zeltest
