#include "support/ds389.h"

#include "support/pair.h"

#include <pwd.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

#ifndef ZEL_BINARY_DIR
#error "ZEL_BINARY_DIR must name the build tree"
#endif

namespace fs = std::filesystem;

namespace zeltest {
namespace {

const char *const kTemplate = "/usr/share/dirsrv/data/template-dse.ldif";

void replace_all(std::string &text, const std::string &from, const std::string &to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
}

// A salted SHA-512 hash in the server's {SSHA512} form; the server refuses a
// clear root password in its configuration.  openssl reads the password on
// its standard input, never from its command line.
std::string salted_hash(const std::string &password) {
    std::random_device rd;
    std::string salt;
    for (int i = 0; i < 8; ++i) salt.push_back(static_cast<char>(rd() & 0xff));
    CommandResult digest = run_command({"openssl", "dgst", "-sha512", "-binary"}, password + salt);
    CommandResult b64 = run_command({"openssl", "base64", "-A"}, digest.out + salt);
    if (digest.status != 0 || b64.status != 0) throw std::runtime_error("openssl failed: " + digest.err + b64.err);
    return "{SSHA512}" + b64.out;
}

std::string getpwuid_name() {
    const passwd *pw = getpwuid(getuid());
    if (!pw) throw std::runtime_error("no user name for this process");
    return pw->pw_name;
}

}  // namespace

Ds389::Ds389(std::string suffix) : suffix_(std::move(suffix)) {
    dir_ = files_ = make_temp_dir("ds389");
    port_ = free_ports(1).front();
    tools_uri_ = uri();
    admin_ = admin_dn();
    admin_password_ = admin_password();
    // The server names a shared-memory semaphore after this folder: it must
    // be unique among running instances.
    config_dir_ = dir_ + "/slapd-zel" + std::to_string(port_);
    try {
        write_config();
        start();
        add_backend();
    } catch (...) {
        kill();
        throw;
    }
}

Ds389::~Ds389() {
    kill();
    std::error_code ec;
    fs::remove_all(dir_, ec);
}

void Ds389::hang() { hang_process(pid_); }

void Ds389::resume() { resume_process(pid_); }

void Ds389::kill() {
    if (pid_ <= 0) return;
    const std::string lock = dir_ + "/lock/server/" + std::to_string(pid_);
    end_process(pid_, SIGKILL);
    // What a killed server leaves behind would refuse the next start.
    std::error_code ec;
    fs::remove("/dev/shm/sem." + fs::path(config_dir_).filename().string() + ".stats", ec);
    fs::remove(lock, ec);
}

void Ds389::write_config() {
    for (const char *sub : {"db", "bak", "ldif", "run", "lock", "log", "tmp"}) fs::create_directories(dir_ + "/" + sub);
    fs::create_directories(config_dir_ + "/schema");
    // The package's collation and certificate-map files are left out (they
    // are readable to its own group only); the server starts without them.
    fs::copy_file(std::string(ZEL_BINARY_DIR) + "/schema/99zel.ldif", config_dir_ + "/schema/99zel.ldif");

    std::string dse = file_text(kTemplate);
    if (dse.empty()) throw std::runtime_error(std::string("cannot read ") + kTemplate);
    const std::vector<std::pair<std::string, std::string>> places = {
        {"%schema_dir%", config_dir_ + "/schema"}, {"%config_dir%", config_dir_}, {"%cert_dir%", config_dir_},
        {"%lock_dir%", dir_ + "/lock"}, {"%tmp_dir%", dir_ + "/tmp"}, {"%ldif_dir%", dir_ + "/ldif"},
        {"%bak_dir%", dir_ + "/bak"}, {"%run_dir%", dir_ + "/run"}, {"%inst_dir%", dir_},
        {"%log_dir%", dir_ + "/log"}, {"%db_dir%", dir_ + "/db"}, {"%db_home_dir%", dir_ + "/db"},
        {"%db_lib%", "bdb"}, {"%ldapi%", dir_ + "/run/ldapi"}, {"%ldapi_enabled%", "off"},
        {"%ldapi_autobind%", "off"}, {"%fqdn%", "localhost"}, {"%ds_port%", std::to_string(port_)},
        {"%ds_user%", getpwuid_name()}, {"%ds_suffix%", suffix_}, {"%rootdn%", admin_dn()},
        {"%ds_passwd%", salted_hash(admin_password())},
    };
    for (const auto &[from, to] : places) replace_all(dse, from, to);
    // Loopback only, and a small database cache instead of a share of the RAM.
    replace_all(dse, "\nnsslapd-port: ", "\nnsslapd-listenhost: 127.0.0.1\nnsslapd-port: ");
    replace_all(dse, "\nnsslapd-db-home-directory: ",
                "\nnsslapd-cache-autosize: 0\nnsslapd-dbcachesize: 16777216\nnsslapd-db-home-directory: ");
    write_file(config_dir_ + "/dse.ldif", dse);
    chmod((config_dir_ + "/dse.ldif").c_str(), 0600);
}

void Ds389::start() {
    if (pid_ > 0) return;
    // In the foreground (-d 0) its pid is ours to stop; -i keeps it from
    // using its default pid file.
    try {
        pid_ = spawn_server({"/usr/sbin/ns-slapd", "-D", config_dir_, "-d", "0", "-i", dir_ + "/run/slapd.pid"},
                            dir_ + "/log/ns-slapd.out", {port_}, 30);
    } catch (const std::runtime_error &e) {
        throw std::runtime_error(e.what() + file_text(dir_ + "/log/errors"));
    }
}

void Ds389::add_backend() {
    std::string ldif = "dn: cn=userRoot,cn=ldbm database,cn=plugins,cn=config\n"
                       "objectClass: top\nobjectClass: extensibleObject\nobjectClass: nsBackendInstance\n"
                       "cn: userRoot\nnsslapd-suffix: " + suffix_ + "\n"
                       "nsslapd-cachememsize: 33554432\nnsslapd-dncachememsize: 16777216\n\n"
                       "dn: cn=\"" + suffix_ + "\",cn=mapping tree,cn=config\n"
                       "objectClass: top\nobjectClass: extensibleObject\nobjectClass: nsMappingTree\n"
                       "cn: " + suffix_ + "\nnsslapd-state: backend\nnsslapd-backend: userRoot\n";
    CommandResult r = modify(ldif, true);
    if (r.status != 0) throw std::runtime_error("adding the backend failed: " + r.err);
}

}  // namespace zeltest
