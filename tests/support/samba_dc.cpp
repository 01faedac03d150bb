#include "support/samba_dc.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
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

// 127.77.x.y from the pid, the next one while another DC holds it.
std::string free_address() {
    for (unsigned n = static_cast<unsigned>(getpid()), tries = 0; tries < 64; ++n, ++tries) {
        std::string address = "127.77." + std::to_string((n / 250) % 250 + 1) + "." + std::to_string(n % 250 + 2);
        if (!listening(address, 389) && !listening(address, 636)) return address;
    }
    throw std::runtime_error("no free loopback address for the DC");
}

std::string base64(const std::string &bytes) {
    CommandResult r = run_command({"openssl", "base64", "-A"}, bytes);
    if (r.status != 0) throw std::runtime_error("openssl base64 failed: " + r.err);
    return r.out;
}

// unicodePwd's value: the quoted password in UTF-16LE (ASCII passwords only).
std::string unicode_password(const std::string &password) {
    std::string quoted = "\"" + password + "\"", out;
    for (char c : quoted) {
        out.push_back(c);
        out.push_back('\0');
    }
    return out;
}

}  // namespace

SambaDc *SambaDc::shared(std::string &why_not) {
    static std::unique_ptr<SambaDc> dc;
    static std::string failure;
    static bool tried = false;
    if (!tried) {
        tried = true;
        try {
            dc.reset(new SambaDc());
        } catch (const std::exception &e) {
            failure = e.what();
        }
    }
    why_not = failure;
    return dc.get();
}

SambaDc::SambaDc() {
    dir_ = files_ = make_temp_dir("samba");
    admin_ = admin_dn();
    // LDAPNOINIT would make the tools ignore LDAPTLS_CACERT as well.
    env_ = {{"LDAPNOINIT", ""}, {"LDAPTLS_CACERT", ca_file()}};
    try {
        address_ = free_address();
        tools_uri_ = ldaps_uri();
        provision();
        make_certificate();
        start();
        load_schema();
    } catch (...) {
        stop();
        throw;
    }
}

SambaDc::~SambaDc() { stop(); }

