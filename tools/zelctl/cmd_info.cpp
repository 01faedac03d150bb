// zelctl info: what the directory is and where the Zel data lies.
#include <cstdio>
#include <memory>
#include <string>

#include "json_out.h"
#include "terminal_text.h"
#include "zelctl.h"

namespace zelctl {
namespace {


const char *host_kind_name(int32_t kind) {
    switch (kind) {
    case ZEL_HOST_TESSAN: return "tessan";
    case ZEL_HOST_KELMAR: return "kelmar";
    default: return "other";
    }
}

Json info_json(const ZelSessionInfo &info) {
    Json suffixes = Json::array();
    for (int32_t i = 0; i < info.suffixCount; ++i) suffixes.push_back(json_text(info.suffixes[i]));
    return Json{{"vendor", directory_kind_name(info.dirKind)},
                {"host", host_kind_name(info.hostKind)},
                {"suffixes", std::move(suffixes)},
                {"securityDomain", json_text(info.securityDomain)},
                {"securityDomainDN", json_text(info.securityDomainDN)},
                {"securityDomainVersion", info.securityDomainVersion},
                {"database", json_text(info.databaseDN)},
                {"server", json_text(info.server)}};
}

void print_text(const ZelSessionInfo &info) {
    say("vendor:            %s\n", directory_kind_name(info.dirKind));
    say("host:              %s\n", host_kind_name(info.hostKind));
    say("suffixes:         ");
    if (info.suffixCount == 0) say(" none");
    for (int32_t i = 0; i < info.suffixCount; ++i) say(" %s", info.suffixes[i]);
    say("\n");
    if (info.securityDomain)
        say("security domain:   %s (%s), version %d\n", info.securityDomain,
            info.securityDomainDN ? info.securityDomainDN : "", info.securityDomainVersion);
    else
        say("security domain:   none\n");
    // Version 0 and 1 sessions look for the database only when an operation
    // needs it, so not knowing it yet does not mean there is none.
    const char *none = info.apiVersion < 2 ? "not looked up (API version below 2)" : "none";
    say("Zel database:      %s\n", info.databaseDN ? info.databaseDN : none);
    say("server:            %s\n", info.server ? info.server : "unknown");
}

}  // namespace

int run_info(const Options &opts, Args args) {
    std::vector<std::string> none;
    int status = 0;
    if (!take_operands(args, "info", {}, none, status)) return status;
    Session s(open_session(opts));
    if (!s) return 1;
    ZelSessionInfo *raw = nullptr;
    ZelRC rc = Zel_getSessionInfo(s.get(), &raw);
    Held<ZelSessionInfo, Zel_freeSessionInfo> info(raw);
    if (rc != 0) return fail("cannot read what the session learnt", rc);
    if (opts.json)
        print_json(info_json(*info));
    else
        print_text(*info);
    return 0;
}

}  // namespace zelctl
