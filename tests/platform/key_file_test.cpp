// Encryption under an operator's key file, beside the built-in mask.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#include "platform/password_mask.h"
#include "support/env.h"

namespace {

namespace plat = zel::platform;
using zeltest::ScopedEnv;

struct FreeText {
    void operator()(char *p) const { free(p); }
};
using Text = std::unique_ptr<char, FreeText>;

// 32 bytes of one letter each, base64.
const std::string kKeyA = "QUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUE=";
const std::string kKeyB = "QkJCQkJCQkJCQkJCQkJCQkJCQkJCQkJCQkJCQkJCQkI=";

std::string key_file(const std::string &content, mode_t mode = 0600) {
    static int serial = 0;
    const std::string path = testing::TempDir() + "keys-" + std::to_string(++serial);
    std::ofstream(path) << content;
    chmod(path.c_str(), mode);
    return path;
}

std::string encode(const char *clear) {
    Text text(plat::util_encode(clear));
    return text ? text.get() : "(null)";
}

std::string decode(const std::string &stored) {
    Text text(plat::util_decode(stored.c_str()));
    return text ? text.get() : "(null)";
}

TEST(KeyFile, EncryptsUnderTheActiveKeyAndReadsEveryKeyOfTheFile) {
    std::string masked = encode("pw");
    const std::string one = key_file("zelkey1 a " + kKeyA + " active\n");
    ScopedEnv env("ZEL_KEYFILE", one.c_str());
    std::string under_a = encode("pw");
    EXPECT_EQ(under_a.rfind("{ZK1}a:", 0), 0u) << under_a;
    EXPECT_NE(encode("pw"), under_a) << "a fresh nonce each time";
    EXPECT_TRUE(plat::util_is_current(under_a.c_str()));
    EXPECT_FALSE(plat::util_is_current(masked.c_str()));

    // A second active key: both read, the new one writes.
    const std::string two = key_file("# rotated\nzelkey1 a " + kKeyA + "\n\nzelkey1 b " + kKeyB + " active\n");
    setenv("ZEL_KEYFILE", two.c_str(), 1);
    std::string under_b = encode("pw");
    EXPECT_EQ(under_b.rfind("{ZK1}b:", 0), 0u) << under_b;
    EXPECT_FALSE(plat::util_is_current(under_a.c_str()));

    std::string tampered = under_b;
    tampered[tampered.size() - 3] ^= 1;
    std::string relabelled = under_b;
    relabelled[5] = 'a';
    EXPECT_EQ((std::vector<std::string>{decode(masked), decode(under_a), decode(under_b), decode(tampered),
                                        decode(relabelled)}),
              (std::vector<std::string>{"pw", "pw", "pw", "(null)", "(null)"}));

    // Key a removed, then no key file at all.
    setenv("ZEL_KEYFILE", key_file("zelkey1 b " + kKeyB + " active\n").c_str(), 1);
    EXPECT_EQ(decode(under_a), "(null)");
    unsetenv("ZEL_KEYFILE");
    EXPECT_EQ((std::vector<std::string>{decode(masked), decode(under_b)}), (std::vector<std::string>{"pw", "(null)"}));
}

TEST(KeyFile, AnUnusableKeyFileRefusesToEncrypt) {
    const std::string good = "zelkey1 a " + kKeyA + " active\n";
    struct Case {
        const char *why;
        std::string path;
    };
    const Case cases[] = {
        {"group may read", key_file(good, 0640)},
        {"others may write", key_file(good, 0602)},
        {"missing", testing::TempDir() + "no-such-key-file"},
        {"a directory", testing::TempDir()},
        {"empty", key_file("")},
        {"no active key", key_file("zelkey1 a " + kKeyA + "\n")},
        {"two active keys", key_file(good + "zelkey1 b " + kKeyB + " active\n")},
        {"an id twice", key_file(good + "zelkey1 a " + kKeyB + "\n")},
        {"short key", key_file("zelkey1 a QUFB active\n")},
        {"bad id", key_file("zelkey1 a/b " + kKeyA + " active\n")},
        {"unknown version", key_file("zelkey2 a " + kKeyA + " active\n")},
        {"extra word", key_file("zelkey1 a " + kKeyA + " active now\n")},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.why);
        ScopedEnv env("ZEL_KEYFILE", c.path.c_str());
        bool required = false;
        Text text(plat::util_encode_checked("pw", required));
        EXPECT_EQ(text, nullptr);
        EXPECT_TRUE(required);
        EXPECT_EQ(plat::util_key_file_state(), plat::KeyFileState::refused);
    }
}

}  // namespace
