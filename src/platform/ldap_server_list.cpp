// The servers the OpenLDAP client is configured with, as a classic server
// list.  See ldap_client.h.
#include "platform/ldap_client_internal.h"
#include "platform/host_list.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include <strings.h>

namespace zel::platform {

int ldap_server_locate(ServerRequest * /*request*/, ServerInfo **list) {
    if (list == nullptr) return kParamError;
    *list = nullptr;

    LdapText uris;
    LdapText base;
    int rc = ::ldap_get_option(nullptr, LDAP_OPT_URI, &uris.text);
    if (rc != LDAP_OPT_SUCCESS) return classic_result(rc);
    rc = ::ldap_get_option(nullptr, LDAP_OPT_DEFBASE, &base.text);
    if (rc != LDAP_OPT_SUCCESS) return classic_result(rc);
    if (uris.text == nullptr) return LDAP_NO_SUCH_OBJECT;
    // An empty BASE names no suffix.
    const char *suffix = base.text != nullptr && base.text[0] != '\0' ? base.text : nullptr;

    ServerInfo *head = nullptr;
    ServerInfo **tail = &head;
    std::string_view rest(uris.text);
    constexpr const char *kSeparators = " \t,";
    try {
        while (!rest.empty()) {
            size_t start = rest.find_first_not_of(kSeparators);
            if (start == std::string_view::npos) break;
            rest.remove_prefix(start);
            std::string uri(rest.substr(0, rest.find_first_of(kSeparators)));
            rest.remove_prefix(uri.size());

            UrlDesc url;
            if (::ldap_url_parse(uri.c_str(), &url.desc) != LDAP_URL_SUCCESS) continue;
            int sec_type;
            int default_port;
            if (strcasecmp(url.desc->lud_scheme, "ldap") == 0) {
                sec_type = kSecurityNone;
                default_port = kLdapPort;
            } else if (strcasecmp(url.desc->lud_scheme, "ldaps") == 0) {
                sec_type = kSecuritySsl;
                default_port = kLdapsPort;
            } else {
                continue;   // ldapi and the like name no host to connect to
            }
            if (url.desc->lud_host == nullptr || url.desc->lud_host[0] == '\0') continue;
            int port = url.desc->lud_port > 0 ? url.desc->lud_port : default_port;
            if (port > 65535) continue;

            auto *node = static_cast<ServerInfo *>(calloc(1, sizeof(ServerInfo)));
            if (node == nullptr) throw std::bad_alloc();
            *tail = node;
            tail = &node->next;
            node->host = strdup(url.desc->lud_host);
            node->suffix = suffix != nullptr ? strdup(suffix) : nullptr;
            if (node->host == nullptr || (suffix != nullptr && node->suffix == nullptr)) {
                throw std::bad_alloc();
            }
            node->port = static_cast<unsigned short>(port);
            node->replica_type = kReplicaMaster;
            node->sec_type = sec_type;
        }
    } catch (const std::bad_alloc &) {
        ldap_server_free_list(head);
        return kNoMemory;
    }
    if (head == nullptr) return LDAP_NO_SUCH_OBJECT;
    *list = head;
    return LDAP_SUCCESS;
}

void ldap_server_free_list(ServerInfo *list) {
    while (list != nullptr) {
        ServerInfo *next = list->next;
        free(list->host);
        free(list->suffix);
        free(list);
        list = next;
    }
}

}  // namespace zel::platform
