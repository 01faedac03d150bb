// zelctl person: add a person entry, registered as a Zel user on request.
#include <algorithm>
#include <string>

#include "dry_run.h"
#include "zelctl.h"

namespace zelctl {
namespace {

// A type the library does not know fails with 1005; the parent entry shows
// only when written.
int dry_person_add(const Options &opts, const ZelPerson &p, const char *type) {
    Session session(open_session(opts));
    if (!session) return 1;
    if (type && !is_user_type(type)) return DryRun::would_fail(std::string("cannot add person ") + p.cn, ZEL_RC_INVALID_ARGUMENT);
    DryRun dry(opts, std::string("add person ") + p.cn + " below " + p.parentDN);
    dry.name("person", p.cn).done("added");
    dry.field("sn", p.sn).field("uid", p.uid).field("description", p.description).field("Zel user type", type);
    if (p.password) dry.note("a password would be set");
    return dry.report();
}

int person_add(const Options &opts, Args args) {
    int status = 0;
    std::string cn, sn, uid, description, type, password_file;
    bool have_cn = false, have_sn = false, have_uid = false, have_description = false, have_type = false,
         have_password = false;
    if (!take_value(args, "--cn", cn, have_cn, status) || !take_value(args, "--sn", sn, have_sn, status) ||
        !take_value(args, "--uid", uid, have_uid, status) ||
        !take_value(args, "--description", description, have_description, status) ||
        !take_value(args, "--type", type, have_type, status) ||
        !take_value(args, "--password-file", password_file, have_password, status))
        return status;
    std::vector<std::string> operands;
    if (!take_operands(args, "person add", {"PARENT_DN"}, operands, status)) return status;
    if (!have_cn || !have_sn) return usage("person add: --cn and --sn are required");

    std::string password;
    bool readable = opts.dry_run ? !have_password || secret_file_readable(password_file)
                                 : !have_password || read_secret_file(password_file, password);
    if (!readable) return usage("cannot read the password file " + password_file);
    ZelPerson person{};
    person.parentDN = operands.front().data();
    person.cn = cn.data();
    person.sn = sn.data();
    person.description = have_description ? description.data() : nullptr;
    person.uid = have_uid ? uid.data() : nullptr;
    person.password = have_password ? password.data() : nullptr;

    if (opts.dry_run) return dry_person_add(opts, person, have_type ? type.c_str() : nullptr);
    Session session(open_session(opts));
    ZelRC rc = session ? Zel_create_ePerson(session.get(), &person, have_type ? type.c_str() : nullptr) : 0;
    std::fill(password.begin(), password.end(), '\0');
    if (!session) return 1;
    if (rc != 0) return fail("cannot add person " + cn, rc);
    return report_done(opts, "Person", "person", cn, "added");
}

}  // namespace

int run_person(const Options &opts, Args args) {
    if (args.empty() || args.front() != "add") return usage("person: expected add");
    args.erase(args.begin());
    return person_add(opts, args);
}

}  // namespace zelctl
