// Password masking and operator-key encryption on libsodium.  See
// password_mask.h for the formats.
#include "platform/password_mask.h"
#include "platform/wiped_bytes.h"

#include <sodium.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
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

constexpr char kSealedPrefix[] = "{ZK1}";
constexpr size_t kSealedPrefixLength = sizeof kSealedPrefix - 1;
constexpr char kSealedContext[] = "ZK1:";
constexpr size_t kSealedContextLength = sizeof kSealedContext - 1;
constexpr size_t kSealNonceLength = crypto_aead_xchacha20poly1305_ietf_NPUBBYTES;  // 24
constexpr size_t kSealTagLength = crypto_aead_xchacha20poly1305_ietf_ABYTES;      // 16
static_assert(kOperatorKeyBytes == crypto_aead_xchacha20poly1305_ietf_KEYBYTES, "operator keys fit the cipher");

// "ZK1:" + key id: binds the id to the value, so a value cannot be passed off
// as one of another key.
size_t sealed_context(const OperatorKey &key, unsigned char out[kSealedContextLength + kKeyIdMax]) {
    size_t id_length = std::strlen(key.id);
    std::memcpy(out, kSealedContext, kSealedContextLength);
    std::memcpy(out + kSealedContextLength, key.id, id_length);
    return kSealedContextLength + id_length;
}

// Base64 text of `blob` behind `prefix`, newly allocated.
char *encoded_text(const char *prefix, size_t prefix_length, WipedBytes &blob) {
    size_t text_length = sodium_base64_encoded_len(blob.size(), kBase64);   // includes the NUL
    auto *out = static_cast<char *>(malloc(prefix_length + text_length));
    if (out == nullptr) return nullptr;
    std::memcpy(out, prefix, prefix_length);
    sodium_bin2base64(out + prefix_length, text_length, blob.data(), blob.size(), kBase64);
    return out;
}

// A decoded stored value: nonce, sealed or masked bytes and tag, nothing
// that reveals the password.  A password's fits on the stack.
class Blob {
public:
    // Room for the bytes of `text_length` characters of base64.
    explicit Blob(size_t text_length) : capacity_(text_length / 4 * 3 + 3) {
        if (capacity_ > sizeof inline_) heap_.reset(new unsigned char[capacity_]);
    }
    unsigned char *data() { return heap_ ? heap_.get() : inline_; }
    size_t capacity() const { return capacity_; }
    size_t length = 0;

private:
    size_t capacity_;
    unsigned char inline_[256];
    std::unique_ptr<unsigned char[]> heap_;
};

// The clear text being decoded, in the C string the caller gets: wiped and
// freed unless released, and released only when it holds no NUL byte
// (encode never writes one).
class ClearText {
public:
    explicit ClearText(size_t length) : length_(length), text_(static_cast<char *>(malloc(length + 1))) {
        if (text_ == nullptr) errno = ENOMEM;
    }
    ~ClearText() {
        if (text_ == nullptr) return;
        sodium_memzero(text_, length_);
        free(text_);
    }
    ClearText(const ClearText &) = delete;
    ClearText &operator=(const ClearText &) = delete;
    explicit operator bool() const { return text_ != nullptr; }
    unsigned char *bytes() { return reinterpret_cast<unsigned char *>(text_); }
    char *release() {
        if (std::memchr(text_, '\0', length_) != nullptr) return nullptr;
        text_[length_] = '\0';
        char *text = text_;
        text_ = nullptr;
        return text;
    }

private:
    size_t length_;
    char *text_;
};

char *seal(const char *clear, const OperatorKey &key) {
    size_t clear_length = std::strlen(clear);
    if (clear_length > crypto_aead_xchacha20poly1305_ietf_MESSAGEBYTES_MAX / 2 ||
        clear_length > (SIZE_MAX / 4) - 128) {
        return nullptr;
    }
    WipedBytes blob(kSealNonceLength + clear_length + kSealTagLength);
    unsigned char *nonce = blob.data();
    randombytes_buf(nonce, kSealNonceLength);
    unsigned char context[kSealedContextLength + kKeyIdMax];
    size_t context_length = sealed_context(key, context);
    unsigned long long sealed_length = 0;
    crypto_aead_xchacha20poly1305_ietf_encrypt(nonce + kSealNonceLength, &sealed_length,
                                               reinterpret_cast<const unsigned char *>(clear), clear_length,
                                               context, context_length, nullptr, nonce, key.key);
    std::string prefix = std::string(kSealedPrefix) + key.id + ":";
    return encoded_text(prefix.c_str(), prefix.size(), blob);
}

