// zelctl user list and the bash completion that reads names through it.
#include <sstream>

#include "support/key_files.h"
#include "support/zelctl.h"
#include "user/user_fixture.h"

using namespace usertest;

namespace {

// The candidates the completion offers for the word after `words`.
std::vector<std::string> complete(const Directory &dir, const std::string &pwfile, const std::string &words) {
    std::string script = "source " ZEL_SOURCE_DIR "/tools/zelctl/zelctl.bash; COMP_WORDS=(" ZELCTL_PATH " -H " +
                         dir.uri() + " -D '" + dir.admin_dn() + "' -y " + pwfile + " " + words +
                         " ''); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _zelctl; printf '%s\\n' \"${COMPREPLY[@]}\"";
    CommandResult r = run_command({"bash", "-c", script});
    std::vector<std::string> out;
    std::istringstream lines(r.out);
    for (std::string line; std::getline(lines, line);)
        if (!line.empty()) out.push_back(line);
    return out;
}

}  // namespace

TEST_F(UserTest, UserListFeedsCompletionOfUserNames) {
    ASSERT_EQ(zelctl(*dir, {"user", "add", "jo", "--type", "User", "--person", kJo}, "1").status, 0);
    ASSERT_EQ(zelctl(*dir, {"user", "add", "ann", "--person", kAnn, "--disabled"}, "2").status, 0);
    CommandResult r = zelctl(*dir, {"--json", "user", "list"}, "2");
    ASSERT_EQ(r.status, 0) << r.err;
    // The security domain's users first, then the Zel database's.
    EXPECT_EQ(r.out, "[{\"name\":\"ann\",\"type\":null,\"enabled\":false,\"person\":\"" + kAnn +
                         "\"},{\"name\":\"jo\",\"type\":\"User\",\"enabled\":true,\"person\":\"" + kJo + "\"}]\n");

    const std::string pwfile = key_file(Directory::admin_password());
    EXPECT_EQ(complete(*dir, pwfile, "user remove"), (std::vector<std::string>{"ann", "jo"}));
    EXPECT_EQ(complete(*dir, pwfile, "--api-version 1 user remove"), (std::vector<std::string>{"jo"}));
    EXPECT_EQ(complete(*dir, "/nonexistent", "user remove"), std::vector<std::string>{})
        << "without a readable password file nothing is asked of the directory";
}
