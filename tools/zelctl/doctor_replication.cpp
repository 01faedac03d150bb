// Replication leftovers that decide rights.  When two servers accept the same
// change during a partition, the losing entry becomes a hidden conflict entry
// but the group memberships each side added all survive: a person can end up
// in a group its visible profile does not call for, and read what that group
// reads.  The groups a profile calls for follow from its type alone, so they
// can be checked and put back without guessing.
#include "doctor_replication.h"

#include <cctype>
#include <cstdio>
#include <map>
#include <memory>
#include <set>

#include "dn_text.h"
#include "dry_run.h"
#include "json_out.h"
#include "ldap_held.h"
#include "terminal_text.h"

namespace zelctl {
namespace {

// The groups, below the database entry, and the user type that calls for
// each ("XR User" calls for none).
struct Group {
    const char *rdn, *type;
};
const Group kGroups[] = {
    {"cn=Senior Administrators,cn=Access Groups", "Senior Admin"},
    {"cn=Administrators,cn=Access Groups", "Senior Admin"},
    {"cn=Middle Tier Servers,cn=Access Groups", "Middle Tier Server"},
    {"cn=Users,cn=Access Groups", "User"},
};

Message search(LDAP *ld, const std::string &base, int scope, const char *filter, const char **attrs, int &rc) {
    LDAPMessage *raw = nullptr;
    rc = ldap_search_ext_s(ld, base.c_str(), scope, filter, const_cast<char **>(attrs), 0, nullptr, nullptr,
                           nullptr, 0, &raw);
    return Message(raw);
}

// A failed search may leave no result at all.
LDAPMessage *first_entry(LDAP *ld, const Message &res) { return res ? ldap_first_entry(ld, res.get()) : nullptr; }

std::vector<std::string> values_of(LDAP *ld, LDAPMessage *e, const char *attr) {
    std::vector<std::string> out;
    Values v(ldap_get_values_len(ld, e, attr));
    for (berval **p = v.get(); p && *p; ++p) out.emplace_back((*p)->bv_val, (*p)->bv_len);
    return out;
}

bool same_type(const std::string &a, const char *b) { return same_ignoring_case(a, b); }

// One membership to take away (a member the profiles do not call for) or to
// give (a profile's group its person is missing from).
struct Change {
    std::string group, member;
    bool add;
    std::string why;
};

struct Plan {
    std::vector<Change> changes;
    std::vector<std::string> strangers;  // members with no Zel profile: left alone
    std::string error;                   // the groups or profiles could not be read
};

Plan plan_memberships(LDAP *ld, const std::vector<std::string> &suffixes) {
    Plan plan;
    struct Person {
        std::string dn;
        std::vector<std::string> types;
    };
    std::map<std::string, Person> people;  // by dn_key of the person
    std::vector<std::string> databases;
    const char *type_attrs[] = {"userType", nullptr};
    const char *no_attrs[] = {LDAP_NO_ATTRS, nullptr};
    for (const std::string &suffix : suffixes) {
        int rc = 0;
        Message dbs = search(ld, suffix, LDAP_SCOPE_SUBTREE, "(&(objectClass=eApplicationSystem)(systemName=ORVZEL))",
                             no_attrs, rc);
        for (LDAPMessage *e = first_entry(ld, dbs); e; e = ldap_next_entry(ld, e))
            databases.push_back(dn_of(ld, e));
        Message profiles = search(ld, suffix, LDAP_SCOPE_SUBTREE, "(objectClass=eZelUser)", type_attrs, rc);
        if (rc != LDAP_SUCCESS && rc != LDAP_NO_SUCH_OBJECT) {
            plan.error = std::string("the profiles could not be listed: ") + ldap_err2string(rc);
            return plan;
        }
        for (LDAPMessage *e = first_entry(ld, profiles); e; e = ldap_next_entry(ld, e)) {
            std::string person = parent_dn(dn_of(ld, e));
            Person &p = people[dn_key(person)];
            p.dn = person;
            for (std::string &t : values_of(ld, e, "userType")) p.types.push_back(std::move(t));
        }
    }
    const char *member_attrs[] = {"member", nullptr};
    for (const std::string &db : databases) {
        for (const Group &g : kGroups) {
            const std::string group = std::string(g.rdn) + "," + db;
            int rc = 0;
            Message res = search(ld, group, LDAP_SCOPE_BASE, "(objectClass=*)", member_attrs, rc);
            LDAPMessage *e = first_entry(ld, res);
            if (rc == LDAP_NO_SUCH_OBJECT) continue;  // a group creation did not make
            if (rc != LDAP_SUCCESS || !e) {
                plan.error = "the group " + group + " could not be read: " +
                             (rc == LDAP_SUCCESS ? "this identity does not see it" : ldap_err2string(rc));
                return plan;
            }
            std::set<std::string> members;
            for (const std::string &m : values_of(ld, e, "member")) {
                members.insert(dn_key(m));
                if (dn_key(m) == dn_key(db)) continue;  // the placeholder a group without members keeps
                auto p = people.find(dn_key(m));
                if (p == people.end()) {
                    plan.strangers.push_back(m + " in " + group);
                    continue;
                }
                bool called = false;
                for (const std::string &t : p->second.types) called = called || same_type(t, g.type);
                if (!called) {
                    std::string types;
                    for (const std::string &t : p->second.types) types += (types.empty() ? "" : ", ") + t;
                    plan.changes.push_back({group, m, false, "its profile's type (" + types + ") does not call for it"});
                }
            }
            for (const auto &[key, p] : people) {
                bool called = false;
                for (const std::string &t : p.types) called = called || same_type(t, g.type);
                if (called && !members.count(key))
                    plan.changes.push_back({group, p.dn, true, "its profile's type calls for it"});
            }
        }
    }
    return plan;
}

std::string listed(const std::vector<std::string> &items) {
    std::string out;
    const size_t shown = 10;
    for (size_t i = 0; i < items.size() && i < shown; ++i) out += (i ? "; " : "") + items[i];
    if (items.size() > shown) out += "; and " + std::to_string(items.size() - shown) + " more";
    return out;
}

ReplicationFinding conflicts_finding(LDAP *ld, const std::vector<std::string> &suffixes) {
    const char *check = "repl-conflicts";
    const char *attrs[] = {"nsds5ReplConflict", nullptr};
    std::vector<std::string> found;
    for (const std::string &suffix : suffixes) {
        int rc = 0;
        // Conflict entries are subentries: only a filter naming the class shows them.
        Message res = search(ld, suffix, LDAP_SCOPE_SUBTREE,
                             "(|(nsds5ReplConflict=*)(&(objectClass=ldapSubEntry)(nsds5ReplConflict=*)))", attrs, rc);
        if (rc != LDAP_SUCCESS && rc != LDAP_NO_SUCH_OBJECT && rc != LDAP_SIZELIMIT_EXCEEDED)
            return {check, false, true, std::string("conflict entries could not be looked for: ") + ldap_err2string(rc),
                    "run doctor as the directory manager"};
        for (LDAPMessage *e = first_entry(ld, res); e; e = ldap_next_entry(ld, e)) {
            std::vector<std::string> why = values_of(ld, e, "nsds5ReplConflict");
            found.push_back(dn_of(ld, e) + (why.empty() ? "" : " (" + why.front() + ")"));
        }
    }
    if (found.empty()) return {check, false, false, "no replication conflict entries visible", ""};
    return {check, true, false,
            std::to_string(found.size()) + " replication conflict " + (found.size() == 1 ? "entry" : "entries") +
                ": " + listed(found),
            "keep the right entry of each pair, delete the other as the directory manager, then run "
            "zelctl user regroup"};
}

ReplicationFinding members_finding(LDAP *ld, const std::vector<std::string> &suffixes) {
    const char *check = "group-members";
    Plan plan = plan_memberships(ld, suffixes);
    if (!plan.error.empty()) return {check, false, true, plan.error, "run doctor as a Zel administrator"};
    std::vector<std::string> surplus, missing;
    for (const Change &c : plan.changes)
        (c.add ? missing : surplus).push_back(c.member + " in " + c.group + ": " + c.why);
    if (!surplus.empty())
        return {check, true, false,
                std::to_string(surplus.size()) + " access-group " + (surplus.size() == 1 ? "membership" : "memberships") +
                    " not called for: " + listed(surplus),
                "zelctl user regroup (try --dry-run first)"};
    if (!missing.empty())
        return {check, false, true,
                std::to_string(missing.size()) + " access-group " + (missing.size() == 1 ? "membership" : "memberships") +
                    " missing: " + listed(missing),
                "zelctl user regroup (try --dry-run first)"};
    if (!plan.strangers.empty())
        return {check, false, true, "group members without a Zel profile: " + listed(plan.strangers),
                "give each a profile, or take it out of the group if it should not be there"};
    return {check, false, false, "every access-group member's profile calls for its group", ""};
}


}  // namespace

std::vector<ReplicationFinding> replication_findings(LDAP *ld, const std::vector<std::string> &suffixes,
                                                     int32_t dir_kind) {
    std::vector<ReplicationFinding> out;
    if (dir_kind == ZEL_DIR_NETSCAPE) out.push_back(conflicts_finding(ld, suffixes));
    out.push_back(members_finding(ld, suffixes));
    return out;
}

int run_user_regroup(const Options &opts, Args args) {
    int status = 0;
    std::vector<std::string> none;
    if (!take_operands(args, "user regroup", {}, none, status)) return status;
    Session session(open_session(opts));
    if (!session) return 1;
    OwnView view;
    if (!own_view(opts, session.get(), "user regroup", view)) return 1;
    const std::vector<std::string> &suffixes = view.suffixes;
    Ldap &ld = view.ld;
    Plan plan = plan_memberships(ld.get(), suffixes);
    if (!plan.error.empty()) {
        say_to(stderr, "zelctl: user regroup: %s\n", plan.error.c_str());
        return 1;
    }
    if (opts.dry_run) {
        DryRun dry(opts, "put the access groups in line with the profiles' types");
        dry.done("regrouped").number("changes", static_cast<long>(plan.changes.size()));
        for (const Change &c : plan.changes)
            dry.note((c.add ? "add " : "take ") + c.member + (c.add ? " to " : " out of ") + c.group + " (" + c.why + ")");
        for (const std::string &s : plan.strangers) dry.note("leave " + s + " (no Zel profile)");
        return dry.report();
    }
    int failed = 0;
    for (const Change &c : plan.changes) {
        char member[] = "member";
        char *values[] = {const_cast<char *>(c.member.c_str()), nullptr};
        LDAPMod mod{c.add ? LDAP_MOD_ADD : LDAP_MOD_DELETE, member, {values}};
        LDAPMod *mods[] = {&mod, nullptr};
        int rc = ldap_modify_ext_s(ld.get(), c.group.c_str(), mods, nullptr, nullptr);
        // Someone else did it meanwhile: the group is as it should be.
        bool done = rc == LDAP_SUCCESS || (c.add ? rc == LDAP_TYPE_OR_VALUE_EXISTS : rc == LDAP_NO_SUCH_ATTRIBUTE);
        if (!done) {
            say_to(stderr, "zelctl: user regroup: cannot %s %s %s %s: %s\n", c.add ? "add" : "take",
                   c.member.c_str(), c.add ? "to" : "out of", c.group.c_str(), ldap_err2string(rc));
            ++failed;
            continue;
        }
        if (!opts.json)
            say("%s %s %s %s\n", c.add ? "added" : "took", c.member.c_str(), c.add ? "to" : "out of",
                c.group.c_str());
    }
    if (opts.json)
        print_json(Json{{"changes", plan.changes.size()}, {"failed", failed}, {"regrouped", failed == 0}});
    else if (plan.changes.empty())
        say("the access groups already match the profiles' types\n");
    return failed ? 1 : 0;
}

}  // namespace zelctl
