// The directory-client adapter over OpenLDAP libldap: the requests and the
// handle's life.  TLS, options, time-outs, recovery and the configured server
// list live in the other ldap_*.cpp files.  See ldap_client.h.
#include "platform/ldap_client_internal.h"
#include "platform/host_list.h"

#include <lber.h>
#include <sasl/sasl.h>

#include <climits>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include <strings.h>
#include <sys/socket.h>

namespace zel::platform {

namespace {

// An add's modification list with the modifications of one attribute type
// (ignoring case) merged into the first of them, values kept in order: slapd
// refuses an add that names a type twice.  String and binary values are
// never merged with each other.  The records and value arrays are new; the
// types and values are the caller's.
class MergedAdd {
public:
    explicit MergedAdd(LDAPMod **mods) {
        size_t n = 0;
        while (mods != nullptr && mods[n] != nullptr) ++n;
        records_.reserve(n);
        values_.reserve(n);
        for (size_t i = 0; i < n; ++i) {
            const LDAPMod *mod = mods[i];
            size_t into = find(mod);
            if (into == records_.size()) {
                records_.push_back(*mod);
                values_.emplace_back();
            }
            append_values(mod, values_[into]);
        }
        for (size_t i = 0; i < records_.size(); ++i) {
            values_[i].push_back(nullptr);
            records_[i].mod_vals.modv_strvals = values_[i].data();
            list_.push_back(&records_[i]);
        }
        list_.push_back(nullptr);
    }
    LDAPMod **get() { return list_.data(); }

private:
    static bool binary(const LDAPMod *mod) { return (mod->mod_op & LDAP_MOD_BVALUES) != 0; }
    // A value array holds char * or struct berval * as its caller wrote
    // them: each is copied as bytes, never read as the other pointer type,
    // which the optimiser may assume no store of the first kind changes.
    static void append_values(const LDAPMod *mod, std::vector<char *> &out) {
        const auto *bytes = reinterpret_cast<const unsigned char *>(mod->mod_vals.modv_strvals);
        if (bytes == nullptr) return;
        for (;; bytes += sizeof(char *)) {
            char *value;
            std::memcpy(&value, bytes, sizeof value);
            if (value == nullptr) return;
            out.push_back(value);
        }
    }
    size_t find(const LDAPMod *mod) const {
        for (size_t i = 0; i < records_.size(); ++i) {
            const LDAPMod &seen = records_[i];
            if (seen.mod_op == mod->mod_op && binary(&seen) == binary(mod) && seen.mod_type != nullptr &&
                mod->mod_type != nullptr && strcasecmp(seen.mod_type, mod->mod_type) == 0)
                return i;
        }
        return records_.size();
    }

