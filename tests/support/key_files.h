// Operator key files written for a test, with keys of fixed bytes.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

namespace zeltest {

// Key lines "zelkey1 <id> <key>" for ids a, b, c: 32 bytes of 'A', 'B', 'C'.
inline const std::string kKeyLineA = "zelkey1 a QUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUE=";
inline const std::string kKeyLineB = "zelkey1 b QkJCQkJCQkJCQkJCQkJCQkJCQkJCQkJCQkJCQkJCQkI=";
inline const std::string kKeyLineC = "zelkey1 c Q0NDQ0NDQ0NDQ0NDQ0NDQ0NDQ0NDQ0NDQ0NDQ0NDQ0M=";

// A new file of `content` with `mode`, in the test's temporary folder.
inline std::string key_file(const std::string &content, mode_t mode = 0600) {
    static int serial = 0;
    // The process id keeps test programs running side by side apart.
    const std::string path =
        testing::TempDir() + "zel-keys-" + std::to_string(getpid()) + "-" + std::to_string(++serial);
    std::ofstream(path) << content;
    chmod(path.c_str(), mode);
    return path;
}

}  // namespace zeltest
