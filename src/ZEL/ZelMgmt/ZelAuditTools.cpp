// The key files and the audit trail as a tool sees them: generating a key
// file, and checking a trail's chain.  Neither needs a session.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <sodium.h>

#include "ZelHolders.h"
#include "ZelStatus.h"
#include "platform/audit_chain.h"
#include "platform/audit_file.h"
#include "platform/key_file.h"

namespace {

namespace plat = zel::platform;

char *copy_text(const std::string &text) {
    char *out = static_cast<char *>(std::malloc(text.size() + 1));
    if (out == nullptr) throw std::bad_alloc();
    std::memcpy(out, text.c_str(), text.size() + 1);
    return out;
}

}  // namespace

extern "C" {

ZEL_API ZelRC Zel_generateKeyFile(const char *path, uint32_t flags, char **keyIdOut) {
    return zel::guarded([&]() -> ZelRC {
        if (keyIdOut) *keyIdOut = nullptr;
        if (path == nullptr || *path == '\0' || (flags & ~(ZEL_KEYFILE_ADD | ZEL_KEYFILE_CHECK)))
            return ZEL_RC_INVALID_ARGUMENT;
        const bool add = flags & ZEL_KEYFILE_ADD;
        plat::KeyRing ring;
        if (add && plat::read_key_file(path, ring) != plat::KeyFileState::usable) return ZEL_RC_SYSTEM_ERROR;
        if (flags & ZEL_KEYFILE_CHECK) return 0;
        if (!ring.add_generated_key() || !plat::write_key_file(path, ring, add)) return ZEL_RC_SYSTEM_ERROR;
        if (keyIdOut) *keyIdOut = copy_text(ring.active()->id);
        return 0;
    });
}

ZEL_API ZelRC Zel_verifyAuditTrail(const char *path, const char *expectHead, ZelAuditCheck **out) {
    return zel::guarded([&]() -> ZelRC {
        if (out == nullptr) return ZEL_RC_INVALID_ARGUMENT;
        *out = nullptr;
        if (path == nullptr) return ZEL_RC_INVALID_ARGUMENT;
        plat::AuditKey key{};
        const plat::KeyFileState state = plat::read_configured_audit_key(key);
        if (state == plat::KeyFileState::refused) return ZEL_RC_SYSTEM_ERROR;
        const bool keyed = state == plat::KeyFileState::usable;
        std::unique_ptr<std::FILE, zel::FileClose> f(std::fopen(path, "re"));
        plat::AuditCheck check;
        if (f) check = plat::check_audit_trail(f.get(), keyed ? &key : nullptr, expectHead);
        sodium_memzero(&key, sizeof key);
        if (!f || check.fault == plat::AuditFault::Unreadable) return ZEL_RC_SYSTEM_ERROR;
        if (expectHead && check.fault == plat::AuditFault::Differs && check.line == 0) return ZEL_RC_INVALID_ARGUMENT;
        zel::Owned<ZelAuditCheck, Zel_freeAuditCheck> result(
            static_cast<ZelAuditCheck *>(std::calloc(1, sizeof(ZelAuditCheck))));
        if (!result) return ZEL_RC_NO_MEMORY;
        const bool intact = check.fault == plat::AuditFault::None;
        result->intact = intact ? 1 : 0;
        result->lines = check.lines;
        result->faultLine = intact ? 0 : check.line;
        result->tornLine = check.torn;
        if (!intact) result->fault = copy_text(plat::audit_fault_text(check.fault));
        result->head = copy_text(plat::audit_head_text(check.head));
        *out = result.release();
        return 0;
    });
}

ZEL_API void Zel_freeAuditCheck(ZelAuditCheck *c) {
    if (c == nullptr) return;
    std::free(c->fault);
    std::free(c->head);
    std::free(c);
}

}  // extern "C"
