// The internal routines the families share.  The C-linkage ones are exported
// so that tools and tests can call them.
#pragma once

#include <cstdint>
#include <string>

#include "ZelAttributes.h"
#include "ZelHolders.h"
#include "ZelSession.h"

namespace zel {

// Lazy location of the Zel database: when the session has no database DN, a
// 1000-byte buffer is given to the session and filled by locate_ZEL_database;
// on failure it is freed again and the session's DN reset to null.
ZelRC ensure_database_dn(ZelSession *s);

// The only target service types a security domain knows.
bool builtin_service_type(const char *type);

// locate_ZEL_TS into an owned result; the result is kept whatever the status
// (a missing container still answers with a message).
ZelRC search_services(ZelSession *s, const char *name, const char *type, int32_t mode, Message &res);

// ldap_modify_ext_s, where removing every value of an attribute the entry
// does not hold (clearing a description that is not there) is no error: the
// other modifications are sent again without it.  The LDAP result.
int modify_clearing(ZelSession *s, const char *dn, LDAPMod **mods);

// verify_ZEL_user with the profile DN into `profile_dn_out` (when given):
// 1 (a user), 0 (none), 33 (inactive, the DN still named) or a failure.
ZelRC verify_user(ZelSession *s, const char *person_dn, int32_t mode, std::string *profile_dn_out);

// What the entries of a search for a person's profile say, read one by one
// until `rc` is no longer 0.
struct ProfileVerdict {
    ZelRC rc = 0;            // 33 once an inactive account is read, or a failure
    bool user_seen = false;
    // As verify_user answers: 1, 0, 33 or a failure (the DN then cleared;
    // an inactive account still names its profile).
    ZelRC result(std::string *profile_dn_out) const {
        if (rc == 0) return user_seen ? 1 : 0;
        if (rc != ZEL_RC_ACCOUNT_INVALID && profile_dn_out) profile_dn_out->clear();
        return rc;
    }
};
// Reads one entry of such a search: a user when its classes say so or
// `classed_by_filter` (the search's filter named the class), inactive when
// its state says so.  A user's DN goes to `profile_dn_out`.
void read_profile(ZelSession *s, LDAPMessage *entry, bool classed_by_filter, ProfileVerdict &verdict,
                  std::string *profile_dn_out);

}  // namespace zel

extern "C" {

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
