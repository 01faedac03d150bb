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
#pragma once

namespace zel::platform {

char *util_encode(const char *clear);
char *util_decode(const char *masked);

}  // namespace zel::platform
