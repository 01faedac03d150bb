// RAII holders for what the directory client and the C library hand out,
// and for the modification lists the library builds.
#pragma once

#ifndef LDAP_DEPRECATED
#define LDAP_DEPRECATED 1
#endif
#include <ldap.h>

#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <memory>

#include "zelmgmt.h"

namespace zel {

struct MessageFree { void operator()(LDAPMessage *m) const { if (m) ldap_msgfree(m); } };
struct BerFree { void operator()(BerElement *b) const { if (b) ber_free(b, 0); } };
struct ValuesFree { void operator()(char **v) const { if (v) ldap_value_free(v); } };
struct BervalsFree { void operator()(struct berval **v) const { if (v) ldap_value_free_len(v); } };
struct LdapMemFree { void operator()(void *p) const { if (p) ldap_memfree(p); } };
struct CFree { void operator()(void *p) const { std::free(p); } };
struct DnFree { void operator()(LDAPDN dn) const { if (dn) ldap_dnfree(dn); } };
struct RdnFree { void operator()(LDAPRDN rdn) const { if (rdn) ldap_rdnfree(rdn); } };
struct ControlFree { void operator()(LDAPControl *c) const { if (c) ldap_control_free(c); } };
struct ControlsFree { void operator()(LDAPControl **c) const { if (c) ldap_controls_free(c); } };
struct FileClose { void operator()(std::FILE *f) const { std::fclose(f); } };
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
    // Binary values: `op` gets LDAP_MOD_BVALUES.  The list holds each as the
    // pointer it is, converted, never reread as another pointer type.
    ZelRC add_binary(int op, const char *type, std::initializer_list<struct berval *> values);
    LDAPMod **get() const { return mods_; }
    size_t size() const { return used_; }

private:
    LDAPMod **mods_;
    size_t slots_;
    size_t used_ = 0;
};

}  // namespace zel
