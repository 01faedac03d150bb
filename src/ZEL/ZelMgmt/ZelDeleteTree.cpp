// Deleting an entry with everything below it: the children go first.
#include <cstdint>
#include <cstring>

#include "ZelClient.h"
#include "ZelEntry.h"
#include "ZelHolders.h"
#include "ZelProgress.h"
#include "ZelRoutines.h"
#include "ZelSearch.h"
#include "ZelSession.h"
#include "ZelStatus.h"
#include "ZelText.h"

extern "C" {

ZelRC delete_tree(ZelSession *s, const char *dn) {
    ZelRC rc = 0;
    return zel::routine(s, "delete_tree", [&]() -> ZelRC {
        zel::CText filter = zel::zeroed_buffer(zel::kFilterSize);
        if (!filter) return rc = ZEL_RC_NO_MEMORY;

        int lrc = plat::ldap_delete_ext_s(s->ld, dn, nullptr, nullptr);
        if (lrc == LDAP_SUCCESS) {
            zel::progress_step(s);
            return rc;
        }
        if (lrc != LDAP_NOT_ALLOWED_ON_NONLEAF)
            return rc = check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_delete_ext_s()");

        // Subentries (a replication conflict entry is one) answer only a
        // filter that names their class; missed, they would keep the parent.
        // Active Directory has no such class and needs no such term.
        std::strcpy(filter.get(), s->dir_kind == ZEL_DIR_ACTIVE_DIRECTORY
                                      ? "(objectClass=*)"
                                      : "(|(objectClass=*)(objectClass=ldapSubEntry))");
        struct timeval tv = zel::no_time_limit();
        LDAPMessage *raw = nullptr;
        lrc = plat::ldap_search_ext_s(s->ld, dn, LDAP_SCOPE_ONELEVEL, filter.get(), nullptr, 1, nullptr,
                                      nullptr, &tv, 0, &raw);
        zel::Message children(raw);
        if (lrc != LDAP_SUCCESS)
            return rc = check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_search_ext_s()");

        for (LDAPMessage *e = ldap_first_entry(s->ld, children.get()); e && rc == 0;
             e = ldap_next_entry(s->ld, e)) {
            zel::LdapText child(ldap_get_dn(s->ld, e));
            if (child && !zel::same_text(child.get(), dn)) rc = delete_tree(s, child.get());
        }
        if (rc != 0) return rc;

        lrc = plat::ldap_delete_ext_s(s->ld, dn, nullptr, nullptr);
        if (lrc != LDAP_SUCCESS) return rc = check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_delete_ext_s()");
        zel::progress_step(s);
        return rc;
    });
}

}  // extern "C"
