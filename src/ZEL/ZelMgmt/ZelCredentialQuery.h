// The sign-on question and the two ways of answering it: step by step, as
// each record and group is asked for in turn (kept as the reference, and for
// operators who set ZEL_CREDENTIAL_PATH=stepwise), and merged, where each
// search the answer needs is sent once.  Both give the same answer.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "ZelTargetRecord.h"
#include "ZelUserLookup.h"
#include "ZelHolders.h"

namespace zel {

// A filter that tells whether a group holds the resource, in three pieces
// that the merged path writes straight into the filter of its group asks.
struct HoldsFilter {
    std::string_view head, value, tail;
    size_t size() const { return head.size() + value.size() + tail.size(); }
};

// Names of one credential query, formed and measured before any search.
// The filters that ask about groups are built when first asked for: a
// direct answer never needs them.
struct CredentialQuery {
    ZelSession *session = nullptr;
    const char *resource = nullptr;
    std::string credential_id;    // "T:<resource>"
    // The resource stands as it is in a DN and in a filter, as most do.
    bool resource_plain = false;
    // credential_id escaped for a filter.
    std::string_view id_assertion() const { return resource_plain ? credential_id : escaped_id_; }
    // "(member=<resource DN>)", of a security domain's group.
    HoldsFilter member_pieces() const;
    // First-generation domains list "T:<resource>" as a location.
    HoldsFilter location_pieces() const;
    // The same, each as one text.
    const std::string &member_filter() const;
    const std::string &location_filter() const;

private:
    friend ZelRC form_credential_query(ZelSession *s, const char *resource, CredentialQuery &q);
    // Made only when asked for: the merged query needs none of them.
    struct Texts {
        std::string member, location, member_value;
    };
    Texts &texts() const;

    std::string escaped_id_;
    mutable std::unique_ptr<Texts> texts_;
};

// 1005 for a resource whose names would not fit the fixed sizes.
ZelRC form_credential_query(ZelSession *s, const char *resource, CredentialQuery &q);

// The record that answers, alive as long as its search result.
struct CredentialAnswer {
    Message result;
    LDAPMessage *entry = nullptr;
    int32_t mode = 0;  // storage form of the record
};

// What the merged path saw on its way to the answer, for explanations.
class CredentialTrail {
public:
    virtual ~CredentialTrail() = default;
    virtual void user(int32_t mode, const UserForm &form) = 0;
    // The direct record looked for in one form; null when there is none.
    virtual void direct(int32_t mode, LDAPMessage *record) = 0;
    // A group record considered: the group it names and the form in which
    // that group holds the resource (0: in none).
    virtual void group(int32_t mode, LDAPMessage *record, const std::string &group, int32_t held_in) = 0;
};

// Fill `answer` or leave its entry null (no record answers: the caller says 24).
ZelRC stepwise_credential(ZelSession *s, const char *user, const CredentialQuery &q, CredentialAnswer &answer);
ZelRC merged_credential(ZelSession *s, const char *user, const CredentialQuery &q, CredentialAnswer &answer,
                        CredentialTrail *trail);

// The account and clear password of the answering record.
ZelRC read_credential(ZelSession *s, LDAPMessage *entry, ZelCredential *out);
// The attributes read_credential reads: all a search for records that may
// answer needs to ask for.
extern char *const kCredentialAttributes[];
// Frees both fields, the password overwritten first.
void clear_credential(ZelCredential *out);

// The whole query as Zel_getCredential answers it, on the session's path
// (or the merged one when a trail is given).
ZelRC query_credential(ZelSession *s, const char *user, const ZelCredentialRequest *req, ZelCredential *out,
                       CredentialTrail *trail, CredentialAnswer &answer);

}  // namespace zel
