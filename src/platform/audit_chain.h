// The audit trail's chain: how a line is sealed, and how a file of lines is
// checked.  The library seals and checks; zelctl asks it through the public
// interface.
//
// A line is one JSON object on one line:
//
//   {"seq":N,<fields>,"hash":"<64 hex digits>"}     without a trail key
//   {"seq":N,<fields>,"mac":"<64 hex digits>"}      under a trail key
//
// seq counts the lines of the trail from 1.  The seal is BLAKE2b-256 over the
// previous line's seal (32 zero bytes before line 1) followed by the line's
// own text up to, not including, the seal's field; under a trail key it is
// keyed with it.  Changing, removing or inserting a line breaks the chain at
// that line.  An unkeyed chain can be forged whole by whoever may rewrite the
// file; a keyed one only by whoever holds the key.  Neither shows a cut end:
// compare with a head kept elsewhere (the syslog checkpoints, `audit head`).
//
// A writer that finds the last line torn (no newline: a write that died half
// way) ends it and seals a repair line after the last whole line:
//
//   {"seq":N,...,"op":"trail repaired","torn":<bytes of the torn line>,...}
//
// so the chain goes on; verification reports the damage.
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
    bool keyed = false;  // sealed with "mac" under a trail key
};

// The trail key: the active key of the key file ZEL_AUDIT_KEY names (the
// format of key_file.h); null for an unkeyed trail.
struct AuditKey {
    unsigned char bytes[kAuditHashBytes];
};

// The seq and hash a sealed line carries; false when the line does not have
// the sealed shape (the hash is not checked).
bool read_audit_link(std::string_view line, AuditLink &out);

// The line that follows `prev`: `fields` are the JSON members after seq,
// without braces or a leading comma.  The result ends in a newline; `next`
// becomes the new line's link.
std::string seal_audit_line(const AuditLink &prev, std::string_view fields, AuditLink &next,
                            const AuditKey *key = nullptr);

// "<seq>:<64 hex digits>", the head `audit verify --expect` compares with;
// "0:" before the first line.
std::string audit_head_text(const AuditLink &link);

enum class AuditFault { None, Changed, Removed, Inserted, Unreadable, Unkeyed, NeedsKey, Torn, CutShort, Differs };

struct AuditCheck {
    AuditFault fault = AuditFault::None;
    uint64_t line = 0;   // the first line (from 1) where the chain breaks; lines read when intact
    uint64_t lines = 0;  // lines read
    uint64_t torn = 0;   // the first torn line sealed over by a repair line, 0 when none
    AuditLink head;      // the last line's link
};

// Walks a trail from its first line.  A line is Inserted when the line after
// it carries on from the line before it, and Removed when its seq skips
// ahead; any other break is Changed.  A last line without its newline is a
// torn write and counts as Changed; one sealed over by a repair line is Torn
// (reported after the rest checks out).  With a key every line must be keyed
// (Unkeyed names the first that is not); without one a keyed line cannot be
// checked (NeedsKey).  With `expect` (a head text) the trail must hold that
// line with that seal: CutShort when it ends before, Differs when the line
// there is another.  Unreadable: the file could not be read.
AuditCheck check_audit_trail(std::FILE *trail, const AuditKey *key = nullptr, const char *expect = nullptr);

const char *audit_fault_text(AuditFault fault);

}  // namespace zel::platform
