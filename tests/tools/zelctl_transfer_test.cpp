// zelctl export and import: the demo's data carried from one directory into
// an empty one and read back the same, passwords only ever sealed.
#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <regex>

#include "support/env.h"
#include "support/key_files.h"
#include "support/session.h"
#include "support/zelctl.h"
#include "csv.h"
#include "document.h"
#include "zelctl.h"

using namespace zeltest;

namespace {

const char *const kSuffix = "o=acme";

Profile demo_profile() {
    Profile p;
    p.domain_version = 6;
    p.seed_ldif = "dn: cn=Users,secAuthority=Default,o=acme\nobjectClass: container\ncn: Users\n\n" +
                  person_ldif(kSuffix, "Jo", "jo");
    return p;
}

std::string without_export_time(const std::string &doc) {
    return std::regex_replace(doc, std::regex("\"exported\": \"[^\"]*\""), "\"exported\": \"\"");
}

class ZelctlTransfer : public testing::Test {
protected:
    void SetUp() override {
        fault::reset();
        keys = key_file(kKeyLineA + " active\n");
        env = {{"ZEL_KEYFILE", keys}};
        admin_password = key_file("zel-admin-secret\n");
    }

    CommandResult run(const Directory &dir, const std::vector<std::string> &args, const std::string &input = "") {
        return zeltest::zelctl(dir, args, "2", input, env);
    }

    // A Zel database with its first administrator and, as the demo makes
    // it, the default types.
    void create_database(const Directory &dir, bool default_types = true) {
        std::vector<std::string> args = {"db", "create", kSuffix, "--admin-password-file", admin_password};
        if (default_types) args.push_back("--default-types");
        run_steps(dir, "1", {args});
    }

    // The demo's services, resource groups, user and records, with a type
    // of the demo's own kept in the Zel database.
    void write_demo_data(const Directory &dir) {
        create_database(dir);
        run_steps(dir, "1", {{"service-type", "add", "Web Application", "--id", "url", "--id", "port"}});
        run_rows(dir, {
            {"2", {"service", "add", "intranet", "--type", "Web Resource", "--description", "Intranet"}},
            {"2", {"service", "add", "mail", "--type", "Web Resource", "--description", "Mail"}},
            {"2", {"domain", "add", "staff", "--description", "Staff applications", "--member", "intranet"}},
            {"2", {"domain", "add", "Sales", "--description", "The sales team's resources", "--member", "intranet",
                   "--member", "mail"}},
            {"2", {"service", "add", "Sales", "--type", "Resource Group", "--description", "The sales team's resources"}},
            {"2", {"user", "add", "jo", "--person", "cn=Jo,o=acme", "--description", "Demo user"}},
            {"2", {"record", "add", "jo", "T:intranet", "--service", "intranet", "--account", "jo.direct",
                   "--password-stdin"}, 0, "", "intranet-pw\n"},
            {"2", {"record", "add", "jo", "G:Sales", "--service", "Sales", "--account", "sales-team",
                   "--password-stdin"}, 0, "", "team-pw\n"},
        }, env, true);
    }

    std::string export_of(const Directory &dir, const std::string &name, const char *passwords = "sealed") {
        const std::string path = testing::TempDir() + name + "-" + std::to_string(getpid()) + ".json";
        CommandResult r = run(dir, {"export", "--passwords", passwords, "-o", path});
        EXPECT_EQ(r.status, 0) << r.err;
        return path;
    }

    std::string keys, admin_password;
    std::map<std::string, std::string> env;
};

}  // namespace

