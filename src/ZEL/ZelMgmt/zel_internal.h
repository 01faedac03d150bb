// The session record, the internal routines every family shares, tracing and
// the RAII holders used inside the library.  Internal routines keep C linkage
// and are exported so that tools and tests can call them.
#pragma once

#ifndef LDAP_DEPRECATED
#define LDAP_DEPRECATED 1
#endif
#include <ldap.h>
#include <pthread.h>

#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <initializer_list>
#include <new>
#include <string>
#include <vector>

#include "zelmgmt.h"
#include "platform/ldap_client.h"

#if defined(__GNUC__)
#define ZEL_INTERNAL __attribute__((visibility("default")))
#define ZEL_PRINTF(f, a) __attribute__((format(printf, f, a)))
#else
#define ZEL_INTERNAL
#define ZEL_PRINTF(f, a)
#endif

namespace zel { class Failover; }

// One suffix of the directory, in discovery order.
struct ZelSuffixNode {
    char *suffix;
    ZelSuffixNode *next;
};

// A session's audit trail (ZelAudit.h); null unless ZEL_AUDIT is set.
struct ZelAuditTrail;

// Field order is fixed: the tag must be the first four bytes.
namespace zel { class UserCache; }

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
};

namespace zel {

// Fixed sizes of the stored forms.  They are limits: a value that would not
// fit is refused, never written past.
constexpr size_t kDnSize = 1000;
constexpr size_t kFilterSize = 600;
constexpr size_t kHostSize = 256;
constexpr size_t kAclSize = 2000;
constexpr size_t kShortValueSize = 256;

// Trace thresholds: a message is printed when debug_level is above them.
constexpr int kTraceFailures = 1;
constexpr int kTraceProgress = 9;
constexpr int kTraceFlow = 19;

// Texts printed in place of passwords.
constexpr const char *kMaskedPassword = "XXXXXXXX";

bool valid_handle(const ZelSession *s);
// The session changed a user (or may have): what it cached about users goes.
void forget_users(ZelSession *s);
inline bool tracing(const ZelSession *s, int above) { return s != nullptr && s->debug_level > above; }
// Formatted trace; the format carries its own newline where it has one.
void tracef(const ZelSession *s, int above, const char *fmt, ...) ZEL_PRINTF(3, 4);
// Line trace: the text is printed followed by a newline.
void trace_line(const ZelSession *s, int above, const char *text);
int read_debug_level();

// The thread's detail of the last failure (Zel_last_error_detail): cleared as
// an open starts; a connection failure that was the server's certificate says
// so there and in the trace; check_LDAP_rc replaces it with the server's
// message and matched DN of the result it maps; set_error_detail with what
// the library itself found in the way.
void clear_error_detail();
void explain_connection_failure(const ZelSession *s, int ldap_rc);
void capture_server_detail(const ZelSession *s, int ldap_rc);
void set_error_detail(const char *fmt, ...) ZEL_PRINTF(1, 2);

// Prints the Entered line on construction and the Exited line, with the
// status the routine returns, on destruction.  Declare the status first.
// A null name prints nothing; so does a session that traces no flow.
class RoutineTrace {
public:
    RoutineTrace(const ZelSession *s, const char *name, const ZelRC &rc)
        : s_(tracing(s, kTraceFlow) && name ? s : nullptr), name_(name), rc_(rc) {
        if (s_) entered();
    }
    ~RoutineTrace() {
        if (s_) exited();
    }
    RoutineTrace(const RoutineTrace &) = delete;
    RoutineTrace &operator=(const RoutineTrace &) = delete;

private:
    void entered() const;
    void exited() const;

    const ZelSession *s_;
    const char *name_;
    const ZelRC &rc_;
};

// Runs the body of an exported function: no exception crosses the C boundary.
template <class Body>
ZelRC guarded(Body &&body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc &) {
        return ZEL_RC_NO_MEMORY;
    } catch (...) {
        return ZEL_RC_SYSTEM_ERROR;
    }
}

