// Case-insensitive comparison and substring search of UTF-8 text.
//
// Valid UTF-8 is compared after full Unicode case folding (so "STRASSE"
// equals "straße"); if either side is not valid UTF-8 the two are compared
// byte by byte with ASCII letters folded.  Null pointers sort before any text.
#pragma once

namespace zel::platform {

using Utf8Handle = const void *;

// The handle for the UTF-8 code page; never null.
Utf8Handle zgetUTF8Handle();
// 0 when equal ignoring case, <0 or >0 otherwise.
int zstricmp(Utf8Handle h, const char *a, const char *b);
// 0 when equal as the directory matches names: ignoring case as zstricmp
// does and ignoring insignificant spaces (leading and trailing ones, and the
// length of a run of spaces inside).
int zstricmp_spaced(Utf8Handle h, const char *a, const char *b);
// The first occurrence of needle in haystack ignoring case (as zstricmp
// compares, on whole code points), or null.
const char *zstrstr(Utf8Handle h, const char *haystack, const char *needle);

}  // namespace zel::platform