TEST(CsvRows, QuotingAndMalformedRows) {
    struct Case {
        const char *text;
        std::vector<std::vector<std::string>> fields;
        std::vector<int> lines;
        std::vector<bool> malformed;
    };
    const Case cases[] = {
        {"a,b\r\nc,d", {{"a", "b"}, {"c", "d"}}, {1, 2}, {false, false}},
        {"\"x,y\",\"say \"\"hi\"\"\"\n\n\"two\nlines\",z\n", {{"x,y", "say \"hi\""}, {"two\nlines", "z"}}, {1, 3},
         {false, false}},
        {"a\"b,c\n\"d\"e,f\nok,1\n\"open", {{"a\"b", "c"}, {"de", "f"}, {"ok", "1"}, {"open"}}, {1, 2, 3, 4},
         {true, true, false, true}},
        {",\n", {{"", ""}}, {1}, {false}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        auto rows = ::zelctl::read_csv(c.text);
        ASSERT_EQ(rows.size(), c.fields.size());
        for (size_t i = 0; i < rows.size(); ++i) {
            EXPECT_EQ(rows[i].fields, c.fields[i]);
            EXPECT_EQ(rows[i].line, c.lines[i]);
            EXPECT_EQ(!rows[i].error.empty(), c.malformed[i]);
        }
    }
}

// What differs is updated, a broken object or spreadsheet row fails alone
// (rows go on past a malformed one and past a missing service; a group's
// service makes a "G:" record; the user is made on demand), and without a
// key file no passwords leave the directory at all.
TEST_F(ZelctlTransfer, ImportsUpdateAndGoOnPastFailuresAndRefuseClearText) {
    Profile p = demo_profile();
    p.seed_ldif += person_ldif(kSuffix, "Al", "al");
    Directory dir(p);
    ASSERT_NO_FATAL_FAILURE(write_demo_data(dir));
    const std::string path = export_of(dir, "edited");
    std::string doc = file_text(path);
    doc = std::regex_replace(doc, std::regex("\"Demo user\""), "\"Edited\"");
    doc = std::regex_replace(doc, std::regex("\"sales-team\""), "\"sales-crew\"");
    doc = std::regex_replace(doc, std::regex("\"service\": \"intranet\""), "\"service\": \"nowhere\"");
    // A group is updated; a service has no update call and is refused.
    doc = std::regex_replace(doc, std::regex("\"Staff applications\""), "\"Staff tools\"");
    doc = std::regex_replace(doc, std::regex("\"Mail\""), "\"Post\"");
    std::ofstream(path) << doc;
    CommandResult r = run(dir, {"import", path});
    EXPECT_EQ(r.status, 1);
    for (const char *line : {"user jo: updated", "record jo G:Sales: updated", "record jo T:intranet: failed",
                             "resource group staff: updated", "service mail: failed", "2 failed"})
        EXPECT_NE(r.out.find(line), std::string::npos) << line << "\n" << r.out;

    CommandResult clear = zeltest::zelctl(dir, {"export", "--passwords", "sealed"}, "2");
    EXPECT_EQ(clear.status, 2) << "no key file, no passwords";
    CommandResult omitted = run(dir, {"export"});
    EXPECT_EQ(omitted.status, 0);
    EXPECT_EQ(omitted.out.find("\"password\""), std::string::npos);

    const std::string csv = testing::TempDir() + "records-" + std::to_string(getpid()) + ".csv";
    std::ofstream(csv) << "user,resource,account,password,description\n"
                          "al,mail,al.mail,\"pw,with comma\",Al's mail\n"
                          "al,Sales,al.sales,team-pw\n"
                          "al,nowhere,x,y\n"
                          "al,mail,\"broken\"x,pw\n"
                       << std::string("al,Sales,al.nul,pass\0word\n", 26);
    CommandResult dry = run(dir, {"record", "import-csv", csv, "--dry-run"});
    EXPECT_NE(dry.out.find("line 2: record al T:mail: would be created"), std::string::npos) << dry.out;
    EXPECT_EQ(run(dir, {"record", "list", "al"}).out, "");

    r = run(dir, {"record", "import-csv", csv});
    EXPECT_EQ(r.status, 1);
    for (const char *line : {"line 2: record al T:mail: created", "line 3: record al G:Sales: created",
                             "line 4: failed: service nowhere", "line 5: failed: a quote in the wrong place",
                             "line 6: failed: the password holds a NUL byte", "2 created, 0 updated, 3 failed"})
        EXPECT_NE(r.out.find(line), std::string::npos) << line << "\n" << r.out;
    EXPECT_NE(run(dir, {"credential", "get", "al", "mail", "--reveal"}).out.find("pw,with comma"), std::string::npos);
}

namespace {

// Everything the demo has plus what broke moving a site: a first-generation
// service of its own type, an agent of the first generation, a user with a
// profile in each form and records in each, a record only another key opens.
class ZelctlRoundTrip : public ZelctlTransfer {
protected:
    static Profile site_profile() {
        Profile p = demo_profile();
        p.seed_ldif += person_ldif(kSuffix, "Agent", "agent") + person_ldif(kSuffix, "Ann", "ann");
        return p;
    }
    void write_site(const Directory &dir) {
        write_demo_data(dir);
        run_rows(dir, {
            {"1", {"service-type", "add", "Portal", "--id", "url"}},
            {"1", {"service", "add", "payroll", "--type", "Portal", "--description", "Payroll portal", "--id",
                   "url=https://payroll.example.com"}},
            {"1", {"user", "add", "agent", "--type", "Middle Tier Server", "--person", "cn=Agent,o=acme"}},
            {"1", {"user", "add", "ann", "--type", "User", "--person", "cn=Ann,o=acme"}},
            {"2", {"user", "add", "ann", "--person", "cn=Ann,o=acme"}},
            {"1", {"record", "add", "ann", "T:payroll", "--service", "payroll", "--account", "ann.old",
                   "--password-stdin"}, 0, "", "old-pw\n"},
            {"2", {"record", "add", "ann", "T:payroll", "--service", "payroll", "--account", "ann.new",
                   "--password-stdin"}, 0, "", "new-pw\n"},
        }, env, true);
    }
};

}  // namespace

// The site carried from one directory into an empty one and read back the
// same, passwords only ever sealed.  Also: bytes that are not UTF-8 in an
// account (a user may write their own record), and a record sealed under a
// key this operator lacks.
TEST_F(ZelctlRoundTrip, SiteMovesWhole) {
    Directory source(site_profile()), target(site_profile());
    ASSERT_NO_FATAL_FAILURE(write_site(source));
    source.modify("dn: secResCredsID=T:payroll,cn=ResCreds,principalName=ann,cn=Users,secAuthority=Default,o=acme\n"
                  "changetype: modify\nreplace: secUid\nsecUid:: /2Fubv4=\n");
    run_rows(source, {{"2", {"record", "add", "jo", "T:mail", "--service", "mail", "--account", "jo.mail",
                             "--password-stdin"}, 0, "", "other-pw\n"}},
             {{"ZEL_KEYFILE", key_file(kKeyLineB + " active\n")}}, true);
    run_rows(source, {{"2", {"record", "list", "jo", "--reveal"}, 0, "account:     jo.mail\ndescription: \nunreadable:  "},
                      {"2", {"record", "list", "jo", "--reveal"}, 0, "password:    intranet-pw"}}, env);

    const std::string first = testing::TempDir() + "site-" + std::to_string(getpid()) + ".json";
    CommandResult exported = run(source, {"export", "--passwords", "sealed", "-o", first});
    EXPECT_EQ(exported.status, 1) << "a password left behind is a failure";
    EXPECT_NE(exported.err.find("record jo T:mail: its password cannot be read"), std::string::npos) << exported.err;
    const std::string doc = file_text(first);
    for (const char *secret : {"intranet-pw", "team-pw", "new-pw"}) EXPECT_EQ(doc.find(secret), std::string::npos);
    for (const char *part : {"\"password\": \"{ZK1}a:", "\"account\": {\n        \"base64\": \"/2Fubv4=\"",
                             "\"identifiers\": [\n        \"port\",\n        \"url\"\n      ]"})
        EXPECT_NE(doc.find(part), std::string::npos) << part << "\n" << doc;

    // A database without types: the import makes them, the domain's own
    // included.  A dry run first writes nothing.
    create_database(target, false);
    run_rows(target, {{"2", {"import", first, "--dry-run"}, 0, "user jo: would be created"}}, env);
    EXPECT_FALSE(target.exists("principalName=jo,cn=Users,secAuthority=Default,o=acme")) << "a dry run writes nothing";
    CommandResult imported = run(target, {"import", first});
    EXPECT_EQ(imported.status, 0) << imported.out << imported.err;
    EXPECT_EQ(imported.out.find(": failed"), std::string::npos) << imported.out;
    for (const char *line : {"service type Web Application: created", "service type Web Resource: created"})
        EXPECT_NE(imported.out.find(line), std::string::npos) << line << "\n" << imported.out;
    for (const Directory *dir : {&target, &source})
        run_rows(*dir, {{"2", {"import", first}, 0, ": nothing changed"}}, env);
    // Seals are made with a fresh nonce each time; everything else is the same.
    EXPECT_EQ(without_export_time(file_text(export_of(target, "site2", "omit"))),
              without_export_time(file_text(export_of(source, "site3", "omit"))));
    // The agent is a sign-on agent there too.
    EXPECT_EQ(target.search("cn=Middle Tier Servers,cn=Access Groups,systemName=ORVZEL,o=acme", "base",
                            "(member=cn=Agent,o=acme)")
                  .size(),
              1u);
    run_rows(target, {{"2", {"credential", "get", "jo", "intranet", "--reveal"}, 0, "intranet-pw"},
                      {"2", {"record", "list", "jo", "--reveal"}, 0, "password:    team-pw"}}, env);
}

namespace {

// The round trip on many small random directories: what one directory
// exports, imported into another, exports the same (sealed passwords opened
// and compared), and importing it again changes nothing on either side.
// One pair of servers serves every round: a round's objects are removed
// again before the next.
// ZEL_ROUND_TRIP_SEED replays a run; ZEL_ROUND_TRIP_ROUNDS sets its length.
namespace zc = ::zelctl;

// Pieces of names: beyond ASCII, and what DNs and filters must escape.
const char *const kPieces[] = {"a", "Zed", "é", "日本", "ß", "Ω", "*", "(", ")", "\\", ",", "+", "\"",
                               "<", ">", ";", "#", " x", "&", "|", "!", "~", "'", "%", "$"};

class Rounds {
public:
    explicit Rounds(uint32_t seed) : rng_(seed) {}

    size_t below(size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng_); }
    bool chance() { return below(2) == 0; }
    std::string name(const std::string &prefix) {
        std::string out = prefix;
        for (size_t i = below(4); i > 0; --i) out += kPieces[below(std::size(kPieces))];
        return out;
    }
    zc::Text optional(const std::string &prefix) {
        switch (below(3)) {
        case 0: return std::nullopt;
        case 1: return std::string();
        default: return name(prefix);
        }
    }

    // An account is absent or a value: the directory keeps no empty one.
    zc::Text account() { return chance() ? zc::Text() : zc::Text(name("a")); }

    // One round's objects; `person` makes a person for a user name.
    zc::Document directory(int round, const std::function<std::string(const std::string &)> &person) {
        zc::Document d;
        const std::string r = "r" + std::to_string(round) + "-";
        std::vector<std::string> fg_services, services;
        std::vector<std::pair<std::string, std::string>> service_types;  // name, type
        if (chance()) {
            // One identifier: a first-generation service stores several run together.
            std::vector<std::string> ids = {chance() ? "url" : "host"};
            d.types.push_back({r + "type", ids});
            for (size_t i = below(3); i > 0; --i) {
                zc::DocService s{zc::kFirstGenerationForm, name(r + "fg" + std::to_string(i)), r + "type",
                                     optional("d"), {}};
                for (const std::string &id : ids) s.identifiers.emplace_back(id, name("v"));
                fg_services.push_back(s.name);
                service_types.emplace_back(s.name, r + "type");
                d.services.push_back(std::move(s));
            }
        }
        for (size_t i = 1 + below(2); i > 0; --i) {
            zc::DocService s{zc::kDocumentForm, name(r + "s" + std::to_string(i)), "Web Resource",
                                 optional("d"), {}};
            services.push_back(s.name);
            service_types.emplace_back(s.name, "Web Resource");
            d.services.push_back(std::move(s));
        }
        std::vector<std::string> groups;
        for (size_t i = below(2); i > 0; --i) {
            zc::DocGroup g{zc::kDocumentForm, name(r + "g" + std::to_string(i)), optional("d"), {}};
            for (const std::string &m : services)
                if (chance()) g.members.emplace_back("resourceName", m);
            for (const std::string &m : fg_services)
                if (chance()) g.members.emplace_back("resourceName", m);
            // A group's records name the service of the group's name.
            d.services.push_back({zc::kDocumentForm, g.name, "Resource Group", g.description, {}});
            groups.push_back(g.name);
            d.groups.push_back(std::move(g));
        }
        for (size_t i = 1 + below(3); i > 0; --i) {
            const std::string user = name(r + "u" + std::to_string(i)), dn = person(user);
            size_t forms = below(3);  // 0 the domain's, 1 the first generation's, 2 both
            for (int form : {zc::kFirstGenerationForm, zc::kDocumentForm}) {
                bool older = form == zc::kFirstGenerationForm;
                if ((older && forms == 0) || (!older && forms == 1)) continue;
                static const char *const kTypes[] = {"User", "Middle Tier Server", "Senior Admin", "XR User"};
                zc::Text type = older ? zc::Text(kTypes[below(4)]) : std::nullopt;
                d.users.push_back({form, user, type, optional("d"), dn, chance()});
                const auto &pool = older ? fg_services : services;
                for (const std::string &s : pool) {
                    if (chance()) continue;
                    zc::Text kind = older ? zc::Text(r + "type") : zc::Text("Web Resource");
                    d.records.push_back({form, user, "T:" + s, s, kind, account(), optional("d"),
                                         name("pw-")});
                }
                for (const std::string &g : older ? std::vector<std::string>() : groups)
                    if (chance())
                        d.records.push_back({form, user, "G:" + g, g, "Resource Group", account(), optional("d"),
                                             name("pw-")});
            }
        }
        return d;
    }

private:
    std::mt19937 rng_;
};

// The document with its seals opened: two exports of the same data match.
std::string opened(const std::string &path) {
    zc::Document doc;
    std::string error;
    EXPECT_TRUE(zc::read_document(file_text(path), doc, error)) << error;
    for (zc::DocRecord &r : doc.records) {
        if (!r.password) continue;
        char *clear = nullptr;
        EXPECT_EQ(Zel_unsealPassword(r.password->c_str(), &clear), 0u);
        r.password = clear ? clear : "";
        Zel_memfree(clear);
    }
    return zc::document_text(doc, "");
}

class RoundTripProperty : public ZelctlTransfer {
protected:
    static zc::Options options(const Directory &dir) {
        zc::Options o;
        o.uri = dir.uri();
        o.bind_dn = dir.admin_dn();
        o.password = Directory::admin_password();
        o.have_password = true;
        return o;
    }
    // Runs an import in process; its report is handed back.
    static int import(const Directory &dir, const std::string &path, std::string &report) {
        testing::internal::CaptureStdout();
        int status = zc::run_import(options(dir), {path, "--quiet"});
        report = testing::internal::GetCapturedStdout();
        return status;
    }
    // Takes a round's objects away again, so that every round starts from
    // the same small directory.
    static void remove(const Directory &dir, const zc::Document &d) {
        zc::Options current = options(dir), older = options(dir);
        older.api_version = 1;
        zc::Session s(zc::open_session(current)), s1(zc::open_session(older));
        ASSERT_TRUE(s && s1);
        auto in_form = [&](int form) { return form == zc::kFirstGenerationForm ? s1.get() : s.get(); };
        for (const zc::DocUser &u : d.users) Zel_removeZelUser(in_form(u.storage), u.name.c_str());
        for (const zc::DocGroup &g : d.groups) Zel_removeZelDomain(in_form(g.storage), g.name.c_str());
        for (const zc::DocService &t : d.services) Zel_removeTargetService(in_form(t.storage), t.name.c_str());
        for (const zc::DocServiceType &t : d.types) Zel_removeTargetServiceType(s1.get(), t.name.c_str());
    }
    static int export_to(const Directory &dir, const std::string &path) {
        return zc::run_export(options(dir), {"--passwords", "sealed", "-o", path, "--quiet"});
    }
};

}  // namespace