// RAII holders for what the directory client and the C allocator hand out.
struct MessageFree { void operator()(LDAPMessage *m) const { if (m) ldap_msgfree(m); } };
struct BerFree { void operator()(BerElement *b) const { if (b) ber_free(b, 0); } };
struct ValuesFree { void operator()(char **v) const { if (v) ldap_value_free(v); } };
struct BervalsFree { void operator()(struct berval **v) const { if (v) ldap_value_free_len(v); } };
struct LdapMemFree { void operator()(void *p) const { if (p) ldap_memfree(p); } };
struct CFree { void operator()(void *p) const { std::free(p); } };
struct DnFree { void operator()(LDAPDN dn) const { if (dn) ldap_dnfree(dn); } };
struct RdnFree { void operator()(LDAPRDN rdn) const { if (rdn) ldap_rdnfree(rdn); } };
// What the public calls hand out, freed with the call that frees it.
template <class T, void (*Free)(T *)>
struct FreeWith { void operator()(T *p) const { Free(p); } };

using Message = std::unique_ptr<LDAPMessage, MessageFree>;
using Ber = std::unique_ptr<BerElement, BerFree>;
using Values = std::unique_ptr<char *, ValuesFree>;
using Bervals = std::unique_ptr<struct berval *, BervalsFree>;
using LdapText = std::unique_ptr<char, LdapMemFree>;
using CText = std::unique_ptr<char, CFree>;
using ParsedDn = std::unique_ptr<LDAPRDN, DnFree>;
using ParsedRdn = std::unique_ptr<LDAPAVA *, RdnFree>;
template <class T, void (*Free)(T *)>
using Owned = std::unique_ptr<T, FreeWith<T, Free>>;

// A zero-filled C buffer of n bytes, or null.
inline CText zeroed_buffer(size_t n) { return CText(static_cast<char *>(std::calloc(1, n))); }

// Fixed buffers are limits: these write nothing and answer false when the
// text (with its NUL) would not fit.
bool copy_into(char *dst, size_t size, const char *text);
bool format_into(char *dst, size_t size, const char *fmt, ...) ZEL_PRINTF(3, 4);
bool vformat_into(char *dst, size_t size, const char *fmt, va_list ap) ZEL_PRINTF(3, 0);
// The same into a string: `out` holds the text when it fits a buffer of
// `size` bytes, and is left as it was when not.
bool format_text(std::string &out, size_t size, const char *fmt, ...) ZEL_PRINTF(3, 4);
bool vformat_text(std::string &out, size_t size, const char *fmt, va_list ap) ZEL_PRINTF(3, 0);

// Replaces a record field with a private copy of value (not null); the
// earlier copy is released.  1012 when memory runs out, the field unchanged.
ZelRC replace_text(char *&field, const char *value);

// Attribute names and values compared as the directory does: ignoring case.
bool same_text_folded(const char *a, const char *b);
// Names are ASCII and are compared in place; full folding takes over from the
// first byte past ASCII (an ASCII prefix folds to itself, so the rest decides).
inline bool same_text(const char *a, const char *b) {
    if (a == nullptr || b == nullptr) return a == b;
    for (;; ++a, ++b) {
        unsigned x = static_cast<unsigned char>(*a), y = static_cast<unsigned char>(*b);
        if ((x | y) >= 0x80) return same_text_folded(a, b);
        if (x != y && ((x | 0x20) != (y | 0x20) || (x | 0x20) - 'a' > 25u)) return false;
        if (x == 0) return true;
    }
}
bool contains(const char *haystack, const char *needle);

// Walks an entry's attributes in the order the server returned them and calls
// fn(name, strings, bervals) for each attribute that has values; a non-zero
// status from fn ends the walk and is returned.
template <class Fn>
ZelRC walk_attributes(LDAP *ld, LDAPMessage *entry, Fn &&fn) {
    BerElement *raw = nullptr;
    LdapText name(ldap_first_attribute(ld, entry, &raw));
    Ber ber(raw);
    // Each attribute is decoded once: the client NUL-terminates every binary
    // value it hands out, so the string form points into the same values.
    constexpr size_t kInline = 8;
    char *inline_strings[kInline + 1];
    while (name) {
        Bervals bervals(ldap_get_values_len(ld, entry, name.get()));
        if (bervals && bervals.get()[0]) {
            size_t n = 0;
            while (bervals.get()[n]) ++n;
            std::unique_ptr<char *[]> heap(n > kInline ? new char *[n + 1] : nullptr);
            char **strings = heap ? heap.get() : inline_strings;
            for (size_t i = 0; i < n; ++i) strings[i] = bervals.get()[i]->bv_val;
            strings[n] = nullptr;
            if (ZelRC rc = fn(name.get(), strings, bervals.get())) return rc;
        }
        name.reset(ldap_next_attribute(ld, entry, raw));
    }
    return 0;
}

