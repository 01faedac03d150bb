// zelctl service / service-type: target services and their types.
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

Json service_json(const ZelTargetService *ts) {
    Json identifiers = Json::array();
    for (int32_t i = 0; i < ts->reqIdentifierCount && ts->reqIdentifiers; ++i) {
        const ZelReqIdentifier *p = ts->reqIdentifiers[i];
        if (p != nullptr) identifiers.push_back(Json{{"name", json_text(p->name)}, {"value", json_text(p->value)}});
    }
    return Json{{"name", json_text(ts->name)},
                {"type", json_text(ts->type)},
                {"description", json_text(ts->description)},
                {"identifiers", std::move(identifiers)}};
}

void print_service(const ZelTargetService *ts) {
    say("name:        %s\n", or_empty(ts->name));
    say("type:        %s\n", or_empty(ts->type));
    say("description: %s\n", or_empty(ts->description));
    for (int32_t i = 0; i < ts->reqIdentifierCount && ts->reqIdentifiers; ++i) {
        const ZelReqIdentifier *p = ts->reqIdentifiers[i];
        if (p) say("identifier:  %s=%s\n", or_empty(p->name), or_empty(p->value));
    }
}

int list_services(const Options &opts, const Args &args) {
    if (!args.empty()) return usage("service list takes no arguments");
    Session s(open_session(opts));
    if (!s) return 1;
    ZelTargetServiceList *raw = nullptr;
    ZelRC rc = Zel_getAllTargetService(s.get(), &raw);
    Held<ZelTargetServiceList, Zel_freeTargetServices> list(raw);
    // The library reports an empty directory as "not found"; for a listing that is no error.
    if (rc != 0 && rc != ZEL_RC_TS_NOT_FOUND) return fail("cannot list target services", rc);
    int32_t count = list ? list->count : 0;
    if (opts.json) {
        Json out = Json::array();
        for (int32_t i = 0; i < count; ++i) out.push_back(service_json(list->services[i]));
        return print_json(out);
    }
    for (int32_t i = 0; i < count; ++i) {
        const ZelTargetService *ts = list->services[i];
        say("%s\t%s\t%s\n", or_empty(ts->name), or_empty(ts->type), or_empty(ts->description));
    }
    return 0;
}

int get_service(const Options &opts, Args args) {
    std::vector<std::string> operands;
    int status = 0;
    if (!take_operands(args, "service get", {"NAME"}, operands, status)) return status;
    std::string &name = operands[0];
    Session s(open_session(opts));
    if (!s) return 1;
    ZelTargetService *raw = nullptr;
    ZelRC rc = Zel_getTargetService(s.get(), name.c_str(), &raw);
    Held<ZelTargetService, Zel_freeTargetService> ts(raw);
    if (rc != 0) return fail("cannot read target service " + name, rc);
    if (opts.json) {
        print_json(service_json(ts.get()));
    } else {
        print_service(ts.get());
    }
    return 0;
}

// A name in use fails the add with 5.  The first-generation form checks the
// type and its identifiers before that, which no read call shows.
int dry_add_service(ZelSession *s, const Options &opts, const ZelTargetService &ts, const std::string &failed) {
    ZelTargetService *raw = nullptr;
    ZelRC rc = Zel_getTargetService(s, ts.name, &raw);
    Zel_freeTargetService(raw);
    if (rc == 0) rc = ZEL_RC_ALREADY_EXISTS;
    if (rc != ZEL_RC_TS_NOT_FOUND) return DryRun::would_fail(failed, rc);
    DryRun dry(opts, std::string("add target service ") + ts.name);
    dry.name("service", ts.name).done("added").field("type", ts.type).field("description", ts.description);
    for (int32_t i = 0; i < ts.reqIdentifierCount; ++i)
        dry.field("identifier", (std::string(ts.reqIdentifiers[i]->name) + "=" + ts.reqIdentifiers[i]->value).c_str());
    if (opts.api_version < 2) dry.note("the type and its identifiers are checked when written");
    return dry.report();
}

int dry_remove_service(ZelSession *s, const Options &opts, const std::string &name, const std::string &failed) {
    ZelTargetService *raw = nullptr;
    ZelRC rc = Zel_getTargetService(s, name.c_str(), &raw);
    Held<ZelTargetService, Zel_freeTargetService> ts(raw);
    if (rc != 0) return DryRun::would_fail(failed, rc);
    return DryRun(opts, "remove target service " + name)
        .name("service", name)
        .done("removed")
        .change("type", ts->type, nullptr)
        .change("description", ts->description, nullptr)
        .note("its target records and resource group memberships stay")
        .report();
}

// The security domain knows only its two built-in types; the first-generation
// form keeps types as entries, which no read call lists.
int dry_add_type(const Options &opts, const ZelTargetServiceType &t, const std::string &failed) {
    const std::string name = t.typeName;
    bool built_in = same_ignoring_case(name, "Web Resource") || same_ignoring_case(name, "Resource Group");
    if (opts.api_version >= 2 && !built_in) return DryRun::would_fail(failed, ZEL_RC_INVALID_ARGUMENT);
    DryRun dry(opts, "add target service type " + name);
    dry.name("serviceType", name).done("added");
    for (int32_t i = 0; i < t.identifierCount; ++i) dry.field("identifier", t.identifierNames[i]);
    dry.note(opts.api_version >= 2 ? "a built-in type of the security domain: nothing is written"
                                   : "a type that exists already fails with status 5 when written");
    return dry.report();
}

