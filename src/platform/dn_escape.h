// A caller's text placed into a DN as an attribute value is escaped, so a
// name can never add an RDN or change the entry's place in the tree.
#pragma once

#include <string>
#include <string_view>

namespace zel::platform {

// RFC 4514 escaping of one attribute value: '"' '+' ',' ';' '<' '>' '\' '='
// get a backslash, and so does a leading ' ' or '#' and a trailing ' '; a
// control byte (NUL, tab, line break, DEL, ...) becomes two hex digits, as
// in \00.  Every other byte, UTF-8 included, stands as it is.  Text without
// special characters comes back unchanged.  Throws std::bad_alloc.
std::string escape_dn_value(std::string_view value);

// Whether `value` stands as it is both as a DN value (escape_dn_value gives
// it back) and in a filter.
bool plain_in_dn_and_filter(std::string_view value);

// A DN whose first RDN is one type=value pair with nothing that a DN
// escapes, quotes or trims, as a server writes an RDN whose value needs no
// escaping: that RDN's type and value as they stand in `dn`, and the text of
// its parent.  False for any other DN, which the caller then parses in full.
bool plain_first_rdn(const char *dn, std::string_view &type, std::string_view &value, const char *&parent);

// The text of a DN's parent as it stands after the first RDN's ','; null
// for a DN of one RDN and for one whose first RDN quotes (the LDAPv2 form,
// which the caller then parses in full).
const char *dn_parent(const char *dn);

// Whether `dn` is `base` or lies below it, told from the text alone: `dn`
// ends with `base` after an RDN's ','.  Texts that spell one DN two ways
// are told apart, never taken for one another.
bool dn_text_within(std::string_view dn, std::string_view base);

}  // namespace zel::platform
