// Encryption under an operator's key file, beside the built-in mask.

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "platform/password_mask.h"
#include "support/env.h"
#include "support/key_files.h"

namespace {

namespace plat = zel::platform;
using zeltest::key_file;
using zeltest::kKeyLineA;
using zeltest::kKeyLineB;
using zeltest::ScopedEnv;

struct FreeText {
    void operator()(char *p) const { free(p); }
};
using Text = std::unique_ptr<char, FreeText>;

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
    const std::string one = key_file(kKeyLineA + " active\n");
    ScopedEnv env("ZEL_KEYFILE", one.c_str());
    std::string under_a = encode("pw");
    EXPECT_EQ(under_a.rfind("{ZK1}a:", 0), 0u) << under_a;
    EXPECT_NE(encode("pw"), under_a) << "a fresh nonce each time";
    EXPECT_TRUE(plat::util_is_current(under_a.c_str()));
    EXPECT_FALSE(plat::util_is_current(masked.c_str()));

    // A second active key: both read, the new one writes.
    const std::string two = key_file("# rotated\n" + kKeyLineA + "\n\n" + kKeyLineB + " active\n");
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
    setenv("ZEL_KEYFILE", key_file(kKeyLineB + " active\n").c_str(), 1);
    EXPECT_EQ(decode(under_a), "(null)");
    unsetenv("ZEL_KEYFILE");
    EXPECT_EQ((std::vector<std::string>{decode(masked), decode(under_b)}), (std::vector<std::string>{"pw", "(null)"}));
}

TEST(KeyFile, AnUnusableKeyFileRefusesToEncrypt) {
    const std::string good = kKeyLineA + " active\n";
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
        {"no active key", key_file(kKeyLineA + "\n")},
        {"two active keys", key_file(good + kKeyLineB + " active\n")},
        {"an id twice", key_file(good + "zelkey1 a" + kKeyLineB.substr(9) + "\n")},
        {"short key", key_file("zelkey1 a QUFB active\n")},
        {"bad id", key_file("zelkey1 a/b " + kKeyLineA.substr(10) + " active\n")},
        {"unknown version", key_file("zelkey2" + kKeyLineA.substr(7) + " active\n")},
        {"extra word", key_file(kKeyLineA + " active now\n")},
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
