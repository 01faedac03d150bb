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
constexpr std::string_view kMacField = ",\"mac\":\"";
constexpr std::string_view kTail = "\"}";
constexpr std::string_view kRepair = ",\"op\":\"trail repaired\",\"torn\":";
constexpr size_t kHexDigits = 2 * kAuditHashBytes;

size_t seal_size(bool keyed) { return (keyed ? kMacField : kHashField).size() + kHexDigits + kTail.size(); }

std::array<unsigned char, kAuditHashBytes> chain_hash(const AuditLink &prev, std::string_view body,
                                                      const AuditKey *key) {
    std::array<unsigned char, kAuditHashBytes> out{};
    crypto_generichash_state state;
    crypto_generichash_init(&state, key ? key->bytes : nullptr, key ? sizeof key->bytes : 0, out.size());
    crypto_generichash_update(&state, prev.hash.data(), prev.hash.size());
    crypto_generichash_update(&state, reinterpret_cast<const unsigned char *>(body.data()), body.size());
    crypto_generichash_final(&state, out.data(), out.size());
    sodium_memzero(&state, sizeof state);
    return out;
}

bool is_lower_hex(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); }

// Whether `line` is the sealed line that follows `prev` under `key`; its link
// in `out`.
bool follows(const AuditLink &prev, std::string_view line, AuditLink &out, const AuditKey *key) {
    return read_audit_link(line, out) && out.seq == prev.seq + 1 && out.keyed == (key != nullptr) &&
           sodium_memcmp(chain_hash(prev, line.substr(0, line.size() - seal_size(out.keyed)), key).data(),
                         out.hash.data(), kAuditHashBytes) == 0;
}

// Whether `line` is a repair line that records a torn line of `torn` bytes.
bool repairs(std::string_view line, size_t torn) {
    size_t at = line.find(kRepair);
    if (at == std::string_view::npos) return false;
    at += kRepair.size();
    size_t end = at;
    while (end < line.size() && line[end] >= '0' && line[end] <= '9') ++end;
    return end > at && end - at < 20 && std::to_string(torn) == line.substr(at, end - at);
}

// "<seq>:<hex>" read back; false when it is not that shape.
bool parse_head(const char *text, AuditLink &out) {
    const char *colon = std::strchr(text, ':');
    if (colon == nullptr || colon == text) return false;
    uint64_t seq = 0;
    for (const char *p = text; p < colon; ++p) {
        if (*p < '0' || *p > '9' || seq > (UINT64_MAX - 9) / 10) return false;
        seq = seq * 10 + static_cast<uint64_t>(*p - '0');
    }
    out.seq = seq;
    if (seq == 0) return colon[1] == '\0';
    return std::strlen(colon + 1) == kHexDigits &&
           sodium_hex2bin(out.hash.data(), out.hash.size(), colon + 1, kHexDigits, nullptr, nullptr, nullptr) == 0;
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
    if (line.size() < kHead.size() + 2 + seal_size(false) || line.substr(0, kHead.size()) != kHead) return false;
    if (line.substr(line.size() - kTail.size()) != kTail) return false;
    const bool keyed = line.substr(line.size() - seal_size(true), kMacField.size()) == kMacField;
    std::string_view seal = line.substr(line.size() - seal_size(keyed));
    if (!keyed && seal.substr(0, kHashField.size()) != kHashField) return false;
    std::string_view hex = seal.substr((keyed ? kMacField : kHashField).size(), kHexDigits);
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
    out.keyed = keyed;
    return true;
}

std::string seal_audit_line(const AuditLink &prev, std::string_view fields, AuditLink &next, const AuditKey *key) {
    std::string line;
    line.reserve(kHead.size() + 21 + fields.size() + seal_size(true) + 1);
    line.append(kHead).append(std::to_string(prev.seq + 1)).append(",").append(fields);
    next.seq = prev.seq + 1;
    next.hash = chain_hash(prev, line, key);
    next.keyed = key != nullptr;
    char hex[kHexDigits + 1];
    sodium_bin2hex(hex, sizeof hex, next.hash.data(), next.hash.size());
    line.append(key ? kMacField : kHashField).append(hex, kHexDigits).append(kTail).append("\n");
    return line;
}

