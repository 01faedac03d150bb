// The classic host argument of an open: blank-separated servers, each a host
// name or address optionally with its own ":port", or an "ldap://" or
// "ldaps://" URI naming a host and port only.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zel::platform {

// The scheme's default ports.
constexpr int kLdapPort = 389;
constexpr int kLdapsPort = 636;

// Appends the URI list for `host` to `uris` ("ldap://h:389 ldaps://..."); a
// bare host without a port of its own takes `port`, and a port of 0 or less
// the scheme's default; a URI without a port takes its scheme's default.
// Bare hosts get "ldaps" when `ssl`, URIs keep their scheme.  False for a
// null, empty or malformed host or a port past 65535.
bool build_uris(const char *host, int port, bool ssl, std::string &uris);

// The servers of a host list, each as given; empty for a null host.
std::vector<std::string> host_entries(const char *host);

// The security an entry asks for itself: a URI's scheme, or none for a
// bare host (the open's flags decide).
enum class EntrySecurity { FromFlags, Plain, Ssl };
EntrySecurity entry_security(std::string_view entry);

}  // namespace zel::platform
