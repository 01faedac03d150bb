#include "platform/audit_chain.h"

#include <sodium.h>
#include <sys/types.h>

#include <cstdlib>
#include <cstring>
#include <memory>

namespace zel::platform {
namespace {

constexpr std::string_view kHead = "{\"seq\":";
constexpr std::string_view kHashField = ",\"hash\":\"";
constexpr std::string_view kTail = "\"}";
constexpr size_t kHexDigits = 2 * kAuditHashBytes;
constexpr size_t kSealSize = kHashField.size() + kHexDigits + kTail.size();

std::array<unsigned char, kAuditHashBytes> chain_hash(const AuditLink &prev, std::string_view body) {
    std::array<unsigned char, kAuditHashBytes> out{};
    crypto_generichash_state state;
    crypto_generichash_init(&state, nullptr, 0, out.size());
    crypto_generichash_update(&state, prev.hash.data(), prev.hash.size());
    crypto_generichash_update(&state, reinterpret_cast<const unsigned char *>(body.data()), body.size());
    crypto_generichash_final(&state, out.data(), out.size());
    return out;
}

bool is_lower_hex(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); }

// Whether `line` is the sealed line that follows `prev`; its link in `out`.
bool follows(const AuditLink &prev, std::string_view line, AuditLink &out) {
    return read_audit_link(line, out) && out.seq == prev.seq + 1 &&
           chain_hash(prev, line.substr(0, line.size() - kSealSize)) == out.hash;
}

struct LineFree { void operator()(char *p) const { std::free(p); } };

// One line of the trail without its newline; `whole` says whether it had one.
class LineReader {
public:
    explicit LineReader(std::FILE *f) : f_(f) {}
    bool next(std::string &line, bool &whole) {
        char *raw = buf_.release();
        ssize_t n = ::getline(&raw, &cap_, f_);
        buf_.reset(raw);
        if (n < 0) {
            failed_ = std::ferror(f_) != 0;
            return false;
        }
        whole = n > 0 && raw[n - 1] == '\n';
        line.assign(raw, static_cast<size_t>(n) - (whole ? 1 : 0));
        return true;
    }
    bool failed() const { return failed_; }

private:
    std::FILE *f_;
    std::unique_ptr<char, LineFree> buf_;
    size_t cap_ = 0;
    bool failed_ = false;
};

}  // namespace

bool read_audit_link(std::string_view line, AuditLink &out) {
    if (line.size() < kHead.size() + 2 + kSealSize || line.substr(0, kHead.size()) != kHead) return false;
    std::string_view seal = line.substr(line.size() - kSealSize);
    if (seal.substr(0, kHashField.size()) != kHashField || seal.substr(seal.size() - kTail.size()) != kTail)
        return false;
    std::string_view hex = seal.substr(kHashField.size(), kHexDigits);
    for (char c : hex)
        if (!is_lower_hex(c)) return false;
    uint64_t seq = 0;
    size_t i = kHead.size(), digits = 0;
    for (; i < line.size() && line[i] >= '0' && line[i] <= '9'; ++i, ++digits) {
        if (seq > (UINT64_MAX - 9) / 10) return false;
        seq = seq * 10 + static_cast<uint64_t>(line[i] - '0');
    }
    if (digits == 0 || i >= line.size() || line[i] != ',') return false;
    if (sodium_hex2bin(out.hash.data(), out.hash.size(), hex.data(), hex.size(), nullptr, nullptr, nullptr) != 0)
        return false;
    out.seq = seq;
    return true;
}

std::string seal_audit_line(const AuditLink &prev, std::string_view fields, AuditLink &next) {
    std::string line;
    line.reserve(kHead.size() + 21 + fields.size() + kSealSize + 1);
    line.append(kHead).append(std::to_string(prev.seq + 1)).append(",").append(fields);
    next.seq = prev.seq + 1;
    next.hash = chain_hash(prev, line);
    char hex[kHexDigits + 1];
    sodium_bin2hex(hex, sizeof hex, next.hash.data(), next.hash.size());
    line.append(kHashField).append(hex, kHexDigits).append(kTail).append("\n");
    return line;
}

AuditCheck check_audit_trail(std::FILE *trail) {
    LineReader reader(trail);
    AuditLink prev;
    std::string cur, next;
    bool cur_whole = false, next_whole = false;
    bool have_cur = reader.next(cur, cur_whole);
    uint64_t n = 0;
    while (have_cur) {
        ++n;
        bool have_next = reader.next(next, next_whole);
        AuditLink link;
        if (cur_whole && follows(prev, cur, link)) {
            prev = link;
            cur.swap(next);
            cur_whole = next_whole;
            have_cur = have_next;
            continue;
        }
        AuditLink after;
        if (have_next && next_whole && follows(prev, next, after)) return {AuditFault::Inserted, n};
        if (read_audit_link(cur, link)) {
            if (link.seq > prev.seq + 1) return {AuditFault::Removed, n};
            if (link.seq <= prev.seq) return {AuditFault::Inserted, n};
        }
        return {AuditFault::Changed, n};
    }
    if (reader.failed()) return {AuditFault::Unreadable, n};
    return {AuditFault::None, n};
}

const char *audit_fault_text(AuditFault fault) {
    switch (fault) {
    case AuditFault::None: return "intact";
    case AuditFault::Changed: return "changed";
    case AuditFault::Removed: return "follows a removed line";
    case AuditFault::Inserted: return "inserted";
    case AuditFault::Unreadable: return "unreadable";
    }
    return "unknown";
}

}  // namespace zel::platform
