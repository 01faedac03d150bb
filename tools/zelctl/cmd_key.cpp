// zelctl key / record rekey: the operator's key file for stored passwords,
// and rewriting what is stored under its active key.  Key bytes are never
// printed; only key ids and file names are.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "dry_run.h"
#include "progress.h"
#include "json_out.h"
#include "terminal_text.h"
#include "zelctl.h"

namespace zelctl {
namespace {

int key_generate(const Options &opts, Args args) {
    int status = 0;
    bool add = take_flag(args, "--add");
    std::vector<std::string> operands;
    if (!take_operands(args, "key generate", {"FILE"}, operands, status)) return status;
    const std::string &file = operands[0];
    const uint32_t flags = add ? ZEL_KEYFILE_ADD : 0;
    if (add && Zel_generateKeyFile(file.c_str(), flags | ZEL_KEYFILE_CHECK, nullptr) != 0)
        return usage("cannot use the key file " + file +
                     ": it must exist, be readable by its owner only and hold one active key");
    if (opts.dry_run) return dry_run_key_generate(opts, file, add);
    char *raw_id = nullptr;
    if (Zel_generateKeyFile(file.c_str(), flags, &raw_id) != 0)
        return usage("cannot write the key file " + file + (add ? "" : " (an existing file is never overwritten; --add adds a key to it)"));
    Held<char, Zel_memfree> held_id(raw_id);
    const char *id = held_id.get();
    if (opts.json)
        print_json(Json{{"file", file}, {"key", json_text(id)}, {"active", true}});
    else
        say("key %s %s %s, now the active key\n", id, add ? "added to" : "written to", file.c_str());
    return 0;
}

}  // namespace

int run_key(const Options &opts, Args args) {
    if (args.empty() || args.front() != "generate") return usage("key: expected generate FILE [--add]");
    args.erase(args.begin());
    return key_generate(opts, args);
}

int run_record_rekey(const Options &opts, Args args) {
    int status = 0;
    bool all = take_flag(args, "--all");
    bool quiet = take_flag(args, "--quiet");
    std::vector<std::string> users;
    for (const std::string &a : args) {
        if (!a.empty() && a[0] == '-') return usage("record rekey: unknown option " + a);
        users.push_back(a);
    }
    if (all == !users.empty()) return usage("record rekey: name the users, or --all for every target record");
    const char *key_file = std::getenv("ZEL_KEYFILE");
    if (key_file == nullptr || *key_file == '\0')
        return usage("record rekey: ZEL_KEYFILE must name the key file whose active key is to be used");

    Session s(open_session(opts));
    if (!s) return 1;
    if (opts.dry_run) return dry_run_rekey(s.get(), opts, users, all);
    int32_t rewritten = 0;
    std::vector<std::string> unreadable, refused;
    if (all) users.push_back(std::string());
    LibraryProgress progress(s.get(), "rekey", quiet);
    for (const std::string &user : users) {
        ZelRekeyReport *raw = nullptr;
        ZelRC rc = Zel_rekeyTargetRecords(s.get(), all ? nullptr : user.c_str(), &raw);
        Held<ZelRekeyReport, Zel_freeRekeyReport> report(raw);
        if (rc != 0) status = fail("cannot rekey the target records of " + (all ? std::string("every user") : user), rc);
        // A run that failed part way still says what it did.
        if (report) {
            rewritten += report->rewritten;
            for (int32_t i = 0; i < report->unreadableCount; ++i) unreadable.emplace_back(report->unreadable[i]);
            for (int32_t i = 0; i < report->failedCount; ++i) refused.emplace_back(report->failed[i]);
        }
        if (rc != 0) break;
    }
    progress.done();
    if (opts.json) {
        print_json(Json{{"rewritten", static_cast<int>(rewritten)}, {"unreadable", unreadable}, {"refused", refused}});
    } else {
        say("%d stored passwords rewritten under the active key\n", static_cast<int>(rewritten));
        for (const std::string &dn : unreadable) say("left as it was, cannot be read: %s\n", dn.c_str());
        for (const std::string &dn : refused) say("left as it was, the directory refused the write: %s\n", dn.c_str());
    }
    // Values that could not be read still need the operator's attention.
    return status ? status : unreadable.empty() && refused.empty() ? 0 : 1;
}

}  // namespace zelctl
