// zelctl db: create and remove a whole Zel database.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <string>

#include "dry_run.h"
#include "progress.h"
#include "json_out.h"
#include "zelctl.h"

namespace zelctl {
namespace {

// The Zel database is a first-generation structure: its commands open a
// first-generation session unless --api-version says otherwise.
Options first_generation(const Options &opts) {
    Options o = opts;
    if (!o.api_version_given) o.api_version = 1;
    return o;
}

int db_create(const Options &opts, Args args) {
    int status = 0;
    std::string admin, uid, password_file;
    bool have_admin = false, have_uid = false, have_password = false;
    if (!take_value(args, "--admin", admin, have_admin, status) ||
        !take_value(args, "--admin-uid", uid, have_uid, status) ||
        !take_value(args, "--admin-password-file", password_file, have_password, status))
        return status;
    unsigned char flags = 0;
    if (take_flag(args, "--create-suffix")) flags |= ZEL_CREATEDB_SUFFIX;
    if (take_flag(args, "--default-types")) flags |= ZEL_CREATEDB_XR_DEFAULTS;
    if (take_flag(args, "--extended")) flags |= ZEL_CREATEDB_EXTENDED;
    std::vector<std::string> operands;
    if (!take_operands(args, "db create", {"SUFFIX"}, operands, status)) return status;
    const std::string &suffix = operands.front();

    // The library would give the new administrator a password everyone can
    // look up; zelctl never lets it.
    if (!have_admin && !have_password)
        return usage("db create: give --admin-password-file F for the new administrator, or --admin for an "
                     "existing person");
    std::string password;
    if (have_password && !(opts.dry_run ? secret_file_readable(password_file) : read_secret_file(password_file, password)))
        return usage("cannot read the password file " + password_file);
    Session session(open_session(first_generation(opts)));
    if (opts.dry_run) return session ? dry_run_db_create(session.get(), opts, suffix, flags) : 1;
    ZelRC rc = session ? Zel_createDatabase(session.get(), suffix.c_str(), have_admin ? admin.c_str() : nullptr,
                                            have_uid ? uid.c_str() : nullptr,
                                            have_password ? password.c_str() : nullptr, flags)
                       : 0;
    std::fill(password.begin(), password.end(), '\0');
    if (!session) return 1;
    if (rc != 0) return fail("cannot create a Zel database under " + suffix, rc);
    return report_done(opts, "Zel database under", "suffix", suffix, "created");
}

// Asked on a terminal; elsewhere only --yes removes.
bool confirmed(bool yes, int &status) {
    if (yes) return true;
    if (!isatty(STDIN_FILENO)) {
        status = usage("db remove: not on a terminal; give --yes to remove the Zel database");
        return false;
    }
    std::fputs("Remove the Zel database and everything below it? [y/N] ", stdout);
    std::fflush(stdout);
    std::string answer;
    std::getline(std::cin, answer);
    if (answer == "y" || answer == "Y" || answer == "yes") return true;
    std::fputs("zelctl: db remove: nothing removed\n", stderr);
    status = 1;
    return false;
}

int db_remove(const Options &opts, Args args) {
    int status = 0;
    bool yes = take_flag(args, "--yes");
    bool quiet = take_flag(args, "--quiet");
    std::vector<std::string> operands;
    if (!take_operands(args, "db remove", {}, operands, status)) return status;
    if (!opts.dry_run && !confirmed(yes, status)) return status;
    Session session(open_session(first_generation(opts)));
    if (!session) return 1;
    if (opts.dry_run) return dry_run_db_remove(session.get(), opts);
    LibraryProgress progress(session.get(), "db remove", quiet);
    ZelRC rc = Zel_removeDatabase(session.get());
    progress.done();
    if (rc != 0) return fail("cannot remove the Zel database", rc);
    if (opts.json) return print_json(Json{{"database", true}, {"removed", true}});
    std::puts("Zel database removed");
    return 0;
}

}  // namespace

int run_db(const Options &opts, Args args) {
    if (args.empty()) return usage("db: expected create or remove");
    std::string sub = args.front();
    args.erase(args.begin());
    if (sub == "create") return db_create(opts, args);
    if (sub == "remove") return db_remove(opts, args);
    return usage("db: unknown subcommand " + sub + " (create, remove)");
}

}  // namespace zelctl