void SambaDc::stop() {
    if (pid_ > 0) kill(pid_, SIGTERM);
    for (int i = 0; i < 50 && pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    end_process(pid_, SIGKILL);
    // The DC's worker processes may still be closing their files.
    for (int i = 0; i < 50 && !dir_.empty() && fs::exists(dir_); ++i) {
        std::error_code ec;
        fs::remove_all(dir_, ec);
        if (fs::exists(dir_)) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    dir_.clear();
}

// No --adminpass: the password would show in ps.  The generated one is read
// from the provisioning's report.
void SambaDc::provision() {
    CommandResult r = run_command(
        {"samba-tool", "domain", "provision", "--targetdir=" + dir_, "--realm=ZEL.TEST", "--domain=ZEL",
         "--server-role=dc", "--dns-backend=NONE", "--use-rfc2307", "--host-name=zeldc", "--host-ip=" + address_,
         "--option=interfaces = " + address_ + "/8", "--option=bind interfaces only = yes",
         "--option=server services = ldap, cldap, kdc", "--option=pid directory = " + dir_ + "/run"});
    if (r.status == 127) throw std::runtime_error("samba-tool is not installed (scripts/deps.sh installs it)");
    const std::string mark = "Admin password:";
    size_t at = (r.out + r.err).find(mark);
    if (r.status != 0 || at == std::string::npos)
        throw std::runtime_error("provisioning the DC failed:\n" + r.out + r.err);
    std::string report = r.out + r.err;
    size_t start = report.find_first_not_of(' ', at + mark.size());
    admin_password_ = report.substr(start, report.find_first_of(" \r\n", start) - start);

    // provision merged the host's smb.conf (shares, /var/log paths): only ours.
    write_file(dir_ + "/etc/smb.conf",
               "[global]\n\tnetbios name = ZELDC\n\tworkgroup = ZEL\n\trealm = ZEL.TEST\n"
               "\tserver role = active directory domain controller\n\tidmap_ldb:use rfc2307 = yes\n"
               "\tinterfaces = " + address_ + "/8\n\tbind interfaces only = yes\n"
               "\tserver services = ldap, cldap, kdc\n"
               // simple binds over plain LDAP, as the plain-LDAP cases need
               "\tldap server require strong auth = no\n"
               "\tdsdb:schema update allowed = true\n"
               "\ttls enabled = yes\n\ttls keyfile = " + dir_ + "/tls/key.pem\n"
               "\ttls certfile = " + dir_ + "/tls/cert.pem\n\ttls cafile = " + dir_ + "/tls/ca.pem\n"
               "\tprivate dir = " + dir_ + "/private\n\tbinddns dir = " + dir_ + "/bind-dns\n"
               "\tstate directory = " + dir_ + "/state\n\tcache directory = " + dir_ + "/cache\n"
               "\tlock directory = " + dir_ + "\n\tpid directory = " + dir_ + "/run\n"
               "\tlog file = " + dir_ + "/samba.log\n\tlogging = file\n\tlog level = 1\n");
}

// Samba's own certificate names only the DC's host name; the tests connect
// to the address.
void SambaDc::make_certificate() {
    const std::string d = dir_ + "/tls";
    fs::create_directories(d);
    write_file(d + "/ext.cnf", "subjectAltName=IP:" + address_ + ",DNS:zeldc.zel.test,DNS:zel.test\n"
                               "extendedKeyUsage=serverAuth\n");
    const std::vector<std::vector<std::string>> steps = {
        {"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2",
         "-subj", "/CN=zelmgmt AD test CA", "-keyout", d + "/ca.key", "-out", d + "/ca.pem"},
        {"openssl", "req", "-newkey", "rsa:2048", "-nodes", "-subj",
         "/CN=zeldc.zel.test", "-keyout", d + "/key.pem", "-out", d + "/req.pem"},
        {"openssl", "x509", "-req", "-in", d + "/req.pem", "-CA", d + "/ca.pem", "-CAkey", d + "/ca.key",
         "-CAcreateserial", "-days", "2", "-extfile", d + "/ext.cnf", "-out", d + "/cert.pem"},
    };
    for (const auto &step : steps) {
        CommandResult r = run_command(step);
        if (r.status != 0) throw std::runtime_error("making the DC's certificate failed: " + r.err);
    }
    chmod((d + "/key.pem").c_str(), 0600);  // samba refuses a key others can read
}

void SambaDc::start() {
    fs::create_directories(dir_ + "/run");
    pid_ = spawn_server({"samba", "-F", "-s", dir_ + "/etc/smb.conf"}, dir_ + "/samba.out", {});
    // Its first start makes keys; on a busy machine that takes minutes.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(300);
    while (std::chrono::steady_clock::now() < deadline) {
        if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
            pid_ = -1;
            throw std::runtime_error("samba exited at start:\n" + file_text(dir_ + "/samba.out") +
                                     file_text(dir_ + "/samba.log"));
        }
        if (listening(address_, 389) && listening(address_, 636) &&
            search_as("", "", "", "(objectClass=*)", {"1.1"}).status == 0)
            return;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    throw std::runtime_error(std::string("the DC did not answer in 300 s (LDAP ") +
                             (listening(address_, 389) ? "listening" : "closed") + ", LDAPS " +
                             (listening(address_, 636) ? "listening" : "closed") + "):\n" +
                             file_text(dir_ + "/samba.log"));
}

void SambaDc::load_schema() {
    std::string ldif = file_text(std::string(ZEL_SOURCE_DIR) + "/schema/zel-ad.ldif");
    for (size_t at = ldif.find(",DC=X\n"); at != std::string::npos; at = ldif.find(",DC=X\n", at))
        ldif.replace(at + 1, 4, base());
    CommandResult r = modify(ldif);
    if (r.status != 0) throw std::runtime_error("loading schema/zel-ad.ldif failed: " + r.err + r.out);
}

void SambaDc::add_account(const std::string &name, const std::string &password) const {
    CommandResult r = modify("dn: CN=" + name + ",CN=Users," + base() +
                                 "\nobjectClass: user\nsAMAccountName: " + name + "\nuid: " + name +
                                 "\nunicodePwd:: " + base64(unicode_password(password)) +
                                 "\nuserAccountControl: 512\n",
                             true);
    if (r.status != 0) throw std::runtime_error("adding account " + name + " failed: " + r.err);
}

void SambaDc::add_group(const std::string &name, const std::vector<std::string> &member_dns, bool security) const {
    std::string ldif = "dn: CN=" + name + ",CN=Users," + base() + "\nobjectClass: group\nsAMAccountName: " + name + "\n";
    if (!security) ldif += "groupType: 2\n";  // global distribution group
    for (const std::string &m : member_dns) ldif += "member: " + m + "\n";
    CommandResult r = modify(ldif, true);
    if (r.status != 0) throw std::runtime_error("adding group " + name + " failed: " + r.err);
}

CommandResult SambaDc::grant_readers(const std::string &group_dn, const std::vector<std::string> &entry_dns) const {
    std::vector<std::string> argv = {std::string(ZEL_SOURCE_DIR) + "/schema/ad-grant-readers.sh", "-H", ldaps_uri(),
                                     "-D", admin_dn(), "-y", password_file(admin_password_), group_dn};
    argv.insert(argv.end(), entry_dns.begin(), entry_dns.end());
    return run_command(argv, "", env_);
}

std::string SambaDc::hosts_file() const {
    std::string path = dir_ + "/hosts";
    write_file(path, "127.0.0.1 localhost\n" + address_ + " zel.test zeldc.zel.test\n");
    return path;
}

}  // namespace zeltest
