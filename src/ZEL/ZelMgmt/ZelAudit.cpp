// The audit trail: a session's destination and identity, the fields of each
// line, and where the line goes (a shared file, or syslog).
#include "ZelAudit.h"

#include <sodium.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

#include "ZelTargetRecord.h"
#include "platform/audit_chain.h"
#include "platform/audit_file.h"
#include "ZelHolders.h"
#include "ZelSession.h"
#include "ZelText.h"
#include "ZelTrace.h"

struct ZelAuditTrail {
    ~ZelAuditTrail() { sodium_memzero(&key, sizeof key); }
    std::string path;  // the trail file; unused with syslog
    bool to_syslog = false;
    // ZEL_AUDIT_KEY: the trail key, or why none can be used (every line is
    // then refused rather than written unkeyed).
    bool keyed = false;
    const char *key_problem = nullptr;
    zel::platform::AuditKey key{};
    zel::platform::AuditLink last;  // the last line this session wrote to the file
    uint64_t checkpoint_every = 0;
    std::string identity;
    int depth = 0;  // public calls in progress on the session
    std::string answer;  // the record that answered the read in progress
    zel::audit::Form answer_form = zel::audit::Form::Domain;
};

namespace zel::audit {
namespace {

constexpr const char *kSyslog = "syslog";
// A checkpoint of the file's head goes to syslog this often (ZEL_AUDIT_CHECKPOINT
// lines) and when the session closes: a copy the file's writers cannot edit.
constexpr uint64_t kCheckpointEvery = 100;

// Syslog keeps no file to read the chain from: each process chains its own.
std::mutex syslog_mutex;
platform::AuditLink syslog_link;

size_t utf8_sequence(const unsigned char *p) {
    unsigned c = p[0];
    size_t n = c >= 0xF0 && c <= 0xF4 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 && c <= 0xDF ? 2 : 0;
    if (c >= 0xF5) n = 0;
    for (size_t i = 1; i < n; ++i)
        if ((p[i] & 0xC0) != 0x80) return 0;
    // Overlong and surrogate forms are no UTF-8 either.
    if ((c == 0xE0 && p[1] < 0xA0) || (c == 0xED && p[1] > 0x9F) || (c == 0xF0 && p[1] < 0x90) ||
        (c == 0xF4 && p[1] > 0x8F))
        return 0;
    return n;
}

// A caller's text as a JSON string: one line whatever it holds; bytes that
// are not UTF-8 are written as the code points of the same number.
void append_json(std::string &out, const char *text) {
    if (text == nullptr) {
        out += "null";
        return;
    }
    out += '"';
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(text); *p;) {
        unsigned c = *p;
        if (c >= 0x80) {
            if (size_t n = utf8_sequence(p)) {
                out.append(reinterpret_cast<const char *>(p), n);
                p += n;
                continue;
            }
        } else if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
            ++p;
            continue;
        } else if (c >= 0x20 && c != 0x7F) {
            out += static_cast<char>(c);
            ++p;
            continue;
        }
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
        out += escaped;
        ++p;
    }
    out += '"';
}

void append_field(std::string &out, const char *name, const char *text) {
    out.append(",\"").append(name).append("\":");
    append_json(out, text);
}

std::string utc_now() {
    struct timespec ts {};
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tm {};
    gmtime_r(&ts.tv_sec, &tm);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(ts.tv_nsec / 1000000));
    return text;
}

// The server the session talks to now.
std::string server_of(const ZelSession *s) {
    char *uri = nullptr;
    if (s->ld == nullptr || ldap_get_option(s->ld, LDAP_OPT_URI, &uri) != LDAP_OPT_SUCCESS || uri == nullptr)
        return std::string();
    std::string text(uri);
    ldap_memfree(uri);
    return text;
}

const char *form_name(Form form) { return form == Form::Domain ? "domain" : "first-generation"; }

// Errors of the trail answer 1000 (1012 when memory ran out) and say why at
// the failure trace level.
ZelRC refused(const ZelSession *s, const char *why) {
    tracef(s, kTraceFailures, "zelmgmt:Audit trail not written: %s\n", why);
    return ZEL_RC_SYSTEM_ERROR;
}

void checkpoint(const ZelSession *s, const ZelAuditTrail &trail) noexcept {
    try {
        const std::string head = platform::audit_head_text(trail.last);
        syslog(LOG_AUTHPRIV | LOG_NOTICE, "zelmgmt audit checkpoint: %s head %s", trail.path.c_str(), head.c_str());
        tracef(s, kTraceProgress, "zelmgmt:Audit checkpoint: head %s\n", head.c_str());
    } catch (...) {
    }
}

ZelRC emit(const ZelSession *s, ZelAuditTrail &trail, const std::string &fields) {
    if (trail.to_syslog) {
        std::lock_guard<std::mutex> lock(syslog_mutex);
        platform::AuditLink next;
        std::string line = platform::seal_audit_line(syslog_link, fields, next);
        line.pop_back();
        syslog(LOG_AUTHPRIV | LOG_NOTICE, "%s", line.c_str());
        syslog_link = next;
        return 0;
    }
    if (trail.key_problem) return refused(s, trail.key_problem);
    platform::AuditLink written;
    if (int err = platform::append_audit_line(trail.path.c_str(), fields, trail.keyed ? &trail.key : nullptr,
                                              &written)) {
        const char *why = err == EBADMSG ? "its last line is not a trail line"
                          : err == ELOOP ? "it is a symbolic link"
                          : err == EPERM ? "group or others may write it, or another user owns it"
                          : err == ENOTSUP ? "it is not a regular file"
                          : err == EFBIG ? "the file size limit is reached"
                                         : std::strerror(err);
        return refused(s, why);
    }
    trail.last = written;
    if (trail.checkpoint_every && written.seq % trail.checkpoint_every == 0) checkpoint(s, trail);
    return 0;
}

}  // namespace

