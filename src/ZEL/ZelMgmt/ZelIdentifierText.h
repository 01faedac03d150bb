// Splitting stored identifier text, shared with the fuzz targets.
#pragma once

#include "zelmgmt.h"

namespace zel {

// A stored identifier is "name=value".  Runs of '=' separate the words: the
// first word is the name, the second the value, anything after is dropped.
// Fills the pair with newly allocated text (unset words stay null); 1012
// when memory runs out.
ZelRC split_identifier(const char *stored, ZelReqIdentifier *pair);

}  // namespace zel
