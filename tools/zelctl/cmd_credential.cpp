// zelctl credential get: the account (and, with --reveal, the clear
// password) a sign-on agent would present for a user and a resource;
// credential explain: which record answers, and why.
#include <cstdio>
#include <cstring>
#include <string>

#include "json_out.h"
#include "terminal_text.h"
#include "zelctl.h"

namespace zelctl {
namespace {

int credential_get(const Options &opts, Args args) {
    int status = 0;
    bool reveal = take_flag(args, "--reveal");
    std::vector<std::string> operands;
    if (!take_operands(args, "credential get", {"USER", "RESOURCE"}, operands, status)) return status;
    Session s(open_session(opts));
    if (!s) return 1;
    ZelCredentialRequest request{nullptr, nullptr, operands[1].data()};
    ZelCredential c{};
    ZelRC rc = Zel_getCredential(s.get(), operands[0].c_str(), &request, &c);
    if (rc != 0) return fail("no credential of " + operands[0] + " for " + operands[1], rc);
    if (opts.json) {
        Json out{{"user", operands[0]}, {"resource", operands[1]}, {"account", json_text(c.userId)}};
        if (reveal) out["password"] = json_text(c.password);
        std::string text = json_dump(out);
        std::printf("%s\n", text.c_str());
        forget_secret(text);
        if (reveal && out["password"].is_string()) forget_secret(out["password"].get_ref<std::string &>());
    } else {
        say("account:  %s\n", c.userId ? c.userId : "");
        if (reveal) say("password: %s\n", c.password);
    }
    std::memset(c.password, 0, std::strlen(c.password));
    Zel_memfree(c.userId);
    Zel_memfree(c.password);
    return 0;
}

const char *form_name(int32_t form) {
    return form == ZEL_FORM_SECURITY_DOMAIN ? "security domain" : form == ZEL_FORM_FIRST_GENERATION ? "Zel database" : "none";
}

const char *user_state(int32_t outcome) {
    return outcome == 0 ? "active" : outcome == ZEL_RC_ACCOUNT_INVALID ? "inactive"
                                   : outcome == ZEL_RC_USER_NOT_FOUND ? "no Zel user" : Zel_strerror(outcome);
}

Json step_json(const ZelExplainStep &step, bool answers) {
    static const char *kinds[] = {"", "user", "direct", "group"};
    Json out{{"step", kinds[step.kind]}, {"form", form_name(step.form)}, {"dn", json_text(step.dn)}};
    if (step.kind == ZEL_STEP_USER) out["state"] = json_text(user_state(step.outcome));
    if (step.kind == ZEL_STEP_DIRECT) {
        out["record"] = json_text(step.name);
        out["found"] = step.outcome != 0;
    }
    if (step.kind == ZEL_STEP_GROUP) {
        out["group"] = json_text(step.name);
        out["heldIn"] = step.outcome ? Json(form_name(step.outcome)) : Json(nullptr);
    }
    out["answers"] = answers;
    return out;
}

void print_step(const ZelExplainStep &step, bool answers) {
    const char *mark = answers ? "  <- answers" : "";
    switch (step.kind) {
    case ZEL_STEP_USER:
        say("user (%s): %s, %s\n", form_name(step.form), step.dn ? step.dn : "-", user_state(step.outcome));
        break;
    case ZEL_STEP_DIRECT:
        say("direct record %s (%s): %s%s\n", step.name, form_name(step.form),
            step.outcome ? "found" : "not found", mark);
        break;
    default:
        say("group record G:%s (%s): %s%s%s\n", step.name, form_name(step.form),
            step.outcome ? "group holds the resource in the " : "no group holds the resource",
            step.outcome ? form_name(step.outcome) : "", mark);
    }
}

int credential_explain(const Options &opts, Args args) {
    int status = 0;
    bool json = take_flag(args, "--json") || opts.json;
    std::vector<std::string> operands;
    if (!take_operands(args, "credential explain", {"USER", "RESOURCE"}, operands, status)) return status;
    Session s(open_session(opts));
    if (!s) return 1;
    ZelCredentialRequest request{nullptr, nullptr, operands[1].data()};
    ZelCredentialExplanation *raw = nullptr;
    ZelRC rc = Zel_explainCredential(s.get(), operands[0].c_str(), &request, &raw);
    Held<ZelCredentialExplanation, Zel_freeCredentialExplanation> e(raw);
    if (rc != 0) return fail("no explanation for " + operands[0] + " and " + operands[1], rc);
    if (json) {
        Json steps = Json::array();
        for (int32_t i = 0; i < e->stepCount; ++i) steps.push_back(step_json(*e->steps[i], i == e->answerStep));
        print_json(Json{{"user", json_text(e->userName)}, {"resource", json_text(e->resourceName)}, {"status", e->status},
                        {"reason", json_text(e->reason)}, {"steps", std::move(steps)}});
    } else {
        for (int32_t i = 0; i < e->stepCount; ++i) print_step(*e->steps[i], i == e->answerStep);
        say("answer: %s (status %u)\n", e->reason, static_cast<unsigned>(e->status));
    }
    return e->status == 0 ? 0 : 1;
}

}  // namespace

int run_credential(const Options &opts, Args args) {
    if (!args.empty() && args.front() == "explain") {
        args.erase(args.begin());
        return credential_explain(opts, args);
    }
    if (args.empty() || args.front() != "get")
        return usage("credential: expected get USER RESOURCE or explain USER RESOURCE");
    args.erase(args.begin());
    return credential_get(opts, args);
}

}  // namespace zelctl
