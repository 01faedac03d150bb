// What an AD account needs that no other directory does.
#pragma once

#ifndef LDAP_DEPRECATED
#define LDAP_DEPRECATED 1
#endif
#include <ldap.h>

#include "platform/wiped_bytes.h"

#include <memory>

namespace zel::platform {

// Whether the handle's connection is encrypted (ldaps or StartTLS): AD takes
// an account's password over nothing else.
bool connection_encrypted(LDAP *ld);

// unicodePwd's value for a UTF-8 password: the password in double quotes,
// as UTF-16LE.  Null for text that is not UTF-8.  Wiped when released.
std::unique_ptr<WipedBytes> ad_password_value(const char *utf8);

}  // namespace zel::platform
