// The search counter and recorder.  See search_log.h.
#include "search_log.h"

extern "C" {
int __real_ldap_search_ext_s(LDAP *, const char *, int, const char *, char **, int, LDAPControl **,
                             LDAPControl **, struct timeval *, int, LDAPMessage **);
int __wrap_ldap_search_ext_s(LDAP *, const char *, int, const char *, char **, int, LDAPControl **,
                             LDAPControl **, struct timeval *, int, LDAPMessage **);
}

namespace zelbench {

namespace {

thread_local long t_searches = 0;
thread_local std::vector<Search> *t_recording = nullptr;

}  // namespace

long searches_made() { return t_searches; }

void start_recording() {
    delete t_recording;
    t_recording = new std::vector<Search>;
}

std::vector<Search> stop_recording() {
    std::vector<Search> out;
    if (t_recording) out.swap(*t_recording);
    delete t_recording;
    t_recording = nullptr;
    return out;
}

int raw_search(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
               int sizelimit, LDAPMessage **res) {
    return __real_ldap_search_ext_s(ld, base, scope, filter, attrs, attrsonly, nullptr, nullptr, nullptr,
                                    sizelimit, res);
}

}  // namespace zelbench

using namespace zelbench;

int __wrap_ldap_search_ext_s(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                             int attrsonly, LDAPControl **sctrls, LDAPControl **cctrls, struct timeval *timeout,
                             int sizelimit, LDAPMessage **res) {
    ++t_searches;
    if (t_recording) {
        Search s;
        s.base = base ? base : "";
        s.scope = scope;
        s.filter = filter ? filter : "";
        s.all_attrs = attrs == nullptr;
        for (char **a = attrs; a && *a; ++a) s.attrs.emplace_back(*a);
        s.attrsonly = attrsonly;
        s.sizelimit = sizelimit;
        t_recording->push_back(std::move(s));
    }
    return __real_ldap_search_ext_s(ld, base, scope, filter, attrs, attrsonly, sctrls, cctrls, timeout, sizelimit,
                                    res);
}
