// zelctl record import-csv: target records from a spreadsheet, one row each:
//
//   user, resource or group, account, password[, description]
//
// The service (a resource, or a resource group's "Resource Group" service)
// must exist; the record is "T:<service>" or "G:<group>" after its type.  A
// person without a Zel profile is registered as an "XR User".  The password
// comes from the file only.  A malformed or failing row is reported with its
// line number and the other rows go on.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "csv.h"
#include "progress.h"
#include "terminal_text.h"
#include "zelctl.h"

namespace zelctl {
namespace {

struct Tally {
    int created = 0, updated = 0, failed = 0;
};

void row_failed(const CsvRow &row, const std::string &why, Tally &tally) {
    ++tally.failed;
    say("line %d: failed: %s\n", row.line, why.c_str());
}

ZelRC register_user(ZelSession *s, const std::string &name) {
    ZelUser xr{};
    xr.userName = const_cast<char *>(name.c_str());
    xr.userType = const_cast<char *>("XR User");
    xr.enabled = 1;
    return Zel_addZelUser(s, &xr);
}

void import_row(ZelSession *s, CsvRow &row, bool dry_run, Tally &tally) {
    if (!row.error.empty()) return row_failed(row, row.error, tally);
    if (row.fields.size() < 4 || row.fields.size() > 5)
        return row_failed(row, "expected user, resource or group, account, password[, description]", tally);
    // The directory cannot keep a NUL: a value would be cut at it unseen.
    static const char *const kColumns[] = {"user", "resource or group", "account", "password", "description"};
    for (size_t i = 0; i < row.fields.size(); ++i)
        if (row.fields[i].find('\0') != std::string::npos)
            return row_failed(row, std::string("the ") + kColumns[i] + " holds a NUL byte, which cannot be stored",
                              tally);
    const std::string &user = row.fields[0], &service = row.fields[1], &account = row.fields[2];
    std::string &password = row.fields[3];
    if (user.empty() || service.empty()) return row_failed(row, "the user and the service must be given", tally);

    ZelTargetService *raw_ts = nullptr;
    ZelRC rc = Zel_getTargetService(s, service.c_str(), &raw_ts);
    Held<ZelTargetService, Zel_freeTargetService> ts(raw_ts);
    if (rc != 0) return row_failed(row, "service " + service + ": " + Zel_strerror(rc), tally);
    bool group = ts->type && std::strcmp(ts->type, "Resource Group") == 0;
    const std::string id = (group ? "G:" : "T:") + service;

    ZelTargetRecord *raw = nullptr;
    rc = Zel_getTargetRecord(s, user.c_str(), id.c_str(), &raw);
    Held<ZelTargetRecord, Zel_freeTargetRecord> old(raw);
    bool exists = rc == 0;
    if (rc != 0 && rc != ZEL_RC_TR_NOT_FOUND && rc != ZEL_RC_USER_NOT_FOUND)
        return row_failed(row, user + " " + id + ": " + Zel_strerror(rc), tally);
    std::string description = row.fields.size() == 5 ? row.fields[4] : std::string();
    ZelTargetRecord r{const_cast<char *>(id.c_str()), row.fields.size() == 5 ? description.data() : nullptr,
                      const_cast<char *>(account.c_str()), password.data(), const_cast<char *>(service.c_str()),
                      ts->type};
    if (!dry_run) rc = exists ? Zel_updateTargetRecord(s, user.c_str(), &r) : Zel_addTargetRecord(s, user.c_str(), &r);
    else rc = 0;
    // A person with no Zel profile at all is registered here, as an
    // "XR User", and the add made again: the library's add registers only
    // a person it already knows by a first-generation profile.
    if (rc == ZEL_RC_USER_NOT_FOUND && !exists && register_user(s, user) == 0)
        rc = Zel_addTargetRecord(s, user.c_str(), &r);
    forget_secret(password);
    if (rc != 0) return row_failed(row, user + " " + id + ": " + Zel_strerror(rc) + " (status " + std::to_string(rc) + ")", tally);
    ++(exists ? tally.updated : tally.created);
    say("line %d: record %s %s: %s%s\n", row.line, user.c_str(), id.c_str(), dry_run ? "would be " : "",
        exists ? "updated" : "created");
}

}  // namespace

int run_record_import_csv(const Options &opts, Args args) {
    int status = 0;
    bool dry_run = opts.dry_run;
    bool quiet = take_flag(args, "--quiet");
    std::vector<std::string> operands;
    if (!take_operands(args, "record import-csv", {"FILE"}, operands, status)) return status;
    std::ifstream in(operands[0], std::ios::binary);
    if (!in) return usage("record import-csv: cannot read " + operands[0]);
    std::stringstream ss;
    ss << in.rdbuf();
    std::string text = ss.str();
    std::vector<CsvRow> rows = read_csv(text);
    forget_secret(text);
    // A first row naming the columns is a header.
    if (!rows.empty() && !rows[0].fields.empty() && rows[0].fields[0] == "user") rows.erase(rows.begin());

    Session s(open_session(opts));
    if (!s) {
        for (CsvRow &row : rows)
            for (std::string &f : row.fields) forget_secret(f);
        return 1;
    }
    Tally tally;
    Progress progress("import-csv", rows.size(), quiet);
    for (CsvRow &row : rows) {
        import_row(s.get(), row, dry_run, tally);
        for (std::string &f : row.fields) forget_secret(f);
        progress.step();
    }
    progress.done();
    say("%s%d created, %d updated, %d failed\n", dry_run ? "dry run: " : "", tally.created, tally.updated,
        tally.failed);
    return tally.failed ? 1 : 0;
}

}  // namespace zelctl
