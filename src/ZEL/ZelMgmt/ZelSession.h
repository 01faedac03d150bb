// The session record behind a ZelSession handle, and what every family asks
// of a session.
#pragma once

#ifndef LDAP_DEPRECATED
#define LDAP_DEPRECATED 1
#endif
#include <ldap.h>
#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "zelmgmt.h"

namespace zel { class Failover; }

// One suffix of the directory, in discovery order.
struct ZelSuffixNode {
    char *suffix;
    ZelSuffixNode *next;
};

// A session's audit trail (ZelAudit.h); null unless ZEL_AUDIT is set.
struct ZelAuditTrail;

// Field order is fixed: the tag must be the first four bytes.
namespace zel { class UserCache; struct SessionTexts; }

// The caller's progress hook (Zel_setProgressCallback) and the count of the
// long-running call that reports to it now; ZelProgress.h drives it.
struct ZelProgressHook {
    ZelProgressFn fn;          // null: nobody is told
    void *context;
    int32_t running;           // a long-running call is counting
    int64_t done;
    int64_t total;             // -1 until the call has listed its entries
};

struct ZelSession {
    char tag[4];               // "ZEL" and NUL while the handle is live
    uint32_t version;          // API version: below 2 first-generation, 2 security domain
    LDAP *ld;
    ZelSuffixNode *suffixes;
    char *database_dn;         // 1000-byte buffer or null
    char *schema_dn;           // never assigned by the library
    int32_t dir_kind;          // ZEL_DIR_*
    int32_t host_kind;         // ZEL_HOST_*
    int32_t debug_level;       // from ZEL_DEBUG
    int32_t owns_connection;   // 1 when open created ld
    pthread_mutex_t mutex;     // initialised and destroyed, never locked
    char *domain_dn;           // 1000-byte buffer or null
    char *domain_name;
    int32_t domain_version;
    zel::UserCache *user_cache;     // null while the session caches no users
    bool stepwise_credentials;      // ZEL_CREDENTIAL_PATH=stepwise at open
    zel::Failover *failover;   // null on a caller's own connection
    ZelAuditTrail *audit;           // null unless ZEL_AUDIT is set
    int32_t paged_results;     // the root DSE lists the paged-results control
    int32_t caller_referrals;       // a caller's handle chased referrals before open turned it off
    ZelProgressHook progress;
    int32_t guard_depth;       // guarded calls in progress (ZelEntry.h)
    zel::SessionTexts *texts;  // null until a read needs them (ZelSessionTexts.h)
};

namespace zel {

// A live handle of the library's own ("ZEL" and its NUL in the tag).
inline bool valid_handle(const ZelSession *s) { return s != nullptr && std::memcmp(s->tag, "ZEL", 4) == 0; }
// The session changed a user (or may have): what it cached about users goes.
void forget_users(ZelSession *s);

// Sessions below API version 2 use the first-generation storage form only.
inline bool first_generation(const ZelSession *s) { return s->version < 2; }

// Directory kinds that refuse empty values: there an empty description is
// left out on add (and deleted on update) instead of written empty.
inline bool omits_empty_description(int32_t dir_kind) {
    return dir_kind == ZEL_DIR_NDS || dir_kind == ZEL_DIR_EDIRECTORY || dir_kind == ZEL_DIR_GENERIC ||
           dir_kind == ZEL_DIR_ACTIVE_DIRECTORY;
}

// Whether a description is written (added or replaced) at all.
inline bool writes_description(const ZelSession *s, const char *description) {
    return description != nullptr && (description[0] != '\0' || !omits_empty_description(s->dir_kind));
}

// The session's suffix list and the lists built like it.  Appends a node
// owning a zero-filled copy of `length` bytes of text; 1012 when memory runs
// out (the list is left as it was).
ZelRC append_suffix(ZelSuffixNode **head, const char *text, size_t length);
void free_suffixes(ZelSuffixNode *head);

}  // namespace zel
