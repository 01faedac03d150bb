// Passwords sealed under the operator's key, for documents that carry them
// out of the directory (exports) and back in.  Only the encrypted form is a
// seal: a masked value is readable by anyone who has the library.
#include <cerrno>
#include <cstring>

#include "platform/password_mask.h"
#include "ZelPlatform.h"
#include "ZelStatus.h"

namespace {

constexpr const char *kSealPrefix = "{ZK1}";

}  // namespace

extern "C" {

ZEL_API ZelRC Zel_sealPassword(const char *clear, char **sealed_out) {
    return zel::guarded([&]() -> ZelRC {
        if (sealed_out) *sealed_out = nullptr;
        if (clear == nullptr || sealed_out == nullptr) return ZEL_RC_INVALID_ARGUMENT;
        if (plat::util_key_file_state() != plat::KeyFileState::usable) return ZEL_RC_SYSTEM_ERROR;
        bool encryption_required = false;
        errno = 0;
        char *sealed = plat::util_encode_checked(clear, encryption_required);
        if (sealed == nullptr) return errno == ENOMEM ? ZEL_RC_NO_MEMORY : ZEL_RC_SYSTEM_ERROR;
        *sealed_out = sealed;
        return 0;
    });
}

ZEL_API ZelRC Zel_unsealPassword(const char *sealed, char **clear_out) {
    return zel::guarded([&]() -> ZelRC {
        if (clear_out) *clear_out = nullptr;
        if (sealed == nullptr || clear_out == nullptr) return ZEL_RC_INVALID_ARGUMENT;
        if (std::strncmp(sealed, kSealPrefix, std::strlen(kSealPrefix)) != 0) return ZEL_RC_DECODE_FAILED;
        errno = 0;
        char *clear = plat::util_decode(sealed);
        if (clear == nullptr) return errno == ENOMEM ? ZEL_RC_NO_MEMORY : ZEL_RC_DECODE_FAILED;
        *clear_out = clear;
        return 0;
    });
}

}  // extern "C"
