// The frame every call into the library runs in.  A public call checks its
// handle, forgets cached users when it may change one, traces its Entered
// and Exited lines under its name, writes its audit lines and runs its body
// under the one guard that keeps exceptions from crossing the C boundary.
// An internal routine traces its lines and takes the guard only when no call
// above it holds one (a tool or test calling it directly).
//
//   ZEL_API ZelRC Zel_getThing(ZelSession *s, const char *name, Thing **out) {
//       return zel::call(s, "Zel_getThing", [&] { return get_thing(s, name, out); });
//   }
#pragma once

#include <utility>

#include "ZelAudit.h"
#include "ZelSession.h"
#include "ZelStatus.h"
#include "ZelTrace.h"

namespace zel {

// Marks the session as guarded while it lives.
class GuardScope {
public:
    explicit GuardScope(ZelSession *s) : s_(s) {
        if (s_) ++s_->guard_depth;
    }
    ~GuardScope() {
        if (s_) --s_->guard_depth;
    }
    GuardScope(const GuardScope &) = delete;
    GuardScope &operator=(const GuardScope &) = delete;

private:
    ZelSession *s_;
};

inline bool guarded_now(const ZelSession *s) { return s != nullptr && s->guard_depth > 0; }

// The body, under the guard, with the session marked as guarded.
template <class Body>
ZelRC guarded_body(ZelSession *s, Body &body) noexcept {
    return guarded([&]() -> ZelRC {
        GuardScope scope(s);
        return body();
    });
}

// A public call that sends no audit line.  A null name traces nothing (the
// calls that never traced their entry).
template <class Body>
ZelRC call(ZelSession *s, const char *name, Body &&body) noexcept {
    if (!valid_handle(s)) return ZEL_RC_INVALID_HANDLE;
    ZelRC rc = 0;
    RoutineTrace trace(s, name, rc);
    return rc = guarded_body(s, body);
}

// A public read that hands out passwords: its result line is written before
// anything is handed out, and `withdraw` takes it back when the line cannot
// be (see audit::read).
template <class Body, class Withdraw>
ZelRC read_call(ZelSession *s, const char *name, const audit::Subject &subject, Body &&body,
                Withdraw &&withdraw) {
    if (!valid_handle(s)) return ZEL_RC_INVALID_HANDLE;
    ZelRC rc = 0;
    RoutineTrace trace(s, name, rc);
    return rc = audit::read(s, name, subject, [&]() -> ZelRC {
        GuardScope scope(s);
        return body();
    }, withdraw);
}

// A public write: nothing is sent before its attempt line (see audit::write).
template <class Body>
ZelRC write_call(ZelSession *s, const char *name, const audit::Subject &subject, Body &&body) {
    if (!valid_handle(s)) return ZEL_RC_INVALID_HANDLE;
    ZelRC rc = 0;
    RoutineTrace trace(s, name, rc);
    return rc = audit::write(s, name, subject, [&]() -> ZelRC {
        GuardScope scope(s);
        return body();
    });
}

// A public write that may change a user (or what resolves one): what the
// session cached about users goes first.
template <class Body>
ZelRC user_write_call(ZelSession *s, const char *name, const audit::Subject &subject, Body &&body) {
    if (!valid_handle(s)) return ZEL_RC_INVALID_HANDLE;
    forget_users(s);
    return write_call(s, name, subject, std::forward<Body>(body));
}

// An internal routine: its trace lines, and the guard when nothing above it
// holds one.  Inside a guarded call an exception passes on to that guard.
template <class Body>
ZelRC routine(ZelSession *s, const char *name, Body &&body) {
    // Inside a call that holds the guard and traces no flow, the routine
    // is its body.
    if (guarded_now(s) && !tracing(s, kTraceFlow)) return body();
    ZelRC rc = 0;
    RoutineTrace trace(s, name, rc);
    if (guarded_now(s)) return rc = body();
    return rc = guarded_body(s, body);
}

}  // namespace zel
