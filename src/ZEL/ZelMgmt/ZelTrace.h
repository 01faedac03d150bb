// Tracing to standard output, gated by the session's ZEL_DEBUG level.
#pragma once

#include "ZelAttributes.h"
#include "ZelSession.h"

namespace zel {

// Trace thresholds: a message is printed when debug_level is above them.
constexpr int kTraceFailures = 1;
constexpr int kTraceProgress = 9;
constexpr int kTraceFlow = 19;

// Texts printed in place of passwords.
constexpr const char *kMaskedPassword = "XXXXXXXX";

inline bool tracing(const ZelSession *s, int above) { return s != nullptr && s->debug_level > above; }

// Prints a trace line as it stands (tracef below decides whether to).
void print_trace(const char *fmt, ...) ZEL_PRINTF(1, 2);
void print_trace_line(const char *text);

// Formatted trace; the format carries its own newline where it has one.
// With tracing off a call costs the level test: its arguments are passed on
// only when the line is printed.
#if defined(__GNUC__) && !defined(__clang__)
extern inline __attribute__((always_inline, gnu_inline)) ZEL_PRINTF(3, 4) void tracef(const ZelSession *s, int above,
                                                                                      const char *fmt, ...) {
    if (tracing(s, above)) print_trace(fmt, __builtin_va_arg_pack());
}
#else
void tracef(const ZelSession *s, int above, const char *fmt, ...) ZEL_PRINTF(3, 4);
#endif
// Line trace: the text is printed followed by a newline.
inline void trace_line(const ZelSession *s, int above, const char *text) {
    if (tracing(s, above)) print_trace_line(text);
}
int read_debug_level();

// Prints the Entered line on construction and the Exited line, with the
// status the routine returns, on destruction.  Declare the status first.
// A null name prints nothing; so does a session that traces no flow.
class RoutineTrace {
public:
    RoutineTrace(const ZelSession *s, const char *name, const ZelRC &rc)
        : s_(tracing(s, kTraceFlow) && name ? s : nullptr), name_(name), rc_(rc) {
        if (s_) entered();
    }
    ~RoutineTrace() {
        if (s_) exited();
    }
    RoutineTrace(const RoutineTrace &) = delete;
    RoutineTrace &operator=(const RoutineTrace &) = delete;

private:
    void entered() const;
    void exited() const;

    const ZelSession *s_;
    const char *name_;
    const ZelRC &rc_;
};

}  // namespace zel
