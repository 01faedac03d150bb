// The audit trail: what a read and a write leave in it (never a secret), that
// `zelctl audit verify` names the first broken line, that a trail which
// cannot be written stops reads and writes, and that processes appending at
// once keep one chain.
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <fstream>
#include <sstream>

#include "platform/audit_chain.h"
#include "platform/audit_file.h"
#include "platform/key_file.h"
#include "record/record_fixture.h"
#include "support/env.h"
#include "support/key_files.h"

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
        // A write refused for its arguments is trailed like any other.
        EXPECT_EQ(Zel_addLocationToDomain(s.get(), nullptr, "resourceName", "app"), ZEL_RC_INVALID_ARGUMENT);
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
        R"("Zel_addLocationToDomain" "attempt")", R"("Zel_addLocationToDomain" "result" 1005)",
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
    EXPECT_EQ(v.out, trail + ": 14 lines, chain intact\n");
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
    // A torn last line (no newline) is no line the chain carries on from,
    // until the next writer seals over it: then the damage is reported, and
    // the lines after it still check.
    write_lines(trail, intact);
    std::ofstream(trail, std::ios::app) << "{\"seq\":7";
    EXPECT_EQ(verify(trail).err, "zelctl: audit verify: " + trail + ": line 7 changed\n");
    EXPECT_EQ(plat::append_audit_line(trail.c_str(), "\"op\":\"more\""), 0);
    EXPECT_EQ(plat::append_audit_line(trail.c_str(), "\"op\":\"more\""), 0);
    CommandResult v = verify(trail);
    EXPECT_EQ(v.status, 1);
    EXPECT_EQ(v.err, "zelctl: audit verify: " + trail + ": line 7 torn by an interrupted write (sealed over by the next writer)\n");
    std::vector<std::string> repaired = read_lines(trail);
    ASSERT_EQ(repaired.size(), 10u);
    EXPECT_EQ(field(repaired[7], "torn"), "8");
    repaired[9].replace(repaired[9].find("more"), 4, "less");
    write_lines(trail, repaired);
    EXPECT_EQ(verify(trail).err, "zelctl: audit verify: " + trail + ": line 10 changed\n");
    EXPECT_EQ(verify(trail + ".missing").status, 1);
}

// Under a trail key a forger without it can neither re-seal an edit nor add a
// line; a cut end or an emptied file shows against a head kept elsewhere.
TEST(AuditChain, AKeyedTrailCannotBeResealedOrCutUnseen) {
    TrailFolder folder;
    const std::string &trail = folder.trail, key = folder.dir + "/trail.key";
    ASSERT_EQ(run_command({ZELCTL_PATH, "key", "generate", key}).status, 0);
    ScopedEnv keyed("ZEL_AUDIT_KEY", key.c_str());
    plat::KeyRing ring;
    ASSERT_EQ(plat::read_key_file(key.c_str(), ring), plat::KeyFileState::usable);
    plat::AuditKey k{};
    std::memcpy(k.bytes, ring.active()->key, sizeof k.bytes);
    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(plat::append_audit_line(trail.c_str(), "\"op\":\"line " + std::to_string(i + 1) + "\"", &k), 0);
    const std::vector<std::string> intact = read_lines(trail);
    CommandResult head = run_command({ZELCTL_PATH, "audit", "head", trail});
    ASSERT_EQ(head.status, 0) << head.err;
    const std::string kept = head.out.substr(0, head.out.size() - 1);
    EXPECT_EQ(kept.rfind("5:", 0), 0u) << kept;
    EXPECT_EQ(run_command({ZELCTL_PATH, "audit", "verify", trail, "--expect", kept}).status, 0);

    // Re-sealing from line 3 on without the key, as anyone could before.
    auto reseal = [&](std::vector<std::string> lines, size_t from, const plat::AuditKey *with) {
        plat::AuditLink link;
        ASSERT_TRUE(from == 0 || plat::read_audit_link(lines[from - 1], link));
        for (size_t i = from; i < lines.size(); ++i) {
            std::string fields = lines[i].substr(lines[i].find(',') + 1);
            fields.erase(fields.rfind(",\""));
            plat::AuditLink next;
            lines[i] = plat::seal_audit_line(link, fields, next, with);
            lines[i].pop_back();
            link = next;
        }
        write_lines(trail, lines);
    };
    std::vector<std::string> edited = intact;
    edited[2].replace(edited[2].find("line 3"), 6, "line 9");
    const plat::AuditKey other{{7}};
    struct Case {
        const char *what;
        std::function<void()> forge;
        const char *expect;  // --expect, or null
        const char *error;   // after "<file>: "
    } cases[] = {
        {"an edit re-sealed unkeyed", [&] { reseal(edited, 2, nullptr); }, nullptr,
         "line 3 not sealed under the trail key"},
        {"an edit re-sealed under another key", [&] { reseal(edited, 2, &other); }, nullptr, "line 3 changed"},
        {"a whole unkeyed trail", [&] { reseal(intact, 0, nullptr); }, nullptr,
         "line 1 not sealed under the trail key"},
        {"a forged line appended", [&] { write_lines(trail, intact); plat::append_audit_line(trail.c_str(), "\"op\":\"x\""); },
         nullptr, "line 6 not sealed under the trail key"},
        {"the end cut", [&] { write_lines(trail, {intact[0], intact[1]}); }, kept.c_str(),
         "line 3 missing: the trail ends before the expected head"},
        {"emptied", [&] { write_lines(trail, {}); }, kept.c_str(),
         "line 1 missing: the trail ends before the expected head"},
        {"another trail", [&] { reseal(edited, 2, &k); }, kept.c_str(), "line 5 is not the expected head"},
    };
    for (const Case &c : cases) {
        c.forge();
        std::vector<std::string> args = {ZELCTL_PATH, "audit", "verify", trail};
        if (c.expect) args.insert(args.end(), {"--expect", c.expect});
        CommandResult v = run_command(args);
        EXPECT_EQ(v.status, 1) << c.what;
        EXPECT_EQ(v.err, "zelctl: audit verify: " + trail + ": " + c.error + "\n") << c.what;
    }
    // Without the key nothing keyed is taken as checked.
    write_lines(trail, intact);
    ScopedEnv unkeyed("ZEL_AUDIT_KEY", nullptr);
    EXPECT_EQ(verify(trail).err, "zelctl: audit verify: " + trail +
                                     ": line 1 sealed under a trail key (set ZEL_AUDIT_KEY to check it)\n");
}

