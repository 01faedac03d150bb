// Failing servers under a session the library connected.  See ZelFailover.h.
#include "ZelFailover.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unordered_map>

#include "platform/host_list.h"
#include "ZelClient.h"
#include "ZelRoutines.h"
#include "ZelSession.h"
#include "ZelStatus.h"
#include "ZelTrace.h"

namespace zel {

namespace {

using Clock = std::chrono::steady_clock;
using platform::Deadline;

constexpr int kDefaultHoldDownSeconds = 30;   // when the connection had no request limit
constexpr int kInvalidCredentials = 49;       // classic result: answered as status 4

// A URI entry says for itself whether it wants SSL; a bare host goes by the
// open's flags.
int32_t flags_for(const std::string &entry, int32_t flags) {
    switch (platform::entry_security(entry)) {
    case platform::EntrySecurity::Plain: return (flags & ~ZEL_OPEN_SSL) | ZEL_OPEN_NONSSL;
    case platform::EntrySecurity::Ssl: return (flags & ~ZEL_OPEN_NONSSL) | ZEL_OPEN_SSL;
    default: return flags;
    }
}

// The servers that failed lately, by URI, and until when each is held down.
// Shared by every session of the process.
struct Health {
    std::mutex mutex;
    std::unordered_map<std::string, Clock::time_point> held_until;
};

Health &health() {
    static Health h;
    return h;
}

bool held_down(const std::string &key) {
    if (key.empty()) return false;
    Health &h = health();
    std::lock_guard<std::mutex> lock(h.mutex);
    auto found = h.held_until.find(key);
    if (found == h.held_until.end()) return false;
    if (found->second > Clock::now()) return true;
    h.held_until.erase(found);
    return false;
}

// Now plus the connection's connect time-out, within `deadline`: what a
// reconnect before a request may spend.
Deadline connect_deadline(LDAP *ld, Deadline deadline) {
    auto limit = platform::ldap_get_timeout(ld, false);
    if (!limit) limit = platform::ldap_get_timeout(ld, true);
    if (!limit) return deadline;
    return std::min(deadline, Clock::now() + *limit);
}

}  // namespace

void forget_failures() {
    Health &h = health();
    std::lock_guard<std::mutex> lock(h.mutex);
    h.held_until.clear();
}

Failover::Failover(ZelSession *s, std::vector<std::string> servers, uint16_t port, int32_t flags,
                   const char *keyring, const char *cert_label)
    : s_(s), servers_(std::move(servers)), port_(port), flags_(flags), keyring_(keyring ? keyring : ""),
      cert_label_(cert_label ? cert_label : ""), has_keyring_(keyring != nullptr),
      has_cert_label_(cert_label != nullptr) {}

std::string Failover::key(size_t i) const {
    if (servers_.empty()) return {};
    // As connect_to_LDAP decides: the entry's scheme, else the flags, else ZEL_NONSSL.
    int32_t flags = flags_for(servers_[i], flags_);
    bool ssl = (flags & ZEL_OPEN_NONSSL) ? false : (flags & ZEL_OPEN_SSL) ? true : std::getenv("ZEL_NONSSL") == nullptr;
    std::string uris;
    if (!platform::build_uris(servers_[i].c_str(), port_, ssl, uris)) return servers_[i];
    return uris;
}

std::vector<size_t> Failover::order() const {
    std::vector<size_t> healthy, held;
    for (size_t i = 0; i < server_count(); ++i) (held_down(key(i)) ? held : healthy).push_back(i);
    healthy.insert(healthy.end(), held.begin(), held.end());
    return healthy;
}

void Failover::failed(size_t i) {
    const std::string k = key(i);
    if (k.empty()) return;
    int request = kDefaultHoldDownSeconds;
    if (s_->ld != nullptr) {
        auto limit = platform::ldap_get_timeout(s_->ld, true);
        if (limit) request = static_cast<int>(std::chrono::duration_cast<std::chrono::seconds>(*limit).count());
    }
    int seconds = hold_down_seconds(request);
    if (seconds <= 0) return;
    Health &h = health();
    std::lock_guard<std::mutex> lock(h.mutex);
    h.held_until[k] = Clock::now() + std::chrono::seconds(seconds);
}

void Failover::answered(size_t i) {
    const std::string k = key(i);
    if (k.empty()) return;
    Health &h = health();
    std::lock_guard<std::mutex> lock(h.mutex);
    h.held_until.erase(k);
}

LDAP *Failover::handle_for(size_t i) {
    LDAP *kept = s_->ld;
    const char *host = servers_.empty() ? nullptr : servers_[i].c_str();
    ZelRC rc = connect_to_LDAP(s_, host, port_, host ? flags_for(servers_[i], flags_) : flags_,
                               has_keyring_ ? keyring_.c_str() : nullptr, nullptr,
                               has_cert_label_ ? cert_label_.c_str() : nullptr);
    if (rc == 0 && protocol_version_ != LDAP_VERSION3) rc = set_LDAP_options(s_, protocol_version_);
    LDAP *fresh = s_->ld;
    s_->ld = kept;
    if (rc != 0 && fresh != nullptr) {
        platform::ldap_unbind(fresh);
        fresh = nullptr;
    }
    return fresh;
}

int Failover::secure(LDAP *ld, size_t i) const {
    int32_t flags = servers_.empty() ? flags_ : flags_for(servers_[i], flags_);
    if (!(flags & ZEL_OPEN_STARTTLS) || (flags & ZEL_OPEN_SSL)) return LDAP_SUCCESS;
    return platform::ldap_start_tls(ld, has_cert_label_ ? cert_label_.c_str() : nullptr);
}

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
        // The server's own name for the ticket's owner: a re-bind must get
        // the same one.  Left empty when the server cannot say; a re-bind
        // then fails, as no identity could be compared.
        platform::ldap_whoami(s_->ld, identity_);
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
    settle();
}

