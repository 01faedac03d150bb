// The classic host argument of an open: blank-separated host names or
// addresses, each optionally with its own ":port".
#pragma once

#include <string>

namespace zel::platform {

// Appends the URI list for `host` to `uris` ("ldap://h:389 ldaps://..."); a
// port of 0 or less takes the scheme's default.  False for a null, empty or
// malformed host or a port past 65535.
bool build_uris(const char *host, int port, bool ssl, std::string &uris);

}  // namespace zel::platform
