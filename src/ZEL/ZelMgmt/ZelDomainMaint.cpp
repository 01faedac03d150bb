// Adding and updating Zel domains, and adding or removing one member.
// Members are target services only.  A domain that exists in the
// first-generation form stays there, also for a security domain session.
#include <cstring>
#include <string>
#include <vector>

#include "ZelEntry.h"
#include "ZelDomain.h"
#include "platform/dn_escape.h"
#include "ZelClient.h"
#include "ZelHolders.h"
#include "ZelRoutines.h"
#include "ZelSession.h"
#include "ZelStatus.h"
#include "ZelText.h"
#include "ZelTrace.h"
#include "ZelWellKnownDns.h"

namespace {

constexpr int32_t kAdd = 1;
constexpr int32_t kUpdate = 2;
constexpr int32_t kAddLocation = 3;
constexpr int32_t kRemoveLocation = 4;

// First-generation member values are built in buffers of this size.
constexpr size_t kTargetLocationSize = 1024;

bool is_service_location(const char *type) { return type != nullptr && zel::same_text(type, "resourceName"); }

// The stored form of one member: "T:<service>" or the DN of the service's
// entry.  1005 when it would not fit its buffer.
ZelRC member_value(const ZelSession *s, const char *service, bool first_gen, std::string &out) {
    if (first_gen) {
        out = std::string("T:") + service;
        return out.size() < kTargetLocationSize ? 0 : ZEL_RC_INVALID_ARGUMENT;
    }
    if (s->domain_dn == nullptr) return ZEL_RC_SECURITY_DOMAIN_NOT_FOUND;
    return zel::domain_resource_dn(s, service, out);
}

// Every location must name a target service; checked before anything is written.
ZelRC member_values(const ZelSession *s, const ZelDomain *d, bool first_gen, std::vector<std::string> &out) {
    if (d->locationCount < 0 || (d->locationCount > 0 && d->locations == nullptr)) return ZEL_RC_INVALID_ARGUMENT;
    for (int32_t i = 0; i < d->locationCount; ++i) {
        const ZelDomainLocation *loc = d->locations[i];
        if (loc == nullptr) return ZEL_RC_INVALID_ARGUMENT;
        if (!is_service_location(loc->type)) return ZEL_RC_CONFLICT;
        if (loc->value == nullptr) return ZEL_RC_INVALID_ARGUMENT;
        out.emplace_back();
        if (ZelRC rc = member_value(s, loc->value, first_gen, out.back())) return rc;
    }
    return 0;
}

// AD refuses a member DN that names no entry, in its own words: an unknown
// service is said as such, before anything is written.
ZelRC members_exist(ZelSession *s, const ZelDomain *d) {
    for (int32_t i = 0; i < d->locationCount; ++i) {
        ZelTargetService *service = nullptr;
        ZelRC rc = Zel_getTargetService(s, d->locations[i]->value, &service);
        Zel_freeTargetService(service);
        if (rc != 0) return rc;
    }
    return 0;
}

// The security domain's cn=ResourceGroups; one that exists already is fine.
ZelRC add_resource_groups_container(ZelSession *s) {
    zel::CText dn = zel::zeroed_buffer(zel::kDnSize);
    if (!dn) return ZEL_RC_NO_MEMORY;
    if (s->domain_dn == nullptr) return ZEL_RC_SECURITY_DOMAIN_NOT_FOUND;
    if (!zel::format_into(dn.get(), zel::kDnSize, "cn=ResourceGroups,%s", s->domain_dn))
        return ZEL_RC_INVALID_ARGUMENT;
    zel::ModList mods(3);
    if (!mods.ok()) return ZEL_RC_NO_MEMORY;
    ZelRC rc = mods.add(LDAP_MOD_ADD, "objectClass", {"top", "container"});
    if (rc == 0) rc = mods.add(LDAP_MOD_ADD, "cn", {"ResourceGroups"});
    if (rc != 0) return rc;
    int lrc = plat::ldap_add_ext_s(s->ld, dn.get(), mods.get(), nullptr, nullptr);
    if (lrc == LDAP_SUCCESS || lrc == LDAP_ALREADY_EXISTS) return 0;
    if (lrc == LDAP_NO_SUCH_ATTRIBUTE) return ZEL_RC_SCHEMA_VIOLATION;
    return check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_add_ext_s()");
}

// The description by directory kind: kinds that refuse empty values get
// none on add and lose the attribute on update; the others store it empty.
ZelRC description_mod(const ZelSession *s, const char *description, int32_t op, zel::ModList &mods) {
    if (description == nullptr) return 0;
    if (zel::writes_description(s, description))
        return mods.add(op == kAdd ? LDAP_MOD_ADD : LDAP_MOD_REPLACE, "description", {description});
    return op == kAdd ? 0 : mods.add(LDAP_MOD_DELETE, "description", 0, nullptr);
}

ZelRC build_domain_mods(const ZelSession *s, const ZelDomain *d, int32_t op, bool first_gen,
                        std::vector<char *> &members, zel::ModList &mods) {
    ZelRC rc = 0;
    if (op == kAdd && first_gen) {
        rc = mods.add(LDAP_MOD_ADD, "objectClass", {"top", "eZelDomain"});
        if (rc == 0) rc = mods.add(LDAP_MOD_ADD, "cn", {d->name});
    } else if (op == kAdd) {
        rc = mods.add(LDAP_MOD_ADD, "objectClass", {"top", "secResGroup"});
        if (rc == 0) rc = mods.add(LDAP_MOD_ADD, "secResGroupID", {d->name});
        if (rc == 0) rc = mods.add(LDAP_MOD_ADD, "secType", {"2"});
        if (rc == 0) rc = mods.add(LDAP_MOD_ADD, "secValid", {"TRUE"});
    }
    if (rc == 0) rc = description_mod(s, d->description, op, mods);
    // Members are replaced only when locations are given.
    if (rc == 0 && !members.empty())
        rc = mods.add(op == kAdd ? LDAP_MOD_ADD : LDAP_MOD_REPLACE, first_gen ? "targetLocation" : "member",
                      static_cast<int32_t>(members.size()), members.data());
    return rc;
}

ZelRC write_domain(ZelSession *s, const ZelDomain *d, int32_t op) {
    if (op != kAdd && op != kUpdate) return ZEL_RC_UNSUPPORTED_OPERATION;
    if (d == nullptr || d->name == nullptr) return ZEL_RC_INVALID_ARGUMENT;
    std::string dn;

    bool first_gen = zel::first_generation(s);
    if (s->database_dn) {
        bool exists = false;
        if (ZelRC rc = zel::first_generation_domain_exists(s, d->name, exists)) return rc;
        if (exists && op == kAdd) return ZEL_RC_ALREADY_EXISTS;
        first_gen = first_gen || exists;
    }

    // Everything that could be refused is checked before the first write.
    std::vector<std::string> values;
    if (ZelRC rc = member_values(s, d, first_gen, values)) return rc;
    if (!first_gen && s->dir_kind == ZEL_DIR_ACTIVE_DIRECTORY) {
        if (ZelRC rc = members_exist(s, d)) return rc;
    }
    if (ZelRC rc = zel::domain_entry_dn(s, d->name, first_gen, dn)) return rc;
    std::vector<char *> members;
    for (std::string &v : values) members.push_back(v.data());

    bool description = d->description != nullptr;
    zel::ModList mods((first_gen ? 3 : 5) + description + !members.empty());
    if (!mods.ok()) return ZEL_RC_NO_MEMORY;
    if (ZelRC rc = build_domain_mods(s, d, op, first_gen, members, mods)) return rc;
    if (!first_gen && s->database_dn) {
        if (ZelRC rc = add_resource_groups_container(s)) return rc;
    }

    int lrc = op == kAdd ? plat::ldap_add_ext_s(s->ld, dn.c_str(), mods.get(), nullptr, nullptr)
                         : zel::modify_clearing(s, dn.c_str(), mods.get());
    if (lrc == LDAP_SUCCESS) return 0;
    return check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, op == kAdd ? "ldap_add_ext_s()" : "ldap_modify_ext_s()");
}

