// The operator's key file on libsodium.  See key_file.h for the format.
#include "platform/key_file.h"
#include "platform/wiped_bytes.h"

#include <fcntl.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

namespace zel::platform {

namespace {

constexpr char kMagic[] = "zelkey1";
constexpr char kActive[] = "active";
// Far more than any rotation needs; a larger file is no key file.
constexpr size_t kMaxFileBytes = 64 * 1024;
// "zelkey1 " id " " base64 " active\n"
constexpr size_t kMaxLineBytes = 8 + kKeyIdMax + 1 + 44 + 8 + 1;

bool id_character(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
           c == '-';
}

bool blank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

// Splits one line into at most `max` words; false when there are more.
size_t split_words(const char *line, size_t length, const char *words[], size_t sizes[], size_t max) {
    size_t count = 0;
    for (size_t i = 0; i < length;) {
        while (i < length && blank(line[i])) ++i;
        if (i == length) break;
        if (count == max) return max + 1;
        size_t start = i;
        while (i < length && !blank(line[i])) ++i;
        words[count] = line + start;
        sizes[count++] = i - start;
    }
    return count;
}

bool same_word(const char *word, size_t size, const char *expected) {
    return size == std::strlen(expected) && std::memcmp(word, expected, size) == 0;
}

bool parse_line(const char *line, size_t length, OperatorKey &key) {
    const char *words[4];
    size_t sizes[4];
    size_t count = split_words(line, length, words, sizes, 4);
    if (count < 3 || count > 4 || !same_word(words[0], sizes[0], kMagic)) return false;
    if (count == 4 && !same_word(words[3], sizes[3], kActive)) return false;
    if (sizes[1] == 0 || sizes[1] > kKeyIdMax) return false;
    for (size_t i = 0; i < sizes[1]; ++i)
        if (!id_character(words[1][i])) return false;
    std::memcpy(key.id, words[1], sizes[1]);
    key.id[sizes[1]] = '\0';
    size_t decoded = 0;
    if (sodium_base642bin(key.key, sizeof key.key, words[2], sizes[2], nullptr, &decoded, nullptr,
                          sodium_base64_VARIANT_ORIGINAL) != 0 ||
        decoded != sizeof key.key)
        return false;
    key.active = count == 4;
    return true;
}

// Writes all of `length` bytes; false on any failure.
bool write_all(int fd, const char *data, size_t length) {
    while (length > 0) {
        ssize_t n = ::write(fd, data, length);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

// The ring as key file text, in `out`; the length written, or 0.
size_t format_ring(const KeyRing &ring, WipedBytes &out) {
    size_t used = 0;
    for (const OperatorKey &k : ring.keys()) {
        char encoded[sodium_base64_ENCODED_LEN(kOperatorKeyBytes, sodium_base64_VARIANT_ORIGINAL)];
        sodium_bin2base64(encoded, sizeof encoded, k.key, sizeof k.key, sodium_base64_VARIANT_ORIGINAL);
        int n = std::snprintf(out.text() + used, out.size() - used, "%s %s %s%s\n", kMagic, k.id, encoded,
                              k.active ? " active" : "");
        sodium_memzero(encoded, sizeof encoded);
        if (n < 0 || static_cast<size_t>(n) >= out.size() - used) return 0;
        used += static_cast<size_t>(n);
    }
    return used;
}

bool write_new_file(const char *path, const char *text, size_t length) {
    int fd = ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) return false;
    bool ok = ::fchmod(fd, 0600) == 0 && write_all(fd, text, length) && ::fsync(fd) == 0;
    ok = ::close(fd) == 0 && ok;
    if (!ok) ::unlink(path);
    return ok;
}

// A file fit to hold keys: a regular file closed to group and others, and
// not larger than any key file is.
bool fit_for_keys(const struct stat &st) {
    return S_ISREG(st.st_mode) && (st.st_mode & (S_IRWXG | S_IRWXO)) == 0 &&
           static_cast<size_t>(st.st_size) <= kMaxFileBytes;
}

int64_t nanoseconds(const timespec &t) { return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec; }

// What stat() shows of a key file; any other value is another file, or the
// same one changed.
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    int64_t modified = 0;
    int64_t changed = 0;
    uid_t owner = 0;
    mode_t mode = 0;

    FileIdentity() = default;
    explicit FileIdentity(const struct stat &st)
        : device(st.st_dev), inode(st.st_ino), size(st.st_size), modified(nanoseconds(st.st_mtim)),
          changed(nanoseconds(st.st_ctim)), owner(st.st_uid), mode(st.st_mode) {}
    bool operator==(const FileIdentity &o) const {
        return device == o.device && inode == o.inode && size == o.size && modified == o.modified &&
               changed == o.changed && owner == o.owner && mode == o.mode;
    }
};

// File times advance in steps of the kernel's clock tick (a few
// milliseconds), or of whole seconds on some file systems, so a change made
// in the same step as the one before keeps every time as it was.  Keys read
// at `before` are kept only when the file's last change lies more than a
// step before that: any later change then moves its change time.
bool settled(const struct stat &st, const timespec &before) {
    const int64_t step = st.st_ctim.tv_nsec == 0 ? 2000000000 : 100000000;
    return nanoseconds(before) - nanoseconds(st.st_ctim) > step;
}

// Reads and parses the file at `path` after the checks in key_file.h;
// `seen` is what fstat showed of the very file that was read.
KeyFileState read_checked(const char *path, KeyRing &ring, struct stat &seen) {
    if (sodium_init() < 0) return KeyFileState::refused;
    int fd = ::open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return KeyFileState::refused;
    bool trusted = ::fstat(fd, &seen) == 0 && fit_for_keys(seen);
    WipedBytes text(trusted ? static_cast<size_t>(seen.st_size) + 1 : 0);
    size_t length = 0;
    while (trusted) {
        ssize_t n = ::read(fd, text.text() + length, text.size() - length);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) trusted = false;
        if (n <= 0) break;
        length += static_cast<size_t>(n);
        // The file grew while it was read: not the file that was checked.
        if (length == text.size()) trusted = false;
    }
    ::close(fd);
    return trusted && ring.parse(text.text(), length) ? KeyFileState::usable : KeyFileState::refused;
}

}  // namespace

