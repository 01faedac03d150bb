// TLS of the directory-client adapter: the remembered CA file, ldaps
// handles, StartTLS and why a server's certificate was refused.  See
// ldap_client.h.
#include "platform/ldap_client_internal.h"

#include <lber.h>
#include <gnutls/x509.h>

#include <cstring>
#include <mutex>
#include <new>
#include <string>

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zel::platform {

namespace {

// Reason codes of ldap_ssl_client_init.
constexpr int kReasonCaFileRefused = 1;
constexpr int kReasonNoMemory = 2;

// A regular file this process can open for reading.
bool readable_file(const char *path) {
    int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat info;
    bool regular = ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
    ::close(fd);
    return regular;
}

// Per-handle TLS settings of an ldaps handle.
bool configure_tls(LDAP *ld, const std::string &keyring, const char *cert_label) {
    if (!keyring.empty() &&
        ::ldap_set_option(ld, LDAP_OPT_X_TLS_CACERTFILE, keyring.c_str()) != LDAP_OPT_SUCCESS) {
        return false;
    }
    int demand = LDAP_OPT_X_TLS_DEMAND;
    if (::ldap_set_option(ld, LDAP_OPT_X_TLS_REQUIRE_CERT, &demand) != LDAP_OPT_SUCCESS) return false;
    if (cert_label != nullptr &&
        (::ldap_set_option(ld, LDAP_OPT_X_TLS_CERTFILE, cert_label) != LDAP_OPT_SUCCESS ||
         ::ldap_set_option(ld, LDAP_OPT_X_TLS_KEYFILE, cert_label) != LDAP_OPT_SUCCESS)) {
        return false;
    }
    // A TLS context of the handle's own makes the settings above take effect;
    // building it loads the files, so a bad one fails here, not at the bind.
    int client_context = 0;
    return ::ldap_set_option(ld, LDAP_OPT_X_TLS_NEWCTX, &client_context) == LDAP_OPT_SUCCESS;
}

struct SslState {
    std::mutex mutex;
    bool initialised = false;
    std::string keyring;   // CA certificate file; empty when none was given
};

SslState &ssl_state() {
    static SslState state;
    return state;
}

// The CA file ldap_ssl_client_init remembered, into `keyring`; false when it
// or the client certificate file cannot be read.  Checked before OpenLDAP
// sees them: its TLS layer leaks the key structure when a key file fails to
// load.
bool tls_files_readable(const char *cert_label, std::string &keyring) {
    {
        SslState &state = ssl_state();
        std::lock_guard<std::mutex> lock(state.mutex);
        keyring = state.keyring;
    }
    return (keyring.empty() || readable_file(keyring.c_str())) && (cert_label == nullptr || readable_file(cert_label));
}

}  // namespace

// keyring_pw is not used: OpenLDAP reads PEM files that carry no password.
// ssl_timeout is not used either (see option 0xE0).
int ldap_ssl_client_init(const char *keyring, const char * /*keyring_pw*/, int /*ssl_timeout*/,
                         int *reason) {
    SslState &state = ssl_state();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (reason != nullptr) *reason = 0;
    if (state.initialised) return kSslAlreadyInitialised;
    // Only remembered here: each ldaps handle gets it with a TLS context of
    // its own (ldap_ssl_init), so libldap's process-wide defaults, which the
    // host process may rely on, stay as they are.  A failed first call leaves
    // the state open so that the caller may retry.
    try {
        std::string remembered = keyring != nullptr ? keyring : "";
        if (!remembered.empty() && !readable_file(remembered.c_str())) {
            if (reason != nullptr) *reason = kReasonCaFileRefused;
            return kParamError;
        }
        state.keyring.swap(remembered);
    } catch (const std::bad_alloc &) {
        if (reason != nullptr) *reason = kReasonNoMemory;
        return kNoMemory;
    }
    state.initialised = true;
    return LDAP_SUCCESS;
}

LDAP *ldap_ssl_init(const char *host, int port, const char *cert_label) {
    std::string keyring;
    if (!tls_files_readable(cert_label, keyring)) return nullptr;
    LDAP *ld = open_handle(host, port, true);
    if (ld == nullptr) return nullptr;

    if (!configure_tls(ld, keyring, cert_label)) {
        ::ldap_unbind_ext(ld, nullptr, nullptr);
        return nullptr;
    }
    return ld;
}

int ldap_start_tls(LDAP *ld, const char *cert_label) {
    if (ld == nullptr) return kParamError;
    std::string keyring;
    if (!tls_files_readable(cert_label, keyring) || !configure_tls(ld, keyring, cert_label)) return kParamError;
    return bind_with_recovery(ld, [&](LDAP *handle) {
        return classic_result(::ldap_start_tls_s(handle, nullptr, nullptr));
    });
}

namespace {

// What a connection that checks no certificate learns of the server's:
// whether it connected, and whether the certificate names the host.
struct Probe {
    bool connected = false;
    bool names_host = true;
};

// libldap checks "localhost" as the machine's own name.
std::string checked_name(const char *host) {
    if (strcasecmp(host, "localhost") != 0) return host;
    char own[256] = {};
    return ::gethostname(own, sizeof own - 1) == 0 ? own : host;
}

bool certificate_names(const struct berval &der, const std::string &host) {
    gnutls_x509_crt_t crt;
    if (gnutls_x509_crt_init(&crt) < 0) return true;   // cannot tell: not said to be the name
    gnutls_datum_t data{reinterpret_cast<unsigned char *>(der.bv_val), static_cast<unsigned>(der.bv_len)};
    bool named = gnutls_x509_crt_import(crt, &data, GNUTLS_X509_FMT_DER) < 0 ||
                 gnutls_x509_crt_check_hostname(crt, host.c_str()) != 0;
    gnutls_x509_crt_deinit(crt);
    return named;
}

Probe probe_without_verification(const char *uri) {
    Probe result;
    UrlDesc url;
    LDAP *probe = nullptr;
    if (::ldap_url_parse(uri, &url.desc) != LDAP_URL_SUCCESS || url.desc->lud_host == nullptr ||
        ::ldap_initialize(&probe, uri) != LDAP_SUCCESS)
        return result;
    int never = LDAP_OPT_X_TLS_NEVER, client_context = 0, three = LDAP_VERSION3;
    struct timeval limit{5, 0};
    result.connected = send_without_sigpipe(probe) &&
                       ::ldap_set_option(probe, LDAP_OPT_PROTOCOL_VERSION, &three) == LDAP_OPT_SUCCESS &&
                       ::ldap_set_option(probe, LDAP_OPT_X_TLS_REQUIRE_CERT, &never) == LDAP_OPT_SUCCESS &&
                       ::ldap_set_option(probe, LDAP_OPT_X_TLS_NEWCTX, &client_context) == LDAP_OPT_SUCCESS &&
                       ::ldap_set_option(probe, LDAP_OPT_NETWORK_TIMEOUT, &limit) == LDAP_OPT_SUCCESS &&
                       ::ldap_connect(probe) == LDAP_SUCCESS;
    struct berval der{};
    if (result.connected && ::ldap_get_option(probe, LDAP_OPT_X_TLS_PEERCERT, &der) == LDAP_OPT_SUCCESS &&
        der.bv_val != nullptr) {
        result.names_host = certificate_names(der, checked_name(url.desc->lud_host));
        ::ber_memfree(der.bv_val);
    }
    ::ldap_unbind_ext(probe, nullptr, nullptr);
    return result;
}

}  // namespace

std::string tls_failure_reason(LDAP *ld) {
    if (ld == nullptr) return {};
    LdapText uri;
    if (::ldap_get_option(ld, LDAP_OPT_URI, &uri.text) != LDAP_OPT_SUCCESS || uri.text == nullptr ||
        strncasecmp(uri.text, "ldaps://", 8) != 0)
        return {};
    // libldap keeps no trace of why the handshake failed: a connection that
    // checks nothing tells a refused certificate from an absent server, and
    // its certificate whether the name was the matter.  Only the first URI
    // of a list is probed: the handle reports no other.
    std::string first(uri.text, std::strcspn(uri.text, " \t,"));
    Probe probe = probe_without_verification(first.c_str());
    if (!probe.connected) return {};
    if (!probe.names_host) return "the certificate does not name the host connected to";
    return "the certificate is not signed by a trusted CA (or is not valid now)";
}

}  // namespace zel::platform