std::string audit_head_text(const AuditLink &link) {
    std::string text = std::to_string(link.seq) + ":";
    if (link.seq == 0) return text;
    char hex[kHexDigits + 1];
    sodium_bin2hex(hex, sizeof hex, link.hash.data(), link.hash.size());
    return text + hex;
}

AuditCheck check_audit_trail(std::FILE *trail, const AuditKey *key, const char *expect) {
    AuditLink wanted;
    if (expect != nullptr && !parse_head(expect, wanted)) return {AuditFault::Differs, 0, 0, 0, {}};
    bool wanted_seen = wanted.seq == 0;
    LineReader reader(trail);
    AuditLink prev;
    AuditCheck out;
    std::string cur, next;
    bool cur_whole = false, next_whole = false;
    bool have_cur = reader.next(cur, cur_whole);
    uint64_t n = 0;
    auto fail = [&](AuditFault fault, uint64_t line) {
        out.fault = fault;
        out.line = line;
        out.lines = n;
        out.head = prev;
        return out;
    };
    auto step = [&](const AuditLink &link) {
        prev = link;
        if (link.seq == wanted.seq && !wanted_seen) {
            if (sodium_memcmp(link.hash.data(), wanted.hash.data(), kAuditHashBytes) != 0) return false;
            wanted_seen = true;
        }
        return true;
    };
    while (have_cur) {
        ++n;
        bool have_next = reader.next(next, next_whole);
        AuditLink link, after;
        if (cur_whole && read_audit_link(cur, link) && link.keyed != (key != nullptr))
            return fail(key ? AuditFault::Unkeyed : AuditFault::NeedsKey, n);
        if (cur_whole && follows(prev, cur, link, key)) {
            if (!step(link)) return fail(AuditFault::Differs, n);
            cur.swap(next);
            cur_whole = next_whole;
            have_cur = have_next;
            continue;
        }
        // A torn line the next writer sealed over: noted, and the walk goes on.
        if (cur_whole && have_next && next_whole && follows(prev, next, after, key) && repairs(next, cur.size())) {
            if (out.torn == 0) out.torn = n;
            ++n;
            if (!step(after)) return fail(AuditFault::Differs, n);
            have_cur = reader.next(cur, cur_whole);
            continue;
        }
        if (have_next && next_whole && follows(prev, next, after, key)) return fail(AuditFault::Inserted, n);
        if (read_audit_link(cur, link)) {
            if (link.seq > prev.seq + 1) return fail(AuditFault::Removed, n);
            if (link.seq <= prev.seq) return fail(AuditFault::Inserted, n);
        }
        return fail(AuditFault::Changed, n);
    }
    if (reader.failed()) return fail(AuditFault::Unreadable, n);
    if (!wanted_seen) return fail(wanted.seq > prev.seq ? AuditFault::CutShort : AuditFault::Differs, n + 1);
    if (out.torn != 0) return fail(AuditFault::Torn, out.torn);
    return fail(AuditFault::None, n);
}

const char *audit_fault_text(AuditFault fault) {
    switch (fault) {
    case AuditFault::None: return "intact";
    case AuditFault::Changed: return "changed";
    case AuditFault::Removed: return "follows a removed line";
    case AuditFault::Inserted: return "inserted";
    case AuditFault::Unreadable: return "unreadable";
    case AuditFault::Unkeyed: return "not sealed under the trail key";
    case AuditFault::NeedsKey: return "sealed under a trail key (set ZEL_AUDIT_KEY to check it)";
    case AuditFault::Torn: return "torn by an interrupted write (sealed over by the next writer)";
    case AuditFault::CutShort: return "missing: the trail ends before the expected head";
    case AuditFault::Differs: return "is not the expected head";
    }
    return "unknown";
}

}  // namespace zel::platform
