// Running zelctl against a test directory, bound as its administrator.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "support/directory.h"
#include "zelmgmt.h"

namespace zeltest {

using Env = std::map<std::string, std::string>;

// zelctl -H <uri> -D <admin> -w <password> --api-version <version> args...,
// with standard input and environment when given; the password must show
// nowhere in what it prints.
inline CommandResult zelctl(const Directory &dir, const std::vector<std::string> &args, const char *api_version = "1",
                            const std::string &input = "", const Env &env = {}) {
    std::vector<std::string> argv = {ZELCTL_PATH, "-H", dir.uri(), "-D", dir.admin_dn(), "-w",
                                     Directory::admin_password(), "--api-version", api_version};
    argv.insert(argv.end(), args.begin(), args.end());
    CommandResult r = run_command(argv, input, env);
    EXPECT_EQ(r.out.find(Directory::admin_password()), std::string::npos);
    EXPECT_EQ(r.err.find(Directory::admin_password()), std::string::npos);
    return r;
}

// What zelctl prints when the library call behind `what` answers rc.
inline std::string zelctl_failure(const std::string &what, ZelRC rc) {
    return "zelctl: " + what + ": " + Zel_strerror(rc) + " (status " + std::to_string(rc) + ")\n";
}

// One command of a table: its API version and words, the exit status, a part
// of what it prints (output or errors), and its standard input.
struct ZelctlRow {
    const char *version;
    std::vector<std::string> args;
    int exit = 0;
    std::string says = "";
    std::string input = "";
};

// Runs the rows in order; each must exit and say as its row expects.  Set-up
// tables stop at the first row that fails (fatal), checks go on.
inline void run_rows(const Directory &dir, const std::vector<ZelctlRow> &rows, const Env &env = {},
                     bool fatal = false) {
    for (const ZelctlRow &row : rows) {
        CommandResult r = zelctl(dir, row.args, row.version, row.input, env);
        std::string line;
        for (const std::string &a : row.args) line += a + " ";
        SCOPED_TRACE(line + "\nsaid: " + r.out + r.err);
        EXPECT_EQ(r.status, row.exit);
        EXPECT_NE((r.out + r.err).find(row.says), std::string::npos);
        if (fatal && r.status != row.exit) FAIL() << "a set-up step failed";
    }
}

// Set-up steps that must all succeed, in one API version.
inline void run_steps(const Directory &dir, const char *version, const std::vector<std::vector<std::string>> &steps,
                      const Env &env = {}) {
    std::vector<ZelctlRow> rows;
    for (const auto &args : steps) rows.push_back({version, args});
    run_rows(dir, rows, env, true);
}

}  // namespace zeltest
