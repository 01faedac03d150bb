// The audit trail's chain: how a line is sealed, and how a file of lines is
// checked.  The library seals, `zelctl audit verify` checks; both use this.
//
// A line is one JSON object on one line:
//
//   {"seq":N,<fields>,"hash":"<64 hex digits>"}
//
// seq counts the lines of the trail from 1.  hash is BLAKE2b-256 over the
// previous line's hash (32 zero bytes before line 1) followed by the line's
// own text up to, not including, ",\"hash\":".  Changing, removing or
// inserting a line therefore breaks the chain at that line; the hash is not
// keyed, so whoever may rewrite the whole file from that line on can also
// forge it: keep a copy of the trail (or of its last hash) out of their reach.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace zel::platform {

constexpr size_t kAuditHashBytes = 32;

// Where a chain stands after a line: that line's number and hash.
struct AuditLink {
    uint64_t seq = 0;  // 0: no line yet
    std::array<unsigned char, kAuditHashBytes> hash{};
};

// The seq and hash a sealed line carries; false when the line does not have
// the sealed shape (the hash is not checked).
bool read_audit_link(std::string_view line, AuditLink &out);

// The line that follows `prev`: `fields` are the JSON members after seq,
// without braces or a leading comma.  The result ends in a newline; `next`
// becomes the new line's link.
std::string seal_audit_line(const AuditLink &prev, std::string_view fields, AuditLink &next);

enum class AuditFault { None, Changed, Removed, Inserted, Unreadable };

struct AuditCheck {
    AuditFault fault = AuditFault::None;
    uint64_t line = 0;   // the first line (from 1) where the chain breaks; lines read when intact
};

// Walks a trail from its first line.  A line is Inserted when the line after
// it carries on from the line before it, and Removed when its seq skips
// ahead; any other break is Changed.  A last line without its newline is a
// torn write and counts as Changed.  Unreadable: the file could not be read.
AuditCheck check_audit_trail(std::FILE *trail);

const char *audit_fault_text(AuditFault fault);

}  // namespace zel::platform
