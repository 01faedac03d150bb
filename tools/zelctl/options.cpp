// The options before the command, after OpenLDAP's own tools: each option
// that takes a value also takes it attached (-wVALUE, --name=VALUE).
#include <cstring>
#include <sstream>
#include <string>

#include "zelctl.h"

namespace zelctl {
namespace {

enum class Opt { Uri, BindDn, Password, PasswordFile, Prompt, Ca, Domain, ApiVersion, Json, DryRun, SimpleBind, StartTls, Help, Version,
                 Timeout, NetworkTimeout, Count };

struct OptionSpec {
    const char *name;
    bool takes_value;
    Opt id;
};

const OptionSpec kOptions[] = {
    {"-H", true, Opt::Uri},
    {"-D", true, Opt::BindDn},
    {"-w", true, Opt::Password},
    {"-y", true, Opt::PasswordFile},
    {"-W", false, Opt::Prompt},
    {"-x", false, Opt::SimpleBind},
    {"-Z", false, Opt::StartTls},
    {"-ZZ", false, Opt::StartTls},
    {"--ca", true, Opt::Ca},
    {"--domain", true, Opt::Domain},
    {"--api-version", true, Opt::ApiVersion},
    {"--json", false, Opt::Json},
    {"--dry-run", false, Opt::DryRun},
    {"--timeout", true, Opt::Timeout},
    {"--network-timeout", true, Opt::NetworkTimeout},
    {"-h", false, Opt::Help},
    {"--help", false, Opt::Help},
    {"--version", false, Opt::Version},
};

// The option an argument names, and where an attached value starts (null
// when none is attached).
const OptionSpec *find_option(char *arg, char *&attached) {
    attached = nullptr;
    for (const OptionSpec &o : kOptions)
        if (std::strcmp(arg, o.name) == 0) return &o;
    for (const OptionSpec &o : kOptions) {
        size_t n = std::strlen(o.name);
        if (std::strncmp(arg, o.name, n) != 0) continue;
        bool is_long = o.name[1] == '-';
        if (is_long && arg[n] == '=') {
            attached = arg + n + 1;
            return &o;
        }
        if (!is_long && o.takes_value && arg[n] != '\0') {
            attached = arg + n;
            return &o;
        }
    }
    return nullptr;
}

// How an unknown option is named in an error: its value, if any, left out.
std::string bare_name(const char *arg) {
    if (arg[1] == '-') return std::string(arg, std::strcspn(arg, "="));
    return std::string(arg, 2);
}

void scrub(char *text) { std::memset(text, 0, std::strlen(text)); }

bool apply(const OptionSpec &o, const char *value, CommandLine &line, std::string &error) {
    Options &opts = line.opts;
    switch (o.id) {
    case Opt::Uri: {
        std::string host;
        uint16_t port = 0;
        bool ssl = false;
        // One server or several, separated by blanks, each a URI.
        std::istringstream servers(value);
        std::string server;
        bool any = false;
        while (servers >> server) {
            if (!parse_uri(server, host, port, ssl)) {
                error = "-H wants ldap://HOST[:PORT] or ldaps://HOST[:PORT]";
                return false;
            }
            any = true;
        }
        if (!any) {
            error = "-H wants ldap://HOST[:PORT] or ldaps://HOST[:PORT]";
            return false;
        }
        opts.uri = value;
        break;
    }
    case Opt::BindDn: opts.bind_dn = value; break;
    case Opt::Password:
        opts.password = value;
        opts.have_password = true;
        break;
    case Opt::PasswordFile: line.password_file = value; break;
    case Opt::Prompt: line.prompt = true; break;
    case Opt::Ca: opts.ca_file = value; break;
    case Opt::Domain: opts.domain = value; break;
    case Opt::ApiVersion:
        if (!parse_number(value, 2, opts.api_version)) {
            error = "--api-version wants a number from 0 to 2";
            return false;
        }
        opts.api_version_given = true;
        break;
    case Opt::Json: opts.json = true; break;
    case Opt::DryRun: opts.dry_run = true; break;
    case Opt::Timeout:
    case Opt::NetworkTimeout: {
        uint32_t seconds = 0;
        if (!parse_number(value, kMaxTimeoutSeconds, seconds)) {
            error = std::string(o.name) + " wants whole seconds (0: no limit)";
            return false;
        }
        (o.id == Opt::Timeout ? opts.timeout : opts.network_timeout) = static_cast<int32_t>(seconds);
        break;
    }
    case Opt::SimpleBind: break;  // the only bind there is
    case Opt::StartTls: opts.starttls = true; break;
    case Opt::Help: line.help = true; break;
    case Opt::Version: line.version = true; break;
    case Opt::Count: break;
    }
    return true;
}

}  // namespace

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
    bool has_port = false;
    if (!rest.empty() && rest[0] == '[') {
        size_t close = rest.find(']');
        if (close == std::string::npos) return false;
        host = rest.substr(1, close - 1);
        has_port = close + 1 < rest.size();
        if (has_port && rest[close + 1] != ':') return false;
        if (has_port) port_text = rest.substr(close + 2);
    } else {
        size_t colon = rest.find(':');
        host = rest.substr(0, colon);
        has_port = colon != std::string::npos;
        if (has_port) port_text = rest.substr(colon + 1);
    }
    port = 0;
    uint32_t n = 0;
    if (has_port && (!parse_number(port_text, UINT16_MAX, n) || n == 0)) return false;
    port = static_cast<uint16_t>(n);
    return !host.empty();
}


bool parse_number(const std::string &text, uint32_t max, uint32_t &value) {
    if (text.empty()) return false;
    uint64_t n = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        n = n * 10 + static_cast<uint64_t>(c - '0');
        if (n > max) return false;  // checked at every digit, so n never wraps
    }
    value = static_cast<uint32_t>(n);
    return true;
}

bool parse_command_line(int argc, char **argv, CommandLine &line, std::string &error) {
    bool seen[static_cast<int>(Opt::Count)] = {};
    int i = 1;
    for (; i < argc && argv[i][0] == '-' && argv[i][1] != '\0'; ++i) {
        char *attached = nullptr;
        const OptionSpec *o = find_option(argv[i], attached);
        if (o == nullptr) {
            error = "unknown option " + bare_name(argv[i]);
            return false;
        }
        char *value = attached;
        if (o->takes_value && value == nullptr) {
            if (i + 1 >= argc) {
                error = std::string(o->name) + " needs a value";
                return false;
            }
            value = argv[++i];
        } else if (!o->takes_value && attached != nullptr) {
            error = std::string(o->name) + " takes no value";
            return false;
        }
        // The copy is taken before anything can fail, so the bytes in argv
        // are gone on every path.
        std::string copy = value ? value : "";
        if (o->id == Opt::Password) scrub(value);

        int id = static_cast<int>(o->id);
        if (o->takes_value && seen[id]) {
            error = std::string(o->name) + " is given twice";
            return false;
        }
        seen[id] = true;
        int secrets = seen[static_cast<int>(Opt::Password)] + seen[static_cast<int>(Opt::PasswordFile)] +
                      seen[static_cast<int>(Opt::Prompt)];
        if (secrets > 1) {
            error = "-w, -W and -y exclude each other";
            return false;
        }
        if (!apply(*o, copy.c_str(), line, error)) return false;
        forget_secret(copy);
    }
    line.rest.assign(argv + i, argv + argc);
    return true;
}

}  // namespace zelctl
