// The directory client as the library sees it.
//
// The library was designed against a classic LDAP C client; on Linux that
// client is OpenLDAP's libldap.  This adapter is the only place that knows
// the two differ.  Every function keeps the classic name and argument list,
// lives in zel::platform, and:
//
//  * answers client-side failures with the classic positive result codes
//    (OpenLDAP's negative code n becomes 80 - n: -1 server down -> 81,
//    -5 timeout -> 85, -7 filter error -> 87, -9 parameter error -> 89 ...),
//    so no negative code reaches the library;
//  * treats a zero time-out structure as "no limit" (OpenLDAP refuses {0,0});
//  * hands back, with result 0, the entries of a search cut at the size
//    limit it asked for (the library counts them to tell one match from
//    several); a search the server's own smaller limit cut stays result 4;
//  * merges, in ldap_add_ext_s, the modifications that name one attribute
//    type (ignoring case; values in order; string and binary values apart):
//    the classic servers took a type twice, slapd refuses it with 20;
//  * keeps ldap_init lazy: an unreachable server shows at the bind;
//  * refuses a null connection handle with 89 (OpenLDAP would crash on it);
//  * lets std::bad_alloc out of ldap_init, ldap_ssl_init and ldap_add_ext_s
//    when it cannot get memory of its own: the classic results cannot say
//    so (null from an init means "no connection"), the library's guard
//    answers 1012.
//
// ldap_init and ldap_ssl_init take the classic host argument: one host or a
// blank-separated list, each a name, an IPv4 address or an IPv6 address
// (bare or in brackets), optionally followed by ":port" of its own, or an
// "ldap://" / "ldaps://" URI naming a host and a port only.  A port
// of 0 or less means 389 (636 for SSL).  A null host or one with characters
// that do not belong in a host name gives null.
//
// Client extensions of the classic API:
//  * ldap_set_option takes the classic option numbers (see ldap_options.cpp
//    for the table), is told whether the value comes by address or by value,
//    and refuses numbers it does not know;
//  * ldap_ssl_client_init: keyring = CA certificate file (null or empty: the
//    client's configured CA), remembered for later ldaps handles and never
//    set as a process-wide default; an unreadable file gives 89 with reason
//    1; keyring_pw and ssl_timeout unused; after a
//    successful call every later one answers kSslAlreadyInitialised (112);
//    *reason is 0 except on failure;
//  * ldap_ssl_init: an ldaps connection that demands a valid server
//    certificate; cert_label = PEM file holding a client certificate and its
//    key, or null.  The files are loaded here: one that cannot be read gives
//    null;
//  * ldap_server_locate: the servers the client is configured with (its
//    default URI list: ldap.conf, .ldaprc, LDAPURI), each reported as a
//    master, its scheme giving the security type and the configured BASE
//    its suffix (ldapi URIs are skipped).  Note that OpenLDAP's built-in
//    default, with nothing configured, is ldap://localhost;
//  * ldap_set_locale / ldap_get_locale: a process-wide locale name (the wire
//    is always UTF-8).
#pragma once

#ifndef LDAP_DEPRECATED
#define LDAP_DEPRECATED 1
#endif
#include <ldap.h>

#include <chrono>
#include <optional>
#include <string>

