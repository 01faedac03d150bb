// zelctl user: list, register, update, verify and remove Zel users.
#include <ldap.h>

#include <cstdio>
#include <memory>
#include <string>

#include "dn_text.h"
#include "dry_run.h"
#include "doctor_replication.h"
#include "json_out.h"
#include "terminal_text.h"
#include "zelctl.h"

namespace zelctl {
namespace {

int user_list(const Options &opts, Args args) {
    int status = 0;
    std::vector<std::string> none;
    if (!take_operands(args, "user list", {}, none, status)) return status;
    Session session(open_session(opts));
    if (!session) return 1;
    ZelUserList *raw = nullptr;
    if (ZelRC rc = Zel_getAllZelUser(session.get(), &raw)) return fail("cannot list Zel users", rc);
    Held<ZelUserList, Zel_freeZelUsers> list(raw);
    if (opts.json) {
        Json out = Json::array();
        for (int32_t i = 0; i < list->count; ++i) {
            const ZelUser *u = list->users[i];
            out.push_back(Json{{"name", json_text(u->userName)}, {"type", json_text(u->userType)},
                               {"enabled", u->enabled != 0}, {"person", json_text(u->personDN)}});
        }
        return print_json(out);
    }
    for (int32_t i = 0; i < list->count; ++i) {
        const ZelUser *u = list->users[i];
        say("%-20s %-8s %s\n", or_empty(u->userName), u->enabled ? "enabled" : "disabled", or_empty(u->personDN));
    }
    return 0;
}

// The access groups that give a security domain user the rights of a
// first-generation user type.
std::string access_group_hint(const std::string &type) {
    if (same_ignoring_case(type, "Senior Admin")) return "Senior Admin: cn=Administrators and cn=Senior Administrators";
    if (same_ignoring_case(type, "Middle Tier Server")) return "Middle Tier Server: cn=Middle Tier Servers";
    if (same_ignoring_case(type, "User")) return "User: cn=Users";
    if (same_ignoring_case(type, "XR User")) return "XR User: none";
    return "Senior Admin: cn=Administrators and cn=Senior Administrators; Middle Tier Server: cn=Middle Tier "
           "Servers; User: cn=Users";
}

const char *state_text(unsigned char enabled) { return enabled ? "enabled" : "disabled"; }

void free_dn_parts(char **parts) { ldap_memvfree(reinterpret_cast<void **>(parts)); }
using DnParts = Held<char *, free_dn_parts>;

// The Zel user whose profile the person has in the session's storage form,
// or "" when none.  A person has one profile per form, and the add refuses a
// second.  A security domain session's look-up also finds a first-generation
// profile (directly below the person), which does not stand in the way.
std::string profile_holder(ZelSession *s, const Options &opts, const char *person) {
    char *raw = nullptr;
    ZelRC rc = Zel_verifyZelUser(s, person, &raw);
    const std::string profile = raw ? raw : "";
    Zel_memfree(raw);
    if (rc != 1) return "";
    if (opts.api_version >= 2 && dn_key(parent_dn(profile)) == dn_key(person)) return "";
    DnParts value(ldap_explode_dn(profile.c_str(), 1));
    return value && value.get()[0] ? value.get()[0] : profile;
}

// An unknown type fails with 1005.  A security domain session refuses a name
// its domain holds already (5), and either form a person who has a profile
// in it (5); a name known only to the Zel database gets a domain profile.
int dry_user_add(ZelSession *s, const Options &opts, const ZelUser &user, const std::string &failed) {
    if (!is_user_type(user.userType)) return DryRun::would_fail(failed, ZEL_RC_INVALID_ARGUMENT);
    ZelUser *raw = nullptr;
    ZelRC rc = Zel_getZelUser(s, user.userName, &raw);
    Held<ZelUser, Zel_freeZelUser> existing(raw);
    bool in_domain = rc == 0 && existing->userType == nullptr;
    if (opts.api_version >= 2 && in_domain) return DryRun::would_fail(failed, ZEL_RC_ALREADY_EXISTS);
    if (user.personDN != nullptr) {
        const std::string holder = profile_holder(s, opts, user.personDN);
        if (!holder.empty())
            return DryRun::would_fail(failed, ZEL_RC_ALREADY_EXISTS,
                                      std::string(user.personDN) + " already has a profile: Zel user " + holder);
    }
    DryRun dry(opts, std::string("add Zel user ") + user.userName);
    dry.name("user", user.userName).done("added");
    if (opts.api_version < 2) dry.field("type", user.userType);
    dry.field("person", user.personDN).field("description", user.description);
    dry.field("state", state_text(user.enabled));
    if (user.personDN == nullptr) dry.note("the person is looked up by the user name when written");
    if (rc == 0) dry.note("a Zel user of this name exists already");
    return dry.report();
}

int user_add(const Options &opts, Args args) {
    int status = 0;
    std::string type, person, description;
    bool have_type = false, have_person = false, have_description = false;
    if (!take_value(args, "--type", type, have_type, status) ||
        !take_value(args, "--person", person, have_person, status) ||
        !take_value(args, "--description", description, have_description, status))
        return status;
    bool disabled = take_flag(args, "--disabled");
    std::vector<std::string> operands;
    if (!take_operands(args, "user add", {"NAME"}, operands, status)) return status;
    std::string &name = operands[0];
    // A security domain profile keeps no type: what its user may do follows
    // the access groups the person belongs to, which the add does not touch.
    const bool domain_form = opts.api_version >= 2;
    if (domain_form && have_type)
        return usage("user add: a security domain profile keeps no user type; leave out --type and make the person "
                     "a member of the access group for the role (" + access_group_hint(type) +
                     "), below cn=Access Groups in the Zel database, or add the user with --api-version 1");
    if (!have_type) {
        if (!domain_form) return usage("user add: --type is required (Senior Admin, Middle Tier Server, User, XR User)");
        type = "XR User";  // the library asks for a type; this one joins no group in either form
    }

    ZelUser user{};
    user.userName = name.data();
    user.userType = type.data();
    user.description = have_description ? description.data() : nullptr;
    user.enabled = disabled ? 0 : 1;
    user.personDN = have_person ? person.data() : nullptr;

    Session session(open_session(opts));
    if (!session) return 1;
    const std::string failed = "cannot add Zel user " + name;
    if (opts.dry_run) return dry_user_add(session.get(), opts, user, failed);
    if (ZelRC rc = Zel_addZelUser(session.get(), &user)) return fail(failed, rc);
    return report_done(opts, "Zel user", "user", name, "added");
}

int user_update(const Options &opts, Args args) {
    int status = 0;
    std::string person, description;
    bool have_person = false, have_description = false;
    if (!take_value(args, "--person", person, have_person, status) ||
        !take_value(args, "--description", description, have_description, status))
        return status;
    bool enable = take_flag(args, "--enabled");
    bool disable = take_flag(args, "--disabled");
    if (enable && disable) return usage("user update: --enabled and --disabled exclude each other");
    std::vector<std::string> operands;
    if (!take_operands(args, "user update", {"NAME"}, operands, status)) return status;
    std::string &name = operands[0];

    Session session(open_session(opts));
    if (!session) return 1;
    // The library writes the account state on every update, so what the
    // command does not name is carried over from the profile as it stands.
    ZelUser *raw = nullptr;
    ZelRC rc = Zel_getZelUser(session.get(), name.c_str(), &raw);
    Held<ZelUser, Zel_freeZelUser> current(raw);
    if (rc != 0) return opts.dry_run ? DryRun::would_fail("cannot read Zel user " + name, rc)
                                     : fail("cannot read Zel user " + name, rc);

    ZelUser user{};
    user.userName = name.data();
    user.description = have_description ? description.data() : nullptr;  // null: left as it is
    user.enabled = enable ? 1 : disable ? 0 : current->enabled;
    user.personDN = have_person ? person.data() : current->personDN;
    if (opts.dry_run) {
        DryRun dry(opts, "update Zel user " + name);
        dry.name("user", name).done("updated");
        if (have_description) dry.change("description", current->description, user.description);
        dry.change("state", state_text(current->enabled), state_text(user.enabled));
        dry.change("person", current->personDN, user.personDN);
        return dry.report();
    }
    if ((rc = Zel_updateZelUser(session.get(), &user))) return fail("cannot update Zel user " + name, rc);
    return report_done(opts, "Zel user", "user", name, "updated");
}

// Exit status 0 when the person has a Zel profile, 1 when not.
int user_verify(const Options &opts, Args args) {
    int status = 0;
    std::vector<std::string> operands;
    if (!take_operands(args, "user verify", {"PERSON_DN"}, operands, status)) return status;
    const std::string &person = operands[0];
    // A user name is no DN: say what is expected instead of a directory error.
    if (person.find('=') == std::string::npos)
        return usage("user verify expects a person DN, for example \"cn=Ann Lee,o=example\"");
    Session session(open_session(opts));
    if (!session) return 1;
    char *profile = nullptr;
    ZelRC rc = Zel_verifyZelUser(session.get(), person.c_str(), &profile);
    std::string profile_dn = profile ? profile : "";
    Zel_memfree(profile);
    if (rc != 0 && rc != 1) return fail("cannot verify " + person, rc);
    bool is_user = rc == 1;
    if (opts.json) {
        print_json(Json{{"person", person}, {"zelUser", is_user}, {"profile", is_user ? Json(profile_dn) : Json(nullptr)}});
    } else if (is_user) {
        say("%s is a Zel user: %s\n", person.c_str(), profile_dn.c_str());
    } else {
        say("%s is not a Zel user\n", person.c_str());
    }
    return is_user ? 0 : 1;
}

// A name no form knows fails with 19 (a first-generation session without a
// Zel database knows none).  A DN is resolved only when written.
int dry_user_remove(ZelSession *s, const Options &opts, const std::string &target, const std::string &failed) {
    DryRun dry(opts, "remove Zel user " + target);
    dry.name("user", target).done("removed");
    if (target.find('=') != std::string::npos) return dry.note("the DN is resolved when written").report();
    ZelUser *raw = nullptr;
    ZelRC rc = Zel_getZelUser(s, target.c_str(), &raw);
    Zel_freeZelUser(raw);
    if (rc == ZEL_RC_DATABASE_NOT_FOUND) rc = ZEL_RC_USER_NOT_FOUND;
    if (rc != 0) return DryRun::would_fail(failed, rc);
    ZelTargetRecordList *records = nullptr;
    if (Zel_getAllTargetRecord(s, target.c_str(), &records) == 0 && records)
        dry.note("with its " + std::to_string(records->count) + " target records");
    Zel_freeTargetRecords(records);
    return dry.report();
}

int user_remove(const Options &opts, Args args) {
    int status = 0;
    std::vector<std::string> operands;
    if (!take_operands(args, "user remove", {"NAME|DN"}, operands, status)) return status;
    const std::string &target = operands[0];
    Session session(open_session(opts));
    if (!session) return 1;
    const std::string failed = "cannot remove Zel user " + target;
    if (opts.dry_run) return dry_user_remove(session.get(), opts, target, failed);
    if (ZelRC rc = Zel_removeZelUser(session.get(), target.c_str())) return fail(failed, rc);
    return report_done(opts, "Zel user", "user", target, "removed");
}

}  // namespace

int run_user(const Options &opts, Args args) {
    if (args.empty()) return usage("user: expected list, add, update, verify, remove or regroup");
    std::string sub = args.front();
    args.erase(args.begin());
    if (sub == "list") return user_list(opts, args);
    if (sub == "add") return user_add(opts, args);
    if (sub == "update") return user_update(opts, args);
    if (sub == "verify") return user_verify(opts, args);
    if (sub == "remove") return user_remove(opts, args);
    if (sub == "regroup") return run_user_regroup(opts, args);
    return usage("user: unknown subcommand " + sub + " (list, add, update, verify, remove, regroup)");
}

}  // namespace zelctl