// The keys of the configured key file, kept for the process so that a
// decrypt costs one stat() instead of reading and parsing the file.
class KeyFileCache {
public:
    static KeyFileCache &instance() {
        static KeyFileCache cache;
        return cache;
    }

    // ZEL_KEYFILE no longer names a file: keys kept from one go.
    void drop() {
        if (!kept_.load(std::memory_order_relaxed)) return;
        std::lock_guard<std::mutex> lock(mutex_);
        forget();
    }

    KeyFileState read(const char *path, std::shared_ptr<const KeyRing> &keys) {
        struct stat st;  // read only where stat() filled it
        bool fit = ::stat(path, &st) == 0 && fit_for_keys(st);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!fit) {
                // Gone or loosened: the kept keys go with it.
                forget();
                return KeyFileState::refused;
            }
            if (ring_ && identity_ == FileIdentity(st) && path_ == path) {
                keys = ring_;
                return KeyFileState::usable;
            }
        }
        // Read outside the lock; a slower reader that stores an older ring
        // stores it under that ring's own identity, which the next stat() tells apart.
        timespec before {};
        ::clock_gettime(CLOCK_REALTIME, &before);
        struct stat seen {};
        auto fresh = std::make_shared<KeyRing>();
        KeyFileState state = read_checked(path, *fresh, seen);
        if (state == KeyFileState::usable) keys = fresh;
        std::lock_guard<std::mutex> lock(mutex_);
        if (closed_) return state;
        // Nothing is kept until the path's copy is whole (the copy may throw).
        forget();
        if (state == KeyFileState::usable && settled(seen, before)) {
            path_ = path;
            identity_ = FileIdentity(seen);
            ring_ = std::move(fresh);
            kept_.store(true, std::memory_order_relaxed);
        }
        return state;
    }

    ~KeyFileCache() {
        std::lock_guard<std::mutex> lock(mutex_);
        forget();
        closed_ = true;
    }

