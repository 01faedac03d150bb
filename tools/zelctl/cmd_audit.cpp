// zelctl audit verify / head: checks a trail file's chain through the
// library, names the first line that was changed, removed or inserted, and
// prints or compares the head an auditor keeps.  Local: no directory, no bind.
#include <cstdio>
#include <string>

#include "json_out.h"
#include "terminal_text.h"
#include "zelctl.h"

namespace zelctl {
namespace {

using HeldCheck = Held<ZelAuditCheck, Zel_freeAuditCheck>;

// The check of `file`, or null after saying why there is none.
HeldCheck check_trail(const std::string &command, const std::string &file, const char *expect, int &status) {
    ZelAuditCheck *raw = nullptr;
    ZelRC rc = Zel_verifyAuditTrail(file.c_str(), expect, &raw);
    HeldCheck check(raw);
    if (rc == ZEL_RC_INVALID_ARGUMENT) status = usage(command + ": --expect takes a head as audit head prints it");
    else if (rc != 0) status = fail(command + ": cannot read " + file + " (or the trail key ZEL_AUDIT_KEY names)", rc);
    return check;
}

int report_fault(const std::string &command, const std::string &file, const ZelAuditCheck &c) {
    say_to(stderr, "zelctl: %s: %s: line %llu %s\n", command.c_str(), file.c_str(),
           static_cast<unsigned long long>(c.faultLine), c.fault);
    return 1;
}

int audit_verify(const Options &opts, Args args) {
    int status = 0;
    std::string expect;
    bool have_expect = false;
    if (!take_value(args, "--expect", expect, have_expect, status)) return status;
    std::vector<std::string> operands;
    if (!take_operands(args, "audit verify", {"FILE"}, operands, status)) return status;
    const std::string &file = operands[0];
    HeldCheck c = check_trail("audit verify", file, have_expect ? expect.c_str() : nullptr, status);
    if (!c) return status;
    if (opts.json) {
        Json out{{"file", file}, {"intact", static_cast<bool>(c->intact)}};
        if (c->intact) {
            out["lines"] = c->lines;
            out["head"] = json_text(c->head);
        } else {
            out["line"] = c->faultLine;
            out["fault"] = json_text(c->fault);
        }
        print_json(out);
    } else if (c->intact) {
        say("%s: %llu lines, chain intact\n", file.c_str(), static_cast<unsigned long long>(c->lines));
    }
    return c->intact ? 0 : report_fault("audit verify", file, *c);
}

// The head is printed only for a trail that checks out: a head of a broken
// chain is nothing to keep.
int audit_head(const Options &opts, Args args) {
    int status = 0;
    std::vector<std::string> operands;
    if (!take_operands(args, "audit head", {"FILE"}, operands, status)) return status;
    const std::string &file = operands[0];
    HeldCheck c = check_trail("audit head", file, nullptr, status);
    if (!c) return status;
    if (!c->intact) return report_fault("audit head", file, *c);
    if (opts.json) return print_json(Json{{"file", file}, {"lines", c->lines}, {"head", json_text(c->head)}});
    say("%s\n", c->head);
    return 0;
}

}  // namespace

int run_audit(const Options &opts, Args args) {
    if (args.empty() || (args.front() != "verify" && args.front() != "head"))
        return usage("audit: expected verify FILE [--expect HEAD] or head FILE");
    std::string sub = args.front();
    args.erase(args.begin());
    return sub == "verify" ? audit_verify(opts, args) : audit_head(opts, args);
}

}  // namespace zelctl