// The trail file is taken only as a regular file of its writers alone, and
// a size limit fails the write instead of killing the caller.
TEST(AuditChain, TheTrailFileIsOpenedSafely) {
    TrailFolder folder;
    const std::string &trail = folder.trail;
    const std::string link = folder.dir + "/link", open = folder.dir + "/open";
    ASSERT_EQ(plat::append_audit_line(trail.c_str(), "\"op\":\"a\""), 0);
    ASSERT_EQ(symlink(trail.c_str(), link.c_str()), 0);
    write_lines(open, {});
    ASSERT_EQ(chmod(open.c_str(), 0620), 0);
    EXPECT_EQ(plat::append_audit_line(link.c_str(), "\"op\":\"b\""), ELOOP);
    EXPECT_EQ(plat::append_audit_line(open.c_str(), "\"op\":\"b\""), EPERM);
    EXPECT_EQ(plat::append_audit_line("/dev/null", "\"op\":\"b\""), ENOTSUP);

    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        struct rlimit limit = {4096, 4096};
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(2);
        for (int i = 0; i < 1000; ++i)
            if (int err = plat::append_audit_line(trail.c_str(), "\"op\":\"filling\"")) _exit(err == EFBIG ? 0 : 3);
        _exit(4);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(verify(trail).status, 0) << "only whole lines stay";
}

// A session seals under ZEL_AUDIT_KEY and sends the head out every
// ZEL_AUDIT_CHECKPOINT lines and when it closes; a key file it cannot use
// stops every audited call.
TEST_F(AuditTest, ASessionSealsUnderTheTrailKeyAndChecksPointsTheHead) {
    const std::string key = folder.dir + "/trail.key";
    ASSERT_EQ(Zel_generateKeyFile(key.c_str(), 0, nullptr), 0u);
    open_with_jo(2);
    ZelTargetRecord direct = record("T:app", "app", "jo.app", "Direct-Pw-41");
    ASSERT_EQ(Zel_addTargetRecord(s.get(), "jo", &direct), 0u);
    {
        ScopedEnv on("ZEL_AUDIT", trail.c_str()), keyed("ZEL_AUDIT_KEY", key.c_str()),
            every("ZEL_AUDIT_CHECKPOINT", "2");
        Session audited = open_session(*dir, 2);
        ASSERT_TRUE(audited);
        audited.get()->debug_level = 10;  // progress: the checkpoints
        testing::internal::CaptureStdout();
        for (int i = 0; i < 3; ++i) EXPECT_EQ(credential(audited.get(), "jo", "app"), "jo.app/Direct-Pw-41");
        audited.reset();
        const std::string traced = testing::internal::GetCapturedStdout();
        CommandResult head = run_command({ZELCTL_PATH, "audit", "head", trail});
        ASSERT_EQ(head.status, 0) << head.err;
        EXPECT_EQ(head.out.rfind("3:", 0), 0u);
        EXPECT_NE(traced.find("Audit checkpoint: head 2:"), std::string::npos) << traced;
        EXPECT_NE(traced.find("Audit checkpoint: head " + head.out), std::string::npos) << "at close\n" << traced;
    }
    EXPECT_NE(slurp(trail).find(",\"mac\":\""), std::string::npos);
    EXPECT_EQ(verify(trail).status, 1) << "a keyed trail cannot be checked without the key";

    const std::string loose = key_file(slurp(key), 0644);
    ScopedEnv on("ZEL_AUDIT", trail.c_str()), keyed("ZEL_AUDIT_KEY", loose.c_str());
    Session refused = open_session(*dir, 2);
    ASSERT_TRUE(refused);
    ZelCredentialRequest req{nullptr, nullptr, const_cast<char *>("app")};
    ZelCredential c{};
    EXPECT_EQ(Zel_getCredential(refused.get(), "jo", &req, &c), ZEL_RC_SYSTEM_ERROR);
    EXPECT_EQ(c.password, nullptr);
}

