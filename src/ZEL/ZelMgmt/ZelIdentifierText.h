// Splitting outside text into names: service identifiers, first-generation
// domain members, member DNs, Kerberos principals and group credential DNs.
// Shared with the fuzz targets.
#pragma once

#include <string>

#include "zelmgmt.h"

namespace zel {

// A stored identifier is "name=value".  Runs of '=' separate the words: the
// first word is the name, the second the value, anything after is dropped.
// Fills the pair with newly allocated text (unset words stay null); 1012
// when memory runs out.
ZelRC split_identifier(const char *stored, ZelReqIdentifier *pair);

// A first-generation domain member, "<prefix>:<name>" with runs of ':' one
// separator.  Everything after the separator is the name, so a name holding
// ':' reads back whole.  An unknown or missing prefix leaves both fields null.
ZelRC split_target_location(const char *stored, ZelDomainLocation *loc);

// A member is the DN of a service's entry; its name is the value of the first
// RDN, unescaped.  A value that is no DN is cut as text: after the first
// '=', up to the next ','.  `out` stays null when there is no name.
ZelRC member_service_name(const char *member, char *&out);

// "name@realm": at signs before the name and before the realm are skipped,
// anything after a further at sign is ignored; no realm leaves `realm`
// empty.  False when there is no name.
bool split_principal(const char *principal, std::string &name, std::string &realm);

// The group a "G:<group>" record's DN is for: the second ":" word of its
// first RDN value, "" when there is none; 1000 for text that is no DN.
ZelRC credential_group(const char *dn, std::string &group);

}  // namespace zel
