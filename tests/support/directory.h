// A private OpenLDAP slapd for one test: started by the shared starter
// (scripts/slapd.sh) on free loopback ports in a temporary folder, seeded, and
// stopped (also when the test fails) by the destructor.  A profile makes it present itself as one directory kind through
// extra root DSE attributes, with one or several suffixes, a security domain
// entry and an ldaps listener whose CA is made once per test program.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace zeltest {

enum class Kind { Generic, Orv, OrvTessan, OrvKelmar, Netscape, EDirectory, ActiveDirectory };
// The shipped access rules for the Zel data, filled in for the first suffix:
// none, included in slapd.conf, or added to cn=config once slapd runs.
enum class AccessRules { None, SlapdConf, CnConfig };
const char *kind_name(Kind kind);

struct Profile {
    Kind kind = Kind::Generic;
    std::vector<std::string> suffixes{"o=acme"};
    // Security domain entry secAuthority=<domain>,<first suffix>; empty: none.
    std::string domain = "Default";
    int domain_version = 5;  // 0: the entry has no version attribute
    // The server's own size limit on unpaged answers for anyone but the
    // administrator (paged answers are not capped); 0: none.
    int server_size_limit = 0;
    // Added after the suffixes and the domain entry.
    std::string seed_ldif;
    // Further root DSE values, e.g. {"namingContexts", "CN=Schema"}.
    std::vector<std::pair<std::string, std::string>> root_dse;
    // Further slapd.conf lines, placed before the databases (e.g. SASL settings).
    std::string extra_config;
    AccessRules access_rules = AccessRules::None;
    // Writes are not flushed to disk one by one (dbnosync): for tests that
    // write much and never outlive the machine's page cache.
    bool no_sync = false;

    Profile &kind_is(Kind k) { kind = k; return *this; }
    Profile &seeded(std::string ldif) { seed_ldif += std::move(ldif); return *this; }
};

// One entry read back with ldapsearch; attribute names are lower-cased.
struct Entry {
    std::string dn;
    std::map<std::string, std::vector<std::string>> attrs;

    bool has(const std::string &attr) const;
    const std::vector<std::string> &values(const std::string &attr) const;
    std::string first(const std::string &attr) const;  // "" when absent
};

struct CommandResult {
    int status = -1;
    std::string out;
    std::string err;
};
// Runs a program (argv[0] searched in PATH) with optional standard input.
// LDAPNOINIT is set unless env gives it an empty value (which unsets it).
CommandResult run_command(const std::vector<std::string> &argv, const std::string &input = "",
                          const std::map<std::string, std::string> &env = {});

// The client library's process-wide default server and base, as they were,
// put back when this goes; set() changes both meanwhile.
class ClientDefaults {
public:
    ClientDefaults();
    ~ClientDefaults();
    ClientDefaults(const ClientDefaults &) = delete;
    ClientDefaults &operator=(const ClientDefaults &) = delete;
    static void set(const char *uri, const char *base);  // null: none

private:
    char *uri_ = nullptr;
    char *base_ = nullptr;
};

class Directory {
public:
    explicit Directory(Profile profile = {});
    ~Directory();
    Directory(const Directory &) = delete;
    Directory &operator=(const Directory &) = delete;

    const Profile &profile() const { return profile_; }
    static const char *host() { return "127.0.0.1"; }
    uint16_t port() const { return port_; }
    uint16_t ldaps_port() const { return ldaps_port_; }
    std::string uri() const;
    std::string ldaps_uri() const;
    const std::string &suffix() const { return profile_.suffixes.front(); }
    std::string admin_dn() const { return "cn=Manager," + suffix(); }
    static const char *admin_password() { return "secret"; }
    std::string domain_dn() const;  // "" without a domain
    // The CA that signed the ldaps listener's certificate.
    static const std::string &ca_file();

    // ldapadd / ldapmodify as the administrator; a failure fails the test.
    void add(const std::string &ldif) const;
    void modify(const std::string &ldif) const;
    // ldapadd returning the tool's result instead of failing the test.
    CommandResult try_add(const std::string &ldif) const;
    // ldapsearch as the administrator; a missing base gives no entries.
    std::vector<Entry> search(const std::string &base, const std::string &scope = "sub",
                              const std::string &filter = "(objectClass=*)") const;
    bool exists(const std::string &dn) const;
    Entry entry(const std::string &dn) const;  // fails the test when absent

    // Stops the server at once, as a crash would, and starts it again on the
    // same ports with the same database.
    void restart();

    // Makes this server the client's configured default (the located server)
    // until the directory is stopped.
    void make_default_server();

private:
    void write_config();
    void start();
    void seed();
    void load_access_rules();

    Profile profile_;
    std::string dir_;
    uint16_t port_ = 0;
    uint16_t ldaps_port_ = 0;
    pid_t pid_ = -1;
    std::unique_ptr<ClientDefaults> defaults_;  // while it is the default server
};

// The LDIF of an entry that makes a suffix exist (by its first RDN's type).
std::string suffix_entry_ldif(const std::string &suffix);

// Pieces the other server fixtures share.
// The first lines of a test slapd.conf: the schema files (the Zel schema and
// the profiles' root DSE attributes included), pid and args files in `dir`,
// and back_mdb.
std::string server_config_head(const std::string &dir);
std::string file_text(const std::string &path);  // "" when it cannot be read
// The lines of a text without their newlines; a last line without one counts.
std::vector<std::string> lines_of(const std::string &text);
void write_file(const std::string &path, const std::string &text);
bool listening(const std::string &address, uint16_t port);
// Signals pid (stopped or not) and reaps it; -1 afterwards, nothing when not running.
void end_process(pid_t &pid, int signal);
std::string make_temp_dir(const char *what);
std::vector<uint16_t> free_ports(size_t n);  // distinct free loopback ports
// The private CA of the test servers and the certificate (with its key) it
// signed for 127.0.0.1 and localhost: PEM files, made once per process.
struct TlsFiles {
    std::string ca, cert, key;
};
TlsFiles test_tls_files();
std::vector<Entry> parse_ldif(const std::string &text);
// Runs a server in the foreground (argv[0] searched in PATH), its output in
// log, and waits until it listens on every port; throws with the log when it
// exits or does not listen in time.  The caller stops it by the pid returned.
pid_t spawn_server(const std::vector<std::string> &argv, const std::string &log, const std::vector<uint16_t> &ports,
                   int seconds = 10);

// A fixture with a fresh directory per test; override profile() to choose one.
class DirectoryTest : public ::testing::Test {
protected:
    virtual Profile profile() const { return {}; }
    void SetUp() override;
    void TearDown() override;
    std::unique_ptr<Directory> dir;
};

}  // namespace zeltest
