// Formatted print into newly allocated text (free it with free()).
//
// Conversions: %s (text, "(null)" for null), %Q (text quoted as an LDAP
// filter value, see below; a null value gives null), %d %i %u %x (int /
// unsigned), %c (a NUL character gives null) and %%.  Anything else, flags
// and widths included, or an allocation failure, gives null.
//
// Quoting is OpenLDAP's (ldap_bv2escaped_filter_value): '*', '(', ')', '\'
// and NUL become \2A \28 \29 \5C \00, and so do every other control byte,
// DEL and every byte from 0x80 up ("ä" = C3 A4 becomes \C3\A4).  Hex digits
// are upper case.  Escaping a byte never changes what a filter matches: the
// server compares the unescaped octets, so UTF-8 values match as themselves.
#pragma once

#include <string>
#include <string_view>

namespace zel::platform {

char *ku_mbs_sprintf(const char *format, ...);

// The quoting %Q applies, for values that may hold NUL bytes.  Throws
// std::bad_alloc.
std::string escape_filter_value(std::string_view value);

}  // namespace zel::platform
