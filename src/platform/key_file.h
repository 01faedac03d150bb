// Operator keys for stored passwords: the key file that ZEL_KEYFILE names.
//
// The file is text, one key a line:
//
//   zelkey1 <id> <key> [active]
//
//   id      1 to 32 characters of A-Z a-z 0-9 . _ -, unique in the file
//   key     32 random bytes, standard base64 with '=' padding
//   active  on exactly one line: that key encrypts; every key decrypts
//
// Blank lines and lines starting with '#' are skipped; any other line that
// does not fit makes the whole file unusable.  The file must be a regular
// file that neither group nor others may read, write or execute: a key that
// others can read protects nothing, and one they can change is theirs.
//
// Key bytes never leave this layer in traces or messages, and every buffer
// that held them is wiped before it is given back.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

namespace zel::platform {

constexpr size_t kOperatorKeyBytes = 32;
constexpr size_t kKeyIdMax = 32;

struct OperatorKey {
    char id[kKeyIdMax + 1] = {};
    unsigned char key[kOperatorKeyBytes] = {};
    bool active = false;
};

// The keys of one key file; wiped when the ring goes.
class KeyRing {
public:
    KeyRing() = default;
    ~KeyRing();
    KeyRing(const KeyRing &) = delete;
    KeyRing &operator=(const KeyRing &) = delete;

    const OperatorKey *active() const;
    const OperatorKey *find(const char *id, size_t id_length) const;
    const std::vector<OperatorKey> &keys() const { return keys_; }

    // Reads key file text; false (and an empty ring) when any line is wrong,
    // no key or more than one is active, or an id repeats.
    bool parse(const char *text, size_t length);
    // Adds a fresh random key under a new id and makes it the only active one.
    bool add_generated_key();

private:
    void clear();
    std::vector<OperatorKey> keys_;
};

enum class KeyFileState { absent, usable, refused };

// Loads the key file at `path` after the ownership checks above.
KeyFileState read_key_file(const char *path, KeyRing &ring);

// Loads the key file ZEL_KEYFILE names: absent when the variable is unset
// or empty, refused when the file cannot be read, is open to group or others,
// or is malformed.
//
// The parsed keys are kept for the process, with the file's identity as one
// stat() of the path shows it (device, inode, size, change and modification
// times to the nanosecond, owner, mode).  Each call takes that identity again,
// refuses at once a file that is gone or no longer fit, and reads and parses
// the file only when the identity differs: a key file renamed over the old
// one, edited or chmod-ed is read anew at the next call.  A file changed so
// recently that a further change might keep its timestamps is not kept.
//
// `keys` is set only when usable: a ring nobody changes, shared with the
// cache and other callers, whose keys are wiped when the last holder lets go.
KeyFileState read_configured_keys(std::shared_ptr<const KeyRing> &keys);

// Writes the ring to `path` with mode 0600: a new file when `replace` is
// false (an existing one is never touched), else a complete new copy put in
// place of the old one at once.  False when the file could not be written.
bool write_key_file(const char *path, const KeyRing &ring, bool replace);

}  // namespace zel::platform