ZelRC edit_location(ZelSession *s, const char *domain, const char *type, const char *name, int32_t op) {
    if (op != kAddLocation && op != kRemoveLocation) return ZEL_RC_UNSUPPORTED_OPERATION;
    if (domain == nullptr) return ZEL_RC_INVALID_ARGUMENT;
    std::string dn;

    bool first_gen = zel::first_generation(s);
    if (first_gen) {
        if (ZelRC rc = zel::ensure_database_dn(s)) return rc;
    } else if (s->database_dn) {
        if (ZelRC rc = zel::first_generation_domain_exists(s, domain, first_gen)) return rc;
    }
    if (ZelRC rc = zel::domain_entry_dn(s, domain, first_gen, dn)) return rc;
    if (!is_service_location(type)) return ZEL_RC_CONFLICT;
    if (name == nullptr) return ZEL_RC_INVALID_ARGUMENT;
    // Active Directory: an empty member name is nothing to write.
    if (!first_gen && s->dir_kind == ZEL_DIR_ACTIVE_DIRECTORY && name[0] == '\0') return 0;
    std::string member;
    if (ZelRC rc = member_value(s, name, first_gen, member)) return rc;

    if (op == kAddLocation) {
        ZelTargetService *service = nullptr;
        ZelRC rc = Zel_getTargetService(s, name, &service);
        Zel_freeTargetService(service);
        if (rc != 0) return rc;
    }
    zel::ModList mods(2);
    if (!mods.ok()) return ZEL_RC_NO_MEMORY;
    char *values[] = {member.data()};
    if (ZelRC rc = mods.add(op == kAddLocation ? LDAP_MOD_ADD : LDAP_MOD_DELETE,
                            first_gen ? "targetLocation" : "member", 1, values))
        return rc;

    int lrc = plat::ldap_modify_ext_s(s->ld, dn.c_str(), mods.get(), nullptr, nullptr);
    // A member added twice is no error; one that is not there cannot go.
    if (lrc == LDAP_SUCCESS || lrc == LDAP_TYPE_OR_VALUE_EXISTS) return 0;
    if (lrc == LDAP_NO_SUCH_ATTRIBUTE) return ZEL_RC_LOCATION_NOT_FOUND;
    return check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_modify_ext_s()");
}