LDAP *Failover::reach(size_t i, Deadline deadline, int &refusal) {
    LDAP *fresh = handle_for(i);
    if (fresh == nullptr) return nullptr;
    int lrc = LDAP_OTHER;
    bool tried = false;
    {
        platform::KeptTimeouts kept(fresh);
        if (platform::limit_to_deadline(fresh, deadline)) {
            tried = true;
            lrc = secure(fresh, i);
            if (lrc != LDAP_SUCCESS) {
                // not bound: the connection could not be secured
            } else if (bind_ == Bind::Simple) {
                lrc = platform::ldap_simple_bind_s(fresh, bind_dn_.c_str(), password_->text());
            } else if (bind_ == Bind::Gssapi) {
                struct berval *server_cred = nullptr;
                lrc = platform::ldap_sasl_bind_s(fresh, nullptr, "GSSAPI", nullptr, nullptr, nullptr, &server_cred);
                if (server_cred) ber_bvfree(server_cred);
                std::string identity;
                if (lrc == LDAP_SUCCESS && platform::limit_to_deadline(fresh, deadline))
                    lrc = platform::ldap_whoami(fresh, identity);
                if (lrc == LDAP_SUCCESS && (identity_.empty() || identity != identity_)) {
                    tracef(s_, kTraceFailures,
                           "zelmgmt:The reconnect to %s bound as another identity; the session is closed to "
                           "requests\n",
                           server(i));
                    refusal = kInvalidCredentials;
                    lrc = kInvalidCredentials;
                }
            } else {
                // Anonymous: the bind only proves that the server answers.
                lrc = platform::ldap_simple_bind_s(fresh, nullptr, nullptr);
            }
        }
    }
    if (lrc == LDAP_SUCCESS) {
        answered(i);
        return fresh;
    }
    if (tried && platform::connection_lost(lrc)) failed(i);
    platform::ldap_drop(fresh);
    return nullptr;
}

LDAP *Failover::reach_any(Deadline deadline, size_t skip, int &refusal) {
    std::vector<size_t> candidates = order();
    // The server just left goes last: a single server that restarted is
    // still reached again.
    auto left = std::find(candidates.begin(), candidates.end(), skip);
    if (left != candidates.end()) std::rotate(left, left + 1, candidates.end());
    for (size_t i : candidates) {
        if (Clock::now() >= deadline) break;
        LDAP *fresh = reach(i, deadline, refusal);
        if (fresh != nullptr) {
            current_ = i;
            return fresh;
        }
        if (refusal != 0) break;
    }
    return nullptr;
}

void Failover::switch_to(LDAP *fresh, size_t i, bool reset) {
    try {
        platform::set_recovery(fresh, this);
    } catch (...) {
        platform::ldap_unbind(fresh);
        throw;
    }
    LDAP *old = s_->ld;
    s_->ld = fresh;
    current_ = i;
    disconnected_ = false;
    settle();
    ++moves_;
    if (old != nullptr) reset ? platform::ldap_drop(old) : platform::ldap_unbind(old);
}

