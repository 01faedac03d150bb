// What a status alone cannot say about the last failure on a thread: why the
// server's certificate was refused, the server's own words and the matched
// DN of a refused operation, or which entry stood in the way.  Kept per
// thread, since a failed open hands out no session to keep it in.  Written
// only on failure: a call that succeeds costs nothing here.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "ZelClient.h"
#include "ZelHolders.h"
#include "ZelSession.h"
#include "ZelStatus.h"
#include "ZelTrace.h"

namespace {

// Fixed size: setting it never allocates, so it cannot fail.
thread_local char last_detail[512];

// Appends text, cut at the buffer's end; control characters the server sent
// become spaces so that the text stays one line.
void append_text(size_t &used, const char *text) {
    for (; *text != '\0' && used + 1 < sizeof last_detail; ++text)
        last_detail[used++] = static_cast<unsigned char>(*text) < 0x20 ? ' ' : *text;
    last_detail[used] = '\0';
}

}  // namespace

namespace zel {

void clear_error_detail() { last_detail[0] = '\0'; }

void set_error_detail(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(last_detail, sizeof last_detail, fmt, ap);
    va_end(ap);
}

void capture_server_detail(const ZelSession *s, int ldap_rc) {
    last_detail[0] = '\0';
    if (s == nullptr || s->ld == nullptr) return;
    // Only the words that came with this result: a status the library made
    // up (or one from an earlier exchange) has none.
    int last_rc = 0;
    if (ldap_get_option(s->ld, LDAP_OPT_RESULT_CODE, &last_rc) != LDAP_OPT_SUCCESS || last_rc != ldap_rc) return;
    char *message = nullptr, *matched = nullptr;
    (void)ldap_get_option(s->ld, LDAP_OPT_DIAGNOSTIC_MESSAGE, &message);
    (void)ldap_get_option(s->ld, LDAP_OPT_MATCHED_DN, &matched);
    LdapText message_owner(message), matched_owner(matched);
    size_t used = 0;
    if (message != nullptr && *message != '\0') {
        append_text(used, "server: ");
        append_text(used, message);
    }
    if (matched != nullptr && *matched != '\0') {
        append_text(used, used ? "; matched DN: " : "matched DN: ");
        append_text(used, matched);
    }
}

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