// A zero time-out: the directory client reads it as "no limit".
inline struct timeval no_time_limit() { return {0, 0}; }

// Lazy location of the Zel database: when the session has no database DN, a
// 1000-byte buffer is given to the session and filled by locate_ZEL_database;
// on failure it is freed again and the session's DN reset to null.
ZelRC ensure_database_dn(ZelSession *s);

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

// Sessions below API version 2 use the first-generation storage form only.
inline bool first_generation(const ZelSession *s) { return s->version < 2; }

// The only target service types a security domain knows.
bool builtin_service_type(const char *type);

// locate_ZEL_TS into an owned result; the result is kept whatever the status
// (a missing container still answers with a message).
ZelRC search_services(ZelSession *s, const char *name, const char *type, int32_t mode, Message &res);

// Entries in a search result; 0 for none or no result.
inline int entry_count(LDAP *ld, LDAPMessage *res) {
    int n = res ? ldap_count_entries(ld, res) : 0;
    return n > 0 ? n : 0;
}

// A modification list whose types and values are borrowed (constants, the
// caller's record, local buffers): the destructor frees the records and their
// value arrays only.  Entries are filled with bld_attribute in order.
class ModList {
public:
    explicit ModList(size_t slots);  // slots, the null terminator included
    ~ModList();
    ModList(const ModList &) = delete;
    ModList &operator=(const ModList &) = delete;

    bool ok() const { return mods_ != nullptr; }
    // Adds the next modification; 1012 when memory runs out.
    ZelRC add(int op, const char *type, std::initializer_list<const char *> values);
    ZelRC add(int op, const char *type, int32_t count, char *const *values);
    LDAPMod **get() const { return mods_; }
    size_t size() const { return used_; }

private:
    LDAPMod **mods_;
    size_t slots_;
    size_t used_ = 0;
};

// ldap_modify_ext_s, where removing every value of an attribute the entry
// does not hold (clearing a description that is not there) is no error: the
// other modifications are sent again without it.  The LDAP result.
int modify_clearing(ZelSession *s, const char *dn, LDAPMod **mods);

// ---- Shared helpers: suffix lists, searches, well-known DNs ----

// Appends a node owning a zero-filled copy of `length` bytes of text; 1012
// when memory runs out (the list is left as it was).
ZelRC append_suffix(ZelSuffixNode **head, const char *text, size_t length);
void free_suffixes(ZelSuffixNode *head);

// One search with no time limit and no controls.  The result message, if
// the directory sent one, is in `out` whatever the outcome; the answer is
// the LDAP result as it stands.
int search(ZelSession *s, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
           int size_limit, Message &out);
// The same, mapped: 0, or check_LDAP_rc(result, default_code,
// "ldap_search_ext_s()") with `out` emptied.
ZelRC search_mapped(ZelSession *s, const char *base, int scope, const char *filter, char **attrs,
                    int attrsonly, int size_limit, ZelRC default_code, Message &out);

// A filter from a format with exactly one "%s" (and no other conversion),
// which receives the caller's value escaped as an assertion value; false
// (`out` untouched) when the format with the value as given would not fit a
// 600-byte filter buffer.
bool format_filter(std::string &out, const char *fmt, const char *value);

// The result messages of one search read page by page: one message when
// the server offers no paging.  Entries keep the server's order across pages.
class SearchPages {
public:
    std::vector<Message> pages;
    int count(LDAP *ld) const;
    LDAPMessage *first_entry(LDAP *ld) const;
    // fn(entry) for every entry in order; a non-zero status ends the walk.
    // `ld` is taken by reference (pass s->ld): a write made by fn may
    // reconnect the session, and the walk must go on with the live handle.
    template <class Fn>
    ZelRC each_entry(LDAP *const &ld, Fn &&fn) const {
        for (const Message &m : pages)
            for (LDAPMessage *e = m ? ldap_first_entry(ld, m.get()) : nullptr; e; e = ldap_next_entry(ld, e))
                if (ZelRC rc = fn(e)) return rc;
        return 0;
    }
};
inline int entry_count(LDAP *ld, const SearchPages &res) { return res.count(ld); }

// Entries in one page of a paged search.
constexpr int kPageSize = 500;

