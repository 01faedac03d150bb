// zelctl domain: resource groups and their member target services.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "dry_run.h"
#include "json_out.h"
#include "terminal_text.h"
#include "zelctl.h"

namespace zelctl {
namespace {

using HeldDomain = Held<ZelDomain, Zel_freeZelDomain>;

const char *kServiceType = "resourceName";

Json domain_json(const ZelDomain *d) {
    Json locations = Json::array();
    for (int32_t i = 0; i < d->locationCount && d->locations; ++i) {
        const ZelDomainLocation *loc = d->locations[i];
        if (loc != nullptr) locations.push_back(Json{{"type", json_text(loc->type)}, {"value", json_text(loc->value)}});
    }
    return Json{{"name", json_text(d->name)}, {"description", json_text(d->description)}, {"locations", std::move(locations)}};
}

// A service member by its name; other first-generation locations as
// "<type>:<name>", and one of an unknown kind as "?".
std::string location_text(const ZelDomainLocation *loc) {
    if (loc == nullptr || loc->type == nullptr) return "?";
    if (std::string(loc->type) == kServiceType) return or_empty(loc->value);
    return std::string(loc->type) + ":" + or_empty(loc->value);
}

std::string members_text(const ZelDomain *d, const char *separator) {
    std::string out;
    for (int32_t i = 0; i < d->locationCount && d->locations; ++i)
        out += (i ? separator : "") + location_text(d->locations[i]);
    return out;
}

int list_domains(const Options &opts, const Args &args) {
    std::vector<std::string> none;
    int status = 0;
    if (!take_operands(args, "domain list", {}, none, status)) return status;
    Session s(open_session(opts));
    if (!s) return 1;
    ZelDomainList *raw = nullptr;
    ZelRC rc = Zel_getAllZelDomain(s.get(), &raw);
    Held<ZelDomainList, Zel_freeZelDomains> list(raw);
    // No resource group at all is an empty listing, not an error.
    if (rc != 0 && rc != ZEL_RC_ZEL_DOMAIN_NOT_FOUND) return fail("cannot list resource groups", rc);
    int32_t count = list ? list->count : 0;
    if (opts.json) {
        Json out = Json::array();
        for (int32_t i = 0; i < count; ++i) out.push_back(domain_json(list->domains[i]));
        return print_json(out);
    }
    for (int32_t i = 0; i < count; ++i) {
        const ZelDomain *d = list->domains[i];
        say("%s\t%s\t%s\n", or_empty(d->name), or_empty(d->description), members_text(d, ",").c_str());
    }
    return 0;
}

int get_domain(const Options &opts, const Args &args) {
    std::vector<std::string> operands;
    int status = 0;
    if (!take_operands(args, "domain get", {"NAME"}, operands, status)) return status;
    Session s(open_session(opts));
    if (!s) return 1;
    ZelDomain *raw = nullptr;
    ZelRC rc = Zel_getZelDomain(s.get(), operands[0].c_str(), &raw);
    HeldDomain d(raw);
    if (rc != 0) return fail("cannot read resource group " + operands[0], rc);
    if (opts.json) {
        print_json(domain_json(d.get()));
        return 0;
    }
    say("name:        %s\n", or_empty(d->name));
    say("description: %s\n", or_empty(d->description));
    for (int32_t i = 0; i < d->locationCount && d->locations; ++i)
        say("member:      %s\n", location_text(d->locations[i]).c_str());
    return 0;
}

// The group as stored; an update or a member edit of a missing group fails
// with 6 (its entry is written by DN), a removal with the 32 of the look-up.
ZelRC read_group(ZelSession *s, const std::string &name, bool by_dn, HeldDomain &out) {
    ZelDomain *raw = nullptr;
    ZelRC rc = Zel_getZelDomain(s, name.c_str(), &raw);
    out.reset(raw);
    return by_dn && rc == ZEL_RC_ZEL_DOMAIN_NOT_FOUND ? ZEL_RC_NO_SUCH_OBJECT : rc;
}

bool is_service(ZelSession *s, const std::string &name) {
    ZelTargetService *raw = nullptr;
    ZelRC rc = Zel_getTargetService(s, name.c_str(), &raw);
    Zel_freeTargetService(raw);
    return rc != ZEL_RC_TS_NOT_FOUND;
}

bool has_member(const ZelDomain *d, const std::string &service) {
    for (int32_t i = 0; i < d->locationCount && d->locations; ++i) {
        const ZelDomainLocation *loc = d->locations[i];
        if (loc && loc->type && loc->value && std::string(loc->type) == kServiceType &&
            same_ignoring_case(loc->value, service))
            return true;
    }
    return false;
}

int dry_write_domain(ZelSession *s, const Options &opts, const ZelDomain &d, bool add, bool members_given,
                     const std::string &failed) {
    const std::string name = d.name;
    HeldDomain old;
    ZelRC rc = read_group(s, name, !add, old);
    if (add && rc == 0) rc = ZEL_RC_ALREADY_EXISTS;
    if (rc != 0 && !(add && rc == ZEL_RC_ZEL_DOMAIN_NOT_FOUND)) return DryRun::would_fail(failed, rc);
    DryRun dry(opts, std::string(add ? "add" : "update") + " resource group " + name);
    dry.name("domain", name).done(add ? "added" : "updated");
    std::string members = members_text(&d, ",");
    if (add) {
        dry.field("description", d.description).field("members", members.c_str());
    } else {
        if (d.description) dry.change("description", old->description, d.description);
        if (members_given) dry.change("members", members_text(old.get(), ",").c_str(), members.c_str());
    }
    for (int32_t i = 0; i < d.locationCount; ++i)
        if (!is_service(s, d.locations[i]->value))
            dry.note(std::string("member ") + d.locations[i]->value + " is no target service (kept all the same)");
    return dry.report();
}

// add and update: the same options; update replaces the members only when
// --member is given.
int write_domain(const Options &opts, Args args, bool add) {
    const char *verb = add ? "add" : "update";
    std::string description;
    bool has_description = false;
    int status = 0;
    if (!take_value(args, "--description", description, has_description, status)) return status;
    std::vector<std::string> members = take_all(args, "--member");
    std::vector<std::string> operands;
    if (!take_operands(args, std::string("domain ") + verb, {"NAME"}, operands, status)) return status;

    std::vector<ZelDomainLocation> locations(members.size());
    std::vector<ZelDomainLocation *> pointers;
    for (size_t i = 0; i < members.size(); ++i) {
        locations[i] = {const_cast<char *>(kServiceType), members[i].data()};
        pointers.push_back(&locations[i]);
    }
    ZelDomain d{};
    d.name = operands[0].data();
    d.description = has_description ? description.data() : nullptr;
    d.locationCount = static_cast<int32_t>(pointers.size());
    d.locations = pointers.empty() ? nullptr : pointers.data();

    Session s(open_session(opts));
    if (!s) return 1;
    const std::string failed = std::string("cannot ") + verb + " resource group " + operands[0];
    if (opts.dry_run) return dry_write_domain(s.get(), opts, d, add, !members.empty(), failed);
    ZelRC rc = add ? Zel_addZelDomain(s.get(), &d) : Zel_updateZelDomain(s.get(), &d);
    if (rc != 0) return fail(failed, rc);
    return report_done(opts, "resource group", "domain", operands[0], add ? "added" : "updated");
}

int remove_domain(const Options &opts, const Args &args) {
    std::vector<std::string> operands;
    int status = 0;
    if (!take_operands(args, "domain remove", {"NAME"}, operands, status)) return status;
    Session s(open_session(opts));
    if (!s) return 1;
    const std::string failed = "cannot remove resource group " + operands[0];
    if (opts.dry_run) {
        Held<ZelDomain, Zel_freeZelDomain> old;
        if (ZelRC rc = read_group(s.get(), operands[0], false, old)) return DryRun::would_fail(failed, rc);
        return DryRun(opts, "remove resource group " + operands[0])
            .name("domain", operands[0])
            .done("removed")
            .change("description", old->description, nullptr)
            .change("members", members_text(old.get(), ",").c_str(), nullptr)
            .report();
    }
    ZelRC rc = Zel_removeZelDomain(s.get(), operands[0].c_str());
    if (rc != 0) return fail(failed, rc);
    return report_done(opts, "resource group", "domain", operands[0], "removed");
}

// An added member must be a target service (14, checked first); the group
// must exist (6); a removed member must be one (26).  Adding a member that
// is there already changes nothing and is no failure.
int dry_edit_member(ZelSession *s, const Options &opts, const std::string &name, const std::string &service, bool add,
                    const std::string &failed) {
    if (add && !is_service(s, service)) return DryRun::would_fail(failed, ZEL_RC_TS_NOT_FOUND);
    HeldDomain group;
    if (ZelRC rc = read_group(s, name, true, group)) return DryRun::would_fail(failed, rc);
    DryRun dry(opts, std::string(add ? "add member " : "remove member ") + service + (add ? " to" : " from") +
                         " resource group " + name);
    dry.name("domain", name).name("member", service).done(add ? "added" : "removed");
    bool member = has_member(group.get(), service);
    if (!add && !member) return DryRun::would_fail(failed, ZEL_RC_LOCATION_NOT_FOUND);
    if (add && member) dry.note("already a member: nothing changes");
    return dry.report();
}

int edit_member(const Options &opts, const Args &args, bool add) {
    const char *command = add ? "domain add-member" : "domain remove-member";
    std::vector<std::string> operands;
    int status = 0;
    if (!take_operands(args, command, {"NAME", "SERVICE"}, operands, status)) return status;
    const std::string &name = operands[0], &service = operands[1];
    Session s(open_session(opts));
    if (!s) return 1;
    const std::string failed = std::string("cannot ") + (add ? "add " : "remove ") + service + (add ? " to" : " from") +
                               " resource group " + name;
    if (opts.dry_run) return dry_edit_member(s.get(), opts, name, service, add, failed);
    ZelRC rc = add ? Zel_addLocationToDomain(s.get(), name.c_str(), kServiceType, service.c_str())
                   : Zel_removeLocationFromDomain(s.get(), name.c_str(), kServiceType, service.c_str());
    const char *verb = add ? "added" : "removed";
    if (rc != 0) return fail(failed, rc);
    if (opts.json)
        print_json(Json{{"domain", name}, {"member", service}, {verb, true}});
    else
        say("member %s %s %s resource group %s\n", service.c_str(), verb, add ? "to" : "from", name.c_str());
    return 0;
}

}  // namespace

int run_domain(const Options &opts, Args args) {
    if (args.empty()) return usage("domain needs list, get, add, update, remove, add-member or remove-member");
    std::string verb = args.front();
    args.erase(args.begin());
    if (verb == "list") return list_domains(opts, args);
    if (verb == "get") return get_domain(opts, args);
    if (verb == "add" || verb == "update") return write_domain(opts, args, verb == "add");
    if (verb == "remove") return remove_domain(opts, args);
    if (verb == "add-member" || verb == "remove-member") return edit_member(opts, args, verb == "add-member");
    return usage("domain: unknown command " + verb);
}

}  // namespace zelctl
