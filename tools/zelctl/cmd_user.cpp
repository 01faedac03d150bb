// zelctl user: register, update, verify and remove Zel users.
#include <cstdio>
#include <string>

#include "zelctl.h"

namespace zelctl {
namespace {

// Exactly one operand and no unknown options left.
bool single_operand(const Args &args, const std::string &what, std::string &operand, int &status) {
    for (const std::string &a : args) {
        if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
            status = usage("user " + what + ": unknown option " + a);
            return false;
        }
    }
    if (args.size() != 1) {
        status = usage("user " + what + ": expected exactly one " + (what == "verify" ? "PERSON_DN" : "NAME"));
        return false;
    }
    operand = args.front();
    return true;
}

// Takes "--name VALUE"; a flag given without its value is a usage error.
bool option(Args &args, const std::string &name, std::string &value, bool &given, int &status) {
    given = take_option(args, name, value);
    if (!given && take_flag(args, name)) {
        status = usage(name + " needs a value");
        return false;
    }
    return true;
}

int report_done(const Options &opts, const char *action, const std::string &name) {
    if (opts.json)
        std::printf("{\"user\":%s,\"%s\":true}\n", json_string(name.c_str()).c_str(), action);
    else
        std::printf("Zel user %s %s\n", name.c_str(), action);
    return 0;
}

int user_add(const Options &opts, Args args) {
    int status = 0;
    std::string type, person, description;
    bool have_type = false, have_person = false, have_description = false;
    if (!option(args, "--type", type, have_type, status) || !option(args, "--person", person, have_person, status) ||
        !option(args, "--description", description, have_description, status))
        return status;
    bool disabled = take_flag(args, "--disabled");
    std::string name;
    if (!single_operand(args, "add", name, status)) return status;
    if (!have_type) return usage("user add: --type is required (Senior Admin, Middle Tier Server, User, XR User)");

    ZelUser user{};
    user.userName = name.data();
    user.userType = type.data();
    user.description = have_description ? description.data() : nullptr;
    user.enabled = disabled ? 0 : 1;
    user.personDN = have_person ? person.data() : nullptr;

    Session session(open_session(opts));
    if (!session) return 1;
    if (ZelRC rc = Zel_addZelUser(session.get(), &user)) return fail("cannot add Zel user " + name, rc);
    return report_done(opts, "added", name);
}

int user_update(const Options &opts, Args args) {
    int status = 0;
    std::string person, description;
    bool have_person = false, have_description = false;
    if (!option(args, "--person", person, have_person, status) ||
        !option(args, "--description", description, have_description, status))
        return status;
    bool enable = take_flag(args, "--enabled");
    bool disable = take_flag(args, "--disabled");
    if (enable && disable) return usage("user update: --enabled and --disabled exclude each other");
    std::string name;
    if (!single_operand(args, "update", name, status)) return status;

    // Every update writes the account state: enabled unless told otherwise.
    ZelUser user{};
    user.userName = name.data();
    user.description = have_description ? description.data() : nullptr;
    user.enabled = disable ? 0 : 1;
    user.personDN = have_person ? person.data() : nullptr;

    Session session(open_session(opts));
    if (!session) return 1;
    if (ZelRC rc = Zel_updateZelUser(session.get(), &user)) return fail("cannot update Zel user " + name, rc);
    return report_done(opts, "updated", name);
}

// Exit status 0 when the person has a Zel profile, 1 when not.
int user_verify(const Options &opts, Args args) {
    int status = 0;
    std::string person;
    if (!single_operand(args, "verify", person, status)) return status;
    Session session(open_session(opts));
    if (!session) return 1;
    char *profile = nullptr;
    ZelRC rc = Zel_verifyZelUser(session.get(), person.c_str(), &profile);
    std::string profile_dn = profile ? profile : "";
    Zel_memfree(profile);
    if (rc != 0 && rc != 1) return fail("cannot verify " + person, rc);
    bool is_user = rc == 1;
    if (opts.json) {
        std::printf("{\"person\":%s,\"zelUser\":%s,\"profile\":%s}\n", json_string(person.c_str()).c_str(),
                    is_user ? "true" : "false", is_user ? json_string(profile_dn.c_str()).c_str() : "null");
    } else if (is_user) {
        std::printf("%s is a Zel user: %s\n", person.c_str(), profile_dn.c_str());
    } else {
        std::printf("%s is not a Zel user\n", person.c_str());
    }
    return is_user ? 0 : 1;
}

int user_remove(const Options &opts, Args args) {
    int status = 0;
    std::string target;
    if (!single_operand(args, "remove", target, status)) return status;
    Session session(open_session(opts));
    if (!session) return 1;
    if (ZelRC rc = Zel_removeZelUser(session.get(), target.c_str())) return fail("cannot remove Zel user " + target, rc);
    return report_done(opts, "removed", target);
}

}  // namespace

int run_user(const Options &opts, Args args) {
    if (args.empty()) return usage("user: expected add, update, verify or remove");
    std::string sub = args.front();
    args.erase(args.begin());
    if (sub == "add") return user_add(opts, args);
    if (sub == "update") return user_update(opts, args);
    if (sub == "verify") return user_verify(opts, args);
    if (sub == "remove") return user_remove(opts, args);
    return usage("user: unknown subcommand " + sub + " (add, update, verify, remove)");
}

}  // namespace zelctl
