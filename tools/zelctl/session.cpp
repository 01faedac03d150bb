// Opening the session every command works in.
#include <sstream>
#include <string>
#include <vector>

#include "zelctl.h"

namespace zelctl {

Session open_session(const Options &opts) {
    if (opts.bind_dn.empty() || !opts.have_password) {
        usage("a bind DN (-D) and a password (-w, -W or -y) are needed");
        return nullptr;
    }
    std::string host;
    uint16_t port = 0;
    bool ssl = false;
    int32_t flags = 0;
    std::vector<std::string> servers;
    std::istringstream listed(opts.uri);
    for (std::string server; listed >> server;) servers.push_back(server);
    for (const std::string &server : servers) {
        if (!parse_uri(server, host, port, ssl)) {
            usage("-H wants ldap://HOST[:PORT] or ldaps://HOST[:PORT]");
            return nullptr;
        }
        flags = ssl ? ZEL_OPEN_SSL : ZEL_OPEN_NONSSL;
    }
    if (servers.size() > 1) {
        // The library takes the list as it is, each URI in its own scheme,
        // reduced to its host and port.
        host.clear();
        for (const std::string &server : servers) {
            std::string name;
            uint16_t server_port = 0;
            parse_uri(server, name, server_port, ssl);
            if (name.find(':') != std::string::npos) name = "[" + name + "]";
            host += (host.empty() ? "" : " ") + std::string(ssl ? "ldaps://" : "ldap://") + name +
                    (server_port ? ":" + std::to_string(server_port) : "");
        }
        port = 0;
        flags = 0;
    }
    if (opts.starttls) flags |= ZEL_OPEN_STARTTLS;
    if (ZelRC rc = Zel_setTimeouts(opts.network_timeout, opts.timeout)) {
        fail("cannot set the time-outs", rc);
        return nullptr;
    }
    const char *h = host.empty() ? nullptr : host.c_str();
    const char *keyring = opts.ca_file.empty() ? nullptr : opts.ca_file.c_str();
    ZelSession *s = nullptr;
    ZelRC rc;
    // Only the security domain form knows domains; version 0 and 1 sessions
    // open the way first-generation callers did.
    if (opts.api_version >= 2)
        rc = Zel_open_sec_domain(nullptr, opts.bind_dn.c_str(), opts.password.c_str(), h, port, flags,
                                 keyring, nullptr, nullptr, opts.domain.c_str(), &s, opts.api_version);
    else
        rc = Zel_open(nullptr, opts.bind_dn.c_str(), opts.password.c_str(), h, port, flags, keyring,
                      nullptr, nullptr, &s, opts.api_version);
    if (rc != 0) {
        fail("cannot open a session on " + (opts.uri.empty() ? std::string("the default server") : opts.uri), rc);
        return nullptr;
    }
    return Session(s);
}

}  // namespace zelctl
