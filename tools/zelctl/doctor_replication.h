// What a replicated directory can leave behind that grants or withholds
// rights: replication conflict entries, and access-group memberships that
// the members' profiles do not call for.  doctor reports them; `user
// regroup` puts the memberships back in line with the profiles' types.
#pragma once

#include <ldap.h>

#include <string>
#include <vector>

#include "zelctl.h"

namespace zelctl {

struct ReplicationFinding {
    const char *check;
    bool danger, warning;  // neither: ok
    std::string text, fix;
};

// The findings for doctor, asked of `ld` below the suffixes; conflict entries
// are looked for on directories of the Netscape kind only.
std::vector<ReplicationFinding> replication_findings(LDAP *ld, const std::vector<std::string> &suffixes,
                                                     int32_t dir_kind);

// zelctl user regroup [--dry-run]
int run_user_regroup(const Options &opts, Args args);

}  // namespace zelctl
