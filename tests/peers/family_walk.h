// One walk through every family, in both storage forms, as an administrator
// makes it: the same steps through the library and through zelctl, against
// whichever server a test brings (slapd, 389, AD).  Each step names what it
// must answer; a driver's transcript of "step = status" lines must match.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "support/family_fixture.h"
#include "support/peers_fixture.h"

namespace zeltest::walk {

// The server under the walk, as its test reaches it.
struct Target {
    std::string base;    // where the database goes
    std::string people;  // where people are, and the walk adds one
    std::string admin;   // the database's administrator
    std::function<Session(uint32_t version)> open;
    std::vector<std::string> zelctl;  // the command and its connection options
    std::function<std::string(const std::string &)> password_file;
    std::function<std::string(const std::string &name)> person;  // makes one (unless there) with that uid, gives its DN
    std::function<size_t(const std::string &base, const std::string &filter)> count;
    ZelRC person_status = 0;  // what adding a person with a password answers
    ZelRC absent_member = 0;  // a group naming no resource: AD refuses a member that is not there
    bool empty_account = false;  // an empty account is stored as none (slapd refuses the empty value)
};

enum class Driver { Library, Zelctl };

struct Step {
    const char *name;
    uint32_t version;  // 1 the first generation, 2 the security domain
    std::function<ZelRC(ZelSession *)> library;
    std::vector<std::string> zelctl;  // empty: a look at the directory, the same for both drivers
    ZelRC status = 0;
    std::string shows = "";  // in zelctl's output; the credential's account for the library
};

inline const char *const kRecordPassword = "record-pw";

// The security domain below base as the access-control product makes it,
// with the resource "app"; entry: the domain's own entry too.
inline std::string security_domain_ldif(const std::string &base, bool entry = true) {
    const std::string domain = "secAuthority=Default," + base;
    std::string ldif = entry ? "dn: " + domain + "\nobjectClass: secAuthorityInfo\nsecAuthority: Default\nversion: 5\n\n" : "";
    for (const char *cn : {"Users", "Resources", "ResourceGroups"})
        ldif += famtest::container_ldif(std::string("cn=") + cn + "," + domain, cn);
    return ldif + "dn: secResourceID=app,cn=Resources," + domain + "\nobjectClass: secResource\nsecResourceID: app\nsecType: 1\n";
}

// tag keeps the walk's names apart from another walk's on the same server.
inline std::vector<Step> steps(const Target &t, const std::string &tag) {
    using famtest::record;
    using famtest::ServiceRecord;
    static ServiceRecord mail("mail", "Web Resource", nullptr, {{"resourceName", "mail"}}),
        app("app", "Web Resource", nullptr), east("East", "Resource Group", nullptr, {{"groupName", "East"}}),
        ops("Ops", "Resource Group", nullptr);
    static char *mailbox[] = {const_cast<char *>("mailbox")};
    static ZelTargetServiceType mail_type{const_cast<char *>("Mail"), 1, mailbox};
    const std::string jo = "jo" + tag, jo_person = t.person(jo), pz = "pz" + tag, stray = "Stray" + tag;
    const std::string first = t.empty_account ? "" : "jo.first";
    const std::string record_pw = t.password_file(kRecordPassword), person_pw = t.password_file("Pz-pw-AD-1");
    const std::string users_group = "cn=Users,cn=Access Groups,systemName=ORVZEL," + t.base;
    auto user = [=](int enabled) {
        return [=](ZelSession *z) {
            ZelUser u = famtest::user_record(jo.c_str(), "User", jo_person, nullptr, enabled);
            return Zel_updateZelUser(z, &u);
        };
    };
    auto add_record = [=](const char *id, const char *service, std::string account) {
        return [=](ZelSession *z) {
            ZelTargetRecord r = record(id, service, account.c_str(), kRecordPassword);
            return Zel_addTargetRecord(z, jo.c_str(), &r);
        };
    };
    auto credential = [=](const char *resource, std::string account) {
        return [=](ZelSession *z) {
            return famtest::credential(z, jo.c_str(), resource) == account + "/" + kRecordPassword ? 0u : 1u;
        };
    };
    auto add_domain = [](std::string name, const char *member) {
        return [=](ZelSession *z) {
            famtest::DomainRecord d(name.c_str(), nullptr, {{"resourceName", member}});
            return Zel_addZelDomain(z, &d.d);
        };
    };
    auto in_users_group = [=](ZelSession *) { return t.count(users_group, "(member=" + jo_person + ")") ? 0u : 1u; };
    auto record_args = [=](const char *verb, const char *id, const char *service, const std::string &account) {
        return std::vector<std::string>{"record", verb, jo, id, "--service", service, "--account", account,
                                        "--password-file", record_pw};
    };
    return {
        {"create database", 1, [=](ZelSession *z) {
             return Zel_createDatabase(z, t.base.c_str(), t.admin.c_str(), nullptr, nullptr, ZEL_CREATEDB_XR_DEFAULTS);
         }, {"db", "create", t.base, "--default-types", "--admin", t.admin}},
        {"add service type", 1, [](ZelSession *z) { return Zel_addTargetServiceType(z, &mail_type); },
         {"service-type", "add", "Mail", "--id", "mailbox"}},
        {"add service", 1, [](ZelSession *z) { return Zel_addTargetService(z, &mail.ts); },
         {"service", "add", "mail", "--type", "Web Resource", "--id", "resourceName=mail"}},
        {"add domain", 1, add_domain("East", "mail"), {"domain", "add", "East", "--member", "mail"}},
        // A person is an account with its password as its own.
        {"add person", 1, [=](ZelSession *z) {
             std::string pw = "Pz-pw-AD-1";
             ZelPerson p{const_cast<char *>(t.people.c_str()), const_cast<char *>(pz.c_str()), const_cast<char *>("Pz"),
                         nullptr, const_cast<char *>(pz.c_str()), pw.data()};
             return Zel_create_ePerson(z, &p, "User");
         }, {"person", "add", t.people, "--cn", pz, "--sn", "Pz", "--uid", pz, "--password-file", person_pw, "--type",
             "User"}, t.person_status},
        {"add user", 1, [=](ZelSession *z) {
             ZelUser u = famtest::user_record(jo.c_str(), "User", jo_person);
             return Zel_addZelUser(z, &u);
         }, {"user", "add", jo, "--type", "User", "--person", jo_person}},
        {"user joined its type's group", 1, in_users_group, {}},
        {"disable user", 1, user(0), {"user", "update", jo, "--disabled"}},
        {"enable user", 1, user(1), {"user", "update", jo, "--enabled"}},
        // Where an empty account is stored as none, it is read back as none.
        {"add record", 1, add_record("T:mail", "mail", first), record_args("add", "T:mail", "mail", first)},
        {"credential before update", 1, credential("mail", t.empty_account ? "(null)" : first),
         {"credential", "get", jo, "mail"}},
        {"update record", 1, [=](ZelSession *z) {
             ZelTargetRecord r = record("T:mail", "mail", "jo.mail", kRecordPassword);
             return Zel_updateTargetRecord(z, jo.c_str(), &r);
         }, record_args("update", "T:mail", "mail", "jo.mail")},
        {"credential", 1, credential("mail", "jo.mail"), {"credential", "get", jo, "mail"}, 0, "jo.mail"},
        // A group's record needs the group's own "Resource Group" service.
        {"group record before its service", 1, add_record("G:East", "East", "jo.east"),
         record_args("add", "G:East", "East", "jo.east"), ZEL_RC_TS_NOT_FOUND},
        {"add group service", 1, [](ZelSession *z) { return Zel_addTargetService(z, &east.ts); },
         {"service", "add", "East", "--type", "Resource Group", "--id", "groupName=East"}},
        {"add group record", 1, add_record("G:East", "East", "jo.east"), record_args("add", "G:East", "East", "jo.east")},
        {"remove direct record", 1, [=](ZelSession *z) { return Zel_removeTargetRecord(z, jo.c_str(), "T:mail"); },
         {"record", "remove", jo, "T:mail"}},
        {"credential through the group", 1, credential("mail", "jo.east"), {"credential", "get", jo, "mail"}, 0,
         "jo.east"},
        {"remove user", 1, [=](ZelSession *z) { return Zel_removeZelUser(z, jo.c_str()); }, {"user", "remove", jo}},
        {"user left its type's group", 1, in_users_group, {}, 1},
        {"remove domain", 1, [](ZelSession *z) { return Zel_removeZelDomain(z, "East"); }, {"domain", "remove", "East"}},
        {"remove service", 1, [](ZelSession *z) { return Zel_removeTargetService(z, "mail"); },
         {"service", "remove", "mail"}},
        {"remove database", 1, [](ZelSession *z) { return Zel_removeDatabase(z); }, {"db", "remove", "--yes"}},

        // The security domain, seeded with the resource "app".
        {"add a service that is there", 2, [](ZelSession *z) { return Zel_addTargetService(z, &app.ts); },
         {"service", "add", "app", "--type", "Web Resource"}, ZEL_RC_ALREADY_EXISTS},
        {"add group", 2, add_domain("Ops", "app"), {"domain", "add", "Ops", "--member", "app"}},
        {"add group naming no service", 2, add_domain(stray, "nosuch"), {"domain", "add", stray, "--member", "nosuch"},
         t.absent_member},
        {"add group service", 2, [](ZelSession *z) { return Zel_addTargetService(z, &ops.ts); },
         {"service", "add", "Ops", "--type", "Resource Group"}},
        {"add user", 2, [=](ZelSession *z) {
             ZelUser u = famtest::user_record(jo.c_str(), "User", jo_person);
             return Zel_addZelUser(z, &u);
         }, {"user", "add", jo, "--person", jo_person}},  // the domain form keeps no type
        {"disable user", 2, user(0), {"user", "update", jo, "--disabled"}},
        {"enable user", 2, user(1), {"user", "update", jo, "--enabled"}},
        {"add group record", 2, add_record("G:Ops", "Ops", "jo.ops"), record_args("add", "G:Ops", "Ops", "jo.ops")},
        {"credential through the group", 2, credential("app", "jo.ops"), {"credential", "get", jo, "app"}, 0, "jo.ops"},
        {"add record", 2, add_record("T:app", "app", "jo.app"), record_args("add", "T:app", "app", "jo.app")},
        {"credential", 2, credential("app", "jo.app"), {"credential", "get", jo, "app"}, 0, "jo.app"},
        {"remove record", 2, [=](ZelSession *z) { return Zel_removeTargetRecord(z, jo.c_str(), "T:app"); },
         {"record", "remove", jo, "T:app"}},
        {"remove user", 2, [=](ZelSession *z) { return Zel_removeZelUser(z, jo.c_str()); }, {"user", "remove", jo}},
        {"remove group", 2, [](ZelSession *z) { return Zel_removeZelDomain(z, "Ops"); }, {"domain", "remove", "Ops"}},
        {"remove group service", 2, [](ZelSession *z) { return Zel_removeTargetService(z, "Ops"); },
         {"service", "remove", "Ops"}},
    };
}

// The walk through one driver; returns its transcript beside the one wanted.
inline void run(const Target &t, Driver driver, const std::string &tag) {
    std::string got, want;
    Session sessions[2];
    for (const Step &st : steps(t, tag)) {
        ZelRC rc = 0;
        std::string why;
        if (driver == Driver::Library || st.zelctl.empty()) {
            Session &s = sessions[st.version - 1];
            if (!s) s = t.open(st.version);
            rc = s ? st.library(s.get()) : 1000;
        } else {
            std::vector<std::string> argv = t.zelctl;
            argv.insert(argv.end(), {"--api-version", std::to_string(st.version)});
            argv.insert(argv.end(), st.zelctl.begin(), st.zelctl.end());
            CommandResult r = run_command(argv);
            const std::string said = r.out + r.err;
            size_t at = said.find("status ");
            rc = r.status == 0 ? 0u : at != std::string::npos ? std::stoul(said.substr(at + 7)) : 1000u + r.status;
            if (said.find(st.shows) == std::string::npos || (rc != st.status)) why = " (" + said + ")";
        }
        got += "v" + std::to_string(st.version) + " " + st.name + " = " + std::to_string(rc) + why + "\n";
        want += "v" + std::to_string(st.version) + " " + st.name + " = " + std::to_string(st.status) + "\n";
    }
    EXPECT_EQ(got, want) << (driver == Driver::Library ? "through the library" : "through zelctl");
}

}  // namespace zeltest::walk
