// --dry-run: a command that writes says what it would write, and writes
// nothing.  It parses its line and opens its session as it would for real,
// reads what it can cheaply, and then either predicts the failure the write
// would meet (the same status, exit 1) or says what would change (exit 0).
#pragma once

#include <string>
#include <vector>

#include "zelctl.h"

namespace zelctl {

// Whether COMMAND [VERB] is one that writes, and so takes --dry-run.
bool command_writes(const std::string &command, const Args &rest);

class DryRun {
public:
    // `action` completes "would ...", e.g. "add target service mail".
    DryRun(const Options &opts, std::string action);

    // What --json names the object by, e.g. ("service", "mail"), and the
    // flag the real command sets, e.g. "added".
    DryRun &name(const char *key, const std::string &value);
    DryRun &done(const char *flag);
    // A count for --json, e.g. ("records", 12).
    DryRun &number(const char *key, long value);
    // A field of a new object as it would be written; null (no value) is left out.
    DryRun &field(const char *name, const char *value) { return value ? change(name, nullptr, value, true) : *this; }
    // A field an update would change; an unchanged one is left out.
    DryRun &change(const char *name, const char *before, const char *after, bool is_new = false);
    // Anything else the write would do or leave ("a password would be set").
    DryRun &note(const std::string &text);

    // "dry run: would <action>" with the changes and notes; returns 0.
    int report() const;
    // The failure the real command would report, marked as a prediction:
    // "zelctl: dry run: <what>: <status text> (status N)"; returns 1.
    static int would_fail(const std::string &what, ZelRC rc);
    static int would_fail(const std::string &what, ZelRC rc, const std::string &detail);

private:
    struct Change {
        std::string field;
        bool has_before, has_after, is_new;
        std::string before, after;
    };
    const Options &opts_;
    std::string action_;
    std::vector<std::pair<std::string, std::string>> names_;
    std::vector<std::pair<std::string, long>> numbers_;
    std::string flag_;
    std::vector<Change> changes_;
    std::vector<std::string> notes_;
};

// ASCII letters compared without case, as the library compares type names.
bool same_ignoring_case(const std::string &a, const std::string &b);
// One of the Zel user types the library accepts (any letter case).
bool is_user_type(const std::string &type);

// A secret file a dry run would read: it must be readable, as for real, but
// its content is never read.
bool secret_file_readable(const std::string &path);

// The predictions of the commands with their own files' worth of checks.
int dry_run_db_create(ZelSession *s, const Options &opts, const std::string &suffix, unsigned char flags);
int dry_run_db_remove(ZelSession *s, const Options &opts);
int dry_run_rekey(ZelSession *s, const Options &opts, const std::vector<std::string> &users, bool all);
int dry_run_key_generate(const Options &opts, const std::string &file, bool add);

}  // namespace zelctl
