// Target records: a user's account and masked password for one target
// service ("T:" identifiers) or one resource group ("G:" identifiers), kept
// below the user's own entry.
//
// First generation: eTargetRecord entries named by cn below the user's
// eZelUser profile.  Security domain form: secResCreds entries named by
// secResCredsID in the cn=ResCreds container of the user's secUser entry.
// This file resolves the user, searches the records, masks and unmasks the
// stored passwords and reads entries into records.
#include <cerrno>
#include <cstring>

#include "ZelEntry.h"
#include "ZelTargetRecord.h"
#include "platform/filter_format.h"
#include "platform/password_mask.h"
#include "ZelHolders.h"
#include "ZelPlatform.h"
#include "ZelRoutines.h"
#include "ZelSearch.h"
#include "ZelSession.h"
#include "ZelStatus.h"
#include "ZelText.h"
#include "ZelTrace.h"

namespace {

const char *kind_of_sec_type(const char *value) {
    if (std::strcmp(value, "1") == 0) return "Web Resource";
    if (std::strcmp(value, "2") == 0) return "Resource Group";
    return "Unknown";
}

// Frees a password, overwriting it first.
void free_secret(char *secret) {
    if (secret == nullptr) return;
    std::memset(secret, 0, std::strlen(secret));
    std::free(secret);
}

// Whether an attribute of `length` bytes is `name`: attribute names are
// ASCII, so a name of another length never is, and most of an entry's
// attributes are passed over without comparing a byte; one spelled as the
// schema spells it matches in one comparison.
template <size_t N>
bool is_attr(const char *attr, size_t length, const char (&name)[N]) {
    return length == N - 1 && (std::memcmp(attr, name, N - 1) == 0 || zel::same_text(attr, name));
}

// How an attribute of a target record entry fills the record.
enum class Fill { skip, text, service_name, service_kind, password, secret_key };
struct Use {
    Fill fill;
    char **field;
};

// What the attribute `attr` of `length` bytes fills: names are sorted by
// length, so most attributes are matched or passed over in one comparison.
Use use_of(ZelTargetRecord *r, const char *attr, size_t length) {
    switch (length) {
    case 2:
        if (is_attr(attr, length, "cn")) return {Fill::text, &r->targetRecordId};
        break;
    case 3:
        if (is_attr(attr, length, "uid")) return {Fill::text, &r->userId};
        break;
    case 6:
        if (is_attr(attr, length, "secUid")) return {Fill::text, &r->userId};
        if (is_attr(attr, length, "tsType")) return {Fill::text, &r->targetServiceType};
        break;
    case 7:
        if (is_attr(attr, length, "secType")) return {Fill::service_kind, &r->targetServiceType};
        break;
    case 9:
        if (is_attr(attr, length, "secretKey")) return {Fill::secret_key, &r->password};
        break;
    case 11:
        if (is_attr(attr, length, "description")) return {Fill::text, &r->description};
        break;
    case 12:
        if (is_attr(attr, length, "secAuthnData")) return {Fill::password, &r->password};
        break;
    case 13:
        if (is_attr(attr, length, "secResCredsID")) return {Fill::text, &r->targetRecordId};
        if (is_attr(attr, length, "principalName")) return {Fill::text, &r->userId};
        if (is_attr(attr, length, "targetService")) return {Fill::service_name, &r->targetServiceName};
        break;
    }
    return {Fill::skip, nullptr};
}

// fn(name, name length, values) for each attribute of the entry that has
// values, in the server's order; a non-zero status ends the walk.  Names and
// values are read in place in the result (the client ends each with a NUL).
template <class Fn>
ZelRC each_attribute(LDAP *ld, LDAPMessage *entry, Fn &&fn) {
    return zel::walk_values(ld, entry, [&](const char *name, const struct berval *values) {
        return fn(name, std::strlen(name), values);
    });
}

// `field` becomes a copy of `text`, or null when it is empty.
ZelRC replace_with(char *&field, std::string_view text) {
    char *copy = nullptr;
    if (!text.empty()) {
        copy = static_cast<char *>(std::malloc(text.size() + 1));
        if (copy == nullptr) return ZEL_RC_NO_MEMORY;
        std::memcpy(copy, text.data(), text.size());
        copy[text.size()] = '\0';
    }
    std::free(field);
    field = copy;
    return 0;
}

// A password that cannot be read (1013) does not stop the other fields:
// the record comes back whole but for its password, with that status, so a
// list of many can name it and go on.
ZelRC dissect_record(ZelSession *s, LDAPMessage *entry, ZelTargetRecord *record) {
    ZelRC unreadable = 0;
    ZelRC rc = each_attribute(s->ld, entry, [&](const char *attr, size_t length, const struct berval *values) -> ZelRC {
        const Use use = use_of(record, attr, length);
        if (use.fill == Fill::skip) return 0;
        if (use.fill == Fill::password || use.fill == Fill::secret_key) {
            bool as_stored = use.fill == Fill::secret_key && zel::clear_secret_key(s);
            for (const struct berval *v = values; v->bv_val; ++v) {
                char *clear = nullptr;
                ZelRC clear_rc = zel::clear_password(s, v, as_stored, clear);
                if (clear_rc == ZEL_RC_DECODE_FAILED) unreadable = clear_rc;
                else if (clear_rc != 0) return clear_rc;
                free_secret(record->password);
                record->password = unreadable ? nullptr : clear;
                if (unreadable) free_secret(clear);
            }
            return 0;
        }
        // A field holds one value: the last one given.
        const struct berval *last = values;
        while (last[1].bv_val) ++last;
        // "tsName=<name>": the name is the second word.
        if (use.fill == Fill::service_name) return replace_with(*use.field, zel::token_view(last->bv_val, '=', 1));
        return zel::replace_text(*use.field, use.fill == Fill::service_kind ? kind_of_sec_type(last->bv_val)
                                                                             : last->bv_val);
    });
    if (rc != 0 || record->targetServiceName || zel::first_generation(s) || !record->targetRecordId)
        return rc ? rc : unreadable;
    // The security domain form names the service in the identifier: "T:<service>".
    if (replace_with(record->targetServiceName, zel::token_view(record->targetRecordId, ':', 1)) != 0)
        return ZEL_RC_NO_MEMORY;
    return unreadable;
}

// The record filter of one storage form, around its assertion.
struct RecordFilter {
    std::string_view head, tail;
    explicit RecordFilter(int32_t mode)
        : head(mode == zel::kFirstGenerationMode ? "(&(objectClass=eTargetRecord)(cn=" : "secResCredsID="),
          tail(mode == zel::kFirstGenerationMode ? "))" : "") {}
    size_t fixed() const { return head.size() + tail.size(); }
};

// Why the user's records cannot be searched, or 0: an inactive user's
// records are still found; the caller decides.
ZelRC records_unreachable(const zel::UserForm &user) {
    return user.rc != 0 && user.rc != ZEL_RC_ACCOUNT_INVALID ? user.rc : 0;
}

// The record search below the user's entry with a filter made: `shown` is
// what the trace names (null: every record).
ZelRC search_below_user(ZelSession *s, const zel::UserForm &user, const char *filter, const char *shown, char **attrs,
                        zel::Message &out) {
    if (shown == nullptr)
        zel::trace_line(s, zel::kTraceProgress, "zelmgmt:All target records being retrieved.");
    else if (zel::tracing(s, zel::kTraceProgress))
        zel::tracef(s, zel::kTraceProgress, "zelmgmt:Target being looked for: %s\n", shown);
    if (user.dn.empty()) return ZEL_RC_USER_NOT_FOUND;
    if (ZelRC rc = zel::search_mapped(s, user.dn.c_str(), LDAP_SCOPE_SUBTREE, filter, attrs, 0, 0, 0, out)) return rc;
    return user.rc;
}

ZelRC mask(const char *text, int32_t *length_out, char **buffer_out, int32_t direction) {
    errno = 0;
    bool encryption_required = false;
    zel::CText coded(direction == zel::kMask ? plat::util_encode_checked(text, encryption_required)
                                             : plat::util_decode(text));
    // Running out of memory is no verdict on the value: never store a
    // password in clear for it, nor call a stored value damaged.
    if (!coded && errno == ENOMEM) return ZEL_RC_NO_MEMORY;
    // An operator who set up a key file asked for encryption: a key file that
    // cannot be used stops the write rather than letting the clear text through.
    if (!coded && encryption_required) return ZEL_RC_SYSTEM_ERROR;
    // Masking that fails stores the text as it is; unmasking that fails is an error.
    const char *result = coded ? coded.get() : direction == zel::kMask ? text : nullptr;
    if (result == nullptr) return ZEL_RC_DECODE_FAILED;
    size_t length = std::strlen(result);
    zel::CText buffer = zel::zeroed_buffer(length + 2 > 1024 ? length + 2 : 1024);
    if (!buffer) return ZEL_RC_NO_MEMORY;
    std::memcpy(buffer.get(), result, length);
    if (coded) std::memset(coded.get(), 0, length);
    *length_out = static_cast<int32_t>(length + 1);
    *buffer_out = buffer.release();
    return 0;
}

}  // namespace

