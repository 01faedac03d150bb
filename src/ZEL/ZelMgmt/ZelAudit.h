// The audit trail.  With ZEL_AUDIT set (a file name, or "syslog"), every
// credential read and every write made through the public calls leaves one
// JSON line, chained as platform/audit_chain.h describes:
//
//   {"seq":7,"time":"2026-11-26T01:45:35.123Z","pid":4242,
//    "identity":"cn=Manager,o=acme","server":"ldap://127.0.0.1:3890",
//    "op":"Zel_getCredential","phase":"result","user":"jo","target":"app",
//    "status":0,"record":"G:Sales","group":"Sales","form":"domain","hash":"..."}
//
// A write leaves an "attempt" line before anything is sent and a "result"
// line after; a read leaves its "result" line before anything is handed out.
// If a line cannot be written the call fails closed: a write sends nothing
// and a read hands nothing out (1000; 1012 when memory ran out).  The result
// line of a write that was sent cannot take the write back: its status
// stands, and the trail shows an attempt without a result.  Calls made inside
// an audited call (database creation adding its types and administrator) are
// covered by the outer call's lines.  No line ever holds a password, stored
// value or bind password: only names, statuses and record identifiers.
//
// Without ZEL_AUDIT a session carries no trail and each call pays one
// pointer test.
#pragma once

#include <optional>

#include "ZelSession.h"
#include "ZelStatus.h"

namespace zel::audit {

// ---- For the credential query: which record answered ----------------------

// The storage form an answering record was found in.
enum class Form {
    Domain,           // below the security domain's user ("form":"domain")
    FirstGeneration,  // below the Zel database's profile ("form":"first-generation")
};

// Tells the trail which record answers the credential read in progress:
// its identifier ("T:<resource>" or "G:<group>"; the line also names the
// group of a G: record) and its storage form.  The last report before the
// read returns is the one written.  Does nothing when the session has no
// trail or no audited read is running; never fails, never throws.
// Without a trail the call costs a pointer test.
void keep_answer(ZelSession *s, const char *record_id, Form form) noexcept;
inline void note_answer(ZelSession *s, const char *record_id, Form form) noexcept {
    if (s != nullptr && s->audit != nullptr) keep_answer(s, record_id, form);
}
// The same, read off the answering entry: its first RDN gives the identifier
// and, by its attribute type, the form.
void keep_answer(ZelSession *s, LDAPMessage *entry) noexcept;
inline void note_answer(ZelSession *s, LDAPMessage *entry) noexcept {
    if (s != nullptr && s->audit != nullptr) keep_answer(s, entry);
}

// ---- For the session -----------------------------------------------------

// Reads ZEL_AUDIT when the session opens and gives the session its trail,
// remembering the bind identity (`bind_dn`, or the SASL name the connection
// reports when it is empty or null).  Only 1012 can fail it: a trail that
// cannot be written shows at the first call that needs it.
ZelRC attach(ZelSession *s, const char *bind_dn);
void detach(ZelSession *s) noexcept;

// ---- For the public calls ------------------------------------------------

// What a call names.  Null fields are written as null.
struct Subject {
    const char *user = nullptr;
    const char *target = nullptr;
    const char *member = nullptr;  // a domain member added or removed
};

// One public call on a session with a trail; nested calls are not audited.
class Call {
public:
    Call(ZelSession *s, const char *op, const Subject &subject) noexcept;
    ~Call();
    Call(const Call &) = delete;
    Call &operator=(const Call &) = delete;

    bool audited() const { return audited_; }
    // Each writes its line: 0, or 1000 (1012) when the line was not written.
    ZelRC attempt() noexcept;
    ZelRC result(ZelRC status) noexcept;

private:
    ZelRC line(const char *phase, const ZelRC *status) noexcept;

    ZelSession *s_;
    const char *op_;
    Subject subject_;
    bool audited_;
};

// Runs a public write: its attempt line first (nothing is sent without it),
// then the body (guarded), then its result line.
template <class Body>
ZelRC write(ZelSession *s, const char *op, const Subject &subject, Body &&body) {
    if (s->audit == nullptr) return guarded(body);
    Call call(s, op, subject);
    if (!call.audited()) return guarded(body);
    if (ZelRC refused = call.attempt()) return refused;
    ZelRC rc = guarded(body);
    (void)call.result(rc);  // sent is sent: the write's own status stands
    return rc;
}

// Runs a public read that hands out passwords: the body (guarded), then its
// result line; when that line cannot be written, `withdraw` takes back what
// the body handed out and the read fails.
template <class Body, class Withdraw>
ZelRC read(ZelSession *s, const char *op, const Subject &subject, Body &&body, Withdraw &&withdraw) {
    // One guarded body for both cases, so that it is inlined here once.
    std::optional<Call> call;
    if (s->audit != nullptr) call.emplace(s, op, subject);
    ZelRC rc = guarded(body);
    if (!call || !call->audited()) return rc;
    if (ZelRC refused = call->result(rc)) {
        if (rc == 0) withdraw();
        return refused;
    }
    return rc;
}

}  // namespace zel::audit
