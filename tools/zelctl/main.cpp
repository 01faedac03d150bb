// zelctl: the administrator's command-line tool over libzelmgmt.
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include "zelctl.h"

namespace zelctl {
namespace {

const char *kUsage =
    "usage: zelctl [-H URI] [-D binddn] [-w pw | -W | -y file] [--ca FILE]\n"
    "              [--domain NAME] [--api-version N] [--json] COMMAND ...\n"
    "commands:\n"
    "  info                                     what the directory is and where the data lies\n"
    "  service list | get NAME | add NAME --type T [--description D] [--id NAME=VALUE ...]\n"
    "          | remove NAME\n"
    "  service-type add NAME [--id NAME ...] | remove NAME\n"
    "  user add NAME --type T [--person DN] [--description D] [--disabled]\n"
    "     | update NAME [--person DN] [--description D] [--enabled | --disabled]\n"
    "     | verify PERSON_DN | remove NAME|DN\n"
    "  db create SUFFIX [--admin DN|CN] [--admin-uid U] [--admin-password-file F]\n"
    "            [--create-suffix] [--default-types] [--extended] | remove [--yes]\n"
    "  person add PARENT_DN --cn CN --sn SN [--uid U] [--description D] [--password-file F] [--type T]\n"
    "db commands use --api-version 1 unless told otherwise; password files are read whole, one\n"
    "trailing newline removed (/dev/stdin reads standard input).\n"
    "Without -H the client's configured default server is used; -H ldaps://... connects with SSL.\n";

std::string ca_file;

// ldap://host[:port] or ldaps://host[:port]; IPv6 hosts in brackets.
bool parse_uri(const std::string &uri, std::string &host, uint16_t &port, bool &ssl) {
    std::string rest;
    if (uri.rfind("ldaps://", 0) == 0) {
        ssl = true;
        rest = uri.substr(8);
    } else if (uri.rfind("ldap://", 0) == 0) {
        ssl = false;
        rest = uri.substr(7);
    } else {
        return false;
    }
    rest = rest.substr(0, rest.find('/'));
    std::string port_text;
    if (!rest.empty() && rest[0] == '[') {
        size_t close = rest.find(']');
        if (close == std::string::npos) return false;
        host = rest.substr(1, close - 1);
        if (close + 1 < rest.size() && rest[close + 1] == ':') port_text = rest.substr(close + 2);
    } else {
        size_t colon = rest.find(':');
        host = rest.substr(0, colon);
        if (colon != std::string::npos) port_text = rest.substr(colon + 1);
    }
    port = 0;
    if (!port_text.empty()) {
        char *end = nullptr;
        long n = std::strtol(port_text.c_str(), &end, 10);
        if (*end || n <= 0 || n > 65535) return false;
        port = static_cast<uint16_t>(n);
    }
    return !host.empty();
}

}  // namespace

ZelSession *open_session(const Options &opts) {
    if (opts.bind_dn.empty() || !opts.have_password) {
        usage("a bind DN (-D) and a password (-w, -W or -y) are needed");
        return nullptr;
    }
    std::string host;
    uint16_t port = 0;
    bool ssl = false;
    int32_t flags = 0;
    if (!opts.uri.empty()) {
        if (!parse_uri(opts.uri, host, port, ssl)) {
            usage("cannot read the URI " + opts.uri);
            return nullptr;
        }
        flags = ssl ? ZEL_OPEN_SSL : ZEL_OPEN_NONSSL;
    }
    const char *h = host.empty() ? nullptr : host.c_str();
    const char *keyring = ca_file.empty() ? nullptr : ca_file.c_str();
    ZelSession *s = nullptr;
    ZelRC rc;
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
    return s;
}

int fail(const std::string &what, ZelRC rc) {
    std::fprintf(stderr, "zelctl: %s: %s (status %u)\n", what.c_str(), Zel_strerror(rc), rc);
    return 1;
}

int usage(const std::string &message) {
    std::fprintf(stderr, "zelctl: %s\n", message.c_str());
    return 2;
}

std::string json_string(const char *text) {
    if (!text) return "null";
    std::string out = "\"";
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(text); *p; ++p) {
        switch (*p) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (*p < 0x20) {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\u%04x", *p);
                out += buf;
            } else {
                out += static_cast<char>(*p);
            }
        }
    }
    return out + "\"";
}

bool take_option(Args &args, const std::string &name, std::string &value) {
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] != name) continue;
        if (i + 1 >= args.size()) return false;
        value = args[i + 1];
        args.erase(args.begin() + static_cast<long>(i), args.begin() + static_cast<long>(i) + 2);
        return true;
    }
    return false;
}

bool take_flag(Args &args, const std::string &name) {
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == name) {
            args.erase(args.begin() + static_cast<long>(i));
            return true;
        }
    }
    return false;
}

}  // namespace zelctl

int main(int argc, char **argv) {
    using namespace zelctl;
    Options opts;
    Args rest;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](const char *what) -> const char * {
            if (i + 1 >= argc) {
                usage(std::string(what) + " needs a value");
                std::exit(2);
            }
            return argv[++i];
        };
        if (!rest.empty()) {
            rest.push_back(a);
        } else if (a == "-h" || a == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (a == "-H") {
            opts.uri = value("-H");
        } else if (a == "-D") {
            opts.bind_dn = value("-D");
        } else if (a == "-w") {
            opts.password = value("-w");
            opts.have_password = true;
        } else if (a == "-W") {
            if (!prompt_secret("Enter LDAP Password: ", opts.password)) return usage("cannot read a password from the terminal");
            opts.have_password = true;
        } else if (a == "-y") {
            std::string path = value("-y");
            if (!read_secret_file(path, opts.password)) return usage("cannot read the password file " + path);
            opts.have_password = true;
        } else if (a == "--ca") {
            zelctl::ca_file = value("--ca");
        } else if (a == "--domain") {
            opts.domain = value("--domain");
        } else if (a == "--api-version") {
            const char *v = value("--api-version");
            char *end = nullptr;
            long n = std::strtol(v, &end, 10);
            if (*end || n < 0) return usage(std::string("bad --api-version ") + v);
            opts.api_version = static_cast<uint32_t>(n);
            opts.api_version_given = true;
        } else if (a == "--json") {
            opts.json = true;
        } else if (!a.empty() && a[0] == '-') {
            return usage("unknown option " + a + "\n" + kUsage);
        } else {
            rest.push_back(a);
        }
    }
    if (rest.empty()) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    std::string command = rest.front();
    rest.erase(rest.begin());
    if (take_flag(rest, "--json")) opts.json = true;
    bool known = command == "info" || command == "service" || command == "service-type" || command == "user" ||
                 command == "db" || command == "person";
    if (!known) return usage("unknown command " + command + "\n" + kUsage);
    if (opts.bind_dn.empty() || !opts.have_password)
        return usage("a bind DN (-D) and a password (-w, -W or -y) are needed");
    if (command == "info") return run_info(opts, rest);
    if (command == "service") return run_service(opts, rest);
    if (command == "service-type") return run_service_type(opts, rest);
    if (command == "user") return run_user(opts, rest);
    if (command == "db") return run_db(opts, rest);
    if (command == "person") return run_person(opts, rest);
    return usage("unknown command " + command + "\n" + kUsage);
}
