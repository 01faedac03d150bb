// zelctl info: what the directory is and where the Zel data lies.
#include <cstdio>
#include <string>

#include "zel_internal.h"
#include "zelctl.h"

namespace zelctl {
namespace {

const char *dir_kind_name(int32_t kind) {
    switch (kind) {
    case ZEL_DIR_ORV: return "orv";
    case ZEL_DIR_NETSCAPE: return "netscape";
    case ZEL_DIR_NDS: return "nds";
    case ZEL_DIR_EDIRECTORY: return "edirectory";
    case ZEL_DIR_GENERIC: return "generic";
    case ZEL_DIR_ACTIVE_DIRECTORY: return "active-directory";
    default: return "unknown";
    }
}

const char *host_kind_name(int32_t kind) {
    switch (kind) {
    case ZEL_HOST_TESSAN: return "tessan";
    case ZEL_HOST_KELMAR: return "kelmar";
    default: return "other";
    }
}

}  // namespace

int run_info(const Options &opts, Args args) {
    if (!args.empty()) return usage("info takes no arguments");
    ZelSession *s = open_session(opts);
    if (!s) return 1;
    // Version-1 sessions learn the database only when an operation needs it.
    char located[zel::kDnSize] = {0};
    const char *db = s->database_dn;
    if (!db && locate_ZEL_database(s, s->suffixes, located) == 0) db = located;
    if (opts.json) {
        std::printf("{\"vendor\":%s,\"host\":%s,\"suffixes\":[", json_string(dir_kind_name(s->dir_kind)).c_str(),
                    json_string(host_kind_name(s->host_kind)).c_str());
        for (ZelSuffixNode *n = s->suffixes; n; n = n->next)
            std::printf("%s%s", n == s->suffixes ? "" : ",", json_string(n->suffix).c_str());
        std::printf("],\"securityDomain\":%s,\"securityDomainDN\":%s,\"securityDomainVersion\":%d,"
                    "\"database\":%s}\n",
                    json_string(s->domain_name).c_str(),
                    json_string(s->domain_dn && *s->domain_dn ? s->domain_dn : nullptr).c_str(),
                    s->domain_version, json_string(db).c_str());
    } else {
        std::printf("vendor:            %s\n", dir_kind_name(s->dir_kind));
        std::printf("host:              %s\n", host_kind_name(s->host_kind));
        std::printf("suffixes:         ");
        if (!s->suffixes) std::printf(" none");
        for (ZelSuffixNode *n = s->suffixes; n; n = n->next) std::printf(" %s", n->suffix);
        std::printf("\n");
        if (s->domain_name)
            std::printf("security domain:   %s (%s), version %d\n", s->domain_name, s->domain_dn, s->domain_version);
        else
            std::printf("security domain:   none\n");
        std::printf("Zel database:      %s\n", db ? db : "none");
    }
    Zel_close(s, 1);
    return 0;
}

}  // namespace zelctl