TEST_F(RoundTripProperty, RandomDirectoriesMoveWhole) {
    const uint32_t seed = env_number("ZEL_ROUND_TRIP_SEED", std::random_device{}());
    const int rounds = static_cast<int>(env_number("ZEL_ROUND_TRIP_ROUNDS", 200));
    SCOPED_TRACE("ZEL_ROUND_TRIP_SEED=" + std::to_string(seed));
    ScopedEnv key_file_set("ZEL_KEYFILE", keys.c_str());
    Profile p = demo_profile();
    p.no_sync = true;
    Directory source(p), target(p);
    ASSERT_NO_FATAL_FAILURE(create_database(source));
    ASSERT_NO_FATAL_FAILURE(create_database(target, false));

    const std::string base = testing::TempDir() + "round-trip-" + std::to_string(getpid());
    // Every round's directory first, so that their persons go in at once.
    int persons = 0;
    std::string people;
    Rounds random(seed);
    std::vector<zc::Document> directories;
    for (int round = 0; round < rounds; ++round)
        directories.push_back(random.directory(round, [&](const std::string &user) {
            const std::string cn = "p" + std::to_string(persons++);
            people += person_ldif(kSuffix, cn, user);
            return "cn=" + cn + "," + kSuffix;
        }));
    source.add(people);
    target.add(people);
    for (int round = 0; round < rounds && !HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        zc::Document &d = directories[round];
        d.passwords = "sealed";
        for (zc::DocRecord &r : d.records) {
            char *seal = nullptr;
            ASSERT_EQ(Zel_sealPassword(r.password->c_str(), &seal), 0u);
            r.password = seal;
            Zel_memfree(seal);
        }
        d.sort();
        std::ofstream(base + "-d.json") << zc::document_text(d, "");
        std::string report;
        ASSERT_EQ(import(source, base + "-d.json", report), 0) << report << zc::document_text(d, "");

        ASSERT_EQ(export_to(source, base + "-e.json"), 0);
        EXPECT_EQ(import(target, base + "-e.json", report), 0) << report;
        for (const Directory *dir : {&target, &source}) {
            import(*dir, base + "-e.json", report);
            EXPECT_NE(report.find(": nothing changed"), std::string::npos) << report;
        }
        ASSERT_EQ(export_to(target, base + "-f.json"), 0);
        EXPECT_EQ(opened(base + "-f.json"), opened(base + "-e.json"));
        remove(source, d);
        remove(target, d);
    }
}

