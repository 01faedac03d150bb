// Formatted print into newly allocated text (free it with free()).
//
// Conversions: %s (text, "(null)" for null), %Q (text quoted as an LDAP
// filter value, see below; a null value gives null), %d %i %u %x (int /
// unsigned), %c (a NUL character gives null) and %%.  Anything else, flags
// and widths included, or an allocation failure, gives null.
//
// Quoting (RFC 4515): '*', '(', ')', '\' and NUL become \2A \28 \29 \5C \00
// (hex digits upper case); every other byte, UTF-8 included, stands as it
// is, so a value's quoted form is as long as the value unless it holds one
// of those five.  The server compares the unescaped octets either way.
#pragma once

#include <string>
#include <string_view>

namespace zel::platform {

char *ku_mbs_sprintf(const char *format, ...);

// The quoting %Q applies, for values that may hold NUL bytes.  Throws
// std::bad_alloc.
std::string escape_filter_value(std::string_view value);
// The same added to the end of `out`.
void append_filter_value(std::string &out, std::string_view value);
// Whether the quoting leaves `value` as it is.
bool filter_value_is_plain(std::string_view value);

}  // namespace zel::platform