private:
    KeyFileCache() = default;

    // Lets the kept keys go: wiped now, or by the last caller still using them.
    // Holds mutex_.
    void forget() {
        if (closed_) return;
        ring_.reset();
        kept_.store(false, std::memory_order_relaxed);
    }

    std::mutex mutex_;
    // Written under mutex_; read without it only to skip a needless lock.
    std::atomic<bool> kept_{false};
    // Set at exit: nothing is kept after the process began to end.
    bool closed_ = false;
    std::string path_;
    FileIdentity identity_;
    // Never changed once kept: a caller holding it reads it without the lock.
    std::shared_ptr<const KeyRing> ring_;
};

KeyRing::~KeyRing() { clear(); }

void KeyRing::clear() {
    if (!keys_.empty()) sodium_memzero(keys_.data(), keys_.size() * sizeof(OperatorKey));
    keys_.clear();
}

const OperatorKey *KeyRing::active() const {
    for (const OperatorKey &k : keys_)
        if (k.active) return &k;
    return nullptr;
}

const OperatorKey *KeyRing::find(const char *id, size_t id_length) const {
    for (const OperatorKey &k : keys_)
        if (std::strlen(k.id) == id_length && std::memcmp(k.id, id, id_length) == 0) return &k;
    return nullptr;
}

bool KeyRing::parse(const char *text, size_t length) {
    clear();
    // Room for every line and one key more, so that neither parsing nor a
    // later add_generated_key moves key bytes and leaves a copy behind.
    size_t lines = 2;
    for (const char *p = text, *end = text + length;
         (p = static_cast<const char *>(std::memchr(p, '\n', static_cast<size_t>(end - p)))) != nullptr; ++p)
        ++lines;
    keys_.reserve(lines);
    size_t active = 0;
    for (size_t start = 0; start < length;) {
        const char *end = static_cast<const char *>(std::memchr(text + start, '\n', length - start));
        size_t line_length = end ? static_cast<size_t>(end - (text + start)) : length - start;
        const char *line = text + start;
        start += line_length + 1;
        const char *words[1];
        size_t sizes[1];
        if (split_words(line, line_length, words, sizes, 1) == 0 || line[0] == '#') continue;
        keys_.emplace_back();
        OperatorKey &key = keys_.back();
        if (!parse_line(line, line_length, key) || find(key.id, std::strlen(key.id)) != &key) {
            clear();
            return false;
        }
        active += key.active;
    }
    if (active != 1) clear();
    return active == 1;
}

bool KeyRing::add_generated_key() {
    if (sodium_init() < 0) return false;
    OperatorKey fresh;
    do {
        unsigned char raw[4];
        randombytes_buf(raw, sizeof raw);
        std::snprintf(fresh.id, sizeof fresh.id, "k%02x%02x%02x%02x", raw[0], raw[1], raw[2], raw[3]);
    } while (find(fresh.id, std::strlen(fresh.id)) != nullptr);
    randombytes_buf(fresh.key, sizeof fresh.key);
    fresh.active = true;
    for (OperatorKey &k : keys_) k.active = false;
    if (keys_.size() == keys_.capacity()) keys_.reserve(keys_.size() + 1);  // an empty ring: nothing to leave behind
    keys_.push_back(fresh);
    sodium_memzero(&fresh, sizeof fresh);
    return true;
}

KeyFileState read_key_file(const char *path, KeyRing &ring) {
    struct stat seen {};
    return read_checked(path, ring, seen);
}

KeyFileState read_configured_keys(std::shared_ptr<const KeyRing> &keys) {
    keys.reset();
    const char *path = std::getenv("ZEL_KEYFILE");
    if (path == nullptr || *path == '\0') {
        KeyFileCache::instance().drop();
        return KeyFileState::absent;
    }
    return KeyFileCache::instance().read(path, keys);
}

bool write_key_file(const char *path, const KeyRing &ring, bool replace) {
    WipedBytes text(ring.keys().size() * kMaxLineBytes + 1);
    size_t length = format_ring(ring, text);
    if (length == 0) return false;
    if (!replace) return write_new_file(path, text.text(), length);
    // The new copy is complete on disk before it takes the old one's place.
    std::string staged = std::string(path) + ".new";
    if (!write_new_file(staged.c_str(), text.text(), length)) return false;
    if (::rename(staged.c_str(), path) == 0) return true;
    ::unlink(staged.c_str());
    return false;
}

}  // namespace zel::platform