// The public operations report the worker's outcome; `failed` shows the status.
ZelRC reported(const ZelSession *s, ZelRC rc, const char *done, const char *failed) {
    if (rc == 0) zel::trace_line(s, zel::kTraceProgress, done);
    else zel::tracef(s, zel::kTraceProgress, failed, rc);
    return rc;
}

// The public add and update: the first-generation base is located first.
ZelRC add_or_update(ZelSession *s, const ZelDomain *d, int32_t op, const char *done, const char *failed) {
    if (d == nullptr || d->name == nullptr) return ZEL_RC_INVALID_ARGUMENT;
    if (zel::first_generation(s)) {
        if (ZelRC rc = zel::ensure_database_dn(s)) return rc;
    }
    return reported(s, create_update_ZelDomain(s, d, op), done, failed);
}

}  // namespace

extern "C" {

// Operation 1 adds the domain, 2 updates it; anything else is 9000.
ZelRC create_update_ZelDomain(ZelSession *s, const ZelDomain *domain, int32_t operation) {
    return zel::routine(s, "create_update_ZelDomain", [&] { return write_domain(s, domain, operation); });
}

// Operation 3 adds the member, 4 removes it; anything else is 9000.
ZelRC add_remove_Location(ZelSession *s, const char *domain, const char *locType, const char *locName,
                          int32_t operation) {
    return zel::routine(s, "add_remove_Location", [&] { return edit_location(s, domain, locType, locName, operation); });
}

ZEL_API ZelRC Zel_addZelDomain(ZelSession *s, const ZelDomain *d) {
    return zel::write_call(s, "Zel_addZelDomain", {nullptr, d ? d->name : nullptr}, [&] {
        return add_or_update(s, d, kAdd, "zelmgmt:Were able to add Zel Domain successfully!",
                             "zelmgmt:Were unable to add Zel Domain. Return Code: x%x\n");
    });
}

ZEL_API ZelRC Zel_updateZelDomain(ZelSession *s, const ZelDomain *d) {
    return zel::write_call(s, "Zel_updateZelDomain", {nullptr, d ? d->name : nullptr}, [&] {
        return add_or_update(s, d, kUpdate, "zelmgmt:Were able to update Zel Domain successfully!",
                             "zelmgmt:Were unable to update Zel Domain. Return Code: x%x\n");
    });
}

// The location type is required to add a member but not to remove one.
ZEL_API ZelRC Zel_addLocationToDomain(ZelSession *s, const char *domain, const char *locType, const char *locName) {
    return zel::write_call(s, "Zel_addLocationToDomain", {nullptr, domain, locName}, [&]() -> ZelRC {
        if (domain == nullptr || locType == nullptr) return ZEL_RC_INVALID_ARGUMENT;
        return reported(s, add_remove_Location(s, domain, locType, locName, kAddLocation),
                        "zelmgmt:Were able to add Location to Zel Domain successfully!",
                        "zelmgmt:Were unable to add Location to Zel Domain. Return Code: x%x\n");
    });
}

ZEL_API ZelRC Zel_removeLocationFromDomain(ZelSession *s, const char *domain, const char *locType,
                                           const char *locName) {
    return zel::write_call(s, "Zel_removeLocationFromDomain", {nullptr, domain, locName}, [&]() -> ZelRC {
        if (domain == nullptr) return ZEL_RC_INVALID_ARGUMENT;
        return reported(s, add_remove_Location(s, domain, locType, locName, kRemoveLocation),
                        "zelmgmt:Were able to remove Location from Zel Domain successfully!",
                        "zelmgmt:Were unable to remove Location from Zel Domain. Return Code: x%x\n");
    });
}

}  // extern "C"
