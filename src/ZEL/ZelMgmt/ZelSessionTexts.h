// Filter pieces made from what a session was opened on, its security
// domain's name and DN.  Neither changes while the session lives, so each
// piece is escaped once per session instead of once per call.
#pragma once

#include <string>

#include "ZelSession.h"

namespace zel {

struct SessionTexts {
    // ")(secAuthority=<domain name>:))": closes a domain user's filter.
    std::string domain_user_tail;
    // ",cn=Resources,<domain DN>)": closes a resource's member filter.
    std::string resource_tail;
};

// Makes the session's pieces (see session_texts).
const SessionTexts &make_session_texts(ZelSession *s);

// The session's pieces, made on first use.  A session without a domain
// name has an empty domain_user_tail.
inline const SessionTexts &session_texts(ZelSession *s) { return s->texts ? *s->texts : make_session_texts(s); }
// Drops the pieces: when the domain is looked up again, and at close.
void forget_session_texts(ZelSession *s);

}  // namespace zel
