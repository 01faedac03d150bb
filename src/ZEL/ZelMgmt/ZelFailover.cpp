// Failing servers under a session the library connected.  See ZelFailover.h.
#include "ZelFailover.h"

#include <cstring>

#include "platform/host_list.h"

namespace zel {

namespace {

// A URI entry says for itself whether it wants SSL; a bare host goes by the
// open's flags.
int32_t flags_for(const std::string &entry, int32_t flags) {
    switch (platform::entry_security(entry)) {
    case platform::EntrySecurity::Plain: return (flags & ~ZEL_OPEN_SSL) | ZEL_OPEN_NONSSL;
    case platform::EntrySecurity::Ssl: return (flags & ~ZEL_OPEN_NONSSL) | ZEL_OPEN_SSL;
    default: return flags;
    }
}

}  // namespace

Failover::Failover(ZelSession *s, std::vector<std::string> servers, uint16_t port, int32_t flags,
                   const char *keyring, const char *cert_label)
    : s_(s), servers_(std::move(servers)), port_(port), flags_(flags), keyring_(keyring ? keyring : ""),
      cert_label_(cert_label ? cert_label : ""), has_keyring_(keyring != nullptr),
      has_cert_label_(cert_label != nullptr) {}

ZelRC Failover::connect(size_t i, const char *keyring_pw) {
    lost_ = false;
    current_ = i;
    const char *host = servers_.empty() ? nullptr : servers_[i].c_str();
    ZelRC rc = connect_to_LDAP(s_, host, port_, host ? flags_for(servers_[i], flags_) : flags_,
                               has_keyring_ ? keyring_.c_str() : nullptr, keyring_pw,
                               has_cert_label_ ? cert_label_.c_str() : nullptr);
    if (rc == 0) platform::set_recovery(s_->ld, this);
    return rc;
}

void Failover::bound(const char *bind_dn, const char *password, bool gssapi) {
    if (gssapi) {
        bind_ = Bind::Gssapi;
    } else if (bind_dn != nullptr && password != nullptr) {
        bind_ = Bind::Simple;
        bind_dn_ = bind_dn;
        size_t length = std::strlen(password) + 1;
        password_ = std::make_unique<platform::WipedBytes>(length);
        std::memcpy(password_->data(), password, length);
    }
    // A server that refused protocol 3 at the bind is spoken to in 2 again.
    int version = LDAP_VERSION3;
    if (ldap_get_option(s_->ld, LDAP_OPT_PROTOCOL_VERSION, &version) == LDAP_OPT_SUCCESS) protocol_version_ = version;
    armed_ = true;
}

LDAP *Failover::reach(size_t i) {
    LDAP *kept = s_->ld;
    const char *host = servers_.empty() ? nullptr : servers_[i].c_str();
    ZelRC rc = connect_to_LDAP(s_, host, port_, host ? flags_for(servers_[i], flags_) : flags_,
                               has_keyring_ ? keyring_.c_str() : nullptr, nullptr,
                               has_cert_label_ ? cert_label_.c_str() : nullptr);
    if (rc == 0 && protocol_version_ != LDAP_VERSION3) rc = set_LDAP_options(s_, protocol_version_);
    LDAP *fresh = s_->ld;
    s_->ld = kept;
    if (rc == 0 && fresh != nullptr) {
        int lrc;
        if (bind_ == Bind::Simple) {
            lrc = platform::ldap_simple_bind_s(fresh, bind_dn_.c_str(), password_->text());
        } else if (bind_ == Bind::Gssapi) {
            struct berval *server_cred = nullptr;
            lrc = platform::ldap_sasl_bind_s(fresh, nullptr, "GSSAPI", nullptr, nullptr, nullptr, &server_cred);
            if (server_cred) ber_bvfree(server_cred);
        } else {
            // Anonymous: the bind only proves that the server answers.
            lrc = platform::ldap_simple_bind_s(fresh, nullptr, nullptr);
        }
        if (lrc == LDAP_SUCCESS) return fresh;
    }
    if (fresh != nullptr) platform::ldap_unbind(fresh);
    return nullptr;
}

LDAP *Failover::recover(LDAP *failed, int classic_rc) {
    if (!armed_) {
        lost_ = true;   // the open moves on to its next server itself
        return nullptr;
    }
    if (failed != s_->ld) return nullptr;
    const std::string left = platform::connection_uri(failed);
    const size_t count = server_count();
    // The next server first, round to the one just left: a single server
    // that restarted is reached again.
    for (size_t step = 1; step <= count; ++step) {
        size_t i = (current_ + step) % count;
        LDAP *fresh = reach(i);
        if (fresh == nullptr) continue;
        try {
            platform::set_recovery(fresh, this);
        } catch (...) {
            platform::ldap_unbind(fresh);
            throw;
        }
        platform::ldap_unbind(failed);
        s_->ld = fresh;
        current_ = i;
        tracef(s_, kTraceProgress, "zelmgmt:Request to %s failed with rc=%d; reconnected to %s\n", left.c_str(),
               classic_rc, platform::connection_uri(fresh).c_str());
        return fresh;
    }
    tracef(s_, kTraceProgress, "zelmgmt:Request to %s failed with rc=%d; no server could be reached\n", left.c_str(),
           classic_rc);
    return nullptr;
}

ZelRC connect_and_bind(ZelSession *s, const char *host, uint16_t port, int32_t flags, const char *keyring,
                       const char *keyring_pw, const char *cert_label, const char *user, const char *password,
                       const ZelBindCredentials *credentials, char **bind_dn) {
    std::vector<std::string> servers = platform::host_entries(host);
    if (host != nullptr && servers.empty()) servers.emplace_back(host);   // refused by the connect, as ever
    s->failover = new Failover(s, std::move(servers), port, flags, keyring, cert_label);
    Failover &failover = *s->failover;
    const bool gssapi = (flags & ZEL_OPEN_GSSAPI) != 0;
    const bool binds = user != nullptr || gssapi;
    ZelRC rc = 0;
    for (size_t i = 0; i < failover.server_count(); ++i) {
        if (i > 0) {
            tracef(s, kTraceProgress, "zelmgmt:%s did not answer; trying %s\n", failover.server(i - 1),
                   failover.server(i));
            if (s->ld != nullptr) plat::ldap_unbind(s->ld);
            s->ld = nullptr;
        }
        std::free(*bind_dn);
        *bind_dn = nullptr;
        rc = failover.connect(i, keyring_pw);
        if (rc == 0 && binds) rc = bind_to_LDAP(s, gssapi ? nullptr : user, password, bind_dn, credentials);
        if (rc == 0 || !failover.lost()) break;
    }
    if (rc == 0) failover.bound(binds && !gssapi ? *bind_dn : nullptr, password, gssapi);
    return rc;
}

}  // namespace zel
