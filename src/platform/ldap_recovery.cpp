// Which handles have a recovery attached.  The retry itself is
// with_recovery (ldap_client_internal.h).  See ldap_client.h.
#include "platform/ldap_client_internal.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>

namespace zel::platform {

namespace {

// Handles with a recovery attached.  Looked up before every request, by
// many sessions at once: readers share the lock, and each thread keeps its
// last answer for as long as nothing was attached or detached since.
struct RecoveryRegistry {
    std::shared_mutex mutex;
    std::unordered_map<LDAP *, Recovery *> attached;
    std::atomic<uint64_t> changes{0};
};

struct LastLookup {
    LDAP *ld = nullptr;
    Recovery *recovery = nullptr;
    uint64_t changes = ~uint64_t{0};
};
thread_local LastLookup t_last;

RecoveryRegistry &recoveries() {
    static RecoveryRegistry registry;
    return registry;
}

}  // namespace

Recovery *recovery_of(LDAP *ld) {
    RecoveryRegistry &registry = recoveries();
    const uint64_t changes = registry.changes.load(std::memory_order_acquire);
    if (t_last.ld == ld && t_last.changes == changes) return t_last.recovery;
    std::shared_lock<std::shared_mutex> lock(registry.mutex);
    auto found = registry.attached.find(ld);
    Recovery *recovery = found == registry.attached.end() ? nullptr : found->second;
    // Kept under the generation read before the lookup: a change made
    // meanwhile makes the next call look again.
    t_last = {ld, recovery, changes};
    return recovery;
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
    registry.changes.fetch_add(1, std::memory_order_release);
}

}  // namespace zel::platform
