// Locale of the directory client and release of texts the library handed out.
#include <cstdlib>
#include <cstring>

#include "ZelClient.h"
#include "ZelStatus.h"

extern "C" {

ZEL_API char *Zel_get_locale(void) {
    char *copy = nullptr;
    (void)zel::guarded([&]() -> ZelRC {
        char *client = plat::ldap_get_locale();
        if (client == nullptr) return 0;
        copy = strdup(client);
        ldap_memfree(client);
        return 0;
    });
    return copy;
}

// The client's own result, or 80 (other) when it could not be asked.
ZEL_API int Zel_set_locale(const char *locale) {
    int rc = LDAP_OTHER;
    (void)zel::guarded([&]() -> ZelRC {
        rc = plat::ldap_set_locale(locale);
        return 0;
    });
    return rc;
}

ZEL_API void Zel_memfree(void *p) { std::free(p); }

}  // extern "C"
