// Why a credential query answers as it does: the merged query run with a
// recorder, its answer read as Zel_getCredential reads it and then thrown
// away, so the explanation names the same record and status.
#include <cstring>
#include <vector>

#include "ZelEntry.h"
#include "ZelCredentialQuery.h"
#include "ZelHolders.h"
#include "ZelSession.h"

namespace {

struct Step {
    int32_t kind;
    int32_t form;
    std::string dn;
    std::string name;
    int32_t outcome;
};

class Recorder : public zel::CredentialTrail {
public:
    // The session, not its connection: a reconnect during the query replaces s->ld.
    Recorder(const ZelSession *s, const std::string &direct_id) : s_(s), direct_id_(direct_id) {}
    void user(int32_t mode, const zel::UserForm &form) override {
        steps.push_back({ZEL_STEP_USER, mode, form.dn, std::string(), static_cast<int32_t>(form.rc)});
    }
    void direct(int32_t mode, LDAPMessage *record) override {
        steps.push_back({ZEL_STEP_DIRECT, mode, dn_of(record), direct_id_, record ? 1 : 0});
    }
    void group(int32_t mode, LDAPMessage *record, const std::string &group, int32_t held_in) override {
        steps.push_back({ZEL_STEP_GROUP, mode, dn_of(record), group, held_in});
    }
    std::string dn_of(LDAPMessage *record) const {
        zel::LdapText dn(record ? ldap_get_dn(s_->ld, record) : nullptr);
        return dn ? dn.get() : "";
    }
    std::vector<Step> steps;

private:
    const ZelSession *s_;
    std::string direct_id_;
};

const char *reason_for(ZelRC status, const Step *answer) {
    switch (status) {
    case 0:
        return answer && answer->kind == ZEL_STEP_DIRECT
                   ? "the user's own record for the resource answers"
                   : "the first group record whose group holds the resource answers";
    case ZEL_RC_TR_NOT_FOUND:
        return "no direct record for the resource, and no group record names a group that holds it";
    case ZEL_RC_USER_NOT_FOUND: return "the person is not a Zel user";
    case ZEL_RC_ACCOUNT_INVALID: return "the Zel user's account is inactive";
    case ZEL_RC_NO_CREDENTIAL_DATA: return "the answering record holds no password";
    case ZEL_RC_DECODE_FAILED: return "the answering record's password cannot be read";
    case ZEL_RC_EPERSON_NOT_FOUND: return "no person has that name";
    default: return Zel_strerror(status);
    }
}

// Answers about the directory's content are explained; a failure to ask
// (a server gone, memory, a name too long) is the call's own status.
bool explained(ZelRC status) {
    switch (status) {
    case 0:
    case ZEL_RC_TR_NOT_FOUND:
    case ZEL_RC_USER_NOT_FOUND:
    case ZEL_RC_ACCOUNT_INVALID:
    case ZEL_RC_NO_CREDENTIAL_DATA:
    case ZEL_RC_DECODE_FAILED:
    case ZEL_RC_EPERSON_NOT_FOUND:
        return true;
    default:
        return false;
    }
}

char *copy_or_null(const std::string &text, bool empty_is_null) {
    if (empty_is_null && text.empty()) return nullptr;
    char *copy = strdup(text.c_str());
    if (!copy) throw std::bad_alloc();
    return copy;
}

using ExplanationFree = zel::FreeWith<ZelCredentialExplanation, Zel_freeCredentialExplanation>;

ZelRC explain(ZelSession *s, const char *user, const ZelCredentialRequest *req, ZelCredentialExplanation **out) {
    ZelRC rc = 0;
    if (req == nullptr || req->resourceName == nullptr || user == nullptr || out == nullptr)
        return rc = ZEL_RC_INVALID_ARGUMENT;
    Recorder recorder(s, std::string("T:") + req->resourceName);
    zel::CredentialAnswer answer;
    ZelRC status = 0;
    {
        // Wiped and freed however the query ends, a memory failure included.
        struct Discarded {
            ZelCredential c{};
            ~Discarded() { zel::clear_credential(&c); }
        } discarded;
        status = zel::query_credential(s, user, req, &discarded.c, &recorder, answer);
    }
    if (!explained(status)) return rc = status;

    std::unique_ptr<ZelCredentialExplanation, ExplanationFree> e(
        static_cast<ZelCredentialExplanation *>(std::calloc(1, sizeof(ZelCredentialExplanation))));
    if (!e) return rc = ZEL_RC_NO_MEMORY;
    e->status = status;
    e->answerStep = -1;
    const std::string answer_dn = answer.entry ? recorder.dn_of(answer.entry) : std::string();
    const std::vector<Step> &steps = recorder.steps;
    e->steps = static_cast<ZelExplainStep **>(std::calloc(steps.size() + 1, sizeof(ZelExplainStep *)));
    if (!e->steps) return rc = ZEL_RC_NO_MEMORY;
    for (const Step &step : steps) {
        auto *out_step = static_cast<ZelExplainStep *>(std::calloc(1, sizeof(ZelExplainStep)));
        if (!out_step) return rc = ZEL_RC_NO_MEMORY;
        e->steps[e->stepCount++] = out_step;
        out_step->kind = step.kind;
        out_step->form = step.form;
        out_step->outcome = step.outcome;
        out_step->dn = copy_or_null(step.dn, true);
        out_step->name = step.kind == ZEL_STEP_USER ? nullptr : copy_or_null(step.name, false);
        if (step.kind != ZEL_STEP_USER && !answer_dn.empty() && step.dn == answer_dn)
            e->answerStep = e->stepCount - 1;
    }
    e->userName = copy_or_null(user, false);
    e->resourceName = copy_or_null(req->resourceName, false);
    e->reason = copy_or_null(reason_for(status, e->answerStep >= 0 ? &steps[e->answerStep] : nullptr), false);
    *out = e.release();
    return rc;
}

}  // namespace

extern "C" {

ZEL_API ZelRC Zel_explainCredential(ZelSession *s, const char *user, const ZelCredentialRequest *req,
                                    ZelCredentialExplanation **out) {
    return zel::call(s, "Zel_explainCredential", [&] {
        if (out) *out = nullptr;
        return explain(s, user, req, out);
    });
}

ZEL_API void Zel_freeCredentialExplanation(ZelCredentialExplanation *e) {
    if (e == nullptr) return;
    for (int32_t i = 0; e->steps && i < e->stepCount; ++i) {
        if (!e->steps[i]) continue;
        std::free(e->steps[i]->dn);
        std::free(e->steps[i]->name);
        std::free(e->steps[i]);
    }
    std::free(e->steps);
    std::free(e->userName);
    std::free(e->resourceName);
    std::free(e->reason);
    std::free(e);
}

}  // extern "C"