ZelRC attach(ZelSession *s, const char *bind_dn) {
    const char *destination = std::getenv("ZEL_AUDIT");
    if (destination == nullptr) return 0;
    auto trail = std::make_unique<ZelAuditTrail>();
    trail->to_syslog = std::strcmp(destination, kSyslog) == 0;
    trail->path = destination;
    if (bind_dn && *bind_dn) {
        trail->identity = bind_dn;
    } else if (s->ld) {
        char *sasl = nullptr;
        if (ldap_get_option(s->ld, LDAP_OPT_X_SASL_USERNAME, &sasl) == LDAP_OPT_SUCCESS && sasl) {
            trail->identity = sasl;
            ldap_memfree(sasl);
        }
    }
    if (!trail->to_syslog) {
        trail->checkpoint_every = kCheckpointEvery;
        if (const char *every = std::getenv("ZEL_AUDIT_CHECKPOINT"); every && *every)
            trail->checkpoint_every = std::strtoull(every, nullptr, 10);
        switch (platform::read_configured_audit_key(trail->key)) {
        case platform::KeyFileState::absent: break;
        case platform::KeyFileState::usable: trail->keyed = true; break;
        case platform::KeyFileState::refused:
            trail->key_problem = "the trail key file ZEL_AUDIT_KEY names cannot be used";
            break;
        }
    }
    s->audit = trail.release();
    return 0;
}

void detach(ZelSession *s) noexcept {
    if (s->audit && s->audit->last.seq != 0) checkpoint(s, *s->audit);
    delete s->audit;
    s->audit = nullptr;
}

void keep_answer(ZelSession *s, const char *record_id, Form form) noexcept {
    if (s == nullptr || s->audit == nullptr || s->audit->depth == 0 || record_id == nullptr) return;
    try {
        s->audit->answer = record_id;
        s->audit->answer_form = form;
    } catch (...) {
        s->audit->answer.clear();  // the line then names no record
    }
}

void keep_answer(ZelSession *s, LDAPMessage *entry) noexcept {
    if (s == nullptr || s->audit == nullptr || s->audit->depth == 0 || entry == nullptr) return;
    LdapText dn(ldap_get_dn(s->ld, entry));
    LDAPDN parsed = nullptr;
    if (!dn || ldap_str2dn(dn.get(), &parsed, LDAP_DN_FORMAT_LDAP) != LDAP_SUCCESS) return;
    if (parsed && parsed[0] && parsed[0][0]) {
        const LDAPAVA *ava = parsed[0][0];
        // First-generation records are named by cn, security domain ones by secResCredsID.
        std::string type(ava->la_attr.bv_val, ava->la_attr.bv_len);
        try {
            std::string id(ava->la_value.bv_val, ava->la_value.bv_len);
            keep_answer(s, id.c_str(), same_text(type.c_str(), "cn") ? Form::FirstGeneration : Form::Domain);
        } catch (...) {
        }
    }
    ldap_dnfree(parsed);
}

Call::Call(ZelSession *s, const char *op, const Subject &subject) noexcept
    : s_(s), op_(op), subject_(subject), audited_(s->audit->depth++ == 0) {
    if (audited_) s->audit->answer.clear();
}

Call::~Call() { --s_->audit->depth; }

ZelRC Call::attempt() noexcept { return line("attempt", nullptr); }

ZelRC Call::result(ZelRC status) noexcept { return line("result", &status); }

ZelRC Call::line(const char *phase, const ZelRC *status) noexcept {
    ZelAuditTrail &trail = *s_->audit;
    try {
        std::string fields;
        fields.reserve(384);
        fields.append("\"time\":\"").append(utc_now()).append("\",\"pid\":").append(std::to_string(getpid()));
        append_field(fields, "identity", trail.identity.c_str());
        append_field(fields, "server", server_of(s_).c_str());
        append_field(fields, "op", op_);
        append_field(fields, "phase", phase);
        append_field(fields, "user", subject_.user);
        append_field(fields, "target", subject_.target);
        if (subject_.member) append_field(fields, "member", subject_.member);
        if (status) fields.append(",\"status\":").append(std::to_string(*status));
        // A change that timed out may still be applied by the server.
        if (status && *status == ZEL_RC_TIMEOUT) append_field(fields, "outcome", "outcome unknown");
        if (status && !trail.answer.empty()) {
            append_field(fields, "record", trail.answer.c_str());
            if (trail.answer.compare(0, 2, "G:") == 0)
                append_field(fields, "group", token(trail.answer.c_str(), ':', 1).c_str());
            append_field(fields, "form", form_name(trail.answer_form));
        }
        return emit(s_, trail, fields);
    } catch (const std::bad_alloc &) {
        return ZEL_RC_NO_MEMORY;
    } catch (...) {
        return refused(s_, "an unexpected failure");
    }
}

}  // namespace zel::audit