void Failover::stand_down(LDAP *failed) {
    LDAP *stand_in = handle_for(current_);
    if (stand_in == nullptr) return;   // keep the failed handle: its next request fails again
    try {
        platform::set_recovery(stand_in, this);
    } catch (...) {
        platform::ldap_unbind(stand_in);
        throw;
    }
    platform::ldap_drop(failed);
    s_->ld = stand_in;
    disconnected_ = true;
    settle();
    ++moves_;
}

void Failover::settle() { steady_ = armed_ && !refused_ && !disconnected_ ? s_->ld : nullptr; }

bool Failover::passes(LDAP *ld, platform::Request kind) const {
    if (!armed_ || ld != s_->ld) return true;
    return !refused_ && !disconnected_ && (kind != platform::Request::Write || servers_.size() < 2);
}

LDAP *Failover::prepare(LDAP *ld, platform::Request kind, Deadline deadline, int &refusal) {
    if (!armed_ || ld != s_->ld) return ld;
    if (refused_) {
        refusal = kInvalidCredentials;
        return nullptr;
    }
    if (disconnected_) {
        int refused = 0;
        LDAP *fresh = reach_any(connect_deadline(ld, deadline), current_ + server_count(), refused);
        if (fresh != nullptr) {
            tracef(s_, kTraceProgress, "zelmgmt:Reconnected to %s\n", server(current_));
            switch_to(fresh, current_, false);
            return fresh;
        }
        if (refused != 0) refused_ = true;
        settle();
        refusal = refused != 0 ? refused : platform::classic_result(LDAP_SERVER_DOWN);
        return nullptr;
    }
    if (kind != platform::Request::Write || servers_.size() < 2) return ld;
    // Writes go to the first server that is not held down; reads stay where
    // they are.
    std::vector<size_t> candidates = order();
    size_t preferred = candidates.front();
    if (preferred == current_ || held_down(key(preferred))) return ld;
    int refused = 0;
    LDAP *fresh = reach(preferred, connect_deadline(ld, deadline), refused);
    if (fresh == nullptr) {
        if (refused != 0) {
            refused_ = true;
            settle();
            refusal = refused;
            return nullptr;
        }
        return ld;
    }
    tracef(s_, kTraceProgress, "zelmgmt:Writes go back to %s\n", server(preferred));
    switch_to(fresh, preferred, false);
    return fresh;
}

LDAP *Failover::recover(LDAP *failed_ld, int classic_rc, Deadline deadline, int &refusal) {
    if (!armed_) {
        lost_ = true;   // the open moves on to its next server itself
        return nullptr;
    }
    if (failed_ld != s_->ld) return nullptr;
    const std::string left = platform::connection_uri(failed_ld);
    failed(current_);
    const size_t was = current_;
    int refused = 0;
    LDAP *fresh = reach_any(deadline, was, refused);
    if (fresh != nullptr) {
        switch_to(fresh, current_, true);
        // (the failed handle is reset: a request the server has not read yet
        // is discarded with the connection)
        tracef(s_, kTraceProgress, "zelmgmt:Request to %s failed with rc=%d; reconnected to %s\n", left.c_str(),
               classic_rc, platform::connection_uri(fresh).c_str());
        return fresh;
    }
    current_ = was;
    stand_down(failed_ld);
    if (refused != 0) {
        refused_ = true;
        settle();
        refusal = refused;
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
    // Servers that failed lately, in this process, are tried last.
    const std::vector<size_t> order = failover.order();
    for (size_t n = 0; n < order.size(); ++n) {
        const size_t i = order[n];
        if (n > 0) {
            tracef(s, kTraceProgress, "zelmgmt:%s did not answer; trying %s\n", failover.server(order[n - 1]),
                   failover.server(i));
            if (s->ld != nullptr) plat::ldap_drop(s->ld);
            s->ld = nullptr;
        }
        std::free(*bind_dn);
        *bind_dn = nullptr;
        rc = failover.connect(i, keyring_pw);
        if (rc == 0) {
            int lrc = failover.secure(s->ld, i);
            if (lrc != LDAP_SUCCESS) {
                check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_start_tls_s()");   // traces it
                rc = ZEL_RC_CONNECT_FAILED;
            }
        }
        if (rc == 0 && binds) rc = bind_to_LDAP(s, gssapi ? nullptr : user, password, bind_dn, credentials);
        if (rc == 0 && binds) failover.answered(i);   // (an open without a bind has not met the server)
        if (rc == 0 || !failover.lost()) break;
        failover.failed(i);
    }
    if (rc == 0) failover.bound(binds && !gssapi ? *bind_dn : nullptr, password, gssapi);
    return rc;
}

}  // namespace zel
