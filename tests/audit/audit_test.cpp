// The audit trail: what a read and a write leave in it (never a secret), that
// `zelctl audit verify` names the first broken line of a plain or keyed
// trail, that a trail which cannot be written stops reads and writes, and
// that processes appending at once keep one chain.
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <fstream>

#include "platform/audit_chain.h"
#include "platform/audit_file.h"
#include "support/family_fixture.h"
#include "support/env.h"
#include "support/key_files.h"
#include "ZelSession.h"

using namespace famtest;
namespace plat = zel::platform;

namespace {

void write_lines(const std::string &path, const std::vector<std::string> &lines) {
    std::ofstream out(path, std::ios::trunc);
    for (const std::string &l : lines) out << l << "\n";
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
    const std::vector<std::string> lines = lines_of(file_text(trail));
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
    std::vector<std::string> secrets = {"Direct-Pw-41", "Group-Pw-42", Directory::admin_password()};
    for (const Entry &e : dir->search(kJoDomainUser))
        for (const std::string &stored : e.values("secauthndata")) secrets.push_back(stored);
    ASSERT_GE(secrets.size(), 4u) << "the group record's stored value is read back";
    for (const std::string &secret : secrets)
        for (const std::string &l : lines) EXPECT_EQ(l.find(secret), std::string::npos) << secret;

    CommandResult v = verify(trail);
    EXPECT_EQ(v.status, 0) << v.err;
    EXPECT_EQ(v.out, trail + ": 14 lines, chain intact\n");
}

// Unkeyed and keyed trails edited as a forger would; verify names the first
// line that gives the edit away.  Under a trail key a forger without it can
// neither re-seal an edit nor add a line; a cut end or an emptied file shows
// against a head kept elsewhere.
TEST(AuditChain, VerifyNamesTheFirstBrokenLine) {
    using Lines = std::vector<std::string>;
    TrailFolder folder;
    const std::string &trail = folder.trail, key = folder.dir + "/trail.key";
    ASSERT_EQ(Zel_generateKeyFile(key.c_str(), 0, nullptr), 0u);
    plat::AuditKey k{};
    {
        ScopedEnv keyed("ZEL_AUDIT_KEY", key.c_str());
        ASSERT_EQ(plat::read_configured_audit_key(k), plat::KeyFileState::usable);
    }
    auto written = [&](const plat::AuditKey *with) {
        std::filesystem::remove(trail);
        for (int i = 0; i < 6; ++i)
            EXPECT_EQ(plat::append_audit_line(trail.c_str(), "\"op\":\"line " + std::to_string(i + 1) + "\"", with), 0);
        return lines_of(file_text(trail));
    };
    const Lines plain = written(nullptr), keyed = written(&k);
    std::string head;
    {
        ScopedEnv with_key("ZEL_AUDIT_KEY", key.c_str());
        CommandResult r = run_command({ZELCTL_PATH, "audit", "head", trail});
        ASSERT_EQ(r.status, 0) << r.err;
        head = r.out.substr(0, r.out.size() - 1);
        EXPECT_EQ(head.rfind("6:", 0), 0u) << head;
        EXPECT_EQ(run_command({ZELCTL_PATH, "audit", "verify", trail, "--expect", head}).status, 0);
    }
    // Seals the lines from `from` on again, as anyone who can write the file could.
    auto resealed = [](Lines lines, size_t from, const plat::AuditKey *with) {
        plat::AuditLink link;
        EXPECT_TRUE(from == 0 || plat::read_audit_link(lines[from - 1], link));
        for (size_t i = from; i < lines.size(); ++i) {
            std::string fields = lines[i].substr(lines[i].find(',') + 1);
            fields.erase(fields.rfind(",\""));
            plat::AuditLink next;
            lines[i] = plat::seal_audit_line(link, fields, next, with);
            lines[i].pop_back();
            link = next;
        }
        return lines;
    };
    auto third_edited = [](Lines l) { l[2].replace(l[2].find("line 3"), 6, "line 9"); return l; };
    const plat::AuditKey other{{7}};
    struct Case {
        const char *what;
        bool keyed;         // a keyed trail, checked with its key
        std::function<Lines(Lines)> edit;
        bool expect_head;   // checked against the head kept before the edit
        const char *error;  // what verify says after "<file>: "
    } cases[] = {
        {"a field changed", false, third_edited, false, "line 3 changed"},
        {"a hash changed", false, [](Lines l) { l[3][l[3].size() - 3] ^= 1; return l; }, false, "line 4 changed"},
        {"a line removed", false, [](Lines l) { l.erase(l.begin() + 2); return l; }, false,
         "line 3 follows a removed line"},
        {"the first line removed", false, [](Lines l) { l.erase(l.begin()); return l; }, false,
         "line 1 follows a removed line"},
        {"a copy inserted", false, [](Lines l) { l.insert(l.begin() + 4, l[1]); return l; }, false, "line 5 inserted"},
        {"a copy appended", false, [](Lines l) { l.push_back(l[0]); return l; }, false, "line 7 inserted"},
        {"lines swapped", false, [](Lines l) { std::swap(l[1], l[2]); return l; }, false, "line 2 inserted"},
        {"not a trail line", false, [](Lines l) { l[4] = "{}"; return l; }, false, "line 5 changed"},
        {"an edit re-sealed unkeyed", true, [&](Lines l) { return resealed(third_edited(l), 2, nullptr); }, false,
         "line 3 not sealed under the trail key"},
        {"an edit re-sealed under another key", true, [&](Lines l) { return resealed(third_edited(l), 2, &other); },
         false, "line 3 changed"},
        {"a whole unkeyed trail", true, [&](Lines l) { return resealed(l, 0, nullptr); }, false,
         "line 1 not sealed under the trail key"},
        {"a forged line appended", true, [&](Lines l) { l.push_back(l[0]); return resealed(l, 6, nullptr); }, false,
         "line 7 not sealed under the trail key"},
        {"the end cut", true, [](Lines l) { l.resize(2); return l; }, true,
         "line 3 missing: the trail ends before the expected head"},
        {"emptied", true, [](Lines) { return Lines{}; }, true, "line 1 missing: the trail ends before the expected head"},
        {"another trail", true, [&](Lines l) { return resealed(third_edited(l), 2, &k); }, true,
         "line 6 is not the expected head"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        write_lines(trail, c.edit(c.keyed ? keyed : plain));
        ScopedEnv with_key("ZEL_AUDIT_KEY", c.keyed ? key.c_str() : nullptr);
        std::vector<std::string> args = {ZELCTL_PATH, "audit", "verify", trail};
        if (c.expect_head) args.insert(args.end(), {"--expect", head});
        CommandResult v = run_command(args);
        EXPECT_EQ(v.status, 1);
        EXPECT_EQ(v.err, "zelctl: audit verify: " + trail + ": " + c.error + "\n");
    }
    // Without the key nothing keyed is taken as checked.
    write_lines(trail, keyed);
    EXPECT_EQ(verify(trail).err, "zelctl: audit verify: " + trail +
                                     ": line 1 sealed under a trail key (set ZEL_AUDIT_KEY to check it)\n");

    // A torn last line (no newline) is no line the chain carries on from,
    // until the next writer seals over it: then the damage is reported, and
    // the lines after it still check.
    write_lines(trail, plain);
    std::ofstream(trail, std::ios::app) << "{\"seq\":7";
    EXPECT_EQ(verify(trail).err, "zelctl: audit verify: " + trail + ": line 7 changed\n");
    EXPECT_EQ(plat::append_audit_line(trail.c_str(), "\"op\":\"more\""), 0);
    EXPECT_EQ(plat::append_audit_line(trail.c_str(), "\"op\":\"more\""), 0);
    CommandResult v = verify(trail);
    EXPECT_EQ(v.status, 1);
    EXPECT_EQ(v.err, "zelctl: audit verify: " + trail + ": line 7 torn by an interrupted write (sealed over by the next writer)\n");
    std::vector<std::string> repaired = lines_of(file_text(trail));
    ASSERT_EQ(repaired.size(), 10u);
    EXPECT_EQ(field(repaired[7], "torn"), "8");
    repaired[9].replace(repaired[9].find("more"), 4, "less");
    write_lines(trail, repaired);
    EXPECT_EQ(verify(trail).err, "zelctl: audit verify: " + trail + ": line 10 changed\n");
    EXPECT_EQ(verify(trail + ".missing").status, 1);
}

// A session seals under ZEL_AUDIT_KEY and sends the head out every
// ZEL_AUDIT_CHECKPOINT lines and when it closes.
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
    EXPECT_NE(lines_of(file_text(trail)).back().find(",\"mac\":\""), std::string::npos);
}

// Fail closed: a trail that cannot be opened, a full disk, a trail whose last
// line is not one of ours, or a trail key that cannot be used stops every
// read and every write.
TEST_F(AuditTest, AnUnwritableTrailRefusesReadsAndWrites) {
    open_with_jo(2);
    ZelTargetRecord direct = record("T:app", "app", "jo.app", "Direct-Pw-41");
    ASSERT_EQ(Zel_addTargetRecord(s.get(), "jo", &direct), 0u);
    const std::string garbled = trail + ".garbled";
    write_lines(garbled, {"not a trail line"});

    const std::string shared = trail + ".shared", link = trail + ".link";
    write_lines(shared, {});
    ASSERT_EQ(chmod(shared.c_str(), 0620), 0);  // the group alone may write it
    ASSERT_EQ(symlink(garbled.c_str(), link.c_str()), 0);
    const std::string loose_key = key_file(kKeyLineA + " active\n", 0644);
    const struct {
        std::string path;
        const char *key, *why;
    } trails[] = {{"/nonexistent/trail", nullptr, "No such file"},
                  {"/dev/full", nullptr, "it is not a regular file"},
                  {garbled, nullptr, "its last line is not a trail line"},
                  {shared, nullptr, "group or others may write it"},
                  {link, nullptr, "it is a symbolic link"},
                  {trail, loose_key.c_str(), "the trail key file ZEL_AUDIT_KEY names cannot be used"}};
    for (const auto &[path, key, why] : trails) {
        ScopedEnv on("ZEL_AUDIT", path.c_str()), keyed("ZEL_AUDIT_KEY", key);
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
    EXPECT_EQ(lines_of(file_text(garbled)), std::vector<std::string>{"not a trail line"});
    EXPECT_EQ(credential(s.get(), "jo", "app"), "jo.app/Direct-Pw-41") << "a session without a trail is untouched";
}

// Starts `body` in a child process, which exits with what it returns.
pid_t in_child(const std::function<int()> &body) {
    pid_t pid = fork();
    if (pid == 0) _exit(body());
    return pid;
}

// The child's exit status, or -1 when a signal ended it.
int exit_status(pid_t pid) {
    int status = 0;
    return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Four processes appending at once still leave one chain, every line whole;
// a file size limit fails the write instead of killing the caller.
TEST(AuditChain, WritersInOtherProcessesLeaveOneWholeChain) {
    TrailFolder folder;
    const std::string &trail = folder.trail, limited = folder.dir + "/limited";
    std::vector<pid_t> writers;
    for (int w = 0; w < 4; ++w)
        writers.push_back(in_child([&trail, w] {
            for (int i = 0; i < 1000; ++i)
                if (plat::append_audit_line(trail.c_str(), "\"writer\":" + std::to_string(w)) != 0) return 1;
            return 0;
        }));
    for (pid_t pid : writers) EXPECT_EQ(exit_status(pid), 0);
    EXPECT_EQ(verify(trail).out, trail + ": 4000 lines, chain intact\n");

    EXPECT_EQ(exit_status(in_child([&] {
                  struct rlimit limit = {4096, 4096};
                  if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 2;
                  for (int i = 0; i < 1000; ++i)
                      if (int err = plat::append_audit_line(limited.c_str(), "\"op\":\"filling\"")) return err == EFBIG ? 0 : 3;
                  return 4;
              })),
              0);
    EXPECT_EQ(verify(limited).status, 0) << "only whole lines stay";
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

    std::vector<std::string> lines = lines_of(file_text(odd));
    lines[0][lines[0].size() - 2] ^= 1;
    std::ofstream(odd, std::ios::trunc) << lines[0] << "\n" << lines[1] << "\n";
    CommandResult broken = run_command({ZELCTL_PATH, "--json", "audit", "verify", odd});
    EXPECT_EQ(broken.status, 1);
    EXPECT_EQ(broken.out.rfind("{\"file\":" + shown + ",\"intact\":false,\"line\":1,\"fault\":\"", 0), 0u) << broken.out;
}