namespace zel {

std::string token(std::string_view text, char separator, int index) {
    return std::string(token_view(text, separator, index));
}

ZelRC clear_password(ZelSession *s, const struct berval *stored, bool as_stored, char *&out) {
    out = nullptr;
    if (as_stored) {
        out = static_cast<char *>(std::calloc(1, stored->bv_len + 1));
        if (out == nullptr) return ZEL_RC_NO_MEMORY;
        std::memcpy(out, stored->bv_val, stored->bv_len);
        return 0;
    }
    // The stored value carries its NUL (a value written elsewhere may not):
    // the stored text ends at the first one, and is read where it lies.
    ZelRC rc = 0;
    RoutineTrace trace(s, "mask_password", rc);
    std::string copy;
    const char *text = stored->bv_val;
    if (stored->bv_len == 0 || std::memchr(stored->bv_val, '\0', stored->bv_len) == nullptr)
        text = copy.assign(stored->bv_val, stored->bv_len).c_str();
    errno = 0;
    out = plat::util_decode(text);
    if (out == nullptr) rc = errno == ENOMEM ? ZEL_RC_NO_MEMORY : ZEL_RC_DECODE_FAILED;
    return rc;
}

char **record_attributes(int32_t mode) {
    // What dissect_TR reads of each form.
    static char *first_generation[] = {const_cast<char *>("cn"), const_cast<char *>("uid"),
                                       const_cast<char *>("principalName"), const_cast<char *>("targetService"),
                                       const_cast<char *>("tsType"), const_cast<char *>("description"),
                                       const_cast<char *>("secretKey"), nullptr};
    static char *domain[] = {const_cast<char *>("secResCredsID"), const_cast<char *>("secUid"),
                             const_cast<char *>("secType"), const_cast<char *>("description"),
                             const_cast<char *>("secAuthnData"), nullptr};
    return mode == kFirstGenerationMode ? first_generation : domain;
}

ZelRC search_user_records(ZelSession *s, const UserForm &user, const char *assertion, const char *shown,
                          int32_t mode, Message &out, char **attrs) {
    out.reset();
    if (ZelRC rc = records_unreachable(user)) return rc;
    // Measured with the target as the caller gave it: its escaping never
    // refuses a name that fits the filter buffer.
    const RecordFilter form(mode);
    const size_t length = form.fixed() + std::strlen(assertion);
    if ((shown ? form.fixed() + std::strlen(shown) : length) >= kFilterSize || length >= 3 * kFilterSize)
        return ZEL_RC_INVALID_ARGUMENT;
    std::string filter;
    filter.reserve(length);
    filter.append(form.head).append(assertion).append(form.tail);
    return search_below_user(s, user, filter.c_str(), shown, attrs, out);
}

ZelRC find_user_records(ZelSession *s, const UserForm &user, const char *target, int32_t mode, Message &out,
                        char **attrs) {
    ZelRC rc = 0;
    RoutineTrace trace(s, "locate_ZEL_TR", rc);
    if (target == nullptr) return rc = search_user_records(s, user, "*", nullptr, mode, out, attrs);
    out.reset();
    if ((rc = records_unreachable(user)) != 0) return rc;
    // The target is escaped straight into the filter.
    const RecordFilter form(mode);
    const size_t target_length = std::strlen(target);
    if (form.fixed() + target_length >= kFilterSize) return rc = ZEL_RC_INVALID_ARGUMENT;
    std::string filter;
    filter.reserve(form.fixed() + 3 * target_length);
    filter.append(form.head);
    plat::append_filter_value(filter, std::string_view(target, target_length));
    filter.append(form.tail);
    return rc = search_below_user(s, user, filter.c_str(), target, attrs, out);
}

ZelRC search_records(ZelSession *s, const char *assertion, const char *shown, const char *user, int32_t mode,
                     Message &out) {
    ZelRC rc = 0;
    RoutineTrace trace(s, "locate_ZEL_TR", rc);
    out.reset();
    char *raw_dn = nullptr;
    UserForm form;
    form.rc = get_verify_User_Profile(s, user, &raw_dn, mode);
    CText user_dn(raw_dn);
    if (user_dn) form.dn = user_dn.get();
    return rc = search_user_records(s, form, assertion, shown, mode, out);
}

ZelRC list_user_records(ZelSession *s, const UserForm &user, int32_t mode, SearchPages &out, char **attrs) {
    ZelRC rc = 0;
    RoutineTrace trace(s, "locate_ZEL_TR", rc);
    out.pages.clear();
    // An inactive user's records are still found; the caller decides.
    if (user.rc != 0 && user.rc != ZEL_RC_ACCOUNT_INVALID) return rc = user.rc;
    trace_line(s, kTraceProgress, "zelmgmt:All target records being retrieved.");
    if (user.dn.empty()) return rc = ZEL_RC_USER_NOT_FOUND;
    const char *filter = mode == kFirstGenerationMode ? "(&(objectClass=eTargetRecord)(cn=*))" : "secResCredsID=*";
    int lrc = search_all(s, user.dn.c_str(), LDAP_SCOPE_SUBTREE, filter, attrs, out);
    if (lrc != LDAP_SUCCESS) {
        out.pages.clear();
        return rc = check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_search_ext_s()");
    }
    return rc = user.rc;
}

ZelRC list_records(ZelSession *s, const char *user, int32_t mode, SearchPages &out) {
    char *raw_dn = nullptr;
    UserForm form;
    form.rc = get_verify_User_Profile(s, user, &raw_dn, mode);
    CText user_dn(raw_dn);
    if (user_dn) form.dn = user_dn.get();
    return list_user_records(s, form, mode, out);
}

ZelRC find_records(ZelSession *s, const char *target, const char *user, int32_t mode, Message &out) {
    if (target == nullptr) return search_records(s, "*", nullptr, user, mode, out);
    std::string assertion = plat::escape_filter_value(target);
    return search_records(s, assertion.c_str(), target, user, mode, out);
}

}  // namespace zel

