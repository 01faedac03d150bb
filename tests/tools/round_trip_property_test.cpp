// The round trip on many small random directories: what one directory
// exports, imported into another, exports the same (sealed passwords opened
// and compared), and importing it again changes nothing on either side.
// One pair of servers serves every round: a round's objects are removed
// again before the next.
// ZEL_ROUND_TRIP_SEED replays a run; ZEL_ROUND_TRIP_ROUNDS sets its length.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>

#include "document.h"
#include "support/key_files.h"
#include "support/session.h"
#include "support/zelctl.h"
#include "zelctl.h"

using namespace zeltest;

namespace {

const char *const kSuffix = "o=acme";

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
    zelctl::Text optional(const std::string &prefix) {
        switch (below(3)) {
        case 0: return std::nullopt;
        case 1: return std::string();
        default: return name(prefix);
        }
    }

    // An account is absent or a value: the directory keeps no empty one.
    zelctl::Text account() { return chance() ? zelctl::Text() : zelctl::Text(name("a")); }

    // One round's objects; `person` makes a person for a user name.
    zelctl::Document directory(int round, const std::function<std::string(const std::string &)> &person) {
        zelctl::Document d;
        const std::string r = "r" + std::to_string(round) + "-";
        std::vector<std::string> fg_services, services;
        std::vector<std::pair<std::string, std::string>> service_types;  // name, type
        if (chance()) {
            // One identifier: a first-generation service stores several run together.
            std::vector<std::string> ids = {chance() ? "url" : "host"};
            d.types.push_back({r + "type", ids});
            for (size_t i = below(3); i > 0; --i) {
                zelctl::DocService s{zelctl::kFirstGenerationForm, name(r + "fg" + std::to_string(i)), r + "type",
                                     optional("d"), {}};
                for (const std::string &id : ids) s.identifiers.emplace_back(id, name("v"));
                fg_services.push_back(s.name);
                service_types.emplace_back(s.name, r + "type");
                d.services.push_back(std::move(s));
            }
        }
        for (size_t i = 1 + below(2); i > 0; --i) {
            zelctl::DocService s{zelctl::kDocumentForm, name(r + "s" + std::to_string(i)), "Web Resource",
                                 optional("d"), {}};
            services.push_back(s.name);
            service_types.emplace_back(s.name, "Web Resource");
            d.services.push_back(std::move(s));
        }
        std::vector<std::string> groups;
        for (size_t i = below(2); i > 0; --i) {
            zelctl::DocGroup g{zelctl::kDocumentForm, name(r + "g" + std::to_string(i)), optional("d"), {}};
            for (const std::string &m : services)
                if (chance()) g.members.emplace_back("resourceName", m);
            for (const std::string &m : fg_services)
                if (chance()) g.members.emplace_back("resourceName", m);
            // A group's records name the service of the group's name.
            d.services.push_back({zelctl::kDocumentForm, g.name, "Resource Group", g.description, {}});
            groups.push_back(g.name);
            d.groups.push_back(std::move(g));
        }
        for (size_t i = 1 + below(3); i > 0; --i) {
            const std::string user = name(r + "u" + std::to_string(i)), dn = person(user);
            size_t forms = below(3);  // 0 the domain's, 1 the first generation's, 2 both
            for (int form : {zelctl::kFirstGenerationForm, zelctl::kDocumentForm}) {
                bool older = form == zelctl::kFirstGenerationForm;
                if ((older && forms == 0) || (!older && forms == 1)) continue;
                static const char *const kTypes[] = {"User", "Middle Tier Server", "Senior Admin", "XR User"};
                zelctl::Text type = older ? zelctl::Text(kTypes[below(4)]) : std::nullopt;
                d.users.push_back({form, user, type, optional("d"), dn, chance()});
                const auto &pool = older ? fg_services : services;
                for (const std::string &s : pool) {
                    if (chance()) continue;
                    zelctl::Text kind = older ? zelctl::Text(r + "type") : zelctl::Text("Web Resource");
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

std::string base64(const std::string &bytes) {
    static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t i = 0; i < bytes.size(); i += 3) {
        uint32_t v = uint8_t(bytes[i]) << 16;
        if (i + 1 < bytes.size()) v |= uint8_t(bytes[i + 1]) << 8;
        if (i + 2 < bytes.size()) v |= uint8_t(bytes[i + 2]);
        for (size_t k = 0; k < 4; ++k) out += i + k <= bytes.size() ? kAlphabet[(v >> (18 - 6 * k)) & 63] : '=';
    }
    return out;
}

// A person whose uid is the Zel user's name, as a user's records find it.
std::string person_of(const std::string &cn, const std::string &uid) {
    return "dn: cn=" + cn + "," + kSuffix +
           "\nobjectClass: top\nobjectClass: person\nobjectClass: organizationalPerson\nobjectClass: inetOrgPerson"
           "\nobjectClass: ePerson\ncn: " + cn + "\nsn: " + cn + "\nuid:: " + base64(uid) + "\n\n";
}

uint32_t env_number(const char *name, uint32_t otherwise) {
    const char *v = std::getenv(name);
    return v && *v ? static_cast<uint32_t>(std::strtoul(v, nullptr, 10)) : otherwise;
}

std::string read_text(const std::string &path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// The document with its seals opened: two exports of the same data match.
std::string opened(const std::string &path) {
    zelctl::Document doc;
    std::string error;
    EXPECT_TRUE(zelctl::read_document(read_text(path), doc, error)) << error;
    for (zelctl::DocRecord &r : doc.records) {
        if (!r.password) continue;
        char *clear = nullptr;
        EXPECT_EQ(Zel_unsealPassword(r.password->c_str(), &clear), 0u);
        r.password = clear ? clear : "";
        Zel_memfree(clear);
    }
    return zelctl::document_text(doc, "");
}

class RoundTripProperty : public testing::Test {
protected:
    static Profile profile() {
        Profile p;
        p.domain_version = 6;
        p.no_sync = true;
        p.seed_ldif = "dn: cn=Users,secAuthority=Default,o=acme\nobjectClass: container\ncn: Users\n\n";
        return p;
    }
    static zelctl::Options options(const Directory &dir) {
        zelctl::Options o;
        o.uri = dir.uri();
        o.bind_dn = dir.admin_dn();
        o.password = Directory::admin_password();
        o.have_password = true;
        return o;
    }
    // Runs an import in process; its report is handed back.
    static int import(const Directory &dir, const std::string &path, std::string &report) {
        testing::internal::CaptureStdout();
        int status = zelctl::run_import(options(dir), {path, "--quiet"});
        report = testing::internal::GetCapturedStdout();
        return status;
    }
    // Takes a round's objects away again, so that every round starts from
    // the same small directory.
    static void remove(const Directory &dir, const zelctl::Document &d) {
        zelctl::Options current = options(dir), older = options(dir);
        older.api_version = 1;
        zelctl::Session s(zelctl::open_session(current)), s1(zelctl::open_session(older));
        ASSERT_TRUE(s && s1);
        auto in_form = [&](int form) { return form == zelctl::kFirstGenerationForm ? s1.get() : s.get(); };
        for (const zelctl::DocUser &u : d.users) Zel_removeZelUser(in_form(u.storage), u.name.c_str());
        for (const zelctl::DocGroup &g : d.groups) Zel_removeZelDomain(in_form(g.storage), g.name.c_str());
        for (const zelctl::DocService &t : d.services) Zel_removeTargetService(in_form(t.storage), t.name.c_str());
        for (const zelctl::DocServiceType &t : d.types) Zel_removeTargetServiceType(s1.get(), t.name.c_str());
    }
    static int export_to(const Directory &dir, const std::string &path) {
        return zelctl::run_export(options(dir), {"--passwords", "sealed", "-o", path, "--quiet"});
    }
};

}  // namespace

TEST_F(RoundTripProperty, RandomDirectoriesMoveWhole) {
    const uint32_t seed = env_number("ZEL_ROUND_TRIP_SEED", std::random_device{}());
    const int rounds = static_cast<int>(env_number("ZEL_ROUND_TRIP_ROUNDS", 200));
    SCOPED_TRACE("ZEL_ROUND_TRIP_SEED=" + std::to_string(seed));
    const std::string keys = key_file(kKeyLineA + " active\n");
    setenv("ZEL_KEYFILE", keys.c_str(), 1);
    Directory source(profile()), target(profile());
    const std::string admin_password = testing::TempDir() + "round-trip-admin-" + std::to_string(getpid());
    std::ofstream(admin_password) << "zel-admin-secret\n";
    ASSERT_EQ(zeltest::zelctl(source, {"db", "create", kSuffix, "--admin-password-file", admin_password,
                                       "--default-types"}).status, 0);
    ASSERT_EQ(zeltest::zelctl(target, {"db", "create", kSuffix, "--admin-password-file", admin_password}).status, 0);

    const std::string base = testing::TempDir() + "round-trip-" + std::to_string(getpid());
    // Every round's directory first, so that their persons go in at once.
    int persons = 0;
    std::string people;
    Rounds random(seed);
    std::vector<zelctl::Document> directories;
    for (int round = 0; round < rounds; ++round)
        directories.push_back(random.directory(round, [&](const std::string &user) {
            const std::string cn = "p" + std::to_string(persons++);
            people += person_of(cn, user);
            return "cn=" + cn + "," + kSuffix;
        }));
    source.add(people);
    target.add(people);
    for (int round = 0; round < rounds && !HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        zelctl::Document &d = directories[round];
        d.passwords = "sealed";
        for (zelctl::DocRecord &r : d.records) {
            char *seal = nullptr;
            ASSERT_EQ(Zel_sealPassword(r.password->c_str(), &seal), 0u);
            r.password = seal;
            Zel_memfree(seal);
        }
        d.sort();
        std::ofstream(base + "-d.json") << zelctl::document_text(d, "");
        std::string report;
        ASSERT_EQ(import(source, base + "-d.json", report), 0) << report << zelctl::document_text(d, "");

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
    unsetenv("ZEL_KEYFILE");
}
