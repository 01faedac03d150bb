#include "support/fault_injection.h"

#ifndef LDAP_DEPRECATED
#define LDAP_DEPRECATED 1
#endif
#include <ldap.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <utility>

extern "C" {
int __real_ldap_search_ext_s(LDAP *, const char *, int, const char *, char **, int, LDAPControl **,
                             LDAPControl **, struct timeval *, int, LDAPMessage **);
int __real_ldap_add_ext_s(LDAP *, const char *, LDAPMod **, LDAPControl **, LDAPControl **);
int __real_ldap_modify_ext_s(LDAP *, const char *, LDAPMod **, LDAPControl **, LDAPControl **);
int __real_ldap_modify_s(LDAP *, const char *, LDAPMod **);
int __real_ldap_delete_ext_s(LDAP *, const char *, LDAPControl **, LDAPControl **);
int __real_ldap_simple_bind_s(LDAP *, const char *, const char *);
int __real_ldap_sasl_bind_s(LDAP *, const char *, const char *, struct berval *, LDAPControl **,
                            LDAPControl **, struct berval **);
int __real_ldap_initialize(LDAP **, const char *);
int __real_ldap_unbind_ext(LDAP *, LDAPControl **, LDAPControl **);
void *__real_calloc(size_t, size_t);
void *__real_malloc(size_t);
void *__real_realloc(void *, size_t);
char *__real_strdup(const char *);
char *__real_strndup(const char *, size_t);
}

namespace zeltest::fault {

bool allocation_should_fail();

namespace {

struct State {
    std::vector<Call> calls;
    std::map<Fn, int> seen;
    std::map<std::pair<Fn, int>, int> planned;
    SearchRewrite rewrite;
};

State &state() {
    static State *s = new State;  // never destroyed: wrapped calls may run at exit
    return *s;
}

long g_alloc_nth = 0;
long g_alloc_seen = 0;
bool g_alloc_failed = false;
bool g_in_hook = false;  // our own bookkeeping allocates; never count it


struct HookScope {
    bool was;
    HookScope() : was(g_in_hook) { g_in_hook = true; }
    ~HookScope() { g_in_hook = was; }
};

std::string text(const char *s) { return s ? s : ""; }

Call called(Fn fn, const char *dn) {
    Call c;
    c.fn = fn;
    c.dn = text(dn);
    return c;
}

std::vector<Mod> copy_mods(LDAPMod **mods) {
    std::vector<Mod> out;
    for (int i = 0; mods && mods[i]; ++i) {
        Mod m;
        m.op = mods[i]->mod_op;
        m.type = text(mods[i]->mod_type);
        if (m.op & LDAP_MOD_BVALUES) {
            for (int v = 0; mods[i]->mod_bvalues && mods[i]->mod_bvalues[v]; ++v)
                m.values.emplace_back(mods[i]->mod_bvalues[v]->bv_val, mods[i]->mod_bvalues[v]->bv_len);
        } else {
            for (int v = 0; mods[i]->mod_values && mods[i]->mod_values[v]; ++v)
                m.values.emplace_back(mods[i]->mod_values[v]);
        }
        out.push_back(std::move(m));
    }
    return out;
}

// Makes the call through `real`, or, when this one is planned to fail, runs
// `injected` (which empties the out-parameters) and answers the planned
// result; either way the call is recorded with what the caller saw.
template <typename Real, typename Injected = void (*)()>
int make(Call &c, Real real, Injected injected = [] {}) {
    State &s = state();
    auto it = s.planned.find({c.fn, ++s.seen[c.fn]});
    const bool planned = it != s.planned.end();
    if (planned) injected();
    c.result = planned ? it->second : real();
    s.calls.push_back(c);
    return c.result;
}

template <typename Real>
int write_call(Fn fn, const char *dn, LDAPMod **mods, Real real) {
    HookScope h;
    Call c = called(fn, dn);
    c.mods = copy_mods(mods);
    return make(c, real);
}

}  // namespace

const char *name(Fn fn) {
    static const char *const names[] = {"ldap_search_ext_s", "ldap_add_ext_s",    "ldap_modify_ext_s",
                                        "ldap_modify_s",     "ldap_delete_ext_s", "ldap_simple_bind_s",
                                        "ldap_sasl_bind_s",  "ldap_initialize",   "ldap_unbind_ext"};
    return names[static_cast<int>(fn)];
}

void reset() {
    HookScope h;
    State &s = state();
    s.calls.clear();
    s.seen.clear();
    s.planned.clear();
    g_alloc_nth = 0;
    g_alloc_seen = 0;
    g_alloc_failed = false;
}

void fail_call(Fn fn, int nth, int result) {
    HookScope h;
    state().planned[{fn, nth}] = result;
}

std::vector<Call> calls() {
    HookScope h;
    return state().calls;
}

std::vector<Call> calls(Fn fn) {
    HookScope h;
    std::vector<Call> out;
    for (const Call &c : state().calls)
        if (c.fn == fn) out.push_back(c);
    return out;
}

int count(Fn fn) { return static_cast<int>(calls(fn).size()); }

void set_search_rewrite(SearchRewrite rewrite) {
    HookScope h;
    state().rewrite = std::move(rewrite);
}

void fail_allocation(long nth) {
    g_alloc_nth = nth;
    g_alloc_seen = 0;
    g_alloc_failed = false;
}

bool allocation_should_fail() {
    if (g_alloc_nth == 0 || g_in_hook) return false;
    if (++g_alloc_seen != g_alloc_nth) return false;
    g_alloc_failed = true;
    errno = ENOMEM;  // as the C library's allocator reports it
    return true;
}
bool allocation_failed() { return g_alloc_failed; }

}  // namespace zeltest::fault

