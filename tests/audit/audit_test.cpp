// The audit trail: what a read and a write leave in it (never a secret), that
// `zelctl audit verify` names the first broken line, that a trail which
// cannot be written stops reads and writes, and that processes appending at
// once keep one chain.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/audit_chain.h"
#include "platform/audit_file.h"
#include "record/record_fixture.h"
#include "support/env.h"

using namespace recordtest;
namespace plat = zel::platform;

namespace {

std::vector<std::string> read_lines(const std::string &path) {
    std::ifstream in(path);
    std::vector<std::string> out;
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

void write_lines(const std::string &path, const std::vector<std::string> &lines) {
    std::ofstream out(path, std::ios::trunc);
    for (const std::string &l : lines) out << l << "\n";
}

std::string slurp(const std::string &path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// `"name":value` as the line holds it, or "" when the field is absent.
std::string field(const std::string &line, const std::string &name) {
    size_t at = line.find("\"" + name + "\":");
    if (at == std::string::npos) return "";
    at += name.size() + 3;
    size_t end = line[at] == '"' ? line.find('"', at + 1) + 1 : line.find_first_of(",}", at);
    return line.substr(at, end - at);
}

CommandResult verify(const std::string &path) { return run_command({ZELCTL_PATH, "audit", "verify", path}); }

// A trail file in a folder of its own, gone after the test.
struct TrailFolder {
    std::string dir = make_temp_dir("audit");
    std::string trail = dir + "/trail";
    ~TrailFolder() { std::filesystem::remove_all(dir); }
};

class AuditTest : public RecordTest {
protected:
    TrailFolder folder;
    const std::string &trail = folder.trail;
};

}  // namespace

TEST_F(AuditTest, ReadsAndWritesAreTrailedWithoutSecrets) {
    {
        ScopedEnv on("ZEL_AUDIT", trail.c_str());
        open_with_jo(2);
        ZelTargetRecord direct = record("T:app", "app", "jo.app", "Direct-Pw-41");
        ZelTargetRecord grouped = record("G:Sales", "Sales", "jo.sales", "Group-Pw-42");
        ASSERT_EQ(Zel_addTargetRecord(s.get(), "jo", &direct), 0u);
        ASSERT_EQ(Zel_addTargetRecord(s.get(), "jo", &grouped), 0u);
        EXPECT_EQ(credential(s.get(), "jo", "app"), "jo.app/Direct-Pw-41");
        EXPECT_EQ(credential(s.get(), "jo", "shop"), "jo.sales/Group-Pw-42");
        EXPECT_EQ(credential(s.get(), "jo", "nowhere"), "status 24");
        ZelTargetRecord *one = nullptr;
        ASSERT_EQ(Zel_getTargetRecord(s.get(), "jo", "T:app", &one), 0u);
        Zel_freeTargetRecord(one);
        ASSERT_EQ(Zel_removeTargetRecord(s.get(), "jo", "T:app"), 0u);
        s.reset();
    }
    // One line per read, an attempt and a result per write, in call order.
    std::vector<std::string> got;
    const std::vector<std::string> lines = read_lines(trail);
    for (const std::string &l : lines) {
        std::string summary;
        for (const char *name : {"op", "phase", "status", "record", "group", "form"})
            if (std::string value = field(l, name); !value.empty()) summary += (summary.empty() ? "" : " ") + value;
        got.push_back(summary);
    }
    const std::vector<std::string> want = {
        R"("Zel_addZelUser" "attempt")",      R"("Zel_addZelUser" "result" 0)",
        R"("Zel_addTargetRecord" "attempt")", R"("Zel_addTargetRecord" "result" 0)",
        R"("Zel_addTargetRecord" "attempt")", R"("Zel_addTargetRecord" "result" 0)",
        R"("Zel_getCredential" "result" 0 "T:app" "domain")",
        R"("Zel_getCredential" "result" 0 "G:Sales" "Sales" "domain")",
        R"("Zel_getCredential" "result" 24)",
        R"("Zel_getTargetRecord" "result" 0)",
        R"("Zel_removeTargetRecord" "attempt")", R"("Zel_removeTargetRecord" "result" 0)",
    };
    EXPECT_EQ(got, want);
    ASSERT_EQ(lines.size(), want.size());
    EXPECT_EQ(field(lines[6], "user"), "\"jo\"");
    EXPECT_EQ(field(lines[6], "target"), "\"app\"");
    EXPECT_EQ(field(lines[6], "identity"), "\"" + dir->admin_dn() + "\"");
    EXPECT_EQ(field(lines[6], "server"), "\"" + dir->uri() + "\"");
    EXPECT_EQ(field(lines[6], "pid"), std::to_string(getpid()));
    EXPECT_EQ(field(lines[6], "time").size(), std::string("\"2026-11-26T01:45:35.123Z\"").size());

    // No clear, stored or bind password anywhere in the trail.
    const std::string text = slurp(trail);
    std::vector<std::string> secrets = {"Direct-Pw-41", "Group-Pw-42", Directory::admin_password()};
    for (const Entry &e : dir->search(kJoDomainUser))
        for (const std::string &stored : e.values("secauthndata")) secrets.push_back(stored);
    ASSERT_GE(secrets.size(), 4u) << "the group record's stored value is read back";
    for (const std::string &secret : secrets) EXPECT_EQ(text.find(secret), std::string::npos) << secret;

    CommandResult v = verify(trail);
    EXPECT_EQ(v.status, 0) << v.err;
    EXPECT_EQ(v.out, trail + ": 12 lines, chain intact\n");
}

TEST_F(AuditTest, VerifyNamesTheFirstBrokenLine) {
    for (int i = 0; i < 6; ++i)
        ASSERT_EQ(plat::append_audit_line(trail.c_str(), "\"op\":\"line " + std::to_string(i + 1) + "\""), 0);
    const std::vector<std::string> intact = read_lines(trail);
    using Edit = void (*)(std::vector<std::string> &);
    struct Case {
        const char *what;
        Edit edit;
        const char *error;  // what verify says after "zelctl: audit verify: <file>: "
    } cases[] = {
        {"a field changed", [](auto &l) { l[2].replace(l[2].find("line 3"), 6, "line 9"); }, "line 3 changed"},
        {"a hash changed", [](auto &l) { l[3][l[3].size() - 3] ^= 1; }, "line 4 changed"},
        {"a line removed", [](auto &l) { l.erase(l.begin() + 2); }, "line 3 follows a removed line"},
        {"the first line removed", [](auto &l) { l.erase(l.begin()); }, "line 1 follows a removed line"},
        {"a copy inserted", [](auto &l) { l.insert(l.begin() + 4, l[1]); }, "line 5 inserted"},
        {"a copy appended", [](auto &l) { l.push_back(l[0]); }, "line 7 inserted"},
        {"lines swapped", [](auto &l) { std::swap(l[1], l[2]); }, "line 2 inserted"},
        {"not a trail line", [](auto &l) { l[4] = "{}"; }, "line 5 changed"},
    };
    for (const Case &c : cases) {
        std::vector<std::string> lines = intact;
        c.edit(lines);
        write_lines(trail, lines);
        CommandResult v = verify(trail);
        EXPECT_EQ(v.status, 1) << c.what;
        EXPECT_EQ(v.err, "zelctl: audit verify: " + trail + ": " + c.error + "\n") << c.what;
    }
    // A torn last line (no newline) is no line the chain carries on from.
    write_lines(trail, intact);
    std::ofstream(trail, std::ios::app) << "{\"seq\":7";
    EXPECT_EQ(verify(trail).err, "zelctl: audit verify: " + trail + ": line 7 changed\n");
    EXPECT_EQ(plat::append_audit_line(trail.c_str(), "\"op\":\"more\""), EBADMSG);
    EXPECT_EQ(verify(trail + ".missing").status, 1);
}

// Fail closed: a trail that cannot be opened, a full disk, or a trail whose
// last line is not one of ours stops every read and every write.
TEST_F(AuditTest, AnUnwritableTrailRefusesReadsAndWrites) {
    open_with_jo(2);
    ZelTargetRecord direct = record("T:app", "app", "jo.app", "Direct-Pw-41");
    ASSERT_EQ(Zel_addTargetRecord(s.get(), "jo", &direct), 0u);
    const std::string garbled = trail + ".garbled";
    write_lines(garbled, {"not a trail line"});

    for (const std::string &path : {std::string("/nonexistent/trail"), std::string("/dev/full"), garbled}) {
        ScopedEnv on("ZEL_AUDIT", path.c_str());
        Session audited = open_session(*dir, 2);
        ASSERT_TRUE(audited);
        fault::reset();

        ZelCredentialRequest req{nullptr, nullptr, const_cast<char *>("app")};
        ZelCredential c{reinterpret_cast<char *>(1), reinterpret_cast<char *>(1)};
        EXPECT_EQ(Zel_getCredential(audited.get(), "jo", &req, &c), ZEL_RC_SYSTEM_ERROR) << path;
        EXPECT_EQ(c.userId, nullptr);
        EXPECT_EQ(c.password, nullptr);
        ZelTargetRecord *one = reinterpret_cast<ZelTargetRecord *>(1);
        EXPECT_EQ(Zel_getTargetRecord(audited.get(), "jo", "T:app", &one), ZEL_RC_SYSTEM_ERROR) << path;
        EXPECT_EQ(one, nullptr);

        ZelTargetRecord mail = record("T:mail", "mail", "jo.mail", "Mail-Pw-43");
        EXPECT_EQ(Zel_addTargetRecord(audited.get(), "jo", &mail), ZEL_RC_SYSTEM_ERROR) << path;
        EXPECT_EQ(Zel_removeTargetRecord(audited.get(), "jo", "T:app"), ZEL_RC_SYSTEM_ERROR) << path;
        EXPECT_TRUE(fault::calls(Fn::Add).empty() && fault::calls(Fn::Modify).empty() &&
                    fault::calls(Fn::ModifyS).empty() && fault::calls(Fn::Delete).empty())
            << path << ": nothing is sent without its attempt line";
    }
    EXPECT_EQ(slurp(garbled), "not a trail line\n");
    EXPECT_EQ(credential(s.get(), "jo", "app"), "jo.app/Direct-Pw-41") << "a session without a trail is untouched";
}

// Four processes appending at once still leave one chain, every line whole.
TEST(AuditChain, ConcurrentWritersKeepOneChain) {
    TrailFolder folder;
    const std::string &trail = folder.trail;
    constexpr int kWriters = 4, kLines = 1000;
    std::vector<pid_t> writers;
    for (int w = 0; w < kWriters; ++w) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            const std::string fields = "\"writer\":" + std::to_string(w);
            for (int i = 0; i < kLines; ++i)
                if (plat::append_audit_line(trail.c_str(), fields) != 0) _exit(1);
            _exit(0);
        }
        writers.push_back(pid);
    }
    for (pid_t pid : writers) {
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    std::unique_ptr<std::FILE, int (*)(std::FILE *)> f(std::fopen(trail.c_str(), "r"), std::fclose);
    ASSERT_TRUE(f);
    plat::AuditCheck check = plat::check_audit_trail(f.get());
    EXPECT_EQ(check.fault, plat::AuditFault::None) << "line " << check.line;
    EXPECT_EQ(check.line, static_cast<uint64_t>(kWriters * kLines));
    EXPECT_EQ(verify(trail).status, 0);
}
