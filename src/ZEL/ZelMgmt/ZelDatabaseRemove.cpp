// Removal of a whole Zel database, allowed only to an identity that may write
// the directory's schema.
#include <cstring>

#include "ZelEntry.h"
#include "ZelDatabase.h"
#include "ZelProgress.h"
#include "ZelClient.h"
#include "ZelHolders.h"
#include "ZelRoutines.h"
#include "ZelSearch.h"
#include "ZelSession.h"
#include "ZelStatus.h"

namespace {

constexpr const char *kProbeType = "attributeTypes";
// The syntax OID stands bare: servers that parse schema values refuse it quoted.
constexpr const char *kProbeValue = "( 20.20.20 NAME 'glc' SYNTAX 1.3.6.1.4.1.1466.115.121.1.15 )";

// Directories whose schema cannot be written over LDAP are not probed.  AD
// takes schema changes only as entries of its schema partition, which can
// never be deleted again: no probe there, the rights on the database's
// subtree decide.
bool probes_schema(int32_t kind) {
    return kind != ZEL_DIR_NDS && kind != ZEL_DIR_EDIRECTORY && kind != ZEL_DIR_GENERIC &&
           kind != ZEL_DIR_ACTIVE_DIRECTORY;
}

// The probe goes to the entry the root DSE names as the schema; the session
// keeps that DN.
ZelRC find_schema_dn(ZelSession *s) {
    if (s->schema_dn != nullptr) return 0;
    char attr[] = "subschemaSubentry";
    char *attrs[] = {attr, nullptr};
    struct timeval tv = zel::no_time_limit();
    LDAPMessage *raw = nullptr;
    int lrc = plat::ldap_search_ext_s(s->ld, "", LDAP_SCOPE_BASE, "(objectClass=*)", attrs, 0, nullptr, nullptr,
                                      &tv, 1, &raw);
    zel::Message res(raw);
    LDAPMessage *entry = lrc == LDAP_SUCCESS ? ldap_first_entry(s->ld, res.get()) : nullptr;
    if (entry == nullptr) return 0;  // the probe then goes to the null DN and the server decides
    zel::Values values(ldap_get_values(s->ld, entry, attr));
    if (values && values.get()[0]) {
        s->schema_dn = strdup(values.get()[0]);
        if (s->schema_dn == nullptr) return ZEL_RC_NO_MEMORY;
    }
    return 0;
}

ZelRC probe_step(ZelSession *s, int op) {
    zel::ModList mods(2);
    if (!mods.ok()) return ZEL_RC_NO_MEMORY;
    if (ZelRC rc = mods.add(op, kProbeType, {kProbeValue})) return rc;
    return static_cast<ZelRC>(plat::ldap_modify_s(s->ld, s->schema_dn, mods.get()));
}

// Adds the probe type and takes it out again.  A refused add is mapped
// twice, once by itself and once as the probe's result.
ZelRC probe_schema(ZelSession *s) {
    ZelRC rc = find_schema_dn(s);
    if (rc != 0) return rc;
    rc = probe_step(s, LDAP_MOD_ADD);
    if (rc == ZEL_RC_NO_MEMORY) return rc;
    if (rc != 0) {
        rc = check_LDAP_rc(s, rc, 0, "ldap_modify_s()");
    } else {
        rc = probe_step(s, LDAP_MOD_DELETE);
        if (rc == ZEL_RC_NO_MEMORY) return rc;
    }
    return rc == 0 ? 0 : check_LDAP_rc(s, rc, 0, "ldap_modify_s()");
}

// The entries a removal of the subtree at dn will delete, dn included; -1
// when they cannot be listed, and the removal goes on without a total.
int64_t count_subtree(ZelSession *s, const char *dn) {
    char no_attributes[] = LDAP_NO_ATTRS;
    char *attrs[] = {no_attributes, nullptr};
    zel::SearchPages res;
    // Subentries too, as the removal finds them.
    const char *filter = s->dir_kind == ZEL_DIR_ACTIVE_DIRECTORY ? "(objectClass=*)"
                                                                 : "(|(objectClass=*)(objectClass=ldapSubEntry))";
    if (zel::search_all(s, dn, LDAP_SCOPE_SUBTREE, filter, attrs, res) != LDAP_SUCCESS) return -1;
    return res.count(s->ld);
}

}  // namespace

extern "C" {

ZEL_API ZelRC Zel_removeDatabase(ZelSession *s) {
    ZelRC rc = 0;
    return zel::user_write_call(s, "Zel_removeDatabase", {}, [&]() -> ZelRC {
        if (s->version > 1) return rc = ZEL_RC_UNSUPPORTED_VERSION;
        if (probes_schema(s->dir_kind) && (rc = probe_schema(s)) != 0) return rc;
        if ((rc = zel::ensure_database_dn(s)) != 0) return rc;
        zel::ProgressRun progress(s);
        // Listed only for a caller who watches: without a hook removal costs what it did.
        if (progress.wanted()) progress.set_total(count_subtree(s, s->database_dn));
        // Only the database's own subtree goes: the suffix and the persons stay.
        if ((rc = delete_tree(s, s->database_dn)) == 0) progress.finish();
        return rc;
    });
}

}  // extern "C"
