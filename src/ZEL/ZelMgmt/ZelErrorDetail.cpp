// What a status alone cannot say about the last failed open on a thread:
// why the server's certificate was refused.  Kept per thread, since a failed
// open hands out no session to keep it in.
#include <cstdio>
#include <cstring>

#include "zel_internal.h"

namespace {

// Fixed size: setting it never allocates, so it cannot fail.
thread_local char last_detail[256];

}  // namespace

namespace zel {

void clear_error_detail() { last_detail[0] = '\0'; }

void explain_connection_failure(const ZelSession *s, int ldap_rc) {
    // The classic numbers of "server down" and "connect error".
    constexpr int kServerDown = 81, kConnectError = 91;
    if (ldap_rc != kServerDown && ldap_rc != kConnectError) return;
    std::string reason = plat::tls_failure_reason(s->ld);
    if (reason.empty()) return;
    std::snprintf(last_detail, sizeof last_detail, "server certificate refused: %s", reason.c_str());
    tracef(s, kTraceFailures, "zelmgmt:%s\n", last_detail);
}

}  // namespace zel

extern "C" {

ZEL_API const char *Zel_last_error_detail(void) { return last_detail; }

}  // extern "C"
