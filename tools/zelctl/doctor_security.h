// doctor's checks of secrets outside the stored passwords: person passwords,
// the default administrator password, and the audit trail's file and key.
#pragma once

#include <ldap.h>

#include <string>
#include <vector>

#include "zelctl.h"

namespace zelctl {

struct SecurityFinding {
    const char *check;
    int verdict;  // 0 ok, 1 warning, 2 danger
    std::string text;
    std::string fix;
};

// `ld` is bound as the options say, `anonymous` and `user` may be null (no
// anonymous bind; no --user given).
std::vector<SecurityFinding> security_findings(const Options &opts, LDAP *ld, LDAP *anonymous, LDAP *user,
                                               const std::vector<std::string> &suffixes);

}  // namespace zelctl
