// zelctl doctor on AD: whether a readers grant (schema/ad-grant-readers.sh)
// is in place on the Zel entries.
#pragma once

#include <ldap.h>

#include <string>
#include <vector>

namespace zelctl {

struct AdReadersFinding {
    bool ok;
    std::string text;
    std::string fix;  // empty when nothing needs doing
};

// Reads the DACL of each security domain entry and Zel database entry below
// the suffixes and names the groups an inheritable read grant of the script's
// kind lets read it.
AdReadersFinding ad_readers_check(LDAP *ld, const std::vector<std::string> &suffixes);

}  // namespace zelctl