// What the directory cannot keep, or a document of another version, is
// refused with where it is; nothing of such a document is used.
TEST(ExportDocument, RefusedWithItsPath) {
    const std::string head = R"({"format": "zelmgmt-export", "version": 1, )";
    const std::pair<std::string, const char *> cases[] = {
        {head + R"("users": [{"name": "sd\u0000-other"}]})", "users[0].name: a NUL byte"},
        {head + R"("records": [{"user": "a", "id": "T:x", "account": {"base64": "YQBi"}}]})",
         "records[0].account: a NUL byte"},
        {head + R"("services": [{"name": "s", "description": "x\u0000"}]})", "services[0].description: a NUL"},
        {head + R"("resourceGroups": [{"name": "g", "members": [{"type": "t", "value": {"base64": "!!"}}]}]})",
         "resourceGroups[0].members[0].value: not valid base64"},
        {head + R"("users": [{"name": "u", "storage": 3}]})", "users[0].storage: 1 or 2"},
        {R"({"format": "zelmgmt-export", "version": 4294967297})", "another version"},
        {R"({"format": "zelmgmt-export", "version": 18446744073709551615})", "another version"},
        {R"({"format": "zelmgmt-export", "version": 1.0})", "another version"},
    };
    for (const auto &[text, error] : cases) {
        ::zelctl::Document doc;
        std::string why;
        EXPECT_FALSE(::zelctl::read_document(text, doc, why)) << text;
        EXPECT_NE(why.find(error), std::string::npos) << text << ": " << why;
    }
}

