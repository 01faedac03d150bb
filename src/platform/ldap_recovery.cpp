// Which handles have a recovery attached.  The retry itself is
// with_recovery (ldap_client_internal.h).  See ldap_client.h.
#include "platform/ldap_client_internal.h"

#include <mutex>
#include <shared_mutex>
#include <unordered_map>

namespace zel::platform {

namespace {

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

}  // namespace

Recovery *recovery_of(LDAP *ld) {
    RecoveryRegistry &registry = recoveries();
    std::shared_lock<std::shared_mutex> lock(registry.mutex);
    auto found = registry.attached.find(ld);
    return found == registry.attached.end() ? nullptr : found->second;
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

}  // namespace zel::platform
