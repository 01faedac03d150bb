// LDAP result mapping and the texts of status codes.
#include "ZelEntry.h"
#include "ZelStatus.h"
#include "ZelTrace.h"

namespace {

struct StatusText {
    ZelRC rc;
    const char *text;
};

constexpr StatusText kStatusTexts[] = {
    {ZEL_RC_SUCCESS, "ZEL_RC_SUCCESS: success"},
    {ZEL_RC_DIRECTORY_ERROR, "ZEL_RC_DIRECTORY_ERROR: the directory server failed or refused the operation"},
    {ZEL_RC_AUTHENTICATION_FAILED, "ZEL_RC_AUTHENTICATION_FAILED: authentication failed"},
    {ZEL_RC_ALREADY_EXISTS, "ZEL_RC_ALREADY_EXISTS: the entry already exists"},
    {ZEL_RC_NO_SUCH_OBJECT, "ZEL_RC_NO_SUCH_OBJECT: no such entry"},
    {ZEL_RC_NOT_AUTHORIZED, "ZEL_RC_NOT_AUTHORIZED: not authorized"},
    {ZEL_RC_TST_NOT_FOUND, "ZEL_RC_TST_NOT_FOUND: target service type not found"},
    {ZEL_RC_NOT_LEAF, "ZEL_RC_NOT_LEAF: the entry has children"},
    {ZEL_RC_NO_CREDENTIAL_DATA, "ZEL_RC_NO_CREDENTIAL_DATA: the target record holds no credential data"},
    {ZEL_RC_TS_NOT_FOUND, "ZEL_RC_TS_NOT_FOUND: target service not found"},
    {ZEL_RC_CONFLICT, "ZEL_RC_CONFLICT: existing values differ from those requested"},
    {ZEL_RC_USER_NOT_FOUND, "ZEL_RC_USER_NOT_FOUND: Zel user not found"},
    {ZEL_RC_INVALID_SYNTAX, "ZEL_RC_INVALID_SYNTAX: malformed DN or filter"},
    {ZEL_RC_TR_NOT_FOUND, "ZEL_RC_TR_NOT_FOUND: target record not found"},
    {ZEL_RC_LOCATION_NOT_FOUND, "ZEL_RC_LOCATION_NOT_FOUND: location not found in the domain"},
    {ZEL_RC_EPERSON_NOT_FOUND, "ZEL_RC_EPERSON_NOT_FOUND: person entry not found"},
    {ZEL_RC_DATABASE_NOT_FOUND, "ZEL_RC_DATABASE_NOT_FOUND: no Zel database found"},
    {ZEL_RC_LDAP_116, "ZEL_RC_LDAP_116: the directory client reported result 116"},
    {ZEL_RC_ZEL_DOMAIN_NOT_FOUND, "ZEL_RC_ZEL_DOMAIN_NOT_FOUND: Zel domain not found"},
    {ZEL_RC_ACCOUNT_INVALID, "ZEL_RC_ACCOUNT_INVALID: the account is inactive"},
    {ZEL_RC_LDAP_208, "ZEL_RC_LDAP_208: the directory client reported result 208"},
    {ZEL_RC_SECURITY_DOMAIN_NOT_FOUND, "ZEL_RC_SECURITY_DOMAIN_NOT_FOUND: security domain not found"},
    {ZEL_RC_SUFFIX_UNAVAILABLE, "ZEL_RC_SUFFIX_UNAVAILABLE: the suffix is unavailable"},
    {ZEL_RC_DATABASE_EXISTS, "ZEL_RC_DATABASE_EXISTS: a Zel database already exists"},
    {ZEL_RC_SYSTEM_ERROR, "ZEL_RC_SYSTEM_ERROR: system error"},
    {ZEL_RC_CONNECT_FAILED, "ZEL_RC_CONNECT_FAILED: no directory server could be located or connected"},
    {ZEL_RC_SET_OPTION_FAILED, "ZEL_RC_SET_OPTION_FAILED: a connection option could not be set"},
    {ZEL_RC_ROOT_DSE_FAILED, "ZEL_RC_ROOT_DSE_FAILED: the root DSE could not be read"},
    {ZEL_RC_ENTRY_NOT_FOUND, "ZEL_RC_ENTRY_NOT_FOUND: entry not found"},
    {ZEL_RC_INVALID_ARGUMENT, "ZEL_RC_INVALID_ARGUMENT: invalid argument"},
    {ZEL_RC_SSL_INIT_FAILED, "ZEL_RC_SSL_INIT_FAILED: SSL initialisation failed"},
    {ZEL_RC_PROTOCOL_ERROR, "ZEL_RC_PROTOCOL_ERROR: LDAP protocol error"},
    {ZEL_RC_LIMIT_EXCEEDED, "ZEL_RC_LIMIT_EXCEEDED: a size, time or administrative limit was exceeded"},
    {ZEL_RC_REQUEST_ERROR, "ZEL_RC_REQUEST_ERROR: the directory rejected the request"},
    {ZEL_RC_INVALID_HANDLE, "ZEL_RC_INVALID_HANDLE: invalid session handle"},
    {ZEL_RC_UNSUPPORTED_VERSION, "ZEL_RC_UNSUPPORTED_VERSION: unsupported version"},
    {ZEL_RC_NO_MEMORY, "ZEL_RC_NO_MEMORY: out of memory"},
    {ZEL_RC_DECODE_FAILED, "ZEL_RC_DECODE_FAILED: a stored password could not be decoded"},
    {ZEL_RC_SCHEMA_VIOLATION, "ZEL_RC_SCHEMA_VIOLATION: object class violation"},
    {ZEL_RC_TIMEOUT, "ZEL_RC_TIMEOUT: the directory did not answer in time; a change sent may or may not have "
                     "been applied: read it back once the directory answers"},
    {ZEL_RC_NOT_UNIQUE, "ZEL_RC_NOT_UNIQUE: more than one entry matched"},
    {ZEL_RC_UNSUPPORTED_OPERATION, "ZEL_RC_UNSUPPORTED_OPERATION: unsupported operation"},
};

// The status an LDAP result stands for; 0 when the table does not list it.
ZelRC mapped_status(uint32_t ldap_rc) {
    switch (ldap_rc) {
    case 1: case 3: case 14: case 51: case 52: case 53: case 80: case 81: case 82: case 89:
    case 91: case 129:
        return ZEL_RC_DIRECTORY_ERROR;
    case 2:
        return ZEL_RC_PROTOCOL_ERROR;
    case 4: case 11: case 70: case 101:
        return ZEL_RC_LIMIT_EXCEEDED;
    case 5: case 6: case 9: case 10: case 12: case 17: case 18: case 19: case 21: case 33: case 36:
    case 64:
        return ZEL_RC_REQUEST_ERROR;
    case 7: case 8: case 13: case 48: case 50: case 86: case 88:
        return ZEL_RC_NOT_AUTHORIZED;
    case 32:
        return ZEL_RC_NO_SUCH_OBJECT;
    case 34: case 87:
        return ZEL_RC_INVALID_SYNTAX;
    case 49: case 196:
        return ZEL_RC_AUTHENTICATION_FAILED;
    case 65:
        return ZEL_RC_SCHEMA_VIOLATION;
    case 66:
        return ZEL_RC_NOT_LEAF;
    case 68:
        return ZEL_RC_ALREADY_EXISTS;
    case 85:
        return ZEL_RC_TIMEOUT;
    case 116:
        return ZEL_RC_LDAP_116;
    case 208:
        return ZEL_RC_LDAP_208;
    default:
        return 0;
    }
}

}  // namespace

extern "C" {

ZelRC check_LDAP_rc(ZelSession *s, uint32_t ldap_rc, ZelRC default_code, const char *operation) {
    return zel::routine(s, nullptr, [&]() -> ZelRC {
        zel::tracef(s, zel::kTraceFailures, "zelmgmt:%s failed.  RC=x%x\n", operation ? operation : "",
                    ldap_rc);
        zel::capture_server_detail(s, static_cast<int>(ldap_rc));
        if (ZelRC mapped = mapped_status(ldap_rc)) return mapped;
        return default_code != 0 ? default_code : ldap_rc;
    });
}

ZEL_API const char *Zel_strerror(ZelRC rc) {
    for (const StatusText &t : kStatusTexts)
        if (t.rc == rc) return t.text;
    return ldap_err2string(static_cast<int>(rc));
}

}  // extern "C"