// Any bytes a value holds come back the same, in a document that is JSON.
TEST(ExportDocument, BytesRoundTrip) {
    ::zelctl::Document doc;
    const std::string odd[] = {"\xff", "caf\xc3\xa9", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "ab\xe2\x82", "", "x=\\,+<>;\"#*()"};
    for (const std::string &v : odd) {
        doc.users.push_back({::zelctl::kFirstGenerationForm, v + "u", v, v, v, true});
        doc.records.push_back({0, v + "u", "T:" + v, v, v, v, v, {}});
    }
    doc.services.push_back({0, "s", {}, {}, {{odd[0], odd[2]}}});
    doc.types.push_back({"t", {odd[0], odd[1]}});
    doc.sort();
    const std::string text = ::zelctl::document_text(doc, "now");
    ::zelctl::Document back;
    std::string why;
    ASSERT_TRUE(::zelctl::read_document(text, back, why)) << why;
    EXPECT_EQ(::zelctl::document_text(back, "now"), text);
    ASSERT_EQ(back.users.size(), doc.users.size());
    for (size_t i = 0; i < doc.users.size(); ++i) {
        EXPECT_EQ(back.users[i].description, doc.users[i].description);
        EXPECT_EQ(back.users[i].storage, ::zelctl::kFirstGenerationForm);
        EXPECT_EQ(back.records[i].account, doc.records[i].account);
    }
    EXPECT_EQ(back.services[0].identifiers, doc.services[0].identifiers);
    EXPECT_EQ(back.types[0].identifiers, doc.types[0].identifiers);
}
