// What the tests against peer servers (389, AD, replicated pairs) share:
// the OpenLDAP tools as a server's administrator or as someone else
// (passwords travel in files, -y, never on a command line), opens of either
// storage form, and a user with a record as one step.
#pragma once

#include <sys/stat.h>

#include <map>
#include <string>
#include <vector>

#include "support/directory.h"
#include "support/family_fixture.h"
#include "support/session.h"

namespace zeltest {

// The tools against a server, set up by its constructor.
class PeerTools {
public:
    // A file holding a password (no newline) for the tools' -y option.
    std::string password_file(const std::string &password) const {
        static int n = 0;
        std::string path = files_ + "/pw" + std::to_string(++n);
        write_file(path, password);
        chmod(path.c_str(), 0600);
        return path;
    }
    // ldapmodify (with add = true: ldapadd) as the administrator.
    CommandResult modify(const std::string &ldif, bool add = false) const {
        std::vector<std::string> argv = {"ldapmodify", "-x", "-H", tools_uri_, "-D", admin_, "-y",
                                         password_file(admin_password_)};
        if (add) argv.push_back("-a");
        return run_command(argv, ldif, env_);
    }
    // ldapsearch bound as bind_dn (anonymous when empty); an empty base reads
    // the root DSE; attrs empty means all user attributes.
    CommandResult search_as(const std::string &bind_dn, const std::string &password, const std::string &base,
                            const std::string &filter, const std::vector<std::string> &attrs = {}) const {
        std::vector<std::string> argv = {"ldapsearch", "-x", "-LLL", "-o", "ldif-wrap=no", "-H", tools_uri_, "-b", base};
        if (base.empty()) argv.insert(argv.end(), {"-s", "base"});
        if (!bind_dn.empty()) argv.insert(argv.end(), {"-D", bind_dn, "-y", password_file(password)});
        argv.push_back(filter);
        argv.insert(argv.end(), attrs.begin(), attrs.end());
        return run_command(argv, "", env_);
    }
    // The entries below base as the administrator sees them.
    std::vector<Entry> search(const std::string &base, const std::string &filter = "(objectClass=*)",
                              const std::vector<std::string> &attrs = {}) const {
        CommandResult r = search_as(admin_, admin_password_, base, filter, attrs);
        return r.status == 0 ? parse_ldif(r.out) : std::vector<Entry>{};
    }

protected:
    // Set by the server's constructor: where the tools connect, as whom, in
    // which environment, and the folder for the password files.
    std::string tools_uri_, admin_, admin_password_, files_;
    std::map<std::string, std::string> env_;
};

// An open on the server, of the first generation (version 1) or on the
// security domain "Default" (2); rc_out takes the status instead of a failed
// open failing the test.
inline Session open_version(const std::string &user, const std::string &password, const std::string &host,
                            int port, int32_t flags, const char *ca, uint32_t version, ZelRC *rc_out = nullptr) {
    ZelSession *s = nullptr;
    ZelRC rc = version < 2 ? Zel_open(nullptr, user.c_str(), password.c_str(), host.c_str(), port, flags, ca, nullptr,
                                      nullptr, &s, version)
                           : Zel_open_sec_domain(nullptr, user.c_str(), password.c_str(), host.c_str(), port, flags,
                                                 ca, nullptr, nullptr, "Default", &s, version);
    if (rc_out) *rc_out = rc;
    else EXPECT_EQ(rc, 0u) << "open as " << user;
    return Session(rc == 0 ? s : nullptr);
}

// The "User" `user` of the person at person_dn, and the user's record
// T:<service> with account and password; the first status that is not 0.
inline ZelRC add_user_with_record(ZelSession *s, const char *user, const std::string &person_dn, const char *service,
                                  const char *account, const char *password) {
    ZelUser u = famtest::user_record(user, "User", person_dn);
    const std::string id = std::string("T:") + service;
    ZelTargetRecord r = famtest::record(id.c_str(), service, account, password);
    ZelRC rc = Zel_addZelUser(s, &u);
    return rc ? rc : Zel_addTargetRecord(s, user, &r);
}

}  // namespace zeltest