using namespace zeltest::fault;

extern "C" {

int __wrap_ldap_search_ext_s(LDAP *ld, const char *base, int scope, const char *filter,
                             char **attrs, int attrsonly, LDAPControl **sctrls,
                             LDAPControl **cctrls, struct timeval *timeout, int sizelimit,
                             LDAPMessage **res) {
    HookScope h;
    Call c = called(Fn::Search, base);
    c.scope = scope;
    c.filter = text(filter);
    c.attrs_null = attrs == nullptr;
    for (int i = 0; attrs && attrs[i]; ++i) c.attrs.emplace_back(attrs[i]);
    c.attrsonly = attrsonly;
    c.sizelimit = sizelimit;
    c.timeout_null = timeout == nullptr;
    auto real = [&] {
        std::string b = c.dn, f = c.filter;
        int sc = scope;
        if (state().rewrite) state().rewrite(b, sc, f);
        return __real_ldap_search_ext_s(ld, base ? b.c_str() : nullptr, sc, filter ? f.c_str() : nullptr, attrs,
                                        attrsonly, sctrls, cctrls, timeout, sizelimit, res);
    };
    return make(c, real, [&] { if (res) *res = nullptr; });
}

int __wrap_ldap_add_ext_s(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **s, LDAPControl **cl) {
    return write_call(Fn::Add, dn, mods, [&] { return __real_ldap_add_ext_s(ld, dn, mods, s, cl); });
}

int __wrap_ldap_modify_ext_s(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **s, LDAPControl **cl) {
    return write_call(Fn::Modify, dn, mods, [&] { return __real_ldap_modify_ext_s(ld, dn, mods, s, cl); });
}

int __wrap_ldap_modify_s(LDAP *ld, const char *dn, LDAPMod **mods) {
    return write_call(Fn::ModifyS, dn, mods, [&] { return __real_ldap_modify_s(ld, dn, mods); });
}

int __wrap_ldap_delete_ext_s(LDAP *ld, const char *dn, LDAPControl **s, LDAPControl **cl) {
    return write_call(Fn::Delete, dn, nullptr, [&] { return __real_ldap_delete_ext_s(ld, dn, s, cl); });
}

int __wrap_ldap_simple_bind_s(LDAP *ld, const char *dn, const char *pw) {
    HookScope h;
    Call c = called(Fn::SimpleBind, dn);
    c.has_credentials = pw != nullptr;
    return make(c, [&] { return __real_ldap_simple_bind_s(ld, dn, pw); });
}

int __wrap_ldap_sasl_bind_s(LDAP *ld, const char *dn, const char *mech, struct berval *cred,
                            LDAPControl **s, LDAPControl **cl, struct berval **servercred) {
    HookScope h;
    Call c = called(Fn::SaslBind, dn);
    c.mechanism = text(mech);
    c.has_credentials = cred != nullptr;
    return make(c, [&] { return __real_ldap_sasl_bind_s(ld, dn, mech, cred, s, cl, servercred); },
                [&] { if (servercred) *servercred = nullptr; });
}

int __wrap_ldap_initialize(LDAP **ldp, const char *uri) {
    HookScope h;
    Call c = called(Fn::Initialize, uri);
    return make(c, [&] { return __real_ldap_initialize(ldp, uri); }, [&] { if (ldp) *ldp = nullptr; });
}

int __wrap_ldap_unbind_ext(LDAP *ld, LDAPControl **s, LDAPControl **cl) {
    HookScope h;
    Call c = called(Fn::Unbind, nullptr);
    // The handle is released even when the answer is made up: never leaked.
    return make(c, [&] { return __real_ldap_unbind_ext(ld, s, cl); }, [&] { __real_ldap_unbind_ext(ld, s, cl); });
}

void *__wrap_calloc(size_t n, size_t size) {
    return allocation_should_fail() ? nullptr : __real_calloc(n, size);
}
void *__wrap_malloc(size_t size) { return allocation_should_fail() ? nullptr : __real_malloc(size); }
void *__wrap_realloc(void *p, size_t size) {
    return allocation_should_fail() ? nullptr : __real_realloc(p, size);
}
char *__wrap_strdup(const char *s) { return allocation_should_fail() ? nullptr : __real_strdup(s); }
char *__wrap_strndup(const char *s, size_t n) {
    return allocation_should_fail() ? nullptr : __real_strndup(s, n);
}

}  // extern "C"

// C++ allocations of the test program (the library's included) fail on the
// same Nth-allocation counter as the C allocator: they throw std::bad_alloc.
// They come from malloc, so the matching deletes are free.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void *operator new(std::size_t size) {
    if (zeltest::fault::allocation_should_fail()) throw std::bad_alloc();
    void *p = __real_malloc(size != 0 ? size : 1);
    if (p == nullptr) throw std::bad_alloc();
    return p;
}
void *operator new[](std::size_t size) { return ::operator new(size); }
void *operator new(std::size_t size, const std::nothrow_t &) noexcept {
    try {
        return ::operator new(size);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}
void *operator new[](std::size_t size, const std::nothrow_t &tag) noexcept { return ::operator new(size, tag); }
void operator delete(void *p) noexcept { std::free(p); }
void operator delete[](void *p) noexcept { std::free(p); }
void operator delete(void *p, std::size_t) noexcept { std::free(p); }
void operator delete[](void *p, std::size_t) noexcept { std::free(p); }
void operator delete(void *p, const std::nothrow_t &) noexcept { std::free(p); }
void operator delete[](void *p, const std::nothrow_t &) noexcept { std::free(p); }
#pragma GCC diagnostic pop