namespace zel::platform {

// Classic result code for an OpenLDAP one.
int classic_result(int rc);

int ldap_search_ext_s(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                      int attrsonly, LDAPControl **serverctrls, LDAPControl **clientctrls,
                      struct timeval *timeout, int sizelimit, LDAPMessage **res);
// The same with no controls and no time limit of its own (the handle's
// request time-out still bounds it): the library's own searches.
int ldap_search_plain(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
                      int sizelimit, LDAPMessage **res);
int ldap_add_ext_s(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **serverctrls,
                   LDAPControl **clientctrls);
int ldap_modify_ext_s(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **serverctrls,
                      LDAPControl **clientctrls);
int ldap_modify_s(LDAP *ld, const char *dn, LDAPMod **mods);
int ldap_delete_ext_s(LDAP *ld, const char *dn, LDAPControl **serverctrls,
                      LDAPControl **clientctrls);
int ldap_simple_bind_s(LDAP *ld, const char *dn, const char *password);
int ldap_sasl_bind_s(LDAP *ld, const char *dn, const char *mechanism, struct berval *cred,
                     LDAPControl **serverctrls, LDAPControl **clientctrls,
                     struct berval **servercredp);
int ldap_unbind(LDAP *ld);

// Returns null when the connection handle cannot be made.  Handles made here
// (and by ldap_ssl_init) never chase referrals.
LDAP *ldap_init(const char *host, int port);

// Referral chasing on one handle.  The library reads only what the server it
// is bound to holds: a chased referral is a new connection, bound
// anonymously, to whatever host the referral names (on AD, the realm's DNS
// name), and its failure would fail the whole search.  Search references are
// left in the result, where the entry walk passes over them.  previous (may
// be null) receives the earlier setting, for handing a caller's handle back
// as it came.
int ldap_set_referrals(LDAP *ld, bool chase, bool *previous);

// Classic option numbers.
constexpr int kOptApiInfo = 0x00;
constexpr int kOptDesc = 0x01;
constexpr int kOptDeref = 0x02;
constexpr int kOptSizeLimit = 0x03;
constexpr int kOptProtocolVersion = 0x11;
constexpr int kOptSslTimeout = 0xE0;
// How an option's value is handed over: a pointer to an int, or the integer
// itself in the pointer argument.  The caller always says which.
enum class OptionPassing { ByAddress, ByValue };
int ldap_set_option(LDAP *ld, int option, const void *value, OptionPassing passing);

// Why an ldaps handle's connection failed, when it was the server's
// certificate: "the certificate does not name the host ..." or "the
// certificate is not signed by a trusted CA ...".  Empty when the failure
// was something else (or the handle is not ldaps).  To tell a refused chain
// from an unreachable server it opens one more connection to the same URI
// that checks no certificate and sends nothing.
std::string tls_failure_reason(LDAP *ld);

constexpr int kSslAlreadyInitialised = 112;
int ldap_ssl_client_init(const char *keyring, const char *keyring_pw, int ssl_timeout,
                         int *reason);
LDAP *ldap_ssl_init(const char *host, int port, const char *cert_label);

// Upgrades a plain handle with StartTLS, checking the server's certificate
// against the keyring remembered by ldap_ssl_client_init (cert_label as for
// ldap_ssl_init).  Sends the request: a client-side failure goes to the
// handle's recovery as a bind's does.
int ldap_start_tls(LDAP *ld, const char *cert_label);

// One configured server.
constexpr int kReplicaMaster = 1;
constexpr int kSecurityNone = 1;
constexpr int kSecuritySsl = 2;
struct ServerInfo {
    char *host;
    unsigned short port;
    char *suffix;       // may be null
    int replica_type;   // kReplicaMaster
    int sec_type;       // kSecurityNone or kSecuritySsl
    ServerInfo *next;
};
struct ServerRequest;   // no request fields are used: library defaults
// 0 with a list (free it with ldap_server_free_list); a result code when no
// server is configured (LDAP_NO_SUCH_OBJECT) or the list cannot be read.
int ldap_server_locate(ServerRequest *request, ServerInfo **list);
void ldap_server_free_list(ServerInfo *list);

// ---- Failing servers ----
//
// Client-side results that a new connection may cure: server down (81),
// time-out (85) and connect error (91).
bool connection_lost(int classic_rc);

// The connect time-out and the per-request time-out of a handle, in whole
// seconds: 0 means no limit, a negative value leaves the handle as the
// client's configuration made it.  The request limit bounds each synchronous
// call (its reply included), the connect limit each TCP connect.
int ldap_set_timeouts(LDAP *ld, int network_seconds, int request_seconds);
// Whether the client's own configuration (ldap.conf, .ldaprc, LDAPTIMEOUT,
// LDAPNETWORK_TIMEOUT) sets each time-out.
void configured_timeouts(bool &network, bool &request);

// What a handle falls back on.  Each request on a handle with a recovery
// attached runs within one deadline: its own request time-out plus one
// connect time-out of the handle, from when it was first sent.
//
// Before a request, prepare() answers the handle to send it on: the same,
// or another one the recovery moved the session to (a write may go back to
// a preferred server), or null when the session cannot go on (`refusal`
// then holds the classic result the request answers).  When the request
// fails on the client side, recover() answers the handle to use from now
// on, or null when none is at hand; `refusal`, when the recovery sets it,
// replaces the request's result.  A search is then sent once more on the
// new handle, within what is left of the deadline; a write or a bind never
// is (a write may have been applied), the caller gets the first result.
using Deadline = std::chrono::steady_clock::time_point;
enum class Request { Read, Write, Bind };
class Recovery {
public:
    virtual LDAP *prepare(LDAP *ld, Request kind, Deadline deadline, int &refusal) = 0;
    virtual LDAP *recover(LDAP *failed, int classic_rc, Deadline deadline, int &refusal) = 0;
    // True when prepare() would hand back `ld` as it is: the request then
    // goes out without its deadline worked out, which only a reconnect needs.
    virtual bool passes(LDAP *ld, Request kind) const = 0;
    // The same, first against the handle the recovery last found healthy.
    bool passes_now(LDAP *ld, Request kind) const {
        return (ld == steady_ && kind != Request::Write) || passes(ld, kind);
    }

protected:
    ~Recovery() = default;
    // A handle on which passes() holds for reads and binds, or null: the
    // recovery clears it before anything makes that untrue.
    LDAP *steady_ = nullptr;
};

// A handle's request (or connect) time-out; nullopt when it has none.
std::optional<std::chrono::microseconds> ldap_get_timeout(LDAP *ld, bool request);

// A handle's time-outs, put back as they were when the scope ends.
class KeptTimeouts {
public:
    explicit KeptTimeouts(LDAP *ld);
    ~KeptTimeouts();
    KeptTimeouts(const KeptTimeouts &) = delete;
    KeptTimeouts &operator=(const KeptTimeouts &) = delete;

private:
    LDAP *ld_;
    std::optional<std::chrono::microseconds> network_, request_;
};

// The deadline of a request sent now on ld (Deadline::max() when the
// handle waits without limit).
Deadline request_deadline(LDAP *ld);
// The same for a request sent at `sent`.
Deadline request_deadline(LDAP *ld, std::chrono::steady_clock::time_point sent);
// Shortens ld's connect and request time-outs to what is left until
// `deadline` (never lengthens them); false when nothing is left.
bool limit_to_deadline(LDAP *ld, Deadline deadline);
// Releases a handle whose server may still hold a request of ours unread:
// the connection is reset rather than closed in order, so that the server
// discards what it has not read yet.
int ldap_drop(LDAP *ld);
// Who the server says a bound handle is (the Who Am I extended operation):
// "dn:..." or "u:...", empty for anonymous.  A classic result.
int ldap_whoami(LDAP *ld, std::string &identity);
// The URI list a handle was made for ("" when it has none).
std::string connection_uri(LDAP *ld);

// Attaches a recovery to a handle, or detaches it (null).  ldap_unbind
// detaches whatever is attached.
void set_recovery(LDAP *ld, Recovery *recovery);

// Locale: the name is copied; null is refused.  get returns a copy for
// ldap_memfree, or null when no locale was set.
int ldap_set_locale(const char *locale);
char *ldap_get_locale();

}  // namespace zel::platform
