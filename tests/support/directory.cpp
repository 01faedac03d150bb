#include "support/directory.h"

#include "support/fault_injection.h"

#ifndef LDAP_DEPRECATED
#define LDAP_DEPRECATED 1
#endif
#include <arpa/inet.h>
#include <fcntl.h>
#include <ldap.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#ifndef ZEL_SOURCE_DIR
#error "ZEL_SOURCE_DIR must name the source tree"
#endif

namespace fs = std::filesystem;

namespace zeltest {
namespace {

std::string lower(std::string s) {
    for (char &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

sockaddr_in loopback(uint16_t port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(port);
    return a;
}

struct TestCa {
    std::string dir, ca, cert, key;
    TestCa() : dir(make_temp_dir("ca")), ca(dir + "/ca.pem"), cert(dir + "/server.pem"), key(dir + "/server.key") {
        write_file(dir + "/san.cnf", "subjectAltName=IP:127.0.0.1,DNS:localhost\n");
        const std::vector<std::vector<std::string>> steps = {
            {"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
             "-keyout", dir + "/ca.key", "-out", ca, "-days", "2", "-subj", "/CN=zeltest CA"},
            {"openssl", "req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout",
             key, "-out", dir + "/server.csr", "-subj", "/CN=127.0.0.1"},
            {"openssl", "x509", "-req", "-in", dir + "/server.csr", "-CA", ca, "-CAkey", dir + "/ca.key",
             "-CAcreateserial", "-out", cert, "-days", "2", "-extfile", dir + "/san.cnf"},
        };
        for (const auto &argv : steps) {
            CommandResult r = run_command(argv);
            if (r.status != 0) throw std::runtime_error("openssl failed: " + r.err);
        }
    }
    ~TestCa() {
        std::error_code ec;
        fs::remove_all(dir, ec);
    }
};

const TestCa &test_ca() {
    static TestCa ca;
    return ca;
}

std::string rdn_type(const std::string &dn) { return lower(dn.substr(0, dn.find('='))); }
std::string rdn_value(const std::string &dn) {
    size_t eq = dn.find('='), comma = dn.find(',');
    return dn.substr(eq + 1, comma == std::string::npos ? std::string::npos : comma - eq - 1);
}

std::string base64_decode(const std::string &in) {
    static const std::string alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    unsigned buf = 0;
    int bits = 0;
    for (char c : in) {
        size_t v = alphabet.find(c);
        if (v == std::string::npos) continue;  // padding and line breaks
        buf = (buf << 6) | static_cast<unsigned>(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(static_cast<char>((buf >> bits) & 0xff));
        }
    }
    return out;
}

// argv as execvp wants it; the texts stay argv's.
std::vector<char *> exec_args(const std::vector<std::string> &argv) {
    std::vector<char *> args;
    for (const auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    return args;
}

// The shipped access rules in their cn=config form, made as the build makes
// it, with the suffix filled in.
std::string shipped_access_ldif(const std::string &suffix) {
    const std::string src = std::string(ZEL_SOURCE_DIR) + "/schema/";
    CommandResult r = run_command({"awk", "-f", src + "to-olc.awk", src + "zel-access.conf"});
    std::string text = r.out;
    if (r.status != 0 || text.empty()) throw std::runtime_error("to-olc.awk failed: " + r.err);
    for (size_t at; (at = text.find("@SUFFIX@")) != std::string::npos;) text.replace(at, 8, suffix);
    return text;
}

}  // namespace

std::string file_text(const std::string &path) {
    std::ifstream f(path);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

std::vector<std::string> lines_of(const std::string &text) {
    std::istringstream in(text);
    std::vector<std::string> out;
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

bool listening(const std::string &address, uint16_t port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a = loopback(port);
    inet_pton(AF_INET, address.c_str(), &a.sin_addr);
    bool ok = fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0;
    if (fd >= 0) close(fd);
    return ok;
}

void end_process(pid_t &pid, int signal) {
    if (pid <= 0) return;
    kill(pid, SIGCONT);
    kill(pid, signal);
    waitpid(pid, nullptr, 0);
    pid = -1;
}

void write_file(const std::string &path, const std::string &text) {
    std::ofstream f(path);
    f << text;
    if (!f) throw std::runtime_error("cannot write " + path);
}

std::string make_temp_dir(const char *what) {
    std::string templ = (fs::temp_directory_path() / (std::string("zeltest-") + what + "-XXXXXX")).string();
    if (!mkdtemp(templ.data())) throw std::runtime_error("mkdtemp failed");
    return templ;
}

// Distinct free loopback ports, each held until all are found.  They are
// released before the server binds them; another process taking one in
// between is unlikely and shows as a start failure with the server's own log.
std::vector<uint16_t> free_ports(size_t n) {
    std::vector<int> fds;
    std::vector<uint16_t> ports;
    for (size_t i = 0; i < n; ++i) {
        fds.push_back(socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in a = loopback(0);
        socklen_t len = sizeof a;
        if (fds.back() < 0 || bind(fds.back(), reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
            getsockname(fds.back(), reinterpret_cast<sockaddr *>(&a), &len) != 0)
            throw std::runtime_error("no free port");
        ports.push_back(ntohs(a.sin_port));
    }
    for (int fd : fds) close(fd);
    return ports;
}

TlsFiles test_tls_files() {
    const TestCa &ca = test_ca();
    return {ca.ca, ca.cert, ca.key};
}

std::vector<Entry> parse_ldif(const std::string &text) {
    std::vector<Entry> entries;
    std::istringstream in(text);
    std::string line;
    Entry cur;
    bool open = false;
    auto flush = [&] {
        if (open) entries.push_back(std::move(cur));
        cur = Entry{};
        open = false;
    };
    while (std::getline(in, line)) {
        size_t colon = line.find(':');
        if (line.empty()) flush();
        if (line.empty() || line[0] == '#' || colon == std::string::npos) continue;
        bool b64 = line.compare(colon, 2, "::") == 0;
        size_t start = std::min(line.find_first_not_of(' ', colon + (b64 ? 2 : 1)), line.size());
        std::string attr = lower(line.substr(0, colon)), value = line.substr(start);
        if (b64) value = base64_decode(value);
        if (attr == "dn") {
            flush();
            cur.dn = value;
            open = true;
        } else {
            cur.attrs[attr].push_back(value);
        }
    }
    flush();
    return entries;
}

const char *kind_name(Kind kind) {
    static const char *const names[] = {"generic",   "orv",        "orv_tessan",      "orv_kelmar",
                                        "netscape", "edirectory", "active_directory"};
    return names[static_cast<int>(kind)];
}

bool Entry::has(const std::string &attr) const { return attrs.count(lower(attr)) != 0; }

const std::vector<std::string> &Entry::values(const std::string &attr) const {
    static const std::vector<std::string> none;
    auto it = attrs.find(lower(attr));
    return it == attrs.end() ? none : it->second;
}

std::string Entry::first(const std::string &attr) const {
    const auto &v = values(attr);
    return v.empty() ? std::string() : v.front();
}

CommandResult run_command(const std::vector<std::string> &argv, const std::string &input,
                          const std::map<std::string, std::string> &env) {
    // Standard input, output and errors are unnamed files: however much a tool
    // is given or answers, neither side waits on a full pipe.
    std::unique_ptr<FILE, int (*)(FILE *)> files[3] = {{tmpfile(), fclose}, {tmpfile(), fclose}, {tmpfile(), fclose}};
    for (const auto &f : files)
        if (!f) throw std::runtime_error("tmpfile failed");
    if (fwrite(input.data(), 1, input.size(), files[0].get()) != input.size() || fflush(files[0].get()) != 0)
        throw std::runtime_error("cannot hold a command's input");
    rewind(files[0].get());
    std::vector<char *> args = exec_args(argv);
    pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        for (int fd = 0; fd < 3; ++fd) dup2(fileno(files[fd].get()), fd);
        setenv("LDAPNOINIT", "1", 1);  // the tools must not read the machine's ldap.conf
        for (const auto &[k, v] : env) {
            if (v.empty()) unsetenv(k.c_str());  // an empty value removes the variable
            else setenv(k.c_str(), v.c_str(), 1);
        }
        execvp(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {}
    CommandResult r;
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::string *sinks[3] = {nullptr, &r.out, &r.err};
    for (int fd = 1; fd < 3; ++fd) {
        rewind(files[fd].get());
        char buf[65536];
        for (size_t n; (n = fread(buf, 1, sizeof buf, files[fd].get())) > 0;) sinks[fd]->append(buf, n);
    }
    return r;
}

std::string suffix_entry_ldif(const std::string &suffix) {
    std::string type = rdn_type(suffix), value = rdn_value(suffix);
    std::string out = "dn: " + suffix + "\n";
    if (type == "o") out += "objectClass: organization\no: " + value + "\n";
    else if (type == "ou") out += "objectClass: organizationalUnit\nou: " + value + "\n";
    else if (type == "dc") out += "objectClass: domain\ndc: " + value + "\n";
    else if (type == "c") out += "objectClass: country\nc: " + value + "\n";
    else out += "objectClass: container\ncn: " + value + "\n";
    return out + "\n";
}

Directory::Directory(Profile profile) : profile_(std::move(profile)) {
    if (profile_.suffixes.empty()) throw std::invalid_argument("a directory needs a suffix");
    dir_ = make_temp_dir("slapd");
    const std::vector<uint16_t> ports = free_ports(2);
    port_ = ports[0];
    ldaps_port_ = ports[1];
    write_config();
    start();
    if (profile_.access_rules == AccessRules::CnConfig) load_access_rules();
    seed();
    if (profile_.kind == Kind::EDirectory) {
        // slapd refuses a one-level search of the root DSE; a Novell server
        // lists its partitions there.  Answer it with the first suffix.
        std::string first = suffix();
        fault::set_search_rewrite([first](std::string &base, int &scope, std::string &) {
            if (base.empty() && scope == LDAP_SCOPE_ONELEVEL) {
                base = first;
                scope = LDAP_SCOPE_BASE;
            }
        });
    }
}

Directory::~Directory() {
    if (profile_.kind == Kind::EDirectory) fault::set_search_rewrite(nullptr);
    defaults_.reset();
    end_process(pid_, SIGKILL);  // the database is thrown away: no need for a clean shutdown
    std::error_code ec;
    fs::remove_all(dir_, ec);
}

std::string Directory::uri() const { return "ldap://127.0.0.1:" + std::to_string(port_); }
std::string Directory::ldaps_uri() const { return "ldaps://127.0.0.1:" + std::to_string(ldaps_port_); }

std::string Directory::domain_dn() const {
    return profile_.domain.empty() ? std::string() : "secAuthority=" + profile_.domain + "," + suffix();
}

const std::string &Directory::ca_file() { return test_ca().ca; }

void Directory::write_config() {
    const TestCa &ca = test_ca();
    // What each kind of server says of itself in its root DSE, by Kind.
    static const char *const kind_root_dse[] = {
        "", "orvdirectoryversion: 6.4.0\n", "orvdirectoryversion: Tessan 6.4.0\n",
        "orvdirectoryversion: Kelmar 6.4.0\n", "netscapemdsuffix: cn=ldbm\n",
        "vendorName: Novell, Inc.\nvendorVersion: 885\n", "forestFunctionality: 7\n"};
    std::string root_dse = kind_root_dse[static_cast<int>(profile_.kind)];
    for (const auto &[attr, value] : profile_.root_dse) root_dse += attr + ": " + value + "\n";

    // Global lines for the shared starter (scripts/slapd.sh), which writes
    // the schema, the databases and the shipped access rules around them.
    std::ostringstream conf;
    conf << "include " ZEL_SOURCE_DIR "/tests/support/profile.schema\n"
         << "allow bind_v2\n"  // lets the protocol-2 fallback reach a real server
         << "TLSCACertificateFile " << ca.ca << "\n"
         << "TLSCertificateFile " << ca.cert << "\n"
         << "TLSCertificateKeyFile " << ca.key << "\n"
         << profile_.extra_config;
    if (!root_dse.empty()) {
        write_file(dir_ + "/rootdse.ldif", "dn:\n" + root_dse);
        conf << "rootDSE " << dir_ << "/rootdse.ldif\n";
    }
    // Paged answers go on past the limit, as on the servers that cap answers.
    if (profile_.server_size_limit > 0)
        conf << "sizelimit size.soft=" << profile_.server_size_limit << " size.hard=" << profile_.server_size_limit
             << " size.prtotal=unlimited\n";
    conf << "access to * by dn.exact=\"" << admin_dn() << "\" manage by * read\n";
    // Written live through cn=config, as an operator of such a server would.
    if (profile_.access_rules == AccessRules::CnConfig)
        conf << "database config\nrootpw " << admin_password() << "\n";
    write_file(dir_ + "/global.conf", conf.str());
    write_file(dir_ + "/admin.pw", admin_password());
    chmod((dir_ + "/admin.pw").c_str(), 0600);  // the tools warn of a password file others may read
}

std::string server_config_head(const std::string &dir) {
    const std::string src = ZEL_SOURCE_DIR;
    return "include /etc/ldap/schema/core.schema\n"
           "include /etc/ldap/schema/cosine.schema\n"
           "include /etc/ldap/schema/inetorgperson.schema\n"
           "include " + src + "/schema/zel.schema\n"
           "include " + src + "/tests/support/profile.schema\n"
           "pidfile " + dir + "/slapd.pid\nargsfile " + dir + "/slapd.args\n"
           "modulepath /usr/lib/ldap\nmoduleload back_mdb\n";
}

void Directory::restart() {
    end_process(pid_, SIGKILL);
    start();
}

void Directory::start() {
    std::vector<std::string> argv = {
        "env", "ZEL_SLAPD_GLOBAL=" + dir_ + "/global.conf", std::string("ZEL_SLAPD_NOSYNC=") + (profile_.no_sync ? "1" : ""),
        std::string("ZEL_ACCESS_RULES=") + (profile_.access_rules == AccessRules::SlapdConf ? "shipped" : ""),
        "bash", ZEL_SOURCE_DIR "/scripts/slapd.sh", "run", dir_, uri() + "/ " + ldaps_uri() + "/", admin_dn()};
    argv.insert(argv.end(), profile_.suffixes.begin(), profile_.suffixes.end());
    pid_ = spawn_server(argv, dir_ + "/slapd.log", {port_, ldaps_port_});
}

pid_t spawn_server(const std::vector<std::string> &argv, const std::string &log, const std::vector<uint16_t> &ports,
                   int seconds) {
    std::vector<char *> args = exec_args(argv);
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        // A test program that dies without its destructors takes its servers along.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(1);
        int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (fd >= 0) {
            dup2(fd, 1);
            dup2(fd, 2);
            close(fd);
        }
        execvp(args[0], args.data());
        _exit(127);
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < deadline) {
        if (waitpid(pid, nullptr, WNOHANG) == pid)
            throw std::runtime_error(argv[0] + " exited at start:\n" + file_text(log));
        bool all = true;
        for (uint16_t port : ports) all = all && listening(Directory::host(), port);
        if (all) return pid;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    end_process(pid, SIGKILL);
    throw std::runtime_error(argv[0] + " did not start listening in time:\n" + file_text(log));
}

void Directory::seed() {
    std::string ldif;
    for (const auto &s : profile_.suffixes) ldif += suffix_entry_ldif(s);
    if (!profile_.domain.empty()) {
        ldif += "dn: " + domain_dn() + "\nobjectClass: secAuthorityInfo\nsecAuthority: " + profile_.domain + "\n";
        if (profile_.domain_version) ldif += "version: " + std::to_string(profile_.domain_version) + "\n";
        ldif += "\n";
    }
    ldif += profile_.seed_ldif;
    CommandResult r = try_add(ldif);
    if (r.status != 0) throw std::runtime_error("seeding failed: " + r.err + r.out);
}

void Directory::load_access_rules() {
    std::string ldif = shipped_access_ldif(suffix());
    // The config database comes first, so the first data database is {1}.
    ldif.replace(ldif.find("dn: @DATABASE@") + 4, 10, "olcDatabase={1}mdb,cn=config");
    CommandResult r = run_command({"ldapmodify", "-x", "-H", uri(), "-D", "cn=config", "-y", dir_ + "/admin.pw"}, ldif);
    if (r.status != 0) throw std::runtime_error("loading the access rules failed: " + r.err + r.out);
}

CommandResult Directory::try_add(const std::string &ldif) const {
    return run_command({"ldapmodify", "-a", "-x", "-H", uri(), "-D", admin_dn(), "-y", dir_ + "/admin.pw"}, ldif);
}

void Directory::add(const std::string &ldif) const {
    CommandResult r = try_add(ldif);
    ASSERT_EQ(r.status, 0) << "ldapadd failed: " << r.err << "\n" << ldif;
}

void Directory::modify(const std::string &ldif) const {
    CommandResult r =
        run_command({"ldapmodify", "-x", "-H", uri(), "-D", admin_dn(), "-y", dir_ + "/admin.pw"}, ldif);
    ASSERT_EQ(r.status, 0) << "ldapmodify failed: " << r.err << "\n" << ldif;
}

std::vector<Entry> Directory::search(const std::string &base, const std::string &scope,
                                     const std::string &filter) const {
    CommandResult r = run_command({"ldapsearch", "-x", "-LLL", "-o", "ldif-wrap=no", "-H", uri(), "-D",
                                   admin_dn(), "-y", dir_ + "/admin.pw", "-b", base, "-s", scope, filter,
                                   "*", "+"});
    if (r.status == LDAP_NO_SUCH_OBJECT) return {};
    EXPECT_EQ(r.status, 0) << "ldapsearch failed: " << r.err;
    return parse_ldif(r.out);
}

bool Directory::exists(const std::string &dn) const { return !search(dn, "base").empty(); }

Entry Directory::entry(const std::string &dn) const {
    auto found = search(dn, "base");
    EXPECT_EQ(found.size(), 1u) << "no entry " << dn;
    return found.empty() ? Entry{} : found.front();
}

void Directory::make_default_server() {
    if (!defaults_) defaults_ = std::make_unique<ClientDefaults>();
    ClientDefaults::set(uri().c_str(), suffix().c_str());
}

ClientDefaults::ClientDefaults() {
    ldap_get_option(nullptr, LDAP_OPT_URI, &uri_);
    ldap_get_option(nullptr, LDAP_OPT_DEFBASE, &base_);
}

ClientDefaults::~ClientDefaults() {
    ldap_set_option(nullptr, LDAP_OPT_URI, uri_);
    ldap_set_option(nullptr, LDAP_OPT_DEFBASE, base_);
    ldap_memfree(uri_);
    ldap_memfree(base_);
}

void ClientDefaults::set(const char *uri, const char *base) {
    ASSERT_EQ(ldap_set_option(nullptr, LDAP_OPT_URI, uri), LDAP_OPT_SUCCESS);
    ASSERT_EQ(ldap_set_option(nullptr, LDAP_OPT_DEFBASE, base), LDAP_OPT_SUCCESS);
}

void DirectoryTest::SetUp() {
    fault::reset();
    dir = std::make_unique<Directory>(profile());
}

void DirectoryTest::TearDown() {
    dir.reset();
    fault::reset();
}

}  // namespace zeltest