// Base64 `text` into `blob`: no end pointer and no ignored characters, so any
// stray character, missing padding or non-zero padding bits is refused.
bool decode_base64(const char *text, size_t text_length, Blob &blob) {
    return sodium_base642bin(blob.data(), blob.capacity(), text, text_length, nullptr, &blob.length, nullptr,
                             kBase64) == 0;
}

char *unseal(const char *sealed_text) {
    const char *id = sealed_text + kSealedPrefixLength;
    const char *colon = std::strchr(id, ':');
    if (colon == nullptr || colon == id) return nullptr;
    std::shared_ptr<const KeyRing> keys;
    if (read_configured_keys(keys) != KeyFileState::usable) return nullptr;
    const OperatorKey *key = keys->find(id, static_cast<size_t>(colon - id));
    if (key == nullptr) return nullptr;

    const char *text = colon + 1;
    size_t text_length = std::strlen(text);
    Blob blob(text_length);
    if (!decode_base64(text, text_length, blob) || blob.length < kSealNonceLength + kSealTagLength) return nullptr;
    size_t clear_length = blob.length - kSealNonceLength - kSealTagLength;
    ClearText clear(clear_length);
    if (!clear) return nullptr;
    unsigned char context[kSealedContextLength + kKeyIdMax];
    size_t context_length = sealed_context(*key, context);
    if (crypto_aead_xchacha20poly1305_ietf_decrypt(clear.bytes(), nullptr, nullptr, blob.data() + kSealNonceLength,
                                                   blob.length - kSealNonceLength, context, context_length,
                                                   blob.data(), key->key) != 0) {
        return nullptr;
    }
    return clear.release();
}

char *mask_with_builtin_key(const char *clear) {
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
        return encoded_text(kPrefix, kPrefixLength, blob);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

char *unmask_builtin(const char *masked_text) {
    const MaskKeys *keys = mask_keys();
    if (keys == nullptr) return nullptr;

    const char *text = masked_text + kPrefixLength;
    size_t text_length = std::strlen(text);
    if (text_length / 4 * 3 + 3 < kNonceLength + kTagLength) return nullptr;
    Blob blob(text_length);
    if (!decode_base64(text, text_length, blob) || blob.length < kNonceLength + kTagLength) return nullptr;
    size_t clear_length = blob.length - kNonceLength - kTagLength;
    unsigned char *nonce = blob.data();
    unsigned char *masked = nonce + kNonceLength;
    const unsigned char *stored_tag = masked + clear_length;

    unsigned char expected_tag[kTagLength];
    bool tag_ok = compute_tag(*keys, nonce, kNonceLength + clear_length, expected_tag) &&
                  crypto_verify_16(expected_tag, stored_tag) == 0;
    sodium_memzero(expected_tag, sizeof expected_tag);
    if (!tag_ok) return nullptr;

    ClearText clear(clear_length);
    if (!clear) return nullptr;
    crypto_stream_chacha20_ietf_xor(clear.bytes(), masked, clear_length, nonce, keys->stream);
    return clear.release();
}

}  // namespace

char *util_encode_checked(const char *clear, bool &encryption_required) {
    encryption_required = false;
    if (clear == nullptr) return nullptr;
    try {
        std::shared_ptr<const KeyRing> keys;
        KeyFileState state = read_configured_keys(keys);
        encryption_required = state != KeyFileState::absent;
        if (state == KeyFileState::absent) return mask_with_builtin_key(clear);
        const OperatorKey *key = keys ? keys->active() : nullptr;
        return key ? seal(clear, *key) : nullptr;
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        return nullptr;
    }
}

char *util_encode(const char *clear) {
    bool encryption_required = false;
    return util_encode_checked(clear, encryption_required);
}

char *util_decode(const char *stored) {
    if (stored == nullptr) return nullptr;
    try {
        if (std::strncmp(stored, kSealedPrefix, kSealedPrefixLength) == 0) return unseal(stored);
        if (std::strncmp(stored, kPrefix, kPrefixLength) == 0) return unmask_builtin(stored);
        return nullptr;
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        return nullptr;
    }
}

KeyFileState util_key_file_state() {
    std::shared_ptr<const KeyRing> keys;
    return read_configured_keys(keys);
}

bool util_is_current(const char *stored) {
    if (stored == nullptr) return false;
    std::shared_ptr<const KeyRing> keys;
    switch (read_configured_keys(keys)) {
    case KeyFileState::absent:
        return std::strncmp(stored, kPrefix, kPrefixLength) == 0;
    case KeyFileState::usable: {
        std::string prefix = std::string(kSealedPrefix) + keys->active()->id + ":";
        return std::strncmp(stored, prefix.c_str(), prefix.size()) == 0;
    }
    case KeyFileState::refused:
        break;
    }
    return false;
}

}  // namespace zel::platform
