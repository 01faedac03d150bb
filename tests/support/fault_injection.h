// Link-time interposer over the directory calls and the C allocator.
//
// The test program is linked with -Wl,--wrap for the OpenLDAP calls the
// library makes and for calloc/malloc/realloc/strdup/strndup.  Every wrapped
// directory call is recorded (what was asked for and what came back); a test
// can make the Nth call of one function return a chosen result without
// reaching the directory, rewrite searches before they are sent, or make the
// Nth C allocation fail.  Nothing is faked unless a test asks for it.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace zeltest::fault {

enum class Fn { Search, Add, Modify, ModifyS, Delete, SimpleBind, SaslBind, Initialize, Unbind };
const char *name(Fn fn);

struct Mod {
    int op = 0;  // LDAP_MOD_* including LDAP_MOD_BVALUES
    std::string type;
    std::vector<std::string> values;  // binary values as raw bytes
};

struct Call {
    Fn fn{};
    std::string dn;            // base of a search, target of a write, bind DN, URI of an init
    int scope = -1;
    std::string filter;
    std::vector<std::string> attrs;
    bool attrs_null = true;    // no attribute list was passed
    int attrsonly = 0;
    int sizelimit = 0;
    bool timeout_null = true;
    std::vector<Mod> mods;
    std::string mechanism;     // SASL binds
    bool has_credentials = false;
    int result = 0;            // what the caller saw (OpenLDAP's own code)
};

// Clears recorded calls, planned failures and allocation faults.
void reset();

// The nth call (1-based, counted since reset) of fn returns result without
// reaching the directory.  A search then hands back no message.
void fail_call(Fn fn, int nth, int result);

// The nth search fails with a client-side result (server down, time-out),
// and so does the search a session of the library's re-sends after it has
// connected again.
inline void lose_connection_at_search(int nth, int result) {
    fail_call(Fn::Search, nth, result);
    fail_call(Fn::Search, nth + 1, result);
}

std::vector<Call> calls();
std::vector<Call> calls(Fn fn);
int count(Fn fn);

// Applied to every search before it is sent (base, scope and filter may be
// changed).  Survives reset(); pass nullptr to remove.
using SearchRewrite = std::function<void(std::string &base, int &scope, std::string &filter)>;
void set_search_rewrite(SearchRewrite rewrite);

// From now on, the nth allocation made by the test program (library code
// included, the directory client excluded) fails: a C allocation returns
// null, operator new throws std::bad_alloc.  0 disarms.
void fail_allocation(long nth);
// True once the planned allocation failure has happened.
bool allocation_failed();

}  // namespace zeltest::fault
