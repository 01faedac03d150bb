#include "platform/ad_account.h"

#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <cstring>

namespace zel::platform {

bool connection_encrypted(LDAP *ld) { return ld != nullptr && ::ldap_tls_inplace(ld) != 0; }

std::unique_ptr<WipedBytes> ad_password_value(const char *utf8) {
    if (utf8 == nullptr) return nullptr;
    const int32_t length = static_cast<int32_t>(std::strlen(utf8));
    // At most two UTF-16 units per input byte, plus the two quotes.
    auto out = std::make_unique<WipedBytes>((static_cast<size_t>(length) + 2) * 2);
    size_t at = 0;
    auto put = [&](uint16_t unit) {
        out->data()[at++] = static_cast<unsigned char>(unit & 0xff);
        out->data()[at++] = static_cast<unsigned char>(unit >> 8);
    };
    put('"');
    for (int32_t i = 0; i < length;) {
        UChar32 c;
        U8_NEXT(reinterpret_cast<const uint8_t *>(utf8), i, length, c);
        if (c < 0) return nullptr;
        if (c > 0xffff) {
            put(static_cast<uint16_t>(U16_LEAD(c)));
            put(static_cast<uint16_t>(U16_TRAIL(c)));
        } else {
            put(static_cast<uint16_t>(c));
        }
    }
    put('"');
    auto exact = std::make_unique<WipedBytes>(at);
    std::memcpy(exact->data(), out->data(), at);
    return exact;
}

}  // namespace zel::platform