// Fail closed: a trail that cannot be opened, a full disk, or a trail whose
// last line is not one of ours stops every read and every write.
TEST_F(AuditTest, AnUnwritableTrailRefusesReadsAndWrites) {
    open_with_jo(2);
    ZelTargetRecord direct = record("T:app", "app", "jo.app", "Direct-Pw-41");
    ASSERT_EQ(Zel_addTargetRecord(s.get(), "jo", &direct), 0u);
    const std::string garbled = trail + ".garbled";
    write_lines(garbled, {"not a trail line"});

    const std::string shared = trail + ".shared", link = trail + ".link";
    write_lines(shared, {});
    ASSERT_EQ(chmod(shared.c_str(), 0666), 0);
    ASSERT_EQ(symlink(garbled.c_str(), link.c_str()), 0);
    const std::pair<std::string, const char *> trails[] = {
        {"/nonexistent/trail", "No such file"}, {"/dev/full", "it is not a regular file"},
        {garbled, "its last line is not a trail line"}, {shared, "group or others may write it"},
        {link, "it is a symbolic link"}};
    for (const auto &[path, why] : trails) {
        ScopedEnv on("ZEL_AUDIT", path.c_str());
        Session audited = open_session(*dir, 2);
        ASSERT_TRUE(audited);
        audited.get()->debug_level = 2;  // failures traced
        fault::reset();

        ZelCredentialRequest req{nullptr, nullptr, const_cast<char *>("app")};
        ZelCredential c{reinterpret_cast<char *>(1), reinterpret_cast<char *>(1)};
        testing::internal::CaptureStdout();
        EXPECT_EQ(Zel_getCredential(audited.get(), "jo", &req, &c), ZEL_RC_SYSTEM_ERROR) << path;
        EXPECT_NE(testing::internal::GetCapturedStdout().find(std::string("Audit trail not written: ") + why),
                  std::string::npos)
            << path;
        audited.get()->debug_level = 0;
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

// --json output: the trail's name goes out as valid JSON whatever bytes it
// holds (control characters as \u00XX, a byte that is not UTF-8 as U+FFFD),
// and a broken chain names its line instead of a head.
TEST(AuditChain, JsonReportsNameTheTrailInValidJson) {
    TrailFolder folder;
    const std::string odd = folder.dir + "/t\b\f\x01\xff";
    const std::string shown = "\"" + folder.dir + "/t\\u0008\\u000c\\u0001\xef\xbf\xbd\"";
    for (int i = 0; i < 2; ++i) ASSERT_EQ(plat::append_audit_line(odd.c_str(), "\"op\":\"x\""), 0);
    CommandResult head = run_command({ZELCTL_PATH, "--json", "audit", "head", odd});
    ASSERT_EQ(head.status, 0) << head.err;
    EXPECT_EQ(head.out.rfind("{\"file\":" + shown + ",\"lines\":2,\"head\":\"2:", 0), 0u) << head.out;

    std::vector<std::string> lines = read_lines(odd);
    lines[0][lines[0].size() - 2] ^= 1;
    std::ofstream(odd, std::ios::trunc) << lines[0] << "\n" << lines[1] << "\n";
    CommandResult broken = run_command({ZELCTL_PATH, "--json", "audit", "verify", odd});
    EXPECT_EQ(broken.status, 1);
    EXPECT_EQ(broken.out.rfind("{\"file\":" + shown + ",\"intact\":false,\"line\":1,\"fault\":\"", 0), 0u) << broken.out;
}
