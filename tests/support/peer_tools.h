// The OpenLDAP tools against a peer server of the tests (389, AD), as its
// administrator or as someone else.  Passwords travel in files (-y), never
// on a command line.
#pragma once

#include <sys/stat.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support/directory.h"

namespace zeltest {

inline std::string read_text(const std::string &path) {
    std::ifstream f(path);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

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

}  // namespace zeltest
