// Tracing to standard output, gated by the session's ZEL_DEBUG level.
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "ZelSession.h"
#include "ZelTrace.h"

namespace zel {

void print_trace(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    std::vfprintf(stdout, fmt, ap);
    va_end(ap);
    std::fflush(stdout);
}

void print_trace_line(const char *text) {
    std::puts(text);
    std::fflush(stdout);
}

#if !(defined(__GNUC__) && !defined(__clang__))
void tracef(const ZelSession *s, int above, const char *fmt, ...) {
    if (!tracing(s, above)) return;
    va_list ap;
    va_start(ap, fmt);
    std::vfprintf(stdout, fmt, ap);
    va_end(ap);
    std::fflush(stdout);
}
#endif

int read_debug_level() {
    const char *v = std::getenv("ZEL_DEBUG");
    if (v == nullptr) return 0;
    char *end = nullptr;
    long n = std::strtol(v, &end, 10);
    if (end == v) return 0;
    if (n > INT_MAX) return INT_MAX;
    if (n < INT_MIN) return INT_MIN;
    return static_cast<int>(n);
}

void RoutineTrace::entered() const { tracef(s_, kTraceFlow, "zelmgmt:%s:Entered...\n", name_); }

void RoutineTrace::exited() const {
    tracef(s_, kTraceFlow, "zelmgmt:%s:Exited...rc=%d\n", name_, static_cast<int>(rc_));
}

}  // namespace zel