    std::vector<LDAPMod> records_;
    std::vector<std::vector<char *>> values_;
    std::vector<LDAPMod *> list_;
};

}  // namespace

int classic_result(int rc) {
    if (rc >= 0) return rc;
    // OpenLDAP's client codes run from -1 to about -17; anything below the
    // range that 80 - rc can represent is reported as "other" (80).
    if (rc < 80 - INT_MAX) return LDAP_OTHER;
    return 80 - rc;
}

LDAP *open_handle(const char *host, int port, bool ssl) {
    std::string uris;
    if (!build_uris(host, port, ssl, uris)) return nullptr;
    LDAP *ld = nullptr;
    if (::ldap_initialize(&ld, uris.c_str()) != LDAP_SUCCESS) return nullptr;
    if (ldap_set_referrals(ld, false, nullptr) != LDAP_SUCCESS || !send_without_sigpipe(ld)) {
        ::ldap_unbind_ext(ld, nullptr, nullptr);
        return nullptr;
    }
    return ld;
}

int ldap_unbind(LDAP *ld) {
    if (ld == nullptr) return kParamError;
    set_recovery(ld, nullptr);   // the address may come back for another handle
    return classic_result(::ldap_unbind_ext(ld, nullptr, nullptr));
}

LDAP *ldap_init(const char *host, int port) {
    return open_handle(host, port, false);
}

int ldap_set_referrals(LDAP *ld, bool chase, bool *previous) {
    if (ld == nullptr) return kParamError;
    if (previous != nullptr) {
        int was = 0;   // libldap reports the setting as an int
        int rc = ::ldap_get_option(ld, LDAP_OPT_REFERRALS, &was);
        if (rc != LDAP_OPT_SUCCESS) return classic_result(rc);
        *previous = was != 0;
    }
    return classic_result(::ldap_set_option(ld, LDAP_OPT_REFERRALS, chase ? LDAP_OPT_ON : LDAP_OPT_OFF));
}

int ldap_drop(LDAP *ld) {
    if (ld == nullptr) return kParamError;
    set_recovery(ld, nullptr);
    int fd = -1;
    if (::ldap_get_option(ld, LDAP_OPT_DESC, &fd) == LDAP_OPT_SUCCESS && fd >= 0) {
        struct linger reset = {1, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    }
    return classic_result(::ldap_unbind_ext(ld, nullptr, nullptr));
}

int ldap_whoami(LDAP *ld, std::string &identity) {
    identity.clear();
    if (ld == nullptr) return kParamError;
    struct berval *authzid = nullptr;
    int rc = ::ldap_whoami_s(ld, &authzid, nullptr, nullptr);
    if (rc == LDAP_SUCCESS && authzid != nullptr && authzid->bv_val != nullptr)
        identity.assign(authzid->bv_val, authzid->bv_len);
    if (authzid != nullptr) ::ber_bvfree(authzid);
    return classic_result(rc);
}

std::string connection_uri(LDAP *ld) {
    LdapText uri;
    if (ld == nullptr || ::ldap_get_option(ld, LDAP_OPT_URI, &uri.text) != LDAP_OPT_SUCCESS || uri.text == nullptr)
        return {};
    return uri.text;
}

namespace {

// One search on its attempts (see Attempts).
[[gnu::always_inline]] inline int search_on(LDAP *ld, const char *base, int scope, const char *filter,
                                            char **attrs, int attrsonly, LDAPControl **serverctrls,
                                            LDAPControl **clientctrls, struct timeval *timeout, int sizelimit,
                                            LDAPMessage **res) {
    Attempts attempts(ld, Request::Read);
    int rc = 0;
    for (LDAP *handle = attempts.first(rc); handle != nullptr; handle = attempts.next(rc, res)) {
        rc = classic_result(::ldap_search_ext_s(handle, base, scope, filter, attrs, attrsonly, serverctrls,
                                                clientctrls, timeout, sizelimit, res));
        // The library asks for a size limit of 2 to tell one match from several
        // and counts what arrived; a search cut at that limit is not a failure.
        // One cut shorter by the server's own limit stays a failure: two matches
        // arriving as one must not read as a unique match.
        if (rc == LDAP_SIZELIMIT_EXCEEDED && sizelimit > 0 && res != nullptr && *res != nullptr &&
            ldap_count_entries(handle, *res) == sizelimit)
            rc = LDAP_SUCCESS;
    }
    return rc;
}

}  // namespace

// A null handle is refused here: OpenLDAP asserts on it or dereferences it.

int ldap_search_ext_s(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                      int attrsonly, LDAPControl **serverctrls, LDAPControl **clientctrls,
                      struct timeval *timeout, int sizelimit, LDAPMessage **res) {
    if (ld == nullptr) return kParamError;
    // A zero time-out means "no limit"; OpenLDAP would refuse it.
    if (timeout != nullptr && timeout->tv_sec == 0 && timeout->tv_usec == 0) timeout = nullptr;
    return search_on(ld, base, scope, filter, attrs, attrsonly, serverctrls, clientctrls, timeout, sizelimit, res);
}

int ldap_search_plain(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
                      int sizelimit, LDAPMessage **res) {
    if (ld == nullptr) return kParamError;
    return search_on(ld, base, scope, filter, attrs, attrsonly, nullptr, nullptr, nullptr, sizelimit, res);
}

int ldap_add_ext_s(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **serverctrls,
                   LDAPControl **clientctrls) {
    if (ld == nullptr) return kParamError;
    std::optional<MergedAdd> merged;
    if (mods != nullptr) merged.emplace(mods);
    LDAPMod **sent = merged ? merged->get() : mods;
    return write_with_recovery(ld, [&](LDAP *handle) {
        return classic_result(::ldap_add_ext_s(handle, dn, sent, serverctrls, clientctrls));
    });
}

int ldap_modify_ext_s(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **serverctrls,
                      LDAPControl **clientctrls) {
    if (ld == nullptr) return kParamError;
    return write_with_recovery(ld, [&](LDAP *handle) {
        return classic_result(::ldap_modify_ext_s(handle, dn, mods, serverctrls, clientctrls));
    });
}

int ldap_modify_s(LDAP *ld, const char *dn, LDAPMod **mods) {
    if (ld == nullptr) return kParamError;
    return write_with_recovery(ld, [&](LDAP *handle) { return classic_result(::ldap_modify_s(handle, dn, mods)); });
}

int ldap_delete_ext_s(LDAP *ld, const char *dn, LDAPControl **serverctrls,
                      LDAPControl **clientctrls) {
    if (ld == nullptr) return kParamError;
    return write_with_recovery(ld, [&](LDAP *handle) {
        return classic_result(::ldap_delete_ext_s(handle, dn, serverctrls, clientctrls));
    });
}

int ldap_simple_bind_s(LDAP *ld, const char *dn, const char *password) {
    if (ld == nullptr) return kParamError;
    return bind_with_recovery(ld, [&](LDAP *handle) { return classic_result(::ldap_simple_bind_s(handle, dn, password)); });
}

// ---- GSSAPI sign-on ------------------------------------------------------
namespace {

// The SASL library asks for the authorisation identity and the like; the
// defaults (the ticket's own principal) are what a sign-on means.
int take_sasl_defaults(LDAP *, unsigned, void *, void *prompts) {
    for (auto *p = static_cast<sasl_interact_t *>(prompts); p->id != SASL_CB_LIST_END; ++p) {
        p->result = p->defresult ? p->defresult : "";
        p->len = static_cast<unsigned>(std::strlen(static_cast<const char *>(p->result)));
    }
    return LDAP_SUCCESS;
}

}  // namespace

int ldap_sasl_bind_s(LDAP *ld, const char *dn, const char *mechanism, struct berval *cred,
                     LDAPControl **serverctrls, LDAPControl **clientctrls,
                     struct berval **servercredp) {
    if (ld == nullptr) return kParamError;
    return bind_with_recovery(ld, [&](LDAP *handle) {
        int rc = ::ldap_sasl_bind_s(handle, dn, mechanism, cred, serverctrls, clientctrls, servercredp);
        // A GSSAPI bind without a token of the caller's only opens the exchange
        // (the server answers "in progress" and waits for the ticket): carry it
        // through with the SASL library and the caller's Kerberos credentials.
        if (rc == LDAP_SASL_BIND_IN_PROGRESS && cred == nullptr && mechanism != nullptr &&
            strcasecmp(mechanism, "GSSAPI") == 0) {
            if (servercredp && *servercredp) {
                ber_bvfree(*servercredp);
                *servercredp = nullptr;
            }
            rc = ::ldap_sasl_interactive_bind_s(handle, dn, mechanism, serverctrls, clientctrls, LDAP_SASL_QUIET,
                                                take_sasl_defaults, nullptr);
        }
        return classic_result(rc);
    });
}
// ---- end of GSSAPI sign-on -----------------------------------------------

}  // namespace zel::platform
