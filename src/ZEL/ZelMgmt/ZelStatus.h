// How a failure reaches the caller: the status an LDAP result maps to, the
// thread's detail of the last failure, and the guard that turns an exception
// into a status at the C boundary.
#pragma once

#include <cstdint>
#include <new>

#include "ZelAttributes.h"
#include "zelmgmt.h"

namespace zel {

// The thread's detail of the last failure (Zel_last_error_detail): cleared as
// an open starts; a connection failure that was the server's certificate says
// so there and in the trace; check_LDAP_rc replaces it with the server's
// message and matched DN of the result it maps; set_error_detail with what
// the library itself found in the way.
void clear_error_detail();
void explain_connection_failure(const ZelSession *s, int ldap_rc);
void capture_server_detail(const ZelSession *s, int ldap_rc);
void set_error_detail(const char *fmt, ...) ZEL_PRINTF(1, 2);

// Runs the body of an exported function: no exception crosses the C boundary.
template <class Body>
ZelRC guarded(Body &&body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc &) {
        return ZEL_RC_NO_MEMORY;
    } catch (...) {
        return ZEL_RC_SYSTEM_ERROR;
    }
}

}  // namespace zel

extern "C" {

// Status mapping: the status an LDAP result stands for, the failure traced
// under the name of `operation`.
ZEL_INTERNAL ZelRC check_LDAP_rc(ZelSession *s, uint32_t ldap_rc, ZelRC default_code,
                                 const char *operation);

}  // extern "C"