extern "C" {

ZelRC get_verify_User_Profile(ZelSession *s, const char *user, char **user_dn_out, int32_t mode) {
    ZelRC rc = 0;
    return zel::routine(s, "get_verify_User_profile", [&]() -> ZelRC {
        if (user_dn_out) *user_dn_out = nullptr;
        if (user == nullptr || user_dn_out == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
        zel::CText person_dn = zel::zeroed_buffer(zel::kDnSize);
        if (!person_dn) return rc = ZEL_RC_NO_MEMORY;

        // A profile DN, a Kerberos principal, or a user id.
        if (zel::contains(user, "="))
            rc = construct_ePersonDN_from_UP(s, user, person_dn.get());
        else if (zel::contains(user, "@"))
            rc = locate_krb_ePerson(s, user, s->suffixes, person_dn.get());
        else
            rc = locate_ePerson(s, user, s->suffixes, person_dn.get());
        if (rc != 0) return rc;

        rc = verify_ZEL_user(s, person_dn.get(), user_dn_out, mode);
        if (rc == 1) rc = 0;
        else if (rc == 0) rc = ZEL_RC_USER_NOT_FOUND;
        return rc;
    });
}

ZelRC locate_ZEL_TR(ZelSession *s, const char *target, const char *user, LDAPMessage **result, int32_t mode) {
    return zel::routine(s, nullptr, [&]() -> ZelRC {
        if (result == nullptr) return ZEL_RC_INVALID_ARGUMENT;
        *result = nullptr;
        zel::Message res;
        ZelRC rc = zel::find_records(s, target, user, mode, res);
        *result = res.release();
        return rc;
    });
}

ZelRC mask_password(ZelSession *s, const char *text, int32_t *length_out, char **buffer_out, int32_t direction) {
    ZelRC rc = 0;
    return zel::routine(s, "mask_password", [&]() -> ZelRC {
        if (buffer_out) *buffer_out = nullptr;
        if (text == nullptr || length_out == nullptr || buffer_out == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
        if (direction != zel::kMask && direction != zel::kUnmask) return rc = ZEL_RC_UNSUPPORTED_OPERATION;
        return rc = mask(text, length_out, buffer_out, direction);
    });
}

ZelRC dissect_TR(ZelSession *s, LDAPMessage *entry, ZelTargetRecord *record) {
    ZelRC rc = 0;
    return zel::routine(s, "dissect_TR", [&]() -> ZelRC {
        if (entry == nullptr || record == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
        return rc = dissect_record(s, entry, record);
    });
}

ZEL_API void Zel_freeTargetRecord(ZelTargetRecord *r) {
    if (r == nullptr) return;
    std::free(r->targetRecordId);
    std::free(r->description);
    std::free(r->userId);
    free_secret(r->password);
    std::free(r->targetServiceName);
    std::free(r->targetServiceType);
    std::free(r);
}

ZEL_API void Zel_freeTargetRecords(ZelTargetRecordList *l) {
    if (l == nullptr) return;
    if (l->records) {
        for (int32_t i = 0; i < l->count; ++i) Zel_freeTargetRecord(l->records[i]);
        std::free(l->records);
    }
    std::free(l);
}

}  // extern "C"
