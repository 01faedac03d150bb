// zelctl domain: resource groups and their member target services.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "zelctl.h"

namespace zelctl {
namespace {

struct DomainFree { void operator()(ZelDomain *d) const { Zel_freeZelDomain(d); } };
struct DomainListFree { void operator()(ZelDomainList *l) const { Zel_freeZelDomains(l); } };

const char *kServiceType = "resourceName";

const char *or_empty(const char *text) { return text ? text : ""; }

std::string domain_json(const ZelDomain *d) {
    std::string out = "{\"name\":" + json_string(d->name) + ",\"description\":" + json_string(d->description) +
                      ",\"locations\":[";
    for (int32_t i = 0; i < d->locationCount && d->locations; ++i) {
        const ZelDomainLocation *loc = d->locations[i];
        if (loc == nullptr) continue;
        out += std::string(i ? "," : "") + "{\"type\":" + json_string(loc->type) +
               ",\"value\":" + json_string(loc->value) + "}";
    }
    return out + "]}";
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
    std::unique_ptr<ZelDomainList, DomainListFree> list(raw);
    // No resource group at all is an empty listing, not an error.
    if (rc != 0 && rc != ZEL_RC_ZEL_DOMAIN_NOT_FOUND) return fail("cannot list resource groups", rc);
    int32_t count = list ? list->count : 0;
    if (opts.json) {
        std::string out = "[";
        for (int32_t i = 0; i < count; ++i) out += (i ? "," : "") + domain_json(list->domains[i]);
        std::printf("%s]\n", out.c_str());
        return 0;
    }
    for (int32_t i = 0; i < count; ++i) {
        const ZelDomain *d = list->domains[i];
        std::printf("%s\t%s\t%s\n", or_empty(d->name), or_empty(d->description), members_text(d, ",").c_str());
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
    std::unique_ptr<ZelDomain, DomainFree> d(raw);
    if (rc != 0) return fail("cannot read resource group " + operands[0], rc);
    if (opts.json) {
        std::printf("%s\n", domain_json(d.get()).c_str());
        return 0;
    }
    std::printf("name:        %s\n", or_empty(d->name));
    std::printf("description: %s\n", or_empty(d->description));
    for (int32_t i = 0; i < d->locationCount && d->locations; ++i)
        std::printf("member:      %s\n", location_text(d->locations[i]).c_str());
    return 0;
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
    ZelRC rc = add ? Zel_addZelDomain(s.get(), &d) : Zel_updateZelDomain(s.get(), &d);
    if (rc != 0) return fail(std::string("cannot ") + verb + " resource group " + operands[0], rc);
    return report_done(opts, "resource group", "domain", operands[0], add ? "added" : "updated");
}

int remove_domain(const Options &opts, const Args &args) {
    std::vector<std::string> operands;
    int status = 0;
    if (!take_operands(args, "domain remove", {"NAME"}, operands, status)) return status;
    Session s(open_session(opts));
    if (!s) return 1;
    ZelRC rc = Zel_removeZelDomain(s.get(), operands[0].c_str());
    if (rc != 0) return fail("cannot remove resource group " + operands[0], rc);
    return report_done(opts, "resource group", "domain", operands[0], "removed");
}

int edit_member(const Options &opts, const Args &args, bool add) {
    const char *command = add ? "domain add-member" : "domain remove-member";
    std::vector<std::string> operands;
    int status = 0;
    if (!take_operands(args, command, {"NAME", "SERVICE"}, operands, status)) return status;
    const std::string &name = operands[0], &service = operands[1];
    Session s(open_session(opts));
    if (!s) return 1;
    ZelRC rc = add ? Zel_addLocationToDomain(s.get(), name.c_str(), kServiceType, service.c_str())
                   : Zel_removeLocationFromDomain(s.get(), name.c_str(), kServiceType, service.c_str());
    const char *verb = add ? "added" : "removed";
    if (rc != 0)
        return fail(std::string("cannot ") + (add ? "add " : "remove ") + service + (add ? " to" : " from") +
                        " resource group " + name,
                    rc);
    if (opts.json)
        std::printf("{\"domain\":%s,\"member\":%s,\"%s\":true}\n", json_string(name.c_str()).c_str(),
                    json_string(service.c_str()).c_str(), verb);
    else
        std::printf("member %s %s %s resource group %s\n", service.c_str(), verb, add ? "to" : "from", name.c_str());
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
