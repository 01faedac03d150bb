// The timed read operations.  See operations.h.
#include "operations.h"

#include <cstdio>
#include <cstring>

#include <strings.h>

namespace zelbench {

namespace {

// A stored password read through the public call, as the library reads it
// for an answer; the clear text is wiped and released at once.  False when
// it cannot be opened.
bool open_password(const berval &stored) {
    char *clear = nullptr;
    if (Zel_unsealPassword(stored.bv_val, &clear) != 0 || clear == nullptr) return false;
    std::memset(clear, 0, std::strlen(clear));
    Zel_memfree(clear);
    return true;
}

bool credential(ZelSession *s, const Sample &x, const std::string &resource, ZelRC want) {
    ZelCredentialRequest req{nullptr, nullptr, const_cast<char *>(resource.c_str())};
    ZelCredential c{};
    ZelRC rc = Zel_getCredential(s, x.user.c_str(), &req, &c);
    Zel_memfree(c.userId);
    Zel_memfree(c.password);
    return rc == want;
}

}  // namespace

// A direct hit resolves the user (person by uid, then the Zel user by its
// DN) and reads the direct and group records in one search: 3.  Without a
// direct record the user's groups are asked about in one more search, which
// also looks for the Zel database's profile of the user (the bench users
// have none): 4; a miss asks the same.  A record is user resolution plus the
// record; a service and a user check are one search.
const std::vector<Operation> &operations() {
    static const std::vector<Operation> ops = {
        {"credential-direct", 3, true}, {"credential-group", 4, true}, {"credential-miss", 4, false},
        {"target-record", 3, true},     {"target-service", 1, false},  {"verify-user", 1, false},
    };
    return ops;
}

std::vector<Sample> samples(const Layout &layout, int count) {
    std::vector<Sample> out;
    for (int n = 0; n < count; ++n) {
        // Spread over the whole directory, not its first entries only.
        int u = static_cast<int>((static_cast<long long>(n) * 7919) % layout.users);
        out.push_back({user_name(u), service_name(layout.group_service(u)),
                       "T:" + service_name(layout.direct_service(u)), service_name(n % layout.services()),
                       person_dn(u)});
    }
    return out;
}

bool call_library(ZelSession *s, int op, const Sample &x) {
    switch (op) {
    case 0: return credential(s, x, x.target.substr(2), 0);
    case 1: return credential(s, x, x.resource, 0);
    case 2: return credential(s, x, "no-such-resource", ZEL_RC_TR_NOT_FOUND);
    case 3: {
        ZelTargetRecord *r = nullptr;
        ZelRC rc = Zel_getTargetRecord(s, x.user.c_str(), x.target.c_str(), &r);
        Zel_freeTargetRecord(r);
        return rc == 0;
    }
    case 4: {
        ZelTargetService *ts = nullptr;
        ZelRC rc = Zel_getTargetService(s, x.service.c_str(), &ts);
        Zel_freeTargetService(ts);
        return rc == 0;
    }
    case 5: {
        char *dn = nullptr;
        ZelRC rc = Zel_verifyZelUser(s, x.person.c_str(), &dn);
        Zel_memfree(dn);
        return rc == 1;  // 1: the person is a Zel user
    }
    }
    return false;
}

Replay::Replay(std::vector<Search> searches, bool opens_password)
    : searches_(std::move(searches)), opens_password_(opens_password) {
    for (Search &s : searches_) {
        std::vector<char *> list;
        for (std::string &a : s.attrs) list.push_back(a.data());
        list.push_back(nullptr);
        attrs_.push_back(std::move(list));
    }
}

namespace {

// Every value of an entry read in place (one list per attribute), as the
// library reads its entries; false on an entry it cannot decode.
bool read_in_place(LDAP *ld, LDAPMessage *e, int &to_open, bool &opened) {
    BerElement *ber = nullptr;
    berval dn{0, nullptr};
    if (ldap_get_dn_ber(ld, e, &ber, &dn) != LDAP_SUCCESS) {
        ber_free(ber, 0);
        return false;
    }
    for (;;) {
        berval name{0, nullptr};
        BerVarray values = nullptr;
        if (ldap_get_attribute_ber(ld, e, ber, &name, &values) != LDAP_SUCCESS || name.bv_val == nullptr) {
            ldap_memfree(values);
            break;
        }
        if (to_open && values && values[0].bv_val &&
            (strcasecmp(name.bv_val, "secAuthnData") == 0 || strcasecmp(name.bv_val, "secretKey") == 0)) {
            opened = open_password(values[0]);
            --to_open;
        }
        ldap_memfree(values);
    }
    ber_free(ber, 0);
    return true;
}

}  // namespace

bool raw_reads_in_place = false;

bool Replay::run(LDAP *ld) const {
    int to_open = opens_password_ ? 1 : 0;
    bool opened = true;
    for (size_t i = 0; i < searches_.size(); ++i) {
        const Search &s = searches_[i];
        LDAPMessage *res = nullptr;
        char **attrs = s.all_attrs ? nullptr : const_cast<char **>(attrs_[i].data());
        int rc = raw_search(ld, s.base.c_str(), s.scope, s.filter.c_str(), attrs, s.attrsonly, s.sizelimit, &res);
        if (rc != LDAP_SUCCESS && rc != LDAP_NO_SUCH_OBJECT && rc != LDAP_SIZELIMIT_EXCEEDED) {
            ldap_msgfree(res);
            return false;
        }
        for (LDAPMessage *e = ldap_first_entry(ld, res); e; e = ldap_next_entry(ld, e)) {
            if (raw_reads_in_place) {
                if (!read_in_place(ld, e, to_open, opened)) opened = false;
                continue;
            }
            BerElement *ber = nullptr;
            for (char *a = ldap_first_attribute(ld, e, &ber); a; a = ldap_next_attribute(ld, e, ber)) {
                berval **values = ldap_get_values_len(ld, e, a);
                // A caller after the same answer opens its stored password too.
                if (to_open && values && values[0] &&
                    (strcasecmp(a, "secAuthnData") == 0 || strcasecmp(a, "secretKey") == 0)) {
                    opened = open_password(*values[0]);
                    --to_open;
                }
                ldap_value_free_len(values);
                ldap_memfree(a);
            }
            ber_free(ber, 0);
        }
        ldap_msgfree(res);
    }
    return opened && to_open == 0;
}

ZelSession *open_session(int port) {
    ZelSession *s = nullptr;
    ZelRC rc = Zel_open_sec_domain(nullptr, kAdminDn, kAdminPassword, "127.0.0.1", static_cast<uint16_t>(port),
                                   ZEL_OPEN_NONSSL, nullptr, nullptr, nullptr, kDomain, &s, 2);
    if (rc != 0) std::fprintf(stderr, "zel_bench: open failed: %u\n", rc);
    return rc == 0 ? s : nullptr;
}

LDAP *open_raw(int port) {
    LDAP *ld = nullptr;
    std::string uri = "ldap://127.0.0.1:" + std::to_string(port);
    int version = LDAP_VERSION3;
    if (ldap_initialize(&ld, uri.c_str()) != LDAP_SUCCESS) return nullptr;
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    berval pw{std::strlen(kAdminPassword), const_cast<char *>(kAdminPassword)};
    if (ldap_sasl_bind_s(ld, kAdminDn, LDAP_SASL_SIMPLE, &pw, nullptr, nullptr, nullptr) != LDAP_SUCCESS) {
        ldap_unbind_ext(ld, nullptr, nullptr);
        return nullptr;
    }
    return ld;
}

}  // namespace zelbench
