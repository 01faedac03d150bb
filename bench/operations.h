// The read operations the benchmark times, each as a library call and as the
// same searches issued raw through the directory client.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "dataset.h"
#include "search_log.h"
#include "zelmgmt.h"

namespace zelbench {

struct Operation {
    const char *name;
    // Searches the behaviour itself needs for one call.
    int required_searches;
    // Whether the answer holds a stored password, which the caller opens.
    bool answers_password;
};

// Credential direct / group / miss, target record, target service, user check.
const std::vector<Operation> &operations();

// One call's arguments, chosen from the directory layout.
struct Sample {
    std::string user, resource, target, service, person;
};
std::vector<Sample> samples(const Layout &layout, int count);

// The library call; false when it does not answer as the directory says it must.
bool call_library(ZelSession *s, int op, const Sample &sample);

// The recorded searches of one call with their attribute lists ready for the
// directory client.
class Replay {
public:
    // `opens_password`: the first stored password read is opened
    // (Zel_unsealPassword), as the library opens its answer's.
    Replay(std::vector<Search> searches, bool opens_password);
    // Issues each search and reads every value of every entry; false on a
    // failed search.
    bool run(LDAP *ld) const;
    size_t size() const { return searches_.size(); }

private:
    std::vector<Search> searches_;
    std::vector<std::vector<char *>> attrs_;
    bool opens_password_;
};

// How the raw side reads an entry's values: false (the default), through
// ldap_first_attribute and ldap_get_values_len, as most clients do; true,
// in place as the library does (ldap_get_dn_ber, ldap_get_attribute_ber).
extern bool raw_reads_in_place;

// A session / a bound raw connection as the administrator; null on failure.
ZelSession *open_session(int port);
LDAP *open_raw(int port);

}  // namespace zelbench
