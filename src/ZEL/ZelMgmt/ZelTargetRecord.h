// What the target record files and the credential query share.
#pragma once

#include <string>
#include <string_view>

#include "ZelUserLookup.h"
#include "ZelHolders.h"
#include "ZelSearch.h"
#include "ZelSession.h"

namespace zel {

// Directions of mask_password.
constexpr int32_t kMask = 5;
constexpr int32_t kUnmask = 6;

// Storage forms as lookup modes: first-generation eTargetRecord entries, or
// secResCreds entries of the security domain form.
constexpr int32_t kFirstGenerationMode = 1;
constexpr int32_t kDomainMode = 2;

// Identifier of a credential size; a longer one is refused.
constexpr size_t kCredentialIdSize = 512;

// A record search that found a user who is no Zel user in that form, or an
// inactive one, still counts as made.
inline bool search_made(ZelRC rc) { return rc == 0 || rc == ZEL_RC_USER_NOT_FOUND || rc == ZEL_RC_ACCOUNT_INVALID; }

inline int32_t session_mode(const ZelSession *s) { return first_generation(s) ? kFirstGenerationMode : kDomainMode; }

// The body of locate_ZEL_TR for a value that is already a filter assertion:
// either a caller's text escaped with escape_filter_value or a pattern the
// library writes itself ("*", "G:*").  `shown` is what the trace names (null:
// every record).  What was found lands in `out`.
ZelRC search_records(ZelSession *s, const char *assertion, const char *shown, const char *user, int32_t mode,
                     Message &out);

// The same search for a user already resolved (see UserLookup), asking for
// `attrs` (null: every attribute).
ZelRC search_user_records(ZelSession *s, const UserForm &user, const char *assertion, const char *shown,
                          int32_t mode, Message &out, char **attrs = nullptr);
// locate_ZEL_TR for a resolved user: `target` escaped, null for every record.
ZelRC find_user_records(ZelSession *s, const UserForm &user, const char *target, int32_t mode, Message &out,
                        char **attrs = nullptr);
// The attributes dissect_TR reads from a record of the form `mode`.
char **record_attributes(int32_t mode);
// Every record of the user in one form, page by page: search_records for
// every identifier.
ZelRC list_records(ZelSession *s, const char *user, int32_t mode, SearchPages &out);
ZelRC list_user_records(ZelSession *s, const UserForm &user, int32_t mode, SearchPages &out,
                        char **attrs = nullptr);

// locate_ZEL_TR into an owned result.
ZelRC find_records(ZelSession *s, const char *target, const char *user, int32_t mode, Message &out);

// A stored password value in clear, as a new zero-filled C string (its NUL
// counted in the unmasked length).  `as_stored` takes the bytes as they are.
ZelRC clear_password(ZelSession *s, const struct berval *stored, bool as_stored, char *&out);

// Whether a first-generation secretKey holds the password in clear.
inline bool clear_secret_key(const ZelSession *s) { return s->dir_kind == ZEL_DIR_ORV; }

// Token `index` (0-based) of text split at runs of `separator`; leading
// separators are skipped and no token is empty.  "" when there is none.
std::string token(std::string_view text, char separator, int index);
// The same token in place, within `text`.
inline std::string_view token_view(std::string_view text, char separator, int index) {
    size_t p = 0;
    for (int i = 0;; ++i) {
        while (p < text.size() && text[p] == separator) ++p;
        if (p == text.size()) return std::string_view();
        size_t end = text.find(separator, p);
        if (end == std::string_view::npos) end = text.size();
        if (i == index) return text.substr(p, end - p);
        p = end;
    }
}

}  // namespace zel
