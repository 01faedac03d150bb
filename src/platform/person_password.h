// How a person's password is put in the directory so that nobody who can
// read the entry learns it.
#pragma once

#ifndef LDAP_DEPRECATED
#define LDAP_DEPRECATED 1
#endif
#include <ldap.h>

#include <string>

namespace zel::platform {

// Whether the server's root entry lists the Password Modify extended
// operation: the server then hashes a password it is given under its own
// policy.  False when the root entry cannot be read.  `ld` is the session's
// own handle, read again after the search: a lost connection's recovery
// replaces it.
bool offers_password_modify(LDAP *const &ld);

// Sets the password of the entry `dn` through that operation; an LDAP
// result code.
int set_password(LDAP *ld, const char *dn, const char *password);

// userPassword's value for `password` where the server hashes nothing
// itself: "{SSHA}" and base64 of SHA-1(password, salt) followed by a fresh
// 8-byte salt.  Empty when the digest could not be taken.
std::string salted_password_value(const char *password);

}  // namespace zel::platform
