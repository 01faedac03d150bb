// zelctl record: a user's target records (account and password for one
// service or resource group).  Passwords come from a file, standard input or
// a prompt, never from the command line, and are shown only with --reveal.
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

#include "dry_run.h"
#include "json_out.h"
#include "terminal_text.h"
#include "zelctl.h"

namespace zelctl {
namespace {

Json record_json(const ZelTargetRecord *r, bool reveal, bool unreadable = false) {
    Json out{{"id", json_text(r->targetRecordId)},
             {"service", json_text(r->targetServiceName)},
             {"type", json_text(r->targetServiceType)},
             {"account", json_text(r->userId)},
             {"description", json_text(r->description)}};
    if (unreadable) out["unreadable"] = true;
    else if (reveal) out["password"] = json_text(r->password);
    return out;
}

constexpr const char *kUnreadable = "its password cannot be read with the keys at hand";

void print_record(const ZelTargetRecord *r, bool reveal, bool unreadable = false) {
    say("id:          %s\n", or_empty(r->targetRecordId));
    say("service:     %s\n", or_empty(r->targetServiceName));
    say("type:        %s\n", or_empty(r->targetServiceType));
    say("account:     %s\n", or_empty(r->userId));
    say("description: %s\n", or_empty(r->description));
    if (unreadable) say("unreadable:  %s\n", kUnreadable);
    else if (reveal) say("password:    %s\n", or_empty(r->password));
}

int record_list(const Options &opts, Args args) {
    int status = 0;
    bool reveal = take_flag(args, "--reveal");
    std::vector<std::string> operands;
    if (!take_operands(args, "record list", {"USER"}, operands, status)) return status;
    Session s(open_session(opts));
    if (!s) return 1;
    ZelTargetRecordList *raw = nullptr;
    ZelRC rc = Zel_getAllTargetRecord(s.get(), operands[0].c_str(), &raw);
    Held<ZelTargetRecordList, Zel_freeTargetRecords> list(raw);
    // A user without records is no error for a listing.
    if (rc != 0 && rc != ZEL_RC_TR_NOT_FOUND && rc != ZEL_RC_DECODE_FAILED)
        return fail("cannot list the target records of " + operands[0], rc);
    std::vector<std::pair<const ZelTargetRecord *, bool>> shown;  // record, unreadable
    for (int32_t i = 0; list && i < list->count; ++i) shown.emplace_back(list->records[i], false);
    // One record the keys at hand cannot open fails the user's list whole:
    // the list of every record marks it instead, and the rest is shown.
    Held<ZelUserTargetRecordList, Zel_freeUserTargetRecords> every;
    if (rc == ZEL_RC_DECODE_FAILED) {
        ZelUserTargetRecordList *raw_every = nullptr;
        ZelRC every_rc = Zel_getAllUserTargetRecord(s.get(), &raw_every);
        every.reset(raw_every);
        if (every_rc != 0) return fail("cannot list the target records of " + operands[0], rc);
        for (int32_t i = 0; i < every->count; ++i) {
            const ZelUserTargetRecord *item = every->records[i];
            if (item->userName && same_ignoring_case(item->userName, operands[0].c_str()))
                shown.emplace_back(item->record, item->unreadable != 0);
        }
    }
    if (opts.json) {
        Json out = Json::array();
        for (const auto &[record, unreadable] : shown) out.push_back(record_json(record, reveal, unreadable));
        return print_json(out);
    }
    for (size_t i = 0; i < shown.size(); ++i) {
        if (i) say("\n");
        print_record(shown[i].first, reveal, shown[i].second);
    }
    return 0;
}

int record_get(const Options &opts, Args args) {
    int status = 0;
    bool reveal = take_flag(args, "--reveal");
    std::vector<std::string> operands;
    if (!take_operands(args, "record get", {"USER", "ID"}, operands, status)) return status;
    Session s(open_session(opts));
    if (!s) return 1;
    ZelTargetRecord *raw = nullptr;
    ZelRC rc = Zel_getTargetRecord(s.get(), operands[0].c_str(), operands[1].c_str(), &raw);
    Held<ZelTargetRecord, Zel_freeTargetRecord> record(raw);
    if (rc != 0) return fail("cannot read target record " + operands[1] + " of " + operands[0], rc);
    if (opts.json)
        print_json(record_json(record.get(), reveal));
    else
        print_record(record.get(), reveal);
    return 0;
}

// --password-file F or --password-stdin; without either, a prompt when
// standard input is a terminal (an empty answer keeps the password out of
// the write), else no password at all.  A dry run reads none: it only
// checks that the file could be read.
bool take_password(Args &args, bool dry_run, std::string &password, bool &given, int &status) {
    for (const std::string &a : args) {
        if (a == "--password" || a == "-w") {
            status = usage("a record password is never taken from the command line: use --password-file or --password-stdin");
            return false;
        }
    }
    std::string file;
    bool from_file = false;
    if (!take_value(args, "--password-file", file, from_file, status)) return false;
    bool from_stdin = take_flag(args, "--password-stdin");
    if (from_file && from_stdin) {
        status = usage("--password-file and --password-stdin exclude each other");
        return false;
    }
    given = from_file || from_stdin || isatty(STDIN_FILENO);
    bool read = !given || (dry_run ? !from_file || secret_file_readable(file)
                           : from_file ? read_secret_file(file, password)
                           : from_stdin ? read_secret_stdin(password)
                                        : prompt_secret("Password of the target record: ", password));
    if (!read) status = usage(from_file ? "cannot read the password file " + file : std::string("cannot read the password"));
    if (read && given && !dry_run && !from_file && !from_stdin && password.empty()) given = false;
    return read;
}

enum class RecordWrite { Add, Update, Remove };

// Checked in the order the library checks: the user (no person 28, no Zel
// user 19), the service (14), then the record itself: an add of one that
// exists fails with 5, an update of a missing one with 6 (it is written by
// DN), a removal with 24.  `r` is null for a removal.
int dry_record(ZelSession *s, const Options &opts, const std::string &user, const std::string &id,
               const ZelTargetRecord *r, RecordWrite op, bool password_given, const std::string &failed) {
    ZelTargetRecordList *raw = nullptr;
    ZelRC rc = Zel_getAllTargetRecord(s, user.c_str(), &raw);
    Held<ZelTargetRecordList, Zel_freeTargetRecords> list(raw);
    if (rc != 0 && rc != ZEL_RC_TR_NOT_FOUND) return DryRun::would_fail(failed, rc);
    // The list answers for a person without a Zel user too; a plain name is
    // looked up as a user as well (a DN or a principal resolves only when written).
    if (user.find_first_of("=@") == std::string::npos) {
        ZelUser *profile = nullptr;
        rc = Zel_getZelUser(s, user.c_str(), &profile);
        Zel_freeZelUser(profile);
        if (rc != 0) return DryRun::would_fail(failed, rc);
    }
    if (r != nullptr) {
        ZelTargetService *ts = nullptr;
        rc = Zel_getTargetService(s, r->targetServiceName, &ts);
        Zel_freeTargetService(ts);
        if (rc != 0) return DryRun::would_fail(failed, rc);
    }
    const ZelTargetRecord *old = nullptr;
    for (int32_t i = 0; list && i < list->count; ++i)
        if (list->records[i]->targetRecordId && same_ignoring_case(list->records[i]->targetRecordId, id))
            old = list->records[i];
    if (op == RecordWrite::Add && old) return DryRun::would_fail(failed, ZEL_RC_ALREADY_EXISTS);
    if (op != RecordWrite::Add && !old)
        return DryRun::would_fail(failed, op == RecordWrite::Update ? ZEL_RC_NO_SUCH_OBJECT : ZEL_RC_TR_NOT_FOUND);

    static const char *const kVerbs[][2] = {{"add", "added"}, {"update", "updated"}, {"remove", "removed"}};
    const auto *verb = kVerbs[static_cast<int>(op)];
    DryRun dry(opts, std::string(verb[0]) + " target record " + id + " of " + user);
    dry.name("record", id).name("user", user).done(verb[1]);
    if (op == RecordWrite::Add) {
        dry.field("service", r->targetServiceName).field("type", r->targetServiceType);
        dry.field("account", r->userId).field("description", r->description);
        dry.note(password_given ? "a password would be set" : "no password would be stored");
    } else if (op == RecordWrite::Update) {
        dry.change("service", old->targetServiceName, r->targetServiceName);
        if (r->targetServiceType) dry.change("type", old->targetServiceType, r->targetServiceType);
        if (r->userId) dry.change("account", old->userId, r->userId);
        if (r->description) dry.change("description", old->description, r->description);
        dry.note(password_given ? "the password would be replaced" : "the password would be kept");
    } else {
        dry.change("service", old->targetServiceName, nullptr).change("account", old->userId, nullptr);
    }
    return dry.report();
}

// record add / record update: the same options, one call apart.
int record_write(const Options &opts, Args args, bool add) {
    const std::string command = add ? "record add" : "record update";
    int status = 0;
    std::string service, type, account, description;
    bool have_service = false, have_type = false, have_account = false, have_description = false;
    if (!take_value(args, "--service", service, have_service, status) ||
        !take_value(args, "--type", type, have_type, status) ||
        !take_value(args, "--account", account, have_account, status) ||
        !take_value(args, "--description", description, have_description, status))
        return status;
    std::string password;
    bool have_password = false;
    if (!take_password(args, opts.dry_run, password, have_password, status)) return status;
    std::vector<std::string> operands;
    if (!take_operands(args, command, {"USER", "ID"}, operands, status)) return status;
    if (!have_service) return usage(command + ": --service is required");

    ZelTargetRecord r{};
    r.targetRecordId = operands[1].data();
    r.targetServiceName = service.data();
    r.targetServiceType = have_type ? type.data() : nullptr;
    r.userId = have_account ? account.data() : nullptr;
    r.description = have_description ? description.data() : nullptr;
    r.password = have_password ? password.data() : nullptr;

    Session s(open_session(opts));
    if (!s) return 1;
    const std::string failed =
        std::string("cannot ") + (add ? "add " : "update ") + "target record " + operands[1] + " of " + operands[0];
    if (opts.dry_run)
        return dry_record(s.get(), opts, operands[0], operands[1], &r, add ? RecordWrite::Add : RecordWrite::Update,
                          have_password, failed);
    ZelRC rc = add ? Zel_addTargetRecord(s.get(), operands[0].c_str(), &r)
                   : Zel_updateTargetRecord(s.get(), operands[0].c_str(), &r);
    if (rc != 0) return fail(failed, rc);
    return report_done(opts, "target record", "record", operands[1], add ? "added" : "updated");
}

int record_remove(const Options &opts, Args args) {
    int status = 0;
    std::vector<std::string> operands;
    if (!take_operands(args, "record remove", {"USER", "ID"}, operands, status)) return status;
    Session s(open_session(opts));
    if (!s) return 1;
    const std::string failed = "cannot remove target record " + operands[1] + " of " + operands[0];
    if (opts.dry_run)
        return dry_record(s.get(), opts, operands[0], operands[1], nullptr, RecordWrite::Remove, false, failed);
    if (ZelRC rc = Zel_removeTargetRecord(s.get(), operands[0].c_str(), operands[1].c_str())) return fail(failed, rc);
    return report_done(opts, "target record", "record", operands[1], "removed");
}

}  // namespace

int run_record(const Options &opts, Args args) {
    if (args.empty()) return usage("record: expected list, get, add, update, remove, rekey or import-csv");
    std::string sub = args.front();
    args.erase(args.begin());
    if (sub == "list") return record_list(opts, args);
    if (sub == "get") return record_get(opts, args);
    if (sub == "add") return record_write(opts, args, true);
    if (sub == "update") return record_write(opts, args, false);
    if (sub == "remove") return record_remove(opts, args);
    if (sub == "rekey") return run_record_rekey(opts, args);
    if (sub == "import-csv") return run_record_import_csv(opts, args);
    return usage("record: unknown subcommand " + sub + " (list, get, add, update, remove, rekey, import-csv)");
}

}  // namespace zelctl
