// A classic host list (bare hosts or ldap:// and ldaps:// URIs): accepted only
// as plain "scheme://host:port" URIs, one per host, that carry no DN,
// attributes, scope, filter or extension.
#include <ldap.h>

#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "platform/host_list.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 3) return 0;
    const int port = data[0] << 8 | data[1];
    const bool ssl = data[2] & 1;
    std::string host(reinterpret_cast<const char *>(data + 3), size - 3);
    host = host.substr(0, host.find('\0'));
    std::string uris;
    if (!zel::platform::build_uris(host.c_str(), port, ssl, uris)) return 0;
    std::istringstream list(uris);
    std::string uri;
    while (list >> uri) {
        LDAPURLDesc *url = nullptr;
        if (ldap_url_parse(uri.c_str(), &url) != LDAP_URL_SUCCESS) abort();
        bool plain = (url->lud_dn == nullptr || *url->lud_dn == '\0') && url->lud_attrs == nullptr &&
                     url->lud_filter == nullptr && url->lud_exts == nullptr && url->lud_port > 0 &&
                     url->lud_port <= 65535 &&
                     (std::string(url->lud_scheme) == "ldap" || std::string(url->lud_scheme) == "ldaps");
        ldap_free_urldesc(url);
        if (!plain) abort();
    }
    return 0;
}
