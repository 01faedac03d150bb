// Appending to an audit trail file that several processes share.
#pragma once

#include <string_view>

#include "platform/audit_chain.h"
#include "platform/key_file.h"

namespace zel::platform {

// Seals `fields` (see audit_chain.h) onto the chain the file's last line ends
// and appends the line, all under an exclusive lock on the file, so that
// processes appending at once still form one chain; `written` (when given)
// gets the new line's link.  The file is made with mode 0600 if missing.
//
// Answers 0, or the errno of the step that failed: ELOOP the path is a
// symbolic link, EPERM the file may be written by group or others or belongs
// to another user than the caller or root (whoever can write it can rewrite
// the trail), ENOTSUP it is no regular file,
// EBADMSG the last whole line is not a sealed line, EFBIG the file size
// limit was reached (the signal that limit raises is held back, never fatal
// to the caller).  A line that could be written only in part is cut off
// again, so the file holds whole lines; a torn line found at the end (a
// writer died half way) is ended and sealed over by a repair line first.
int append_audit_line(const char *path, std::string_view fields, const AuditKey *key = nullptr,
                      AuditLink *written = nullptr);

// The trail key: the active key of the key file ZEL_AUDIT_KEY names.  absent
// when the variable is unset or empty, refused when the file cannot be used
// (read_key_file's checks); `key` is set only when usable.
KeyFileState read_configured_audit_key(AuditKey &key);

}  // namespace zel::platform
