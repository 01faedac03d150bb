// Adding and removing target services and target service types.
//
// First generation: a type is an eTargetServiceType entry in
// cn=Target Service Types of the Zel database, naming the identifiers its
// services must carry; a service is an eTargetService entry below its type.
// Security domain form: services are secResource entries in the domain's
// Resources container, and the only types are the built-in ones.
#include <cstring>
#include <string>

#include "ZelEntry.h"
#include "ZelClient.h"
#include "ZelHolders.h"
#include "ZelRoutines.h"
#include "ZelSearch.h"
#include "ZelSession.h"
#include "ZelStatus.h"
#include "ZelText.h"
#include "ZelTrace.h"
#include "ZelWellKnownDns.h"

namespace {

// First-generation identifier pairs are run together in one 256-byte value
// buffer; a record whose pairs are incomplete or would not fit is refused.
ZelRC check_identifier_pairs(const ZelTargetService *ts) {
    if (ts->reqIdentifierCount < 0) return ZEL_RC_INVALID_ARGUMENT;
    if (ts->reqIdentifierCount > 0 && ts->reqIdentifiers == nullptr) return ZEL_RC_INVALID_ARGUMENT;
    size_t length = 0;
    for (int32_t i = 0; i < ts->reqIdentifierCount; ++i) {
        const ZelReqIdentifier *pair = ts->reqIdentifiers[i];
        if (pair == nullptr || pair->name == nullptr || pair->value == nullptr)
            return ZEL_RC_INVALID_ARGUMENT;
        length += std::strlen(pair->name) + 1 + std::strlen(pair->value);
        if (length >= zel::kShortValueSize) return ZEL_RC_INVALID_ARGUMENT;
    }
    return 0;
}

bool names_a_pair(const ZelTargetService *ts, const char *identifier_name) {
    for (int32_t i = 0; i < ts->reqIdentifierCount; ++i)
        if (zel::same_text(ts->reqIdentifiers[i]->name, identifier_name)) return true;
    return false;
}

// The record's identifier names must be the type's reqIdentifierName values,
// in any order; a type without them accepts any pairs.
ZelRC matches_type_identifiers(LDAP *ld, LDAPMessage *type_entry, const ZelTargetService *ts) {
    BerElement *raw = nullptr;
    zel::LdapText attr(ldap_first_attribute(ld, type_entry, &raw));
    zel::Ber ber(raw);
    for (; attr; attr.reset(ldap_next_attribute(ld, type_entry, raw))) {
        if (!zel::same_text(attr.get(), "reqIdentifierName")) return ZEL_RC_SYSTEM_ERROR;
        zel::Values names(ldap_get_values(ld, type_entry, attr.get()));
        if (!names) {
            if (ts->reqIdentifierCount > 0) return ZEL_RC_CONFLICT;
            continue;
        }
        if (ldap_count_values(names.get()) != ts->reqIdentifierCount) return ZEL_RC_CONFLICT;
        for (char **name = names.get(); *name; ++name)
            if (!names_a_pair(ts, *name)) return ZEL_RC_CONFLICT;
    }
    return 0;
}

// Finds the service's type entry, checks the record against it and hands
// back the type entry's DN, under which the service is created.
ZelRC check_service_type(ZelSession *s, const ZelTargetService *ts, std::string &type_dn) {
    LDAPMessage *raw = nullptr;
    ZelRC rc = locate_ZEL_TST(s, ts->type, &raw);
    zel::Message res(raw);
    if (rc != 0) return rc;
    if (zel::entry_count(s->ld, res.get()) != 1) return ZEL_RC_TST_NOT_FOUND;
    LDAPMessage *entry = ldap_first_entry(s->ld, res.get());
    zel::LdapText dn(ldap_get_dn(s->ld, entry));
    if (!dn) return ZEL_RC_TST_NOT_FOUND;
    type_dn = dn.get();
    return matches_type_identifiers(s->ld, entry, ts);
}

// The domain's Resources container; one that exists already is fine.
ZelRC add_resources_container(ZelSession *s) {
    std::string dn;
    if (ZelRC rc = zel::resources_container_dn(s, dn)) return rc;
    zel::ModList mods(3);
    if (!mods.ok()) return ZEL_RC_NO_MEMORY;
    ZelRC rc = mods.add(LDAP_MOD_ADD, "objectClass", {"top", "container"});
    if (rc == 0) rc = mods.add(LDAP_MOD_ADD, "cn", {"Resources"});
    if (rc != 0) return rc;
    int lrc = plat::ldap_add_ext_s(s->ld, dn.c_str(), mods.get(), nullptr, nullptr);
    if (lrc == LDAP_SUCCESS || lrc == LDAP_ALREADY_EXISTS) return 0;
    if (lrc == LDAP_NO_SUCH_ATTRIBUTE) return ZEL_RC_SCHEMA_VIOLATION;
    return check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_add_ext_s()");
}

// The name may be taken in the session's own form and, for a security domain
// session that knows the Zel database, also by a first-generation entry.
ZelRC check_name_unused(ZelSession *s, const ZelTargetService *ts) {
    bool v1 = zel::first_generation(s);
    zel::Message res;
    ZelRC rc = zel::search_services(s, ts->name, ts->type, v1 ? 1 : 2, res);
    if (rc != 0) return rc;
    int found = zel::entry_count(s->ld, res.get());
    if (!v1 && s->database_dn && found == 0) {
        (void)zel::search_services(s, ts->name, ts->type, 1, res);  // its failure leaves the name free
        found = zel::entry_count(s->ld, res.get());
    }
    return found > 0 ? ZEL_RC_ALREADY_EXISTS : 0;
}

// First-generation entry.  Every reqIdentifier modification refers to the
// one pair buffer, which is not cleared between pairs: with several pairs
// each value carries all of them run together.  When a pair's modification
// cannot be built the remaining pairs are left out and the add still goes on.
ZelRC first_generation_mods(ZelSession *s, const ZelTargetService *ts, zel::ModList &mods, char *pair_buffer) {
    ZelRC rc = mods.add(LDAP_MOD_ADD, "objectClass", {"top", "eTargetService"});
    if (rc == 0) rc = mods.add(LDAP_MOD_ADD, "tsName", {ts->name});
    if (rc == 0) rc = mods.add(LDAP_MOD_ADD, "tsType", {ts->type});
    if (rc == 0 && zel::writes_description(s, ts->description))
        rc = mods.add(LDAP_MOD_ADD, "description", {ts->description});
    if (rc != 0) return rc;
    for (int32_t i = 0; i < ts->reqIdentifierCount; ++i) {
        const ZelReqIdentifier *pair = ts->reqIdentifiers[i];
        // Fits: the pairs were measured against the buffer beforehand.
        std::strcat(pair_buffer, pair->name);
        std::strcat(pair_buffer, "=");
        std::strcat(pair_buffer, pair->value);
        char *values[] = {pair_buffer};
        if (mods.add(LDAP_MOD_ADD, "reqIdentifier", 1, values) != 0) break;
    }
    return 0;
}

ZelRC domain_mods(ZelSession *s, const ZelTargetService *ts, zel::ModList &mods) {
    ZelRC rc = mods.add(LDAP_MOD_ADD, "objectClass", {"top", "secResource"});
    if (rc == 0) rc = mods.add(LDAP_MOD_ADD, "secResourceID", {ts->name});
    const char *sec_type = zel::same_text(ts->type, "Web Resource") ? "1" : "2";
    if (rc == 0) rc = mods.add(LDAP_MOD_ADD, "secType", {sec_type});
    if (rc == 0) rc = mods.add(LDAP_MOD_ADD, "secValid", {"TRUE"});
    if (rc == 0 && zel::writes_description(s, ts->description))
        rc = mods.add(LDAP_MOD_ADD, "description", {ts->description});
    return rc;
}

ZelRC add_target_service(ZelSession *s, const ZelTargetService *ts) {
    ZelRC rc = 0;
    if (ts == nullptr || ts->name == nullptr || ts->type == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
    bool v1 = zel::first_generation(s);
    if (v1 && (rc = check_identifier_pairs(ts)) != 0) return rc;
    if (v1 && s->database_dn == nullptr && (rc = zel::ensure_database_dn(s)) != 0) return rc;

    std::string type_dn, dn;
    if (v1 && (rc = check_service_type(s, ts, type_dn)) != 0) return rc;
    // A security domain has only its built-in types; its look-up of any
    // other answers 8, which must come before the container is written.
    if (!v1 && !zel::builtin_service_type(ts->type)) return rc = ZEL_RC_TST_NOT_FOUND;
    // The entry's DN is measured before the container is added.
    if ((rc = v1 ? zel::child_dn("tsName", ts->name, type_dn, dn) : zel::domain_resource_dn(s, ts->name, dn)) != 0)
        return rc;
    if (!v1 && s->database_dn && (rc = add_resources_container(s)) != 0) return rc;
    if ((rc = check_name_unused(s, ts)) != 0) return rc;

    bool description = ts->description != nullptr;
    zel::ModList mods(v1 ? static_cast<size_t>(ts->reqIdentifierCount) + 5 + description : 5 + description);
    if (!mods.ok()) return rc = ZEL_RC_NO_MEMORY;
    zel::CText pair_buffer;
    if (v1) {
        pair_buffer = zel::zeroed_buffer(zel::kShortValueSize);
        if (!pair_buffer) return rc = ZEL_RC_NO_MEMORY;
        rc = first_generation_mods(s, ts, mods, pair_buffer.get());
    } else {
        rc = domain_mods(s, ts, mods);
    }
    if (rc != 0) return rc;

    // The status and the message are the add's own.
    int lrc = plat::ldap_add_ext_s(s->ld, dn.c_str(), mods.get(), nullptr, nullptr);
    if (lrc != LDAP_SUCCESS) {
        rc = check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_add_ext_s()");
        zel::trace_line(s, zel::kTraceProgress, "zelmgmt:LDAP error when trying to add Target Service.");
    } else {
        zel::trace_line(s, zel::kTraceProgress, "zelmgmt:Were able add Target Service successfully!");
    }
    return rc;
}

ZelRC check_type_record(const ZelTargetServiceType *t) {
    if (t->typeName == nullptr || t->identifierCount < 0) return ZEL_RC_INVALID_ARGUMENT;
    if (t->identifierCount > 0 && t->identifierNames == nullptr) return ZEL_RC_INVALID_ARGUMENT;
    for (int32_t i = 0; i < t->identifierCount; ++i)
        if (t->identifierNames[i] == nullptr) return ZEL_RC_INVALID_ARGUMENT;
    return 0;
}

ZelRC add_target_service_type(ZelSession *s, const ZelTargetServiceType *t) {
    ZelRC rc = 0;
    if (t == nullptr || t->typeName == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
    const char *done = "zelmgmt:Were able add Target Service Type successfully!";
    const char *failed = "zelmgmt:LDAP error when trying to add Target Service Type.";

    // A security domain has only its built-in types, which need no entry.
    if (!zel::first_generation(s)) {
        if (!zel::builtin_service_type(t->typeName)) return rc = ZEL_RC_INVALID_ARGUMENT;
        zel::trace_line(s, zel::kTraceProgress, done);
        return rc;
    }

    if ((rc = check_type_record(t)) != 0) return rc;
    if ((rc = zel::ensure_database_dn(s)) != 0) return rc;
    std::string dn;
    if ((rc = zel::child_dn("tsType", t->typeName, std::string("cn=Target Service Types,") + s->database_dn, dn)) != 0)
        return rc;
    zel::ModList mods(4);
    if (!mods.ok()) {
        zel::trace_line(s, zel::kTraceProgress, failed);
        return rc = ZEL_RC_NO_MEMORY;
    }
    rc = mods.add(LDAP_MOD_ADD, "objectClass", {"top", "eTargetServiceType"});
    if (rc == 0) rc = mods.add(LDAP_MOD_ADD, "tsType", {t->typeName});
    // An add of an attribute without values is malformed: a type that names
    // no identifiers has none.
    if (rc == 0 && t->identifierCount > 0)
        rc = mods.add(LDAP_MOD_ADD, "reqIdentifierName", t->identifierCount, t->identifierNames);
    if (rc != 0) return rc;

    int lrc = plat::ldap_add_ext_s(s->ld, dn.c_str(), mods.get(), nullptr, nullptr);
    if (lrc != LDAP_SUCCESS) {
        rc = check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_add_ext_s()");
        zel::trace_line(s, zel::kTraceProgress, failed);
    } else {
        zel::trace_line(s, zel::kTraceProgress, done);
    }
    return rc;
}

ZelRC delete_entry(ZelSession *s, LDAPMessage *entry, ZelRC no_dn) {
    zel::LdapText dn(ldap_get_dn(s->ld, entry));
    if (!dn) return no_dn;
    int lrc = plat::ldap_delete_ext_s(s->ld, dn.get(), nullptr, nullptr);
    if (lrc != LDAP_SUCCESS) return check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_delete_ext_s()");
    return 0;
}

// Only the entry goes: target records and domain memberships naming the
// service stay as they are.
ZelRC remove_target_service(ZelSession *s, const char *name) {
    ZelRC rc = 0;
    if (name == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
    bool v1 = zel::first_generation(s);
    if (v1 && (rc = zel::ensure_database_dn(s)) != 0) return rc;

    zel::Message res;
    rc = zel::search_services(s, name, nullptr, v1 ? 1 : 2, res);
    if (rc != 0) return rc;
    if (!v1 && s->database_dn && zel::entry_count(s->ld, res.get()) == 0 &&
        (rc = zel::search_services(s, name, nullptr, 1, res)) != 0)
        return rc;
    if (zel::entry_count(s->ld, res.get()) != 1) return rc = ZEL_RC_TS_NOT_FOUND;

    rc = delete_entry(s, ldap_first_entry(s->ld, res.get()), ZEL_RC_TS_NOT_FOUND);
    // Reported once the one entry was found, whatever its deletion gave.
    zel::trace_line(s, zel::kTraceProgress, "zelmgmt:Were able remove Target Service successfully!");
    return rc;
}

ZelRC remove_target_service_type(ZelSession *s, const char *type_name) {
    ZelRC rc = 0;
    if (type_name == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
    if (zel::first_generation(s) && (rc = zel::ensure_database_dn(s)) != 0) return rc;

    // Types are entries only where the Zel database is known; a security
    // domain's built-in types have nothing to remove.
    if (s->database_dn) {
        LDAPMessage *raw = nullptr;
        rc = locate_ZEL_TST(s, type_name, &raw);
        zel::Message res(raw);
        if (rc != 0) return rc;
        if (zel::entry_count(s->ld, res.get()) != 1) return rc = ZEL_RC_TST_NOT_FOUND;
        rc = delete_entry(s, ldap_first_entry(s->ld, res.get()), ZEL_RC_TST_NOT_FOUND);
    }
    // Reported whatever the deletion gave.
    zel::trace_line(s, zel::kTraceProgress, "zelmgmt:Were able remove Target Service Type successfully!");
    return rc;
}

}  // namespace

extern "C" {

ZEL_API ZelRC Zel_addTargetService(ZelSession *s, const ZelTargetService *ts) {
    return zel::write_call(s, "Zel_addTargetService", {nullptr, ts ? ts->name : nullptr},
                           [&] { return add_target_service(s, ts); });
}

ZEL_API ZelRC Zel_addTargetServiceType(ZelSession *s, const ZelTargetServiceType *t) {
    return zel::write_call(s, "Zel_addTargetServiceType", {nullptr, t ? t->typeName : nullptr},
                           [&] { return add_target_service_type(s, t); });
}

ZEL_API ZelRC Zel_removeTargetService(ZelSession *s, const char *name) {
    return zel::write_call(s, "Zel_removeTargetService", {nullptr, name},
                           [&] { return remove_target_service(s, name); });
}

ZEL_API ZelRC Zel_removeTargetServiceType(ZelSession *s, const char *typeName) {
    return zel::write_call(s, "Zel_removeTargetServiceType", {nullptr, typeName},
                           [&] { return remove_target_service_type(s, typeName); });
}

}  // extern "C"
