// The directory-client adapter over OpenLDAP libldap.  See ldap_client.h.
#include "platform/ldap_client.h"
#include "platform/host_list.h"

#include <lber.h>
#include <sasl/sasl.h>
#include <gnutls/x509.h>

#include <cctype>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zel::platform {

namespace {

constexpr int kParamError = 89;   // classic LDAP_PARAM_ERROR
constexpr int kNoMemory = 90;     // classic LDAP_NO_MEMORY
constexpr int kServerDown = 81;   // classic LDAP_SERVER_DOWN
constexpr int kTimeout = 85;      // classic LDAP_TIMEOUT
constexpr int kConnectError = 91; // classic LDAP_CONNECT_ERROR

constexpr int kLdapPort = 389;
constexpr int kLdapsPort = 636;

// Reason codes of ldap_ssl_client_init.
constexpr int kReasonCaFileRefused = 1;
constexpr int kReasonNoMemory = 2;

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

namespace {

// Connection handle for a URI list; null when OpenLDAP refuses it.
LDAP *initialize(const char *host, int port, bool ssl) {
    std::string uris;
    if (!build_uris(host, port, ssl, uris)) return nullptr;
    LDAP *ld = nullptr;
    if (::ldap_initialize(&ld, uris.c_str()) != LDAP_SUCCESS) return nullptr;
    if (ldap_set_referrals(ld, false, nullptr) != LDAP_SUCCESS) {
        ::ldap_unbind_ext(ld, nullptr, nullptr);
        return nullptr;
    }
    return ld;
}

// The integer an option carries, passed as the caller says it is: by
// address (a pointer to an int) or as the value itself.
int option_integer(const void *value, OptionPassing passing, int &out) {
    if (passing == OptionPassing::ByAddress) {
        if (value == nullptr) return kParamError;
        out = *static_cast<const int *>(value);
        return LDAP_SUCCESS;
    }
    intptr_t raw = reinterpret_cast<intptr_t>(value);
    if (raw < INT_MIN || raw > INT_MAX) return kParamError;
    out = static_cast<int>(raw);
    return LDAP_SUCCESS;
}

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

struct LocaleState {
    std::mutex mutex;
    bool set = false;
    std::string name;
};

LocaleState &locale_state() {
    static LocaleState state;
    return state;
}

// Frees what OpenLDAP allocated, whatever path leaves the scope.
struct LdapText {
    char *text = nullptr;
    ~LdapText() { ::ldap_memfree(text); }
};

// An add's modification list with the modifications of one attribute type
// (ignoring case) merged into the first of them, values kept in order: slapd
// refuses an add that names a type twice.  String and binary values are
// never merged with each other.  The records and value arrays are new; the
// types and values are the caller's.
class MergedAdd {
public:
    explicit MergedAdd(LDAPMod **mods) {
        size_t n = 0;
        while (mods != nullptr && mods[n] != nullptr) ++n;
        records_.reserve(n);
        values_.reserve(n);
        for (size_t i = 0; i < n; ++i) {
            const LDAPMod *mod = mods[i];
            size_t into = find(mod);
            if (into == records_.size()) {
                records_.push_back(*mod);
                values_.emplace_back();
            }
            for (void **v = values_of(mod); v != nullptr && *v != nullptr; ++v) values_[into].push_back(*v);
        }
        for (size_t i = 0; i < records_.size(); ++i) {
            values_[i].push_back(nullptr);
            records_[i].mod_vals.modv_strvals = reinterpret_cast<char **>(values_[i].data());
            list_.push_back(&records_[i]);
        }
        list_.push_back(nullptr);
    }
    LDAPMod **get() { return list_.data(); }

private:
    static bool binary(const LDAPMod *mod) { return (mod->mod_op & LDAP_MOD_BVALUES) != 0; }
    static void **values_of(const LDAPMod *mod) {
        return reinterpret_cast<void **>(mod->mod_vals.modv_strvals);
    }
    size_t find(const LDAPMod *mod) const {
        for (size_t i = 0; i < records_.size(); ++i) {
            const LDAPMod &seen = records_[i];
            if (seen.mod_op == mod->mod_op && binary(&seen) == binary(mod) && seen.mod_type != nullptr &&
                mod->mod_type != nullptr && strcasecmp(seen.mod_type, mod->mod_type) == 0)
                return i;
        }
        return records_.size();
    }