// A search for every entry that matches, whatever the server's own size
// limit for unpaged answers: where the session found the paged-results
// control in the root DSE the search goes page by page, else it is one
// search as `search` makes it.  No size limit is asked for.  `out` holds
// the pages read, also when a later page failed; the answer is the LDAP
// result of the first page that failed, else that of the last one.
int search_all(ZelSession *s, const char *base, int scope, const char *filter, char **attrs, SearchPages &out);


// Well-known DNs, each built into `out`: 1005 when it would not fit a DN
// buffer, 35 when the session has no security domain.  A caller's name is
// escaped as an attribute value.
// "<type>=<value>,<parent>"
ZelRC child_dn(const char *type, const char *value, const std::string &parent, std::string &out);
// "cn=Resources,<security domain DN>"
ZelRC resources_container_dn(const ZelSession *s, std::string &out);
// "secResourceID=<name>,cn=Resources,<security domain DN>"
ZelRC domain_resource_dn(const ZelSession *s, const char *name, std::string &out);
// "principalName=<name>,cn=Users,<security domain DN>"
ZelRC domain_user_dn(const ZelSession *s, const char *name, std::string &out);
// "cn=ResCreds,<user DN>": a security domain user's target records (the
// user DN is not measured again)
ZelRC credentials_container_dn(const std::string &user_dn, std::string &out);

// ---- end of shared helpers ----

}  // namespace zel

namespace plat = zel::platform;

