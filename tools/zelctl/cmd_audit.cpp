// zelctl audit verify: walks a trail file's chain and names the first line
// that was changed, removed or inserted.  Local: no directory, no bind.
#include <cstdio>
#include <memory>
#include <string>

#include "platform/audit_chain.h"
#include "zelctl.h"

namespace zelctl {
namespace {

namespace plat = zel::platform;

struct FileClose {
    void operator()(std::FILE *f) const { std::fclose(f); }
};

int audit_verify(const Options &opts, Args args) {
    int status = 0;
    std::vector<std::string> operands;
    if (!take_operands(args, "audit verify", {"FILE"}, operands, status)) return status;
    const std::string &file = operands[0];
    std::unique_ptr<std::FILE, FileClose> f(std::fopen(file.c_str(), "re"));
    plat::AuditCheck check;
    if (!f) check.fault = plat::AuditFault::Unreadable;
    else check = plat::check_audit_trail(f.get());

    const bool intact = check.fault == plat::AuditFault::None;
    if (opts.json) {
        std::printf("{\"file\":%s,\"intact\":%s,", json_string(file.c_str()).c_str(), intact ? "true" : "false");
        if (intact) std::printf("\"lines\":%llu}\n", static_cast<unsigned long long>(check.line));
        else std::printf("\"line\":%llu,\"fault\":%s}\n", static_cast<unsigned long long>(check.line),
                         json_string(plat::audit_fault_text(check.fault)).c_str());
    } else if (intact) {
        std::printf("%s: %llu lines, chain intact\n", file.c_str(), static_cast<unsigned long long>(check.line));
    }
    if (intact) return 0;
    if (check.fault == plat::AuditFault::Unreadable)
        std::fprintf(stderr, "zelctl: audit verify: cannot read %s\n", file.c_str());
    else
        std::fprintf(stderr, "zelctl: audit verify: %s: line %llu %s\n", file.c_str(),
                     static_cast<unsigned long long>(check.line), plat::audit_fault_text(check.fault));
    return 1;
}

}  // namespace

int run_audit(const Options &opts, Args args) {
    if (args.empty() || args.front() != "verify") return usage("audit: expected verify FILE");
    args.erase(args.begin());
    return audit_verify(opts, args);
}

}  // namespace zelctl