    std::vector<LDAPMod> records_;
    std::vector<std::vector<void *>> values_;
    std::vector<LDAPMod *> list_;
};

struct UrlDesc {
    LDAPURLDesc *desc = nullptr;
    ~UrlDesc() {
        if (desc != nullptr) ::ldap_free_urldesc(desc);
    }
};

// A handle's time-out, or nullopt when it has none.
std::optional<std::chrono::microseconds> timeout_of(LDAP *ld, int option) {
    struct timeval *tv = nullptr;
    if (::ldap_get_option(ld, option, &tv) != LDAP_OPT_SUCCESS || tv == nullptr) return std::nullopt;
    std::optional<std::chrono::microseconds> limit;
    if (tv->tv_sec >= 0) limit = std::chrono::seconds(tv->tv_sec) + std::chrono::microseconds(tv->tv_usec);
    ::ldap_memfree(tv);
    return limit;
}

void set_timeout(LDAP *ld, int option, std::optional<std::chrono::microseconds> limit) {
    if (!limit) {
        ::ldap_set_option(ld, option, nullptr);
        return;
    }
    struct timeval tv = {static_cast<time_t>(limit->count() / 1000000),
                         static_cast<suseconds_t>(limit->count() % 1000000)};
    ::ldap_set_option(ld, option, &tv);
}

// Handles with a recovery attached.  Looked up before every request, by
// many sessions at once: readers share the lock.
struct RecoveryRegistry {
    std::shared_mutex mutex;
    std::unordered_map<LDAP *, Recovery *> attached;
};

RecoveryRegistry &recoveries() {
    static RecoveryRegistry registry;
    return registry;
}

Recovery *recovery_of(LDAP *ld) {
    RecoveryRegistry &registry = recoveries();
    std::shared_lock<std::shared_mutex> lock(registry.mutex);
    auto found = registry.attached.find(ld);
    return found == registry.attached.end() ? nullptr : found->second;
}

// Runs call(handle) on the handle the recovery chooses and, when it failed
// on the client side, lets the recovery connect again; a read is sent once
// more on the new handle, within what is left of the call's deadline.
// `before_resend` drops what the failed attempt left.
template <class Call, class Drop>
int with_recovery(LDAP *ld, Request kind, Call &&call, Drop &&before_resend) {
    Recovery *recovery = recovery_of(ld);
    if (recovery == nullptr) return call(ld);
    // The deadline counts from now; the handle's time-outs are read only
    // when a reconnect needs them.
    const auto sent = std::chrono::steady_clock::now();
    LDAP *use = ld;
    Deadline deadline = Deadline::max();
    int refusal = kServerDown;
    const bool passes = recovery->passes(ld, kind);
    if (!passes) {
        deadline = request_deadline(ld, sent);
        if ((use = recovery->prepare(ld, kind, deadline, refusal)) == nullptr) return refusal;
    }
    int rc = call(use);
    if (!connection_lost(rc)) return rc;
    if (passes) deadline = request_deadline(ld, sent);
    refusal = 0;
    LDAP *fresh = recovery->recover(use, rc, deadline, refusal);   // `use` may be gone from here on
    if (refusal != 0) return refusal;
    if (fresh == nullptr || kind != Request::Read) return rc;
    before_resend();
    KeptTimeouts kept(fresh);
    if (!limit_to_deadline(fresh, deadline)) return rc;
    return call(fresh);
}

template <class Call>
int write_with_recovery(LDAP *ld, Call &&call) {
    return with_recovery(ld, Request::Write, call, [] {});
}

template <class Call>
int bind_with_recovery(LDAP *ld, Call &&call) {
    return with_recovery(ld, Request::Bind, call, [] {});
}

}  // namespace

std::optional<std::chrono::microseconds> ldap_get_timeout(LDAP *ld, bool request) {
    return timeout_of(ld, request ? LDAP_OPT_TIMEOUT : LDAP_OPT_NETWORK_TIMEOUT);
}

KeptTimeouts::KeptTimeouts(LDAP *ld)
    : ld_(ld), network_(timeout_of(ld, LDAP_OPT_NETWORK_TIMEOUT)), request_(timeout_of(ld, LDAP_OPT_TIMEOUT)) {}

KeptTimeouts::~KeptTimeouts() {
    set_timeout(ld_, LDAP_OPT_NETWORK_TIMEOUT, network_);
    set_timeout(ld_, LDAP_OPT_TIMEOUT, request_);
}

Deadline request_deadline(LDAP *ld) { return request_deadline(ld, std::chrono::steady_clock::now()); }

Deadline request_deadline(LDAP *ld, std::chrono::steady_clock::time_point sent) {
    auto request = timeout_of(ld, LDAP_OPT_TIMEOUT);
    if (!request) return Deadline::max();
    // Without a connect limit, a reconnect gets as long as a request.
    auto network = timeout_of(ld, LDAP_OPT_NETWORK_TIMEOUT);
    return sent + *request + (network ? *network : *request);
}

bool limit_to_deadline(LDAP *ld, Deadline deadline) {
    if (deadline == Deadline::max()) return true;
    auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    for (int option : {LDAP_OPT_NETWORK_TIMEOUT, LDAP_OPT_TIMEOUT}) {
        auto limit = timeout_of(ld, option);
        if (!limit || *limit > left) set_timeout(ld, option, left);
    }
    return true;
}

int ldap_drop(LDAP *ld) {
    if (ld == nullptr) return kParamError;
    set_recovery(ld, nullptr);
    int fd = -1;
    if (::ldap_get_option(ld, LDAP_OPT_DESC, &fd) == LDAP_OPT_SUCCESS && fd >= 0) {
        struct linger reset = {1, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    }
    return classic_result(::ldap_unbind_ext(ld, nullptr, nullptr));
}

int ldap_whoami(LDAP *ld, std::string &identity) {
    identity.clear();
    if (ld == nullptr) return kParamError;
    struct berval *authzid = nullptr;
    int rc = ::ldap_whoami_s(ld, &authzid, nullptr, nullptr);
    if (rc == LDAP_SUCCESS && authzid != nullptr && authzid->bv_val != nullptr)
        identity.assign(authzid->bv_val, authzid->bv_len);
    if (authzid != nullptr) ::ber_bvfree(authzid);
    return classic_result(rc);
}

bool connection_lost(int classic_rc) {
    // Classic numbers: OpenLDAP's own names for these stand for negative codes.
    return classic_rc == kServerDown || classic_rc == kTimeout || classic_rc == kConnectError;
}

void set_recovery(LDAP *ld, Recovery *recovery) {
    RecoveryRegistry &registry = recoveries();
    std::unique_lock<std::shared_mutex> lock(registry.mutex);
    if (recovery == nullptr) registry.attached.erase(ld);
    else registry.attached[ld] = recovery;
}

int ldap_set_timeouts(LDAP *ld, int network_seconds, int request_seconds) {
    if (ld == nullptr) return kParamError;
    const std::pair<int, int> limits[] = {{LDAP_OPT_NETWORK_TIMEOUT, network_seconds},
                                          {LDAP_OPT_TIMEOUT, request_seconds}};
    for (const auto &[option, seconds] : limits) {
        if (seconds < 0) continue;
        // No limit is "no time-out structure": a zero one would mean "do not wait".
        struct timeval tv = {seconds, 0};
        int rc = ::ldap_set_option(ld, option, seconds == 0 ? nullptr : &tv);
        if (rc != LDAP_OPT_SUCCESS) return classic_result(rc);
    }
    return LDAP_SUCCESS;
}

std::string connection_uri(LDAP *ld) {
    LdapText uri;
    if (ld == nullptr || ::ldap_get_option(ld, LDAP_OPT_URI, &uri.text) != LDAP_OPT_SUCCESS || uri.text == nullptr)
        return {};
    return uri.text;
}

void configured_timeouts(bool &network, bool &request) {
    struct timeval *tv = nullptr;
    network = ::ldap_get_option(nullptr, LDAP_OPT_NETWORK_TIMEOUT, &tv) == LDAP_OPT_SUCCESS && tv != nullptr;
    ::ldap_memfree(tv);
    tv = nullptr;
    request = ::ldap_get_option(nullptr, LDAP_OPT_TIMEOUT, &tv) == LDAP_OPT_SUCCESS && tv != nullptr;
    ::ldap_memfree(tv);
}

int classic_result(int rc) {
    if (rc >= 0) return rc;
    // OpenLDAP's client codes run from -1 to about -17; anything below the
    // range that 80 - rc can represent is reported as "other" (80).
    if (rc < 80 - INT_MAX) return LDAP_OTHER;
    return 80 - rc;
}

// A null handle is refused here: OpenLDAP asserts on it or dereferences it.

int ldap_search_ext_s(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                      int attrsonly, LDAPControl **serverctrls, LDAPControl **clientctrls,
                      struct timeval *timeout, int sizelimit, LDAPMessage **res) {
    if (ld == nullptr) return kParamError;
    // A zero time-out means "no limit"; OpenLDAP would refuse it.
    if (timeout != nullptr && timeout->tv_sec == 0 && timeout->tv_usec == 0) timeout = nullptr;
    auto once = [&](LDAP *handle) {
        int rc = classic_result(::ldap_search_ext_s(handle, base, scope, filter, attrs, attrsonly, serverctrls,
                                                    clientctrls, timeout, sizelimit, res));
        // The library asks for a size limit of 2 to tell one match from several
        // and counts what arrived; a search cut at that limit is not a failure.
        // One cut shorter by the server's own limit stays a failure: two matches
        // arriving as one must not read as a unique match.
        if (rc == LDAP_SIZELIMIT_EXCEEDED && sizelimit > 0 && res != nullptr && *res != nullptr &&
            ldap_count_entries(handle, *res) == sizelimit)
            rc = LDAP_SUCCESS;
        return rc;
    };
    return with_recovery(ld, Request::Read, once, [&] {
        if (res != nullptr && *res != nullptr) {
            ::ldap_msgfree(*res);
            *res = nullptr;
        }
    });
}

int ldap_add_ext_s(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **serverctrls,
                   LDAPControl **clientctrls) {
    if (ld == nullptr) return kParamError;
    std::optional<MergedAdd> merged;
    if (mods != nullptr) merged.emplace(mods);
    LDAPMod **sent = merged ? merged->get() : mods;
    return write_with_recovery(ld, [&](LDAP *handle) {
        return classic_result(::ldap_add_ext_s(handle, dn, sent, serverctrls, clientctrls));
    });
}

int ldap_modify_ext_s(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **serverctrls,
                      LDAPControl **clientctrls) {
    if (ld == nullptr) return kParamError;
    return write_with_recovery(ld, [&](LDAP *handle) {
        return classic_result(::ldap_modify_ext_s(handle, dn, mods, serverctrls, clientctrls));
    });
}

int ldap_modify_s(LDAP *ld, const char *dn, LDAPMod **mods) {
    if (ld == nullptr) return kParamError;
    return write_with_recovery(ld, [&](LDAP *handle) { return classic_result(::ldap_modify_s(handle, dn, mods)); });
}

int ldap_delete_ext_s(LDAP *ld, const char *dn, LDAPControl **serverctrls,
                      LDAPControl **clientctrls) {
    if (ld == nullptr) return kParamError;
    return write_with_recovery(ld, [&](LDAP *handle) {
        return classic_result(::ldap_delete_ext_s(handle, dn, serverctrls, clientctrls));
    });
}

int ldap_simple_bind_s(LDAP *ld, const char *dn, const char *password) {
    if (ld == nullptr) return kParamError;
    return bind_with_recovery(ld, [&](LDAP *handle) { return classic_result(::ldap_simple_bind_s(handle, dn, password)); });
}

// ---- GSSAPI sign-on ------------------------------------------------------
namespace {

// The SASL library asks for the authorisation identity and the like; the
// defaults (the ticket's own principal) are what a sign-on means.
int take_sasl_defaults(LDAP *, unsigned, void *, void *prompts) {
    for (auto *p = static_cast<sasl_interact_t *>(prompts); p->id != SASL_CB_LIST_END; ++p) {
        p->result = p->defresult ? p->defresult : "";
        p->len = static_cast<unsigned>(std::strlen(static_cast<const char *>(p->result)));
    }
    return LDAP_SUCCESS;
}

}  // namespace

int ldap_sasl_bind_s(LDAP *ld, const char *dn, const char *mechanism, struct berval *cred,
                     LDAPControl **serverctrls, LDAPControl **clientctrls,
                     struct berval **servercredp) {
    if (ld == nullptr) return kParamError;
    return bind_with_recovery(ld, [&](LDAP *handle) {
        int rc = ::ldap_sasl_bind_s(handle, dn, mechanism, cred, serverctrls, clientctrls, servercredp);
        // A GSSAPI bind without a token of the caller's only opens the exchange
        // (the server answers "in progress" and waits for the ticket): carry it
        // through with the SASL library and the caller's Kerberos credentials.
        if (rc == LDAP_SASL_BIND_IN_PROGRESS && cred == nullptr && mechanism != nullptr &&
            strcasecmp(mechanism, "GSSAPI") == 0) {
            if (servercredp && *servercredp) {
                ber_bvfree(*servercredp);
                *servercredp = nullptr;
            }
            rc = ::ldap_sasl_interactive_bind_s(handle, dn, mechanism, serverctrls, clientctrls, LDAP_SASL_QUIET,
                                                take_sasl_defaults, nullptr);
        }
        return classic_result(rc);
    });
}
// ---- end of GSSAPI sign-on -----------------------------------------------

int ldap_unbind(LDAP *ld) {
    if (ld == nullptr) return kParamError;
    set_recovery(ld, nullptr);   // the address may come back for another handle
    return classic_result(::ldap_unbind_ext(ld, nullptr, nullptr));
}

LDAP *ldap_init(const char *host, int port) {
    return initialize(host, port, false);
}

int ldap_set_referrals(LDAP *ld, bool chase, bool *previous) {
    if (ld == nullptr) return kParamError;
    if (previous != nullptr) {
        int was = 0;   // libldap reports the setting as an int
        int rc = ::ldap_get_option(ld, LDAP_OPT_REFERRALS, &was);
        if (rc != LDAP_OPT_SUCCESS) return classic_result(rc);
        *previous = was != 0;
    }
    return classic_result(::ldap_set_option(ld, LDAP_OPT_REFERRALS, chase ? LDAP_OPT_ON : LDAP_OPT_OFF));
}

// Classic option numbers and how each is carried out:
//
//   number  meaning            value                         OpenLDAP
//   0x11    protocol version   by address: int 2 or 3        LDAP_OPT_PROTOCOL_VERSION
//   0x02    alias dereference  by value: 0..3                LDAP_OPT_DEREF (same numbering)
//   0xE0    SSL time-out       null only                     none: no-op (the TLS
//                                                            handshake follows the
//                                                            network time-out)
//   0x03    size limit         either, as the caller says    LDAP_OPT_SIZELIMIT, the
//                                                            handle's default (every
//                                                            search passes its own)
//   0x01    descriptor         as 0x03                       none: read-only in OpenLDAP,
//   0x00    API information    as 0x03                       the value is read and ignored
//
// The caller states how the value is passed; the handle's state never
// decides it.  A passing an option does not take, other numbers, a null
// handle and out-of-range values are refused with 89 and nothing is set.
int ldap_set_option(LDAP *ld, int option, const void *value, OptionPassing passing) {
    if (ld == nullptr) return kParamError;
    switch (option) {
    case kOptProtocolVersion: {
        if (passing != OptionPassing::ByAddress || value == nullptr) return kParamError;
        int version = *static_cast<const int *>(value);
        if (version != LDAP_VERSION2 && version != LDAP_VERSION3) return kParamError;
        return classic_result(::ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version));
    }
    case kOptDeref: {
        if (passing != OptionPassing::ByValue) return kParamError;
        intptr_t deref = reinterpret_cast<intptr_t>(value);
        if (deref < LDAP_DEREF_NEVER || deref > LDAP_DEREF_ALWAYS) return kParamError;
        int setting = static_cast<int>(deref);
        return classic_result(::ldap_set_option(ld, LDAP_OPT_DEREF, &setting));
    }
    case kOptSslTimeout:
        return value == nullptr ? LDAP_SUCCESS : kParamError;
    case kOptSizeLimit: {
        int limit = 0;
        int rc = option_integer(value, passing, limit);
        if (rc != LDAP_SUCCESS) return rc;
        if (limit < 0) return kParamError;
        return classic_result(::ldap_set_option(ld, LDAP_OPT_SIZELIMIT, &limit));
    }
    case kOptDesc:
    case kOptApiInfo: {
        int ignored = 0;
        return option_integer(value, passing, ignored);
    }
    default:
        return kParamError;
    }
}

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
    {
        SslState &state = ssl_state();
        std::lock_guard<std::mutex> lock(state.mutex);
        keyring = state.keyring;
    }
    // Checked before OpenLDAP sees them: its TLS layer leaks the key
    // structure when a key file fails to load.
    if ((!keyring.empty() && !readable_file(keyring.c_str())) ||
        (cert_label != nullptr && !readable_file(cert_label))) {
        return nullptr;
    }
    LDAP *ld = initialize(host, port, true);
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
    {
        SslState &state = ssl_state();
        std::lock_guard<std::mutex> lock(state.mutex);
        keyring = state.keyring;
    }
    if ((!keyring.empty() && !readable_file(keyring.c_str())) ||
        (cert_label != nullptr && !readable_file(cert_label)) || !configure_tls(ld, keyring, cert_label))
        return kParamError;
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
    result.connected = ::ldap_set_option(probe, LDAP_OPT_PROTOCOL_VERSION, &three) == LDAP_OPT_SUCCESS &&
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

int ldap_set_locale(const char *locale) {
    if (locale == nullptr) return kParamError;
    LocaleState &state = locale_state();
    try {
        std::string copy(locale);
        std::lock_guard<std::mutex> lock(state.mutex);
        state.name.swap(copy);
        state.set = true;
    } catch (const std::bad_alloc &) {
        return kNoMemory;
    }
    return LDAP_SUCCESS;
}

char *ldap_get_locale() {
    LocaleState &state = locale_state();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.set) return nullptr;
    // ber_strdup so that the caller releases it with ldap_memfree.
    return ::ber_strdup(state.name.c_str());
}

}  // namespace zel::platform
