// The classic option numbers mapped onto OpenLDAP's, and the process-wide
// locale.  See ldap_client.h.
#include "platform/ldap_client_internal.h"

#include <lber.h>

#include <climits>
#include <cstdint>
#include <mutex>
#include <new>
#include <string>

namespace zel::platform {

namespace {

// The integer an option carries, passed as the caller says it is: by
// address (a pointer to an int) or as the value itself.
int option_integer(const void *value, OptionPassing passing, int &out) {
    if (passing == OptionPassing::ByAddress) {
        if (value == nullptr) return kParamError;
        out = *static_cast<const int *>(value);
        return LDAP_SUCCESS;
    }
    intptr_t raw = reinterpret_cast<intptr_t>(value);
    if (raw < INT_MIN || raw > INT_MAX) return kParamError;
    out = static_cast<int>(raw);
    return LDAP_SUCCESS;
}

struct LocaleState {
    std::mutex mutex;
    bool set = false;
    std::string name;
};

LocaleState &locale_state() {
    static LocaleState state;
    return state;
}

}  // namespace

// Classic option numbers and how each is carried out:
//
//   number  meaning            value                         OpenLDAP
//   0x11    protocol version   by address: int 2 or 3        LDAP_OPT_PROTOCOL_VERSION
//   0x02    alias dereference  by value: 0..3                LDAP_OPT_DEREF (same numbering)
//   0xE0    SSL time-out       null only                     none: no-op (the TLS
//                                                            handshake follows the
//                                                            network time-out)
//   0x03    size limit         either, as the caller says    LDAP_OPT_SIZELIMIT, the
//                                                            handle's default (every
//                                                            search passes its own)
//   0x01    descriptor         as 0x03                       none: read-only in OpenLDAP,
//   0x00    API information    as 0x03                       the value is read and ignored
//
// The caller states how the value is passed; the handle's state never
// decides it.  A passing an option does not take, other numbers, a null
// handle and out-of-range values are refused with 89 and nothing is set.
int ldap_set_option(LDAP *ld, int option, const void *value, OptionPassing passing) {
    if (ld == nullptr) return kParamError;
    switch (option) {
    case kOptProtocolVersion: {
        if (passing != OptionPassing::ByAddress || value == nullptr) return kParamError;
        int version = *static_cast<const int *>(value);
        if (version != LDAP_VERSION2 && version != LDAP_VERSION3) return kParamError;
        return classic_result(::ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version));
    }
    case kOptDeref: {
        if (passing != OptionPassing::ByValue) return kParamError;
        intptr_t deref = reinterpret_cast<intptr_t>(value);
        if (deref < LDAP_DEREF_NEVER || deref > LDAP_DEREF_ALWAYS) return kParamError;
        int setting = static_cast<int>(deref);
        return classic_result(::ldap_set_option(ld, LDAP_OPT_DEREF, &setting));
    }
    case kOptSslTimeout:
        return value == nullptr ? LDAP_SUCCESS : kParamError;
    case kOptSizeLimit: {
        int limit = 0;
        int rc = option_integer(value, passing, limit);
        if (rc != LDAP_SUCCESS) return rc;
        if (limit < 0) return kParamError;
        return classic_result(::ldap_set_option(ld, LDAP_OPT_SIZELIMIT, &limit));
    }
    case kOptDesc:
    case kOptApiInfo: {
        int ignored = 0;
        return option_integer(value, passing, ignored);
    }
    default:
        return kParamError;
    }
}

int ldap_set_locale(const char *locale) {
    if (locale == nullptr) return kParamError;
    LocaleState &state = locale_state();
    try {
        std::string copy(locale);
        std::lock_guard<std::mutex> lock(state.mutex);
        state.name.swap(copy);
        state.set = true;
    } catch (const std::bad_alloc &) {
        return kNoMemory;
    }
    return LDAP_SUCCESS;
}

char *ldap_get_locale() {
    LocaleState &state = locale_state();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.set) return nullptr;
    // ber_strdup so that the caller releases it with ldap_memfree.
    return ::ber_strdup(state.name.c_str());
}

}  // namespace zel::platform
