// Filter pieces and DNs that a session's reads would otherwise build on
// every call.  Most are made of what the session was opened on, its security
// domain's name and DN, which do not change while it lives: each is escaped
// or parsed once per session.  The Zel database's group container is made
// again when the database's DN changes.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "ZelSession.h"

namespace zel {

// A container of resource groups, "<prefix><base>", with its RDNs as
// (type, value) pairs, first RDN first.
struct GroupContainer {
    bool made = false;
    std::string base;  // the DN it was made below
    std::string dn;
    std::vector<std::pair<std::string, std::string>> rdns;
    bool ok = false;   // the DN parsed, each RDN one type=value pair
};

struct SessionTexts {
    // ")(secAuthority=<domain name>:))": closes a domain user's filter.
    std::string domain_user_tail;
    // ",cn=Resources,<domain DN>)": closes a resource's member filter.
    std::string resource_tail;
    // The containers of the security domain's resource groups and of the
    // Zel database's, the deepest DN both lie below (empty when none) and
    // whether they are one DN, as the credential query through groups makes
    // them.
    GroupContainer domain_groups, database_groups;
    std::string groups_common_base;
    bool same_group_containers = false;
    bool common_base_made = false;  // the two fields above are up to date
};

// Makes the session's pieces (see session_texts).
SessionTexts &make_session_texts(ZelSession *s);

// The session's pieces, made on first use.  A session without a domain
// name has an empty domain_user_tail.
inline SessionTexts &session_texts(ZelSession *s) { return s->texts ? *s->texts : make_session_texts(s); }
// Drops the pieces: when the domain is looked up again, and at close.
void forget_session_texts(ZelSession *s);

}  // namespace zel
