#include "support/kerberos.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ldap.h>

#include <filesystem>
#include <random>
#include <stdexcept>

#include "support/directory.h"

namespace fs = std::filesystem;

namespace zeltest {
namespace {

std::string random_secret() {
    std::random_device rd;
    std::string out;
    for (int i = 0; i < 24; ++i) out.push_back("abcdefghijklmnopqrstuvwxyz0123456789"[rd() % 36]);
    return out;
}

// Kerberos sees the test directory answer as "localhost".
const char *const kServiceHost = "localhost";

// The name libldap puts in the service principal of a loopback server when it
// canonicalises: this machine's own, found the way libldap finds it.
extern "C" char *ldap_pvt_get_fqdn(char *name);
std::string machine_name() {
    char *fqdn = ldap_pvt_get_fqdn(nullptr);
    std::string name = fqdn ? fqdn : "localhost";
    ldap_memfree(fqdn);
    return name;
}

}  // namespace

KerberosRealm::KerberosRealm(const std::string &user) : user_(user) {
    dir_ = make_temp_dir("krb");
    port_ = free_ports(1).front();
    write_config();
    for (const auto &[name, value] :
         std::vector<std::pair<const char *, std::string>>{{"KRB5_CONFIG", dir_ + "/krb5.conf"},
                                                           {"KRB5_KDC_PROFILE", dir_ + "/kdc.conf"},
                                                           {"KRB5CCNAME", "FILE:" + dir_ + "/ccache"},
                                                           {"KRB5RCACHEDIR", dir_ + "/rcache"},
                                                           {"KRB5_KTNAME", "FILE:" + dir_ + "/ldap.keytab"}})
        env_.push_back(std::make_unique<ScopedEnv>(name, value.c_str()));

    // The master key and the user's password travel on standard input only.
    const std::string master = random_secret(), password = random_secret();
    try {
        run_admin({"kdb5_util", "create", "-s", "-r", realm()}, master + "\n" + master + "\n");
        auto service_principal = [&](const std::string &host) {
            return "addprinc -randkey ldap/" + host + "\nktadd -k " + dir_ + "/ldap.keytab ldap/" + host + "\n";
        };
        run_admin({"kadmin.local", "-r", realm()},
                  "addprinc -pw " + password + " " + user_ + "\n" + service_principal(kServiceHost) +
                      (machine_name() == kServiceHost ? "" : service_principal(machine_name())));
        start_kdc();
        run_admin({"kinit", principal()}, password + "\n");
    } catch (...) {
        stop();
        throw;
    }
}

KerberosRealm::~KerberosRealm() { stop(); }

void KerberosRealm::sign_in_as(const std::string &user) {
    const std::string password = random_secret();
    run_admin({"kadmin.local", "-r", realm()}, "addprinc -pw " + password + " " + user + "\n");
    run_admin({"kinit", user + "@" + realm()}, password + "\n");
}

void KerberosRealm::stop() {
    end_process(pid_, SIGTERM);
    env_.clear();
    std::error_code ec;
    fs::remove_all(dir_, ec);
}

std::string KerberosRealm::slapd_config(const std::string &base, bool machine_name) const {
    // Without sasl-host slapd accepts only ldap/<this machine's name>.  The
    // authorization identity names the realm in lower case.
    return (machine_name ? std::string() : std::string("sasl-host ") + kServiceHost + "\n") + "sasl-realm " + realm() +
           "\nauthz-regexp \"^uid=([^,]+)(,cn=zel[.]test)?,cn=gssapi,cn=auth$\" \"ldap:///" + base +
           "??sub?(uid=$1)\"\n";
}

void KerberosRealm::write_config() {
    const std::string kdc = "127.0.0.1:" + std::to_string(port_);
    fs::create_directories(dir_ + "/rcache");
    write_file(dir_ + "/krb5.conf", std::string("[libdefaults]\n default_realm = ") + realm() +
                                        "\n dns_lookup_kdc = false\n dns_lookup_realm = false\n"
                                        " dns_canonicalize_hostname = false\n rdns = false\n"
                                        "[realms]\n " + realm() + " = {\n  kdc = " + kdc + "\n }\n"
                                        "[domain_realm]\n " + kServiceHost + " = " + realm() + "\n");
    write_file(dir_ + "/kdc.conf", "[kdcdefaults]\n kdc_listen = " + kdc + "\n kdc_tcp_listen = " + kdc +
                                       "\n[realms]\n " + realm() + " = {\n  database_name = " + dir_ +
                                       "/principal\n  key_stash_file = " + dir_ + "/stash\n  acl_file = " + dir_ +
                                       "/kadm5.acl\n }\n[logging]\n kdc = FILE:" + dir_ + "/kdc.log\n default = FILE:" +
                                       dir_ + "/krb5lib.log\n");
}

void KerberosRealm::run_admin(const std::vector<std::string> &argv, const std::string &input) const {
    CommandResult r = run_command(argv, input);
    if (r.status != 0) throw std::runtime_error(argv[0] + " failed: " + r.err + r.out);
}

void KerberosRealm::start_kdc() {
    // -n: in the foreground, so the pid is ours to stop.
    pid_ = spawn_server({"krb5kdc", "-n", "-r", realm()}, dir_ + "/krb5kdc.out", {port_});
}

}  // namespace zeltest
