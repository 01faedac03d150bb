#include "platform/person_password.h"

#include <gnutls/crypto.h>
#include <sodium.h>

#include <cstring>

#include "platform/ldap_client.h"
#include "platform/wiped_bytes.h"

namespace zel::platform {
namespace {

constexpr const char *kPasswordModifyOid = "1.3.6.1.4.1.4203.1.11.1";
constexpr size_t kSaltBytes = 8;
constexpr size_t kSha1Bytes = 20;

}  // namespace

bool offers_password_modify(LDAP *const &ld) {
    char attr[] = "supportedExtension";
    char *attrs[] = {attr, nullptr};
    struct timeval tv = {30, 0};
    LDAPMessage *res = nullptr;
    int lrc = platform::ldap_search_ext_s(ld, "", LDAP_SCOPE_BASE, "objectClass=*", attrs, 0, nullptr, nullptr, &tv, 1, &res);
    bool offered = false;
    LDAPMessage *entry = lrc == LDAP_SUCCESS && res ? ::ldap_first_entry(ld, res) : nullptr;
    if (entry != nullptr) {
        struct berval **values = ::ldap_get_values_len(ld, entry, attr);
        for (size_t i = 0; values && values[i] && !offered; ++i)
            offered = values[i]->bv_len == std::strlen(kPasswordModifyOid) &&
                      std::memcmp(values[i]->bv_val, kPasswordModifyOid, values[i]->bv_len) == 0;
        ::ldap_value_free_len(values);
    }
    if (res) ::ldap_msgfree(res);
    return offered;
}

int set_password(LDAP *ld, const char *dn, const char *password) {
    struct berval user = {std::strlen(dn), const_cast<char *>(dn)};
    struct berval fresh = {std::strlen(password), const_cast<char *>(password)};
    struct berval generated = {0, nullptr};
    int lrc = ::ldap_passwd_s(ld, &user, nullptr, &fresh, &generated, nullptr, nullptr);
    // With a new password given the server generates none; free one anyway.
    if (generated.bv_val) {
        sodium_memzero(generated.bv_val, generated.bv_len);
        ::ber_memfree(generated.bv_val);
    }
    return lrc;
}

std::string salted_password_value(const char *password) {
    const size_t length = std::strlen(password);
    WipedBytes input(length + kSaltBytes);
    std::memcpy(input.data(), password, length);
    randombytes_buf(input.data() + length, kSaltBytes);
    unsigned char digest[kSha1Bytes + kSaltBytes];
    if (gnutls_hash_fast(GNUTLS_DIG_SHA1, input.data(), input.size(), digest) != 0) return std::string();
    std::memcpy(digest + kSha1Bytes, input.data() + length, kSaltBytes);
    char b64[sodium_base64_ENCODED_LEN(sizeof digest, sodium_base64_VARIANT_ORIGINAL)];
    sodium_bin2base64(b64, sizeof b64, digest, sizeof digest, sodium_base64_VARIANT_ORIGINAL);
    return std::string("{SSHA}") + b64;
}

}  // namespace zel::platform
