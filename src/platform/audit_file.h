// Appending to an audit trail file that several processes share.
#pragma once

#include <string_view>

namespace zel::platform {

// Seals `fields` (see audit_chain.h) onto the chain the file's last line ends
// and appends the line, all under an exclusive lock on the file, so that
// processes appending at once still form one chain.  The file is made with
// mode 0600 if missing.  Answers 0, or the errno of the step that failed
// (EBADMSG: the last line is not a sealed line).  A line that could be
// written only in part is cut off again, so the file holds whole lines.
int append_audit_line(const char *path, std::string_view fields);

}  // namespace zel::platform
