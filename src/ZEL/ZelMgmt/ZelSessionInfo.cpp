// What a session learnt at open, handed out as a record of its own so that
// tools and bindings need nothing but the public header.
#include <cstdlib>
#include <cstring>
#include <memory>

#include "ZelEntry.h"
#include "ZelClient.h"
#include "ZelHolders.h"
#include "ZelSession.h"

namespace {

using InfoHolder = zel::Owned<ZelSessionInfo, Zel_freeSessionInfo>;

// A private copy, or null for null.  False only when memory runs out.
bool copy_text(char *&field, const char *text) {
    if (text == nullptr) return true;
    field = strdup(text);
    return field != nullptr;
}

bool copy_suffixes(const ZelSession *s, ZelSessionInfo *info) {
    int32_t count = 0;
    for (const ZelSuffixNode *n = s->suffixes; n; n = n->next) ++count;
    if (count == 0) return true;
    info->suffixes = static_cast<char **>(std::calloc(static_cast<size_t>(count), sizeof(char *)));
    if (info->suffixes == nullptr) return false;
    for (const ZelSuffixNode *n = s->suffixes; n; n = n->next) {
        // Counted as copied, so that a failure frees what was copied so far.
        if (!copy_text(info->suffixes[info->suffixCount++], n->suffix)) return false;
    }
    return true;
}

}  // namespace

extern "C" {

ZEL_API ZelRC Zel_getSessionInfo(ZelSession *s, ZelSessionInfo **out) {
    ZelRC rc = 0;
    return zel::call(s, "Zel_getSessionInfo", [&]() -> ZelRC {
        if (out == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
        *out = nullptr;
        InfoHolder info(static_cast<ZelSessionInfo *>(std::calloc(1, sizeof(ZelSessionInfo))));
        if (!info) return rc = ZEL_RC_NO_MEMORY;
        info->dirKind = s->dir_kind;
        info->hostKind = s->host_kind;
        info->securityDomainVersion = s->domain_version;
        info->apiVersion = s->version;
        // The domain lookup leaves an empty DN behind when it found nothing.
        const char *domain_dn = s->domain_dn && *s->domain_dn ? s->domain_dn : nullptr;
        if (!copy_suffixes(s, info.get()) || !copy_text(info->securityDomain, s->domain_name) ||
            !copy_text(info->securityDomainDN, domain_dn) || !copy_text(info->databaseDN, s->database_dn))
            return rc = ZEL_RC_NO_MEMORY;
        const std::string server = plat::connection_uri(s->ld);
        if (!copy_text(info->server, server.empty() ? nullptr : server.c_str())) return rc = ZEL_RC_NO_MEMORY;
        *out = info.release();
        return rc;
    });
}

ZEL_API void Zel_freeSessionInfo(ZelSessionInfo *info) {
    if (info == nullptr) return;
    for (int32_t i = 0; i < info->suffixCount; ++i) std::free(info->suffixes[i]);
    std::free(info->suffixes);
    std::free(info->securityDomain);
    std::free(info->securityDomainDN);
    std::free(info->databaseDN);
    std::free(info->server);
    std::free(info);
}

}  // extern "C"
