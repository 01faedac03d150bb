// The classic host argument turned into a URI list.  See host_list.h.
#include "platform/host_list.h"

#include <cctype>
#include <string>
#include <string_view>
#include <vector>

#include <strings.h>

namespace zel::platform {

namespace {

bool is_host_name_char(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-' || c == '_';
}

bool is_ipv6_char(char c) {
    return std::isxdigit(static_cast<unsigned char>(c)) || c == ':' || c == '.';
}

bool all_of(std::string_view text, bool (*accept)(char)) {
    if (text.empty()) return false;
    for (char c : text) {
        if (!accept(c)) return false;
    }
    return true;
}

// A decimal port 1..65535; false for anything else.
bool parse_port(std::string_view digits, int &port) {
    if (digits.empty() || digits.size() > 5) return false;
    int value = 0;
    for (char c : digits) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + (c - '0');
    }
    if (value < 1 || value > 65535) return false;
    port = value;
    return true;
}

// Appends "scheme://host:port" for one host of a classic host list.  A host
// may carry its own port ("name:port", "[v6]:port"); a bare IPv6 address is
// bracketed.  Only characters that cannot change the URI's meaning are
// accepted, so "a/b" or "a?b" cannot smuggle a DN or scope into the URI.
bool append_uri(std::string &uris, const char *scheme, std::string_view token, int port) {
    std::string_view address;
    bool ipv6 = false;
    if (token.front() == '[') {
        size_t close = token.find(']');
        if (close == std::string_view::npos) return false;
        address = token.substr(1, close - 1);
        std::string_view rest = token.substr(close + 1);
        if (!rest.empty() && (rest.front() != ':' || !parse_port(rest.substr(1), port))) return false;
        ipv6 = true;
    } else {
        size_t first = token.find(':');
        if (first == std::string_view::npos) {
            address = token;
        } else if (token.find(':', first + 1) == std::string_view::npos) {
            address = token.substr(0, first);
            if (!parse_port(token.substr(first + 1), port)) return false;
        } else {
            address = token;
            ipv6 = true;
        }
    }
    if (!all_of(address, ipv6 ? is_ipv6_char : is_host_name_char)) return false;

    if (!uris.empty()) uris += ' ';
    uris += scheme;
    uris += "://";
    if (ipv6) uris += '[';
    uris += address;
    if (ipv6) uris += ']';
    uris += ':';
    uris += std::to_string(port);
    return true;
}

// Calls fn(entry) for each blank-separated entry of a host list.
template <class Fn>
bool each_entry(std::string_view rest, Fn &&fn) {
    while (!rest.empty()) {
        size_t start = rest.find_first_not_of(" \t");
        if (start == std::string_view::npos) break;
        rest.remove_prefix(start);
        std::string_view token = rest.substr(0, rest.find_first_of(" \t"));
        if (!fn(token)) return false;
        rest.remove_prefix(token.size());
    }
    return true;
}

bool starts_with_folded(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && strncasecmp(text.data(), prefix.data(), prefix.size()) == 0;
}

}  // namespace

EntrySecurity entry_security(std::string_view entry) {
    if (starts_with_folded(entry, "ldaps://")) return EntrySecurity::Ssl;
    if (starts_with_folded(entry, "ldap://")) return EntrySecurity::Plain;
    return EntrySecurity::FromFlags;
}

std::vector<std::string> host_entries(const char *host) {
    std::vector<std::string> entries;
    if (host != nullptr) each_entry(host, [&](std::string_view token) {
        entries.emplace_back(token);
        return true;
    });
    return entries;
}

bool build_uris(const char *host, int port, bool ssl, std::string &uris) {
    if (host == nullptr) return false;
    if (port <= 0) port = ssl ? kLdapsPort : kLdapPort;
    if (port > 65535) return false;
    bool ok = each_entry(host, [&](std::string_view token) {
        EntrySecurity security = entry_security(token);
        if (security == EntrySecurity::FromFlags) return append_uri(uris, ssl ? "ldaps" : "ldap", token, port);
        // A URI names a host and a port and nothing else: no DN, scope or
        // filter of a caller's may reach the connection.
        bool uri_ssl = security == EntrySecurity::Ssl;
        token.remove_prefix(uri_ssl ? 8 : 7);
        if (!token.empty() && token.back() == '/') token.remove_suffix(1);
        if (token.empty()) return false;
        return append_uri(uris, uri_ssl ? "ldaps" : "ldap", token, uri_ssl ? kLdapsPort : kLdapPort);
    });
    return ok && !uris.empty();
}

}  // namespace zel::platform
