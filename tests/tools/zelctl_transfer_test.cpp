// zelctl export and import: the demo's data carried from one directory into
// an empty one and read back the same, passwords only ever sealed.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "support/key_files.h"
#include "support/session.h"
#include "support/zelctl.h"
#include "csv.h"
#include "document.h"

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

std::string read_text(const std::string &path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
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
        admin_password = testing::TempDir() + "transfer-admin-" + std::to_string(getpid());
        std::ofstream(admin_password) << "zel-admin-secret\n";
    }

    CommandResult run(const Directory &dir, const std::vector<std::string> &args, const std::string &input = "") {
        return zeltest::zelctl(dir, args, "2", input, env);
    }

    // A Zel database with its first administrator and, as the demo makes
    // it, the default types.
    void create_database(const Directory &dir, bool default_types = true) {
        std::vector<std::string> args = {"db", "create", kSuffix, "--admin-password-file", admin_password};
        if (default_types) args.push_back("--default-types");
        ASSERT_EQ(zeltest::zelctl(dir, args).status, 0);
    }

    // The demo's services, resource groups, user and records.
    void write_demo_data(const Directory &dir) {
        create_database(dir);
        // A type of the demo's own, kept in the Zel database.
        const std::vector<std::string> type = {"service-type", "add", "Web Application", "--id", "url", "--id", "port"};
        ASSERT_EQ(zeltest::zelctl(dir, type).status, 0);
        const std::vector<std::vector<std::string>> steps = {
            {"service", "add", "intranet", "--type", "Web Resource", "--description", "Intranet"},
            {"service", "add", "mail", "--type", "Web Resource", "--description", "Mail"},
            {"domain", "add", "staff", "--description", "Staff applications", "--member", "intranet"},
            {"domain", "add", "Sales", "--description", "The sales team's resources", "--member", "intranet",
             "--member", "mail"},
            {"service", "add", "Sales", "--type", "Resource Group", "--description", "The sales team's resources"},
            {"user", "add", "jo", "--person", "cn=Jo,o=acme", "--description", "Demo user"},
        };
        for (const auto &step : steps) ASSERT_EQ(run(dir, step).status, 0) << step[0] << " " << step[2];
        for (const auto &[id, service, account, secret] :
             {std::tuple{"T:intranet", "intranet", "jo.direct", "intranet-pw"},
              std::tuple{"G:Sales", "Sales", "sales-team", "team-pw"}})
            ASSERT_EQ(run(dir, {"record", "add", "jo", id, "--service", service, "--account", account,
                                "--password-stdin"},
                          std::string(secret) + "\n")
                          .status,
                      0);
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

TEST_F(ZelctlTransfer, DemoDataRoundTripsIntoAnEmptyDirectory) {
    Directory source(demo_profile()), target(demo_profile());
    write_demo_data(source);
    const std::string first = export_of(source, "first");
    const std::string doc = read_text(first);
    for (const char *secret : {"intranet-pw", "team-pw"}) EXPECT_EQ(doc.find(secret), std::string::npos);
    EXPECT_NE(doc.find("\"password\": \"{ZK1}a:"), std::string::npos) << doc;
    EXPECT_NE(doc.find("\"identifiers\": [\n        \"port\",\n        \"url\"\n      ]"), std::string::npos) << doc;

    // A database without types: the import makes them, the domain's own included.
    create_database(target, false);
    CommandResult dry = run(target, {"import", first, "--dry-run"});
    EXPECT_EQ(dry.status, 0) << dry.out << dry.err;
    EXPECT_NE(dry.out.find("user jo: would be created"), std::string::npos) << dry.out;
    EXPECT_FALSE(target.exists("principalName=jo,cn=Users,secAuthority=Default,o=acme")) << "a dry run writes nothing";

    CommandResult imported = run(target, {"import", first});
    EXPECT_EQ(imported.status, 0) << imported.out << imported.err;
    EXPECT_EQ(imported.out.find(": failed"), std::string::npos) << imported.out;
    for (const char *line : {"service type Web Application: created", "service type Web Resource: created"})
        EXPECT_NE(imported.out.find(line), std::string::npos) << line << "\n" << imported.out;
    CommandResult again = run(target, {"import", first});
    EXPECT_EQ(again.status, 0);
    EXPECT_NE(again.out.find(": nothing changed"), std::string::npos) << again.out;

    // Seals are made with a fresh nonce each time; everything else is the same.
    EXPECT_EQ(without_export_time(read_text(export_of(target, "second", "omit"))),
              without_export_time(read_text(export_of(source, "third", "omit"))));
    CommandResult cred = run(target, {"credential", "get", "jo", "mail", "--reveal"});
    EXPECT_NE(cred.out.find("team-pw"), std::string::npos) << cred.out << cred.err;
}

// What differs is updated, a broken object fails alone, and without a key
// file no passwords leave the directory at all.
TEST_F(ZelctlTransfer, ImportUpdatesReportsFailuresAndRefusesClearText) {
    Directory dir(demo_profile());
    write_demo_data(dir);
    const std::string path = export_of(dir, "edited");
    std::string doc = read_text(path);
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
}

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

// Rows go on past a malformed one and past a missing service; a group's
// service makes a "G:" record; the user is made on demand.
TEST_F(ZelctlTransfer, RecordsFromASpreadsheet) {
    Profile p = demo_profile();
    p.seed_ldif += person_ldif(kSuffix, "Al", "al");
    Directory dir(p);
    write_demo_data(dir);
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

    CommandResult r = run(dir, {"record", "import-csv", csv});
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
        const std::vector<std::vector<std::string>> first_generation = {
            {"service-type", "add", "Portal", "--id", "url"},
            {"service", "add", "payroll", "--type", "Portal", "--description", "Payroll portal", "--id",
             "url=https://payroll.example.com"},
            {"user", "add", "agent", "--type", "Middle Tier Server", "--person", "cn=Agent,o=acme"},
            {"user", "add", "ann", "--type", "User", "--person", "cn=Ann,o=acme"},
        };
        for (const auto &step : first_generation)
            { CommandResult r = zeltest::zelctl(dir, step, "1", "", env); ASSERT_EQ(r.status, 0) << step[0] << " " << step[2] << r.out << r.err; }
        ASSERT_EQ(run(dir, {"user", "add", "ann", "--person", "cn=Ann,o=acme"}).status, 0);
        ASSERT_EQ(zeltest::zelctl(dir, {"record", "add", "ann", "T:payroll", "--service", "payroll", "--account",
                                        "ann.old", "--password-stdin"},
                                  "1", "old-pw\n", env)
                      .status,
                  0);
        ASSERT_EQ(run(dir, {"record", "add", "ann", "T:payroll", "--service", "payroll", "--account", "ann.new",
                            "--password-stdin"},
                      "new-pw\n")
                      .status,
                  0);
    }
};

}  // namespace

