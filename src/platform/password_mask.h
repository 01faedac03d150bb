// Reversible masking of stored passwords.
//
// Masking keeps a password from being read at a glance in the directory; it is
// not encryption (the key is built into the library).  The masked form is
// versioned text:
//
//   "{ZM1}" + base64(nonce | masked bytes | check tag)
//
//   base64       standard alphabet with '=' padding, no line breaks
//   nonce        12 random bytes, new for every encode
//   masked bytes the password's bytes XOR the ChaCha20 (IETF) key stream for
//                the nonce under a fixed built-in key; as long as the password
//   check tag    16-byte keyed BLAKE2b, under a second fixed key, over
//                "ZM1" | nonce | masked bytes
//
// So the same password masks differently each time, and decode refuses
// anything encode did not produce: wrong prefix, bad base64 (stray
// characters, missing padding), fewer than 28 bytes, a tag that does not
// match, or a clear text holding a NUL byte.  Both return newly allocated
// text (free it with free()) or null; a null argument gives null.
//
// When ZEL_KEYFILE names an operator's key file (platform/key_file.h),
// util_encode encrypts instead, under the file's active key:
//
//   "{ZK1}" + key id + ":" + base64(nonce | ciphertext | tag)
//
//   nonce        24 random bytes, new for every encode
//   ciphertext   XChaCha20-Poly1305 (IETF) of the password, with the 16-byte
//   and tag      tag; the associated data is "ZK1:" + key id
//
// util_decode reads both forms: an encrypted value with whichever key of the
// file carries its id, a masked one as before.  An encrypted value whose key
// is not in the file, or that was changed in any way, decodes to null.
#pragma once

#include "platform/key_file.h"

namespace zel::platform {

char *util_encode(const char *clear);
char *util_decode(const char *masked);

// util_encode that also says whether the operator asked for encryption: then
// a null answer means the password must not be stored at all, not even in
// clear.  `encryption_required` is true whenever ZEL_KEYFILE is set, usable
// or not.
char *util_encode_checked(const char *clear, bool &encryption_required);

// Whether ZEL_KEYFILE is unset, names a usable key file, or one refused.
KeyFileState util_key_file_state();

// Whether a stored value is already in the form util_encode writes now:
// under the active key with a usable key file, masked without one.
bool util_is_current(const char *stored);

}  // namespace zel::platform
