// Which handles have a recovery attached, and the attempts of a request on
// them (Attempts, ldap_client_internal.h).  See ldap_client.h.
#include "platform/ldap_client_internal.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>

namespace zel::platform {

namespace {

// Handles with a recovery attached.  Looked up when a thread's hint is out
// of date, by many sessions at once: readers share the lock.
struct RecoveryRegistry {
    std::shared_mutex mutex;
    std::unordered_map<LDAP *, Recovery *> attached;
};

RecoveryRegistry &recoveries() {
    static RecoveryRegistry registry;
    return registry;
}

}  // namespace

__thread RecoveryHint t_recovery_hint = {nullptr, nullptr, ~uint64_t{0}};
std::atomic<uint64_t> recovery_generation{0};

Recovery *look_up_recovery(LDAP *ld) {
    RecoveryRegistry &registry = recoveries();
    const uint64_t generation = recovery_generation.load(std::memory_order_acquire);
    std::shared_lock<std::shared_mutex> lock(registry.mutex);
    auto found = registry.attached.find(ld);
    Recovery *recovery = found == registry.attached.end() ? nullptr : found->second;
    // Kept under the generation read before the lookup: a change made
    // meanwhile makes the next call look again.
    t_recovery_hint = {ld, recovery, generation};
    return recovery;
}

bool connection_lost(int classic_rc) { return lost_connection(classic_rc); }

LDAP *Attempts::prepared(int &rc) {
    deadline_ = request_deadline(ld_, sent_);
    timed_ = true;
    int refusal = kServerDown;
    use_ = recovery_->prepare(ld_, kind_, deadline_, refusal);
    if (use_ == nullptr) rc = refusal;
    return use_;
}

LDAP *Attempts::recovered(int &rc, LDAPMessage **drop) {
    if (resent_) return nullptr;
    resent_ = true;   // whatever happens now, the request goes out at most once more
    // A request that went out on the handle as it was has no deadline yet.
    if (!timed_) deadline_ = request_deadline(ld_, sent_);
    int refusal = 0;
    LDAP *fresh = recovery_->recover(use_, rc, deadline_, refusal);   // `use_` may be gone from here on
    if (refusal != 0) {
        rc = refusal;
        return nullptr;
    }
    if (fresh == nullptr || kind_ != Request::Read) return nullptr;
    if (drop != nullptr && *drop != nullptr) {
        ::ldap_msgfree(*drop);
        *drop = nullptr;
    }
    kept_.emplace(fresh);
    return limit_to_deadline(fresh, deadline_) ? fresh : nullptr;
}

void set_recovery(LDAP *ld, Recovery *recovery) {
    RecoveryRegistry &registry = recoveries();
    std::unique_lock<std::shared_mutex> lock(registry.mutex);
    if (recovery == nullptr) registry.attached.erase(ld);
    else registry.attached[ld] = recovery;
    recovery_generation.fetch_add(1, std::memory_order_release);
}

}  // namespace zel::platform
