// zelctl credential get: the account (and, with --reveal, the clear
// password) a sign-on agent would present for a user and a resource.
#include <cstdio>
#include <cstring>
#include <string>

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
        std::string out = "{\"user\":" + json_string(operands[0].c_str()) + ",\"resource\":" +
                          json_string(operands[1].c_str()) + ",\"account\":" + json_string(c.userId);
        if (reveal) out += ",\"password\":" + json_string(c.password);
        std::printf("%s}\n", out.c_str());
    } else {
        std::printf("account:  %s\n", c.userId ? c.userId : "");
        if (reveal) std::printf("password: %s\n", c.password);
    }
    std::memset(c.password, 0, std::strlen(c.password));
    Zel_memfree(c.userId);
    Zel_memfree(c.password);
    return 0;
}

}  // namespace

int run_credential(const Options &opts, Args args) {
    if (args.empty() || args.front() != "get") return usage("credential: expected get USER RESOURCE");
    args.erase(args.begin());
    return credential_get(opts, args);
}

}  // namespace zelctl
