// Modification lists, and the Novell membership edits built on them.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ZelEntry.h"
#include "ZelClient.h"
#include "ZelHolders.h"
#include "ZelRoutines.h"
#include "ZelSession.h"
#include "ZelStatus.h"

namespace {

// The Novell membership edits: two operations on securityEquals and
// groupMembership, each with its own allocated type and values, so the list
// can go through zel_mods_free.
ZelRC nds_member_edit(ZelSession *s, const char *group_dn, const char *member_dn, int op) {
    LDAPMod **mods = static_cast<LDAPMod **>(std::calloc(3, sizeof(LDAPMod *)));
    if (!mods) return ZEL_RC_NO_MEMORY;
    ZelRC rc = 0;
    const char *types[] = {"securityEquals", "groupMembership"};
    for (uint32_t i = 0; i < 2; ++i) {
        char *type = strdup(types[i]);
        char *value = type && op == LDAP_MOD_ADD ? strdup(group_dn ? group_dn : "") : nullptr;
        if (!type || (op == LDAP_MOD_ADD && !value)) {
            std::free(type);
            rc = ZEL_RC_NO_MEMORY;
            break;
        }
        char *values[] = {value};
        rc = bld_attribute(mods, i, type, value ? 1 : 0, values, op);
        if (rc != 0) {
            // A record that was made owns the type; the value never reached it.
            if (mods[i] == nullptr) std::free(type);
            std::free(value);
            break;
        }
    }
    if (rc == 0) rc = static_cast<ZelRC>(plat::ldap_modify_s(s->ld, member_dn, mods));
    zel_mods_free(mods);
    return rc;
}

}  // namespace

namespace zel {

ModList::ModList(size_t slots)
    : mods_(static_cast<LDAPMod **>(std::calloc(slots, sizeof(LDAPMod *)))), slots_(slots) {}

ModList::~ModList() {
    if (!mods_) return;
    for (size_t i = 0; i < slots_ && mods_[i]; ++i) {
        std::free(mods_[i]->mod_values);
        std::free(mods_[i]);
    }
    std::free(mods_);
}

ZelRC ModList::add(int op, const char *type, std::initializer_list<const char *> values) {
    std::vector<char *> v;
    for (const char *value : values) v.push_back(const_cast<char *>(value));
    return add(op, type, static_cast<int32_t>(v.size()), v.data());
}

ZelRC ModList::add_binary(int op, const char *type, std::initializer_list<struct berval *> values) {
    std::vector<char *> v;
    for (struct berval *value : values) v.push_back(reinterpret_cast<char *>(value));
    return add(op | LDAP_MOD_BVALUES, type, static_cast<int32_t>(v.size()), v.data());
}

ZelRC ModList::add(int op, const char *type, int32_t count, char *const *values) {
    // The last slot stays null: it terminates the list.
    if (!mods_ || used_ + 1 >= slots_) return ZEL_RC_SYSTEM_ERROR;
    ZelRC rc = bld_attribute(mods_, static_cast<uint32_t>(used_), const_cast<char *>(type), count,
                             const_cast<char **>(values), op);
    if (rc != 0) {
        // An unfinished modification is taken out again: the list holds
        // complete modifications only and stays null-terminated.
        if (mods_[used_]) std::free(mods_[used_]->mod_values);
        std::free(mods_[used_]);
        mods_[used_] = nullptr;
        return rc;
    }
    ++used_;
    return rc;
}

int modify_clearing(ZelSession *s, const char *dn, LDAPMod **mods) {
    int lrc = plat::ldap_modify_ext_s(s->ld, dn, mods, nullptr, nullptr);
    if (lrc != LDAP_NO_SUCH_ATTRIBUTE) return lrc;
    // Clearing what is not there is done already: the rest goes again alone.
    std::vector<LDAPMod *> rest;
    bool dropped = false;
    for (size_t i = 0; mods[i]; ++i) {
        bool clears = (mods[i]->mod_op & ~LDAP_MOD_BVALUES) == LDAP_MOD_DELETE &&
                      (mods[i]->mod_values == nullptr || mods[i]->mod_values[0] == nullptr);
        dropped = dropped || clears;
        if (!clears) rest.push_back(mods[i]);
    }
    if (!dropped) return lrc;
    if (rest.empty()) return LDAP_SUCCESS;
    rest.push_back(nullptr);
    return plat::ldap_modify_ext_s(s->ld, dn, rest.data(), nullptr, nullptr);
}

}  // namespace zel

extern "C" {

ZelRC bld_attribute(LDAPMod **mods, uint32_t index, char *type, int32_t count, char **values,
                    int32_t op) {
    return zel::guarded([&]() -> ZelRC {
        LDAPMod *mod = static_cast<LDAPMod *>(std::calloc(1, sizeof(LDAPMod)));
        mods[index] = mod;
        if (!mod) return ZEL_RC_NO_MEMORY;
        mod->mod_op = op;
        mod->mod_type = type;
        size_t n = count > 0 ? static_cast<size_t>(count) : 0;
        char **array = static_cast<char **>(std::calloc(n + 1, sizeof(char *)));
        if (!array) return ZEL_RC_NO_MEMORY;
        for (size_t i = 0; i < n; ++i) array[i] = values[i];
        mod->mod_values = array;  // shares storage with mod_bvalues for binary values
        return 0;
    });
}

void zel_mods_free(LDAPMod **mods) {
    (void)zel::guarded([&]() -> ZelRC {
        if (mods == nullptr) return 0;
        for (size_t i = 0; mods[i]; ++i) {
            LDAPMod *mod = mods[i];
            if (mod->mod_op & LDAP_MOD_BVALUES) {
                for (size_t v = 0; mod->mod_bvalues && mod->mod_bvalues[v]; ++v)
                    std::free(mod->mod_bvalues[v]->bv_val);
                std::free(mod->mod_bvalues);
            } else {
                for (size_t v = 0; mod->mod_values && mod->mod_values[v]; ++v) std::free(mod->mod_values[v]);
                std::free(mod->mod_values);
            }
            std::free(mod->mod_type);
            std::free(mod);
            mods[i] = nullptr;
        }
        std::free(mods);
        return 0;
    });
}

ZelRC internal_nds_member_add(ZelSession *s, const char *group_dn, const char *member_dn) {
    ZelRC rc = 0;
    return zel::routine(s, "internal_nds_member_add", [&]() -> ZelRC {
        return rc = nds_member_edit(s, group_dn, member_dn, LDAP_MOD_ADD);
    });
}

// Drops every security equivalence and group membership of the member, not
// only those of group_dn: a delete without values removes the attribute.
ZelRC internal_nds_member_rem(ZelSession *s, const char *group_dn, const char *member_dn) {
    ZelRC rc = 0;
    return zel::routine(s, "internal_nds_member_rem", [&]() -> ZelRC {
        (void)group_dn;
        return rc = nds_member_edit(s, nullptr, member_dn, LDAP_MOD_DELETE);
    });
}

}  // extern "C"
