// What a command given --dry-run prints instead of writing.
#include "dry_run.h"

#include <cstdio>
#include <fstream>
#include <utility>

#include "json_out.h"
#include "terminal_text.h"

namespace zelctl {
namespace {

// COMMAND and VERB of every command that writes; a null verb: the command
// has none.
const char *const kWriting[][2] = {
    {"service", "add"},      {"service", "remove"},      {"service-type", "add"}, {"service-type", "remove"},
    {"user", "add"},         {"user", "update"},         {"user", "remove"},      {"domain", "add"},
    {"domain", "update"},    {"domain", "remove"},       {"domain", "add-member"}, {"domain", "remove-member"},
    {"record", "add"},       {"record", "update"},       {"record", "remove"},    {"record", "rekey"},
    {"record", "import-csv"}, {"person", "add"},         {"db", "create"},        {"db", "remove"},
    {"key", "generate"},     {"import", nullptr},        {"user", "regroup"},
};

// A value as a JSON string, in the text output too: quotes show where it
// starts and ends.
std::string shown(const std::string &value) { return json_dump(Json(value)); }

}  // namespace

bool command_writes(const std::string &command, const Args &rest) {
    for (const auto &w : kWriting)
        if (command == w[0] && (w[1] == nullptr || (!rest.empty() && rest.front() == w[1]))) return true;
    return false;
}

DryRun::DryRun(const Options &opts, std::string action) : opts_(opts), action_(std::move(action)) {}

DryRun &DryRun::name(const char *key, const std::string &value) {
    names_.emplace_back(key, value);
    return *this;
}

DryRun &DryRun::number(const char *key, long value) {
    numbers_.emplace_back(key, value);
    return *this;
}

DryRun &DryRun::done(const char *flag) {
    flag_ = flag;
    return *this;
}

DryRun &DryRun::change(const char *name, const char *before, const char *after, bool is_new) {
    bool same = before && after ? std::string(before) == after : before == after;
    if (!is_new && same) return *this;
    changes_.push_back({name, before != nullptr, after != nullptr, is_new, before ? before : "", after ? after : ""});
    return *this;
}

DryRun &DryRun::note(const std::string &text) {
    notes_.push_back(text);
    return *this;
}

int DryRun::report() const {
    if (!opts_.json) {
        say("dry run: would %s\n", action_.c_str());
        for (const Change &c : changes_) {
            std::string after = c.has_after ? shown(c.after) : "(none)";
            if (c.is_new)
                say("  %s: %s\n", c.field.c_str(), after.c_str());
            else
                say("  %s: %s -> %s\n", c.field.c_str(), c.has_before ? shown(c.before).c_str() : "(none)",
                    after.c_str());
        }
        for (const std::string &n : notes_) say("  %s\n", n.c_str());
        return 0;
    }
    Json out = Json::object();
    for (const auto &[key, value] : names_) out[key] = value;
    for (const auto &[key, value] : numbers_) out[key] = value;
    if (!flag_.empty()) out[flag_] = true;
    out["dryRun"] = true;
    if (!changes_.empty()) {
        Json &changes = out["changes"] = Json::array();
        for (const Change &c : changes_) {
            Json change{{"field", c.field}};
            if (!c.is_new) change["from"] = c.has_before ? Json(c.before) : Json(nullptr);
            change["to"] = c.has_after ? Json(c.after) : Json(nullptr);
            changes.push_back(std::move(change));
        }
    }
    if (!notes_.empty()) out["notes"] = notes_;
    return print_json(out);
}

int DryRun::would_fail(const std::string &what, ZelRC rc) { return fail("dry run: " + what, rc); }

int DryRun::would_fail(const std::string &what, ZelRC rc, const std::string &detail) {
    return fail("dry run: " + what, rc, detail.c_str());
}

bool secret_file_readable(const std::string &path) {
    // Read as a real run reads it (with its warning about loose modes), then forgotten.
    std::string secret;
    bool readable = read_secret_file(path, secret);
    forget_secret(secret);
    return readable;
}

bool same_ignoring_case(const std::string &a, const std::string &b) {
    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (lower(a[i]) != lower(b[i])) return false;
    return true;
}

bool is_user_type(const std::string &type) {
    for (const char *known : {"Senior Admin", "Middle Tier Server", "User", "XR User"})
        if (same_ignoring_case(type, known)) return true;
    return false;
}

}  // namespace zelctl
