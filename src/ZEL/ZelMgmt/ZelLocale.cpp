// Locale of the directory client and release of texts the library handed out.
#include <cstdlib>
#include <cstring>

#include "zel_internal.h"

extern "C" {

ZEL_API char *Zel_get_locale(void) {
    char *client = plat::ldap_get_locale();
    if (client == nullptr) return nullptr;
    char *copy = strdup(client);
    ldap_memfree(client);
    return copy;
}

ZEL_API int Zel_set_locale(const char *locale) { return plat::ldap_set_locale(locale); }

ZEL_API void Zel_memfree(void *p) { std::free(p); }

}  // extern "C"