extern "C" {

// Status mapping.
ZEL_INTERNAL ZelRC check_LDAP_rc(ZelSession *s, uint32_t ldap_rc, ZelRC default_code,
                                 const char *operation);

// Open sequence.
ZEL_INTERNAL ZelRC zelOpen(const char *name, LDAP *ld, const char *user, const char *password,
                           const char *host, uint16_t port, int32_t flags, const char *keyring,
                           const char *keyring_pw, const char *cert_label,
                           ZelSession **session_out, uint32_t version,
                           const ZelBindCredentials *credentials, unsigned char reserved,
                           const char *domain);
ZEL_INTERNAL ZelRC connect_to_LDAP(ZelSession *s, const char *host, uint16_t port, int32_t flags,
                                   const char *keyring, const char *keyring_pw,
                                   const char *cert_label);
ZEL_INTERNAL ZelRC locate_LDAP_Server(ZelSession *s, int nonssl, char **host_out, int *port_out,
                                      char **suffix_array);
ZEL_INTERNAL ZelRC set_LDAP_options(ZelSession *s, int protocol_version);
ZEL_INTERNAL ZelRC bind_to_LDAP(ZelSession *s, const char *user, const char *password,
                                char **dn_out, const ZelBindCredentials *credentials);

// Discovery.
ZEL_INTERNAL ZelRC determine_suffixes(ZelSession *s);
ZEL_INTERNAL ZelRC get_novell_suffixes(ZelSession *s);
ZEL_INTERNAL ZelRC get_domain(ZelSession *s, const char *name);

// Modification lists and subtree deletion.
ZEL_INTERNAL ZelRC bld_attribute(LDAPMod **mods, uint32_t index, char *type, int32_t count,
                                 char **values, int32_t op);
ZEL_INTERNAL void zel_mods_free(LDAPMod **mods);
ZEL_INTERNAL ZelRC delete_tree(ZelSession *s, const char *dn);
ZEL_INTERNAL ZelRC internal_nds_member_add(ZelSession *s, const char *group_dn,
                                           const char *member_dn);
ZEL_INTERNAL ZelRC internal_nds_member_rem(ZelSession *s, const char *group_dn,
                                           const char *member_dn);

// DN resolution.
ZEL_INTERNAL ZelRC determine_DN(ZelSession *s, ZelSuffixNode *suffixes, const char *filter,
                                char *dn, LDAPMessage **result);
ZEL_INTERNAL ZelRC determine_unique_DN(ZelSession *s, ZelSuffixNode *suffixes,
                                       const char *filter, char *dn, LDAPMessage **result);
ZEL_INTERNAL ZelRC locate_ZEL_database(ZelSession *s, ZelSuffixNode *suffixes, char *dn);
ZEL_INTERNAL ZelRC locate_ePerson(ZelSession *s, const char *user, ZelSuffixNode *suffixes,
                                  char *dn);
ZEL_INTERNAL ZelRC construct_ePersonDN_from_UP(ZelSession *s, const char *up_dn, char *dn);

// Identity verification.
ZEL_INTERNAL ZelRC verify_ZEL_user(ZelSession *s, const char *person_dn, char **profile_dn_out,
                                   int32_t mode);
ZEL_INTERNAL ZelRC locate_krb_ePerson(ZelSession *s, const char *principal,
                                      ZelSuffixNode *suffixes, char *dn);

// Target services.
ZEL_INTERNAL ZelRC dissect_TS(ZelSession *s, LDAPMessage *entry, ZelTargetService *record);
ZEL_INTERNAL ZelRC locate_ZEL_TS(ZelSession *s, const char *name, const char *type,
                                 LDAPMessage **result, int32_t mode);
ZEL_INTERNAL ZelRC locate_ZEL_TST(ZelSession *s, const char *type, LDAPMessage **result);

// Zel users.
ZEL_INTERNAL ZelRC create_update_ZelUser(ZelSession *s, const ZelUser *user,
                                         const char *person_dn, int32_t mode);
ZEL_INTERNAL ZelRC form_UP_ePersonDN(ZelSession *s, const ZelUser *user, char **person_dn_out);
ZEL_INTERNAL int check_entry_exists(ZelSession *s, const char *dn);
ZEL_INTERNAL ZelRC add_ZelUser_to_group(ZelSession *s, const char *person_dn,
                                        const char *user_type);
ZEL_INTERNAL ZelRC remove_ZelUser_from_group(ZelSession *s, const char *user_dn,
                                             const char *user_type);
ZEL_INTERNAL ZelRC locate_ZelUser(ZelSession *s, const char *name_or_dn, LDAPMessage **result,
                                  int32_t mode);


// Zel domains.
ZEL_INTERNAL ZelRC locate_ZEL_Domain(ZelSession *s, const char *name, LDAPMessage **result,
                                     int32_t mode);
ZEL_INTERNAL ZelRC dissect_ZelDomain(ZelSession *s, LDAPMessage *entry, ZelDomain *record);
ZEL_INTERNAL ZelRC create_update_ZelDomain(ZelSession *s, const ZelDomain *domain,
                                           int32_t operation);
ZEL_INTERNAL ZelRC add_remove_Location(ZelSession *s, const char *domain, const char *locType,
                                       const char *locName, int32_t operation);
// Target records and credentials.
ZEL_INTERNAL ZelRC get_verify_User_Profile(ZelSession *s, const char *user, char **user_dn_out,
                                           int32_t mode);
ZEL_INTERNAL ZelRC locate_ZEL_TR(ZelSession *s, const char *target, const char *user,
                                 LDAPMessage **result, int32_t mode);
ZEL_INTERNAL ZelRC mask_password(ZelSession *s, const char *text, int32_t *length_out,
                                 char **buffer_out, int32_t direction);
ZEL_INTERNAL ZelRC dissect_TR(ZelSession *s, LDAPMessage *entry, ZelTargetRecord *record);
ZEL_INTERNAL ZelRC create_update_TargetRecord(ZelSession *s, const char *user,
                                              const ZelTargetRecord *record, int32_t operation);
// Database provisioning.
ZEL_INTERNAL ZelRC instantiate_suffix(ZelSession *s, const char *dn);
ZEL_INTERNAL ZelRC create_container(ZelSession *s, const char *dn, const char *cn, const char *owner,
                                    int32_t count, char **values);
ZEL_INTERNAL ZelRC create_xr_defaults(ZelSession *s);
ZEL_INTERNAL ZelRC create_access_group(ZelSession *s, const char *dn, const char *name,
                                       const char *member, const char *owner);
ZEL_INTERNAL ZelRC set_owner(ZelSession *s, const char *dn, const char *subject, unsigned char deny,
                             unsigned char deny_variant);
ZEL_INTERNAL ZelRC set_nds_group_acl(ZelSession *s, const char *dn, const char *subject);
ZEL_INTERNAL ZelRC set_nds_sradmin_acl(ZelSession *s, const char *person_dn, const char *admins_dn,
                                       const char *middle_tier_dn);
ZEL_INTERNAL ZelRC determine_initial_ZelAdmin(ZelSession *s, const char *admin, const char *suffix,
                                              const char *uid, const char *password, char **uid_out,
                                              char **dn_out);

}  // extern "C"
