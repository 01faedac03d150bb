// Password masking on libsodium.  See password_mask.h for the format.
#include "platform/password_mask.h"

#include <sodium.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

namespace zel::platform {

namespace {

constexpr char kPrefix[] = "{ZM1}";
constexpr size_t kPrefixLength = sizeof kPrefix - 1;
// The version text bound into the tag, so a later format cannot pass for this one.
constexpr char kTagContext[] = "ZM1";
constexpr size_t kNonceLength = crypto_stream_chacha20_ietf_NONCEBYTES;   // 12
constexpr size_t kTagLength = 16;
constexpr size_t kKeyLength = crypto_stream_chacha20_ietf_KEYBYTES;       // 32
constexpr int kBase64 = sodium_base64_VARIANT_ORIGINAL;

static_assert(kNonceLength == 12, "nonce length is part of the stored format");
static_assert(kTagLength >= crypto_generichash_BYTES_MIN, "tag length unsupported");
static_assert(kKeyLength >= crypto_generichash_KEYBYTES_MIN &&
                  kKeyLength <= crypto_generichash_KEYBYTES_MAX,
              "key length unsupported");

// The keys are fixed: masking hides a password from a casual reader, it is
// not encryption.  They are derived from labels rather than written out.
struct MaskKeys {
    bool ready = false;
    unsigned char stream[kKeyLength];
    unsigned char tag[kKeyLength];

    MaskKeys() {
        if (sodium_init() < 0) return;
        static const char kStreamLabel[] = "zelmgmt password mask 1: stream key";
        static const char kTagLabel[] = "zelmgmt password mask 1: tag key";
        ready = crypto_generichash(stream, sizeof stream,
                                   reinterpret_cast<const unsigned char *>(kStreamLabel),
                                   sizeof kStreamLabel - 1, nullptr, 0) == 0 &&
                crypto_generichash(tag, sizeof tag, reinterpret_cast<const unsigned char *>(kTagLabel),
                                   sizeof kTagLabel - 1, nullptr, 0) == 0;
    }
};

// Built once, thread-safely; null when libsodium cannot start.
const MaskKeys *mask_keys() {
    static const MaskKeys keys;
    return keys.ready ? &keys : nullptr;
}

// Tag over "ZM1" | nonce | masked bytes.
bool compute_tag(const MaskKeys &keys, const unsigned char *nonce_and_masked, size_t length,
                 unsigned char tag[kTagLength]) {
    crypto_generichash_state state;
    bool ok = crypto_generichash_init(&state, keys.tag, sizeof keys.tag, kTagLength) == 0 &&
              crypto_generichash_update(&state, reinterpret_cast<const unsigned char *>(kTagContext),
                                        sizeof kTagContext - 1) == 0 &&
              crypto_generichash_update(&state, nonce_and_masked, length) == 0 &&
              crypto_generichash_final(&state, tag, kTagLength) == 0;
    sodium_memzero(&state, sizeof state);
    return ok;
}

// Holds bytes that may reveal a password and wipes them when done.
class WipedBytes {
public:
    explicit WipedBytes(size_t length) : bytes_(length) {}
    ~WipedBytes() { sodium_memzero(bytes_.data(), bytes_.size()); }
    WipedBytes(const WipedBytes &) = delete;
    WipedBytes &operator=(const WipedBytes &) = delete;
    unsigned char *data() { return bytes_.data(); }
    size_t size() const { return bytes_.size(); }

private:
    std::vector<unsigned char> bytes_;
};

}  // namespace

char *util_encode(const char *clear) {
    if (clear == nullptr) return nullptr;
    const MaskKeys *keys = mask_keys();
    if (keys == nullptr) return nullptr;
    size_t clear_length = std::strlen(clear);
    // Far beyond any password; keeps the size arithmetic below from wrapping.
    if (clear_length > crypto_stream_chacha20_ietf_MESSAGEBYTES_MAX / 2 ||
        clear_length > (SIZE_MAX / 4) - 64) {
        return nullptr;
    }
    try {
        WipedBytes blob(kNonceLength + clear_length + kTagLength);
        unsigned char *nonce = blob.data();
        unsigned char *masked = nonce + kNonceLength;
        unsigned char *tag = masked + clear_length;
        randombytes_buf(nonce, kNonceLength);
        crypto_stream_chacha20_ietf_xor(masked, reinterpret_cast<const unsigned char *>(clear),
                                        clear_length, nonce, keys->stream);
        if (!compute_tag(*keys, nonce, kNonceLength + clear_length, tag)) return nullptr;

        size_t text_length = sodium_base64_encoded_len(blob.size(), kBase64);   // includes the NUL
        auto *out = static_cast<char *>(malloc(kPrefixLength + text_length));
        if (out == nullptr) return nullptr;
        std::memcpy(out, kPrefix, kPrefixLength);
        sodium_bin2base64(out + kPrefixLength, text_length, blob.data(), blob.size(), kBase64);
        return out;
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

char *util_decode(const char *masked_text) {
    if (masked_text == nullptr) return nullptr;
    if (std::strncmp(masked_text, kPrefix, kPrefixLength) != 0) return nullptr;
    const MaskKeys *keys = mask_keys();
    if (keys == nullptr) return nullptr;

    const char *text = masked_text + kPrefixLength;
    size_t text_length = std::strlen(text);
    size_t max_length = text_length / 4 * 3 + 3;
    if (max_length < kNonceLength + kTagLength) return nullptr;
    try {
        WipedBytes blob(max_length);
        size_t blob_length = 0;
        // No end pointer and no ignored characters: any stray character,
        // missing padding or non-zero padding bits is refused.
        if (sodium_base642bin(blob.data(), blob.size(), text, text_length, nullptr, &blob_length,
                              nullptr, kBase64) != 0) {
            return nullptr;
        }
        if (blob_length < kNonceLength + kTagLength) return nullptr;
        size_t clear_length = blob_length - kNonceLength - kTagLength;
        unsigned char *nonce = blob.data();
        unsigned char *masked = nonce + kNonceLength;
        const unsigned char *stored_tag = masked + clear_length;

        unsigned char expected_tag[kTagLength];
        bool tag_ok = compute_tag(*keys, nonce, kNonceLength + clear_length, expected_tag) &&
                      crypto_verify_16(expected_tag, stored_tag) == 0;
        sodium_memzero(expected_tag, sizeof expected_tag);
        if (!tag_ok) return nullptr;

        auto *clear = static_cast<char *>(malloc(clear_length + 1));
        if (clear == nullptr) return nullptr;
        crypto_stream_chacha20_ietf_xor(reinterpret_cast<unsigned char *>(clear), masked,
                                        clear_length, nonce, keys->stream);
        // A C string cannot carry a NUL; encode never produces one.
        if (std::memchr(clear, '\0', clear_length) != nullptr) {
            sodium_memzero(clear, clear_length);
            free(clear);
            return nullptr;
        }
        clear[clear_length] = '\0';
        return clear;
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

}  // namespace zel::platform
