// Running zelctl against a test directory, bound as its administrator.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "support/directory.h"

namespace zeltest {

// zelctl -H <uri> -D <admin> -w <password> --api-version <version> args...,
// with standard input and environment when given; the password must show
// nowhere in what it prints.
inline CommandResult zelctl(const Directory &dir, const std::vector<std::string> &args, const char *api_version = "1",
                            const std::string &input = "", const std::map<std::string, std::string> &env = {}) {
    std::vector<std::string> argv = {ZELCTL_PATH, "-H", dir.uri(), "-D", dir.admin_dn(), "-w",
                                     Directory::admin_password(), "--api-version", api_version};
    argv.insert(argv.end(), args.begin(), args.end());
    CommandResult r = run_command(argv, input, env);
    EXPECT_EQ(r.out.find(Directory::admin_password()), std::string::npos);
    EXPECT_EQ(r.err.find(Directory::admin_password()), std::string::npos);
    return r;
}

}  // namespace zeltest
