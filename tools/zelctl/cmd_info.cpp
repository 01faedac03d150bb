// zelctl info: what the directory is and where the Zel data lies.
#include <cstdio>
#include <memory>
#include <string>

#include "zelctl.h"

namespace zelctl {
namespace {

struct InfoFree { void operator()(ZelSessionInfo *i) const { Zel_freeSessionInfo(i); } };

const char *host_kind_name(int32_t kind) {
    switch (kind) {
    case ZEL_HOST_TESSAN: return "tessan";
    case ZEL_HOST_KELMAR: return "kelmar";
    default: return "other";
    }
}

void print_json(const ZelSessionInfo &info) {
    std::string suffixes;
    for (int32_t i = 0; i < info.suffixCount; ++i) suffixes += (i ? "," : "") + json_string(info.suffixes[i]);
    std::printf("{\"vendor\":%s,\"host\":%s,\"suffixes\":[%s],\"securityDomain\":%s,\"securityDomainDN\":%s,"
                "\"securityDomainVersion\":%d,\"database\":%s,\"server\":%s}\n",
                json_string(directory_kind_name(info.dirKind)).c_str(), json_string(host_kind_name(info.hostKind)).c_str(),
                suffixes.c_str(), json_string(info.securityDomain).c_str(), json_string(info.securityDomainDN).c_str(),
                info.securityDomainVersion, json_string(info.databaseDN).c_str(), json_string(info.server).c_str());
}

void print_text(const ZelSessionInfo &info) {
    std::printf("vendor:            %s\n", directory_kind_name(info.dirKind));
    std::printf("host:              %s\n", host_kind_name(info.hostKind));
    std::printf("suffixes:         ");
    if (info.suffixCount == 0) std::printf(" none");
    for (int32_t i = 0; i < info.suffixCount; ++i) std::printf(" %s", info.suffixes[i]);
    std::printf("\n");
    if (info.securityDomain)
        std::printf("security domain:   %s (%s), version %d\n", info.securityDomain,
                    info.securityDomainDN ? info.securityDomainDN : "", info.securityDomainVersion);
    else
        std::printf("security domain:   none\n");
    // Version 0 and 1 sessions look for the database only when an operation
    // needs it, so not knowing it yet does not mean there is none.
    const char *none = info.apiVersion < 2 ? "not looked up (API version below 2)" : "none";
    std::printf("Zel database:      %s\n", info.databaseDN ? info.databaseDN : none);
    std::printf("server:            %s\n", info.server ? info.server : "unknown");
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
    std::unique_ptr<ZelSessionInfo, InfoFree> info(raw);
    if (rc != 0) return fail("cannot read what the session learnt", rc);
    if (opts.json)
        print_json(*info);
    else
        print_text(*info);
    return 0;
}

}  // namespace zelctl
