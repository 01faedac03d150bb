// Every directory search the benchmark program makes passes here (the
// program is linked with --wrap=ldap_search_ext_s): searches are counted per
// thread, and while a recording is on, what was asked is kept so the raw side
// can issue the very same searches.
#pragma once

#ifndef LDAP_DEPRECATED
#define LDAP_DEPRECATED 1
#endif
#include <ldap.h>

#include <string>
#include <vector>

namespace zelbench {

struct Search {
    std::string base;
    int scope = 0;
    std::string filter;
    std::vector<std::string> attrs;
    bool all_attrs = true;  // no attribute list
    int attrsonly = 0;
    int sizelimit = 0;
};

// Searches made by this thread so far.
long searches_made();
// Keeps every search this thread makes until stop_recording().
void start_recording();
std::vector<Search> stop_recording();

// The directory client's own search, past the counter.
int raw_search(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
               int sizelimit, LDAPMessage **res);

}  // namespace zelbench