// Also: bytes that are not UTF-8 in an account (a user may write their own
// record), and a record sealed under a key this operator lacks.
TEST_F(ZelctlRoundTrip, SiteMovesWhole) {
    Directory source(site_profile()), target(site_profile());
    write_site(source);
    source.modify("dn: secResCredsID=T:payroll,cn=ResCreds,principalName=ann,cn=Users,secAuthority=Default,o=acme\n"
                  "changetype: modify\nreplace: secUid\nsecUid:: /2Fubv4=\n");
    std::map<std::string, std::string> other_key = {{"ZEL_KEYFILE", key_file(kKeyLineB + " active\n")}};
    ASSERT_EQ(zeltest::zelctl(source, {"record", "add", "jo", "T:mail", "--service", "mail", "--account", "jo.mail",
                                       "--password-stdin"},
                              "2", "other-pw\n", other_key)
                  .status,
              0);

    CommandResult listed = run(source, {"record", "list", "jo", "--reveal"});
    EXPECT_EQ(listed.status, 0) << listed.err;
    for (const char *line : {"account:     jo.mail\ndescription: \nunreadable:  ", "password:    intranet-pw"})
        EXPECT_NE(listed.out.find(line), std::string::npos) << line << "\n" << listed.out;

    const std::string first = testing::TempDir() + "site-" + std::to_string(getpid()) + ".json";
    CommandResult exported = run(source, {"export", "--passwords", "sealed", "-o", first});
    EXPECT_EQ(exported.status, 1) << "a password left behind is a failure";
    EXPECT_NE(exported.err.find("record jo T:mail: its password cannot be read"), std::string::npos) << exported.err;
    EXPECT_NE(read_text(first).find("\"account\": {\n        \"base64\": \"/2Fubv4=\""), std::string::npos);

    create_database(target, false);
    CommandResult imported = run(target, {"import", first});
    EXPECT_EQ(imported.status, 0) << imported.out << imported.err;
    for (const Directory *dir : {&target, &source}) {
        CommandResult again = run(*dir, {"import", first});
        EXPECT_NE(again.out.find(": nothing changed"), std::string::npos) << again.out;
    }
    EXPECT_EQ(without_export_time(read_text(export_of(target, "site2", "omit"))),
              without_export_time(read_text(export_of(source, "site3", "omit"))));
    // The agent is a sign-on agent there too.
    EXPECT_EQ(target.search("cn=Middle Tier Servers,cn=Access Groups,systemName=ORVZEL,o=acme", "base",
                            "(member=cn=Agent,o=acme)")
                  .size(),
              1u);
    EXPECT_NE(run(target, {"credential", "get", "jo", "intranet", "--reveal"}).out.find("intranet-pw"),
              std::string::npos);
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