int add_service(const Options &opts, Args args) {
    std::string type, description;
    if (!take_option(args, "--type", type)) return usage("service add needs --type T");
    bool has_description = take_option(args, "--description", description);
    std::vector<std::string> ids = take_all(args, "--id");
    std::vector<std::string> operands;
    int status = 0;
    if (!take_operands(args, "service add", {"NAME"}, operands, status)) return status;
    std::string &name = operands[0];

    std::vector<std::string> id_names, id_values;
    for (const std::string &id : ids) {
        size_t eq = id.find('=');
        if (eq == std::string::npos || eq == 0) return usage("--id wants NAME=VALUE, not " + id);
        id_names.push_back(id.substr(0, eq));
        id_values.push_back(id.substr(eq + 1));
    }
    std::vector<ZelReqIdentifier> pairs(ids.size());
    std::vector<ZelReqIdentifier *> pointers;
    for (size_t i = 0; i < ids.size(); ++i) {
        pairs[i].name = id_names[i].data();
        pairs[i].value = id_values[i].data();
        pointers.push_back(&pairs[i]);
    }
    ZelTargetService ts{};
    ts.name = name.data();
    ts.type = type.data();
    ts.description = has_description ? description.data() : nullptr;
    ts.reqIdentifierCount = static_cast<int32_t>(pointers.size());
    ts.reqIdentifiers = pointers.empty() ? nullptr : pointers.data();

    Session s(open_session(opts));
    if (!s) return 1;
    const std::string failed = "cannot add target service " + name;
    if (opts.dry_run) return dry_add_service(s.get(), opts, ts, failed);
    ZelRC rc = Zel_addTargetService(s.get(), &ts);
    if (rc != 0) return fail(failed, rc);
    return report_done(opts, "target service", "service", name, "added");
}

int remove_service(const Options &opts, Args args) {
    std::vector<std::string> operands;
    int status = 0;
    if (!take_operands(args, "service remove", {"NAME"}, operands, status)) return status;
    std::string &name = operands[0];
    Session s(open_session(opts));
    if (!s) return 1;
    const std::string failed = "cannot remove target service " + name;
    if (opts.dry_run) return dry_remove_service(s.get(), opts, name, failed);
    ZelRC rc = Zel_removeTargetService(s.get(), name.c_str());
    if (rc != 0) return fail(failed, rc);
    return report_done(opts, "target service", "service", name, "removed");
}

int add_type(const Options &opts, Args args) {
    std::vector<std::string> ids = take_all(args, "--id");
    std::vector<std::string> operands;
    int status = 0;
    if (!take_operands(args, "service-type add", {"NAME"}, operands, status)) return status;
    std::string &name = operands[0];
    std::vector<char *> names;
    for (std::string &id : ids) names.push_back(id.data());
    ZelTargetServiceType t{name.data(), static_cast<int32_t>(names.size()),
                           names.empty() ? nullptr : names.data()};

    Session s(open_session(opts));
    if (!s) return 1;
    const std::string failed = "cannot add target service type " + name;
    if (opts.dry_run) return dry_add_type(opts, t, failed);
    ZelRC rc = Zel_addTargetServiceType(s.get(), &t);
    if (rc != 0) return fail(failed, rc);
    return report_done(opts, "target service type", "serviceType", name, "added");
}

int remove_type(const Options &opts, Args args) {
    std::vector<std::string> operands;
    int status = 0;
    if (!take_operands(args, "service-type remove", {"NAME"}, operands, status)) return status;
    std::string &name = operands[0];
    Session s(open_session(opts));
    if (!s) return 1;
    if (opts.dry_run)
        return DryRun(opts, "remove target service type " + name)
            .name("serviceType", name)
            .done("removed")
            .note("whether it exists shows only when written (no read call lists types)")
            .report();
    ZelRC rc = Zel_removeTargetServiceType(s.get(), name.c_str());
    if (rc != 0) return fail("cannot remove target service type " + name, rc);
    return report_done(opts, "target service type", "serviceType", name, "removed");
}

}  // namespace

int run_service(const Options &opts, Args args) {
    if (args.empty()) return usage("service needs list, get, add or remove");
    std::string verb = args.front();
    args.erase(args.begin());
    if (verb == "list") return list_services(opts, args);
    if (verb == "get") return get_service(opts, args);
    if (verb == "add") return add_service(opts, args);
    if (verb == "remove") return remove_service(opts, args);
    return usage("service: unknown command " + verb);
}

int run_service_type(const Options &opts, Args args) {
    if (args.empty()) return usage("service-type needs add or remove");
    std::string verb = args.front();
    args.erase(args.begin());
    if (verb == "add") return add_type(opts, args);
    if (verb == "remove") return remove_type(opts, args);
    return usage("service-type: unknown command " + verb);
}

}  // namespace zelctl
