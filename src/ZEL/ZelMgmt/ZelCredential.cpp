// The sign-on question: which account and clear password does this user
// present to this resource?  The user's own "T:<resource>" record answers
// first; failing that, the first of the user's "G:<group>" records, in the
// order the directory returns them, whose resource group holds the resource.
#include <cstdint>
#include <cstring>
#include <string>

#include "ZelEntry.h"
#include "ZelCredentialQuery.h"
#include "ZelIdentifierText.h"
#include "platform/dn_escape.h"
#include "platform/filter_format.h"
#include "ZelHolders.h"
#include "ZelPlatform.h"
#include "ZelRoutines.h"
#include "ZelSearch.h"
#include "ZelSession.h"
#include "ZelSessionTexts.h"
#include "ZelText.h"
#include "ZelTrace.h"

namespace {

using zel::ParsedRdn;

ZelRC get_credential(ZelSession *s, const char *user, const ZelCredentialRequest *req, ZelCredential *out) {
    ZelRC rc = 0;
    zel::CredentialAnswer answer;
    return rc = zel::query_credential(s, user, req, out, nullptr, answer);
}

}  // namespace

namespace zel {

ZelRC form_credential_query(ZelSession *s, const char *resource, CredentialQuery &q) {
    q.resource = resource;
    const std::string_view resource_text(resource);
    const size_t resource_size = resource_text.size();
    append_text(q.credential_id, {"T:", resource_text});
    if (q.credential_id.size() >= kCredentialIdSize) return ZEL_RC_INVALID_ARGUMENT;
    const char *domain = s->domain_dn ? s->domain_dn : "";
    const size_t domain_size = std::strlen(domain);
    // Measured as the fixed buffers hold these texts, with the resource as
    // given: its escaping never refuses a name that fits.
    size_t dn_size = std::strlen("secResourceID=,cn=Resources,") + resource_size + domain_size;
    if (dn_size >= kDnSize || std::strlen("(member=)") + dn_size >= kFilterSize ||
        std::strlen("(&(objectClass=eZelDomain)(targetLocation=))") + q.credential_id.size() >= kFilterSize)
        return ZEL_RC_INVALID_ARGUMENT;
    q.session = s;
    q.resource_plain = plat::plain_in_dn_and_filter(resource_text);
    if (!q.resource_plain) plat::append_filter_value(q.escaped_id_, q.credential_id);
    return 0;
}

CredentialQuery::Texts &CredentialQuery::texts() const {
    if (!texts_) texts_ = std::make_unique<Texts>();
    return *texts_;
}

// Filter escaping works byte by byte, so the resource's DN is escaped for
// the filter piece by piece, never built on its own; the session's part of
// it was escaped once.  The resource's name is escaped for its DN, then for
// the filter, unless neither changes it.
HoldsFilter CredentialQuery::member_pieces() const {
    std::string_view name(resource);
    if (!resource_plain) {
        std::string &value = texts().member_value;
        if (value.empty()) plat::append_filter_value(value, plat::escape_dn_value(name));
        name = value;
    }
    return {"(member=secResourceID=", name, session_texts(session).resource_tail};
}

HoldsFilter CredentialQuery::location_pieces() const {
    return {"(&(objectClass=eZelDomain)(targetLocation=", id_assertion(), "))"};
}

namespace {

const std::string &joined(std::string &text, const HoldsFilter &pieces) {
    if (text.empty()) append_text(text, {pieces.head, pieces.value, pieces.tail});
    return text;
}

}  // namespace

const std::string &CredentialQuery::member_filter() const { return joined(texts().member, member_pieces()); }

const std::string &CredentialQuery::location_filter() const { return joined(texts().location, location_pieces()); }

void clear_credential(ZelCredential *out) {
    std::free(out->userId);
    if (out->password) std::memset(out->password, 0, std::strlen(out->password));
    std::free(out->password);
    out->userId = out->password = nullptr;
}

namespace {

enum class CredentialField { None, Account, Password, SecretKey };

}  // namespace

char *const kCredentialAttributes[] = {const_cast<char *>("uid"),          const_cast<char *>("secUid"),
                                       const_cast<char *>("secretKey"),    const_cast<char *>("secAuthnData"),
                                       const_cast<char *>("principalName"), nullptr};

namespace {

// Attribute names are ASCII letters, digits and hyphens; against a name of
// lowercase letters only, setting 0x20 in each byte compares them without
// regard to case and never matches a byte of anything else.  The name's
// length is known, so it is compared a word at a time (the last word
// overlapping the one before) rather than byte by byte.
template <size_t N>
bool is_attribute(const char *attr, const char (&lower)[N]) {
    constexpr size_t n = N - 1;
    auto folded_equal = [&](size_t at, auto word) {
        decltype(word) a, b;
        std::memcpy(&a, attr + at, sizeof a);
        std::memcpy(&b, lower + at, sizeof b);
        return static_cast<decltype(word)>(a | word) == b;
    };
    if constexpr (n >= 8) {
        constexpr uint64_t fold = 0x2020202020202020ULL;
        for (size_t at = 0; at + 8 < n; at += 8)
            if (!folded_equal(at, fold)) return false;
        return folded_equal(n - 8, fold);
    } else if constexpr (n >= 4) {
        constexpr uint32_t fold = 0x20202020U;
        return folded_equal(0, fold) && folded_equal(n - 4, fold);
    } else {
        for (size_t i = 0; i < n; ++i)
            if ((static_cast<unsigned char>(attr[i]) | 0x20) != static_cast<unsigned char>(lower[i])) return false;
        return true;
    }
}

// What an attribute of the answering record fills.  Every read walks all of
// the record's attributes: the name's length picks the one name worth
// comparing.
CredentialField field_of(const char *attr) {
    switch (std::strlen(attr)) {
    case 3: return is_attribute(attr, "uid") ? CredentialField::Account : CredentialField::None;
    case 6: return is_attribute(attr, "secuid") ? CredentialField::Account : CredentialField::None;
    case 9: return is_attribute(attr, "secretkey") ? CredentialField::SecretKey : CredentialField::None;
    case 12: return is_attribute(attr, "secauthndata") ? CredentialField::Password : CredentialField::None;
    case 13: return is_attribute(attr, "principalname") ? CredentialField::Account : CredentialField::None;
    default: return CredentialField::None;
    }
}

}  // namespace

ZelRC read_credential(ZelSession *s, LDAPMessage *entry, ZelCredential *out) {
    ZelRC rc = walk_values(s->ld, entry, [&](const char *attr, const struct berval *values) -> ZelRC {
        const CredentialField field = field_of(attr);
        if (field == CredentialField::None) return 0;
        const bool account = field == CredentialField::Account;
        const bool as_stored = account || (field == CredentialField::SecretKey && clear_secret_key(s));
        for (const struct berval *v = values; v->bv_val; ++v) {
            char *text = nullptr;
            if (ZelRC clear_rc = clear_password(s, v, as_stored, text)) return clear_rc;
            char *&target = account ? out->userId : out->password;
            if (!account && target) std::memset(target, 0, std::strlen(target));
            std::free(target);
            target = text;
        }
        return 0;
    });
    // A record without a password cannot sign anybody on.
    if (rc == 0 && out->password == nullptr) rc = ZEL_RC_NO_CREDENTIAL_DATA;
    return rc;
}

ZelRC query_credential(ZelSession *s, const char *user, const ZelCredentialRequest *req, ZelCredential *out,
                       CredentialTrail *trail, CredentialAnswer &answer) {
    if (req == nullptr || req->resourceName == nullptr || user == nullptr || out == nullptr)
        return ZEL_RC_INVALID_ARGUMENT;
    CredentialQuery q;
    ZelRC rc = form_credential_query(s, req->resourceName, q);
    if (rc != 0) return rc;
    if (first_generation(s) && (rc = ensure_database_dn(s)) != 0) return rc;
    tracef(s, kTraceProgress, "zelmgmt:Resource specified: %s\n", q.resource);

    rc = s->stepwise_credentials && trail == nullptr ? stepwise_credential(s, user, q, answer)
                                                     : merged_credential(s, user, q, answer, trail);
    if (rc != 0) return rc;
    if (!answer.entry) return ZEL_RC_TR_NOT_FOUND;
    if ((rc = read_credential(s, answer.entry, out)) != 0) return rc;
    audit::note_answer(s, answer.entry);
    trace_line(s, kTraceProgress, "zelmgmt:Were able add to retrieve Zel user's target credentials successfully!");
    return 0;
}

ZelRC credential_group(const char *dn, std::string &group) {
    group.clear();
    // The record's own RDN names the group: the rest of the DN is not parsed,
    // nor the RDN when the server wrote it plainly.
    // libldap asserts on an empty string rather than refusing it.
    if (dn == nullptr || *dn == '\0') return ZEL_RC_SYSTEM_ERROR;
    std::string_view type, plain;
    const char *parent = nullptr;
    if (plat::plain_first_rdn(dn, type, plain, parent)) {
        group.assign(token_view(plain, ':', 1));
        return 0;
    }
    LDAPRDN raw = nullptr;
    char *rest = nullptr;
    if (ldap_str2rdn(dn, &raw, &rest, LDAP_DN_FORMAT_LDAP) != LDAP_SUCCESS) return ZEL_RC_SYSTEM_ERROR;
    ParsedRdn parsed(raw);
    if (!parsed || !parsed.get()[0]) return ZEL_RC_SYSTEM_ERROR;
    const struct berval &value = parsed.get()[0]->la_value;
    // An empty value comes without text; a value holding a NUL counts up to it.
    if (value.bv_val != nullptr)
        group.assign(token_view(std::string_view(value.bv_val, strnlen(value.bv_val, value.bv_len)), ':', 1));
    return 0;
}

}  // namespace zel

extern "C" {

ZEL_API ZelRC Zel_getCredential(ZelSession *s, const char *user, const ZelCredentialRequest *req, ZelCredential *out) {
    if (!zel::valid_handle(s)) return ZEL_RC_INVALID_HANDLE;
    if (out) out->userId = out->password = nullptr;
    ZelRC rc = zel::read_call(s, "Zel_getCredential", {user, req ? req->resourceName : nullptr},
                              [&] { return get_credential(s, user, req, out); }, [] {});  // cleared below
    // Whatever failed, nothing half-filled is handed out.
    if (rc != 0 && out) zel::clear_credential(out);
    return rc;
}

}  // extern "C"
