// Stored passwords: the built-in mask, and encryption under an operator's key file.
#include "platform/password_mask.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <thread>
#include <memory>
#include <string>
#include <vector>

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

std::string encode(const std::string &clear) {
    Text text(plat::util_encode(clear.c_str()));
    return text ? text.get() : "(null)";
}

std::string decode(const std::string &stored) {
    Text text(plat::util_decode(stored.c_str()));
    return text ? text.get() : "(null)";
}

TEST(PasswordMask, RoundTripsFreshEachTime) {
    ScopedEnv none("ZEL_KEYFILE", nullptr);
    for (const std::string &clear :
         {std::string(), std::string("secret"), std::string(1000, 'p'), std::string("p\xC3\xA4sswort \xE2\x9C\x93")}) {
        SCOPED_TRACE(clear.size());
        std::string text = encode(clear);
        EXPECT_EQ(text.rfind("{ZM1}", 0), 0u) << text;
        EXPECT_TRUE(clear.empty() || text.find(clear) == std::string::npos) << text;
        EXPECT_NE(encode(clear), text) << "a fresh encoding each time";
        EXPECT_EQ(decode(text), clear);
    }
}

TEST(PasswordMask, DecodeRefusesWhatEncodeDidNotProduce) {
    ScopedEnv none("ZEL_KEYFILE", nullptr);
    const std::string good = encode("secret");
    ASSERT_EQ(decode(good), "secret");
    const std::string body = good.substr(5);

    EXPECT_EQ(plat::util_encode(nullptr), nullptr);
    EXPECT_EQ(plat::util_decode(nullptr), nullptr);
    std::vector<std::string> refused = {"secret", "{ZM1}", "{ZM1}not base64 at all!",
                                        "{ZM1}AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA",  // right size, no tag
                                        "{ZM1}AAAA", "{ZM2}" + body, "{zm1}" + body, body, good + "\n",
                                        good.substr(0, good.size() - 1), good.substr(0, good.size() - 4)};
    // Any changed character, padding bits included, is caught.
    for (size_t i = 5; i < good.size() && good[i] != '='; ++i)
        for (char replacement : {'A', 'B', '+'})
            if (good[i] != replacement) refused.push_back(good.substr(0, i) + replacement + good.substr(i + 1));
    for (const std::string &text : refused) EXPECT_EQ(decode(text), "(null)") << text;
}

TEST(KeyFile, EncryptsUnderTheActiveKeyAndReadsEveryKeyOfTheFile) {
    ScopedEnv env("ZEL_KEYFILE", nullptr);
    std::string masked = encode("pw");
    setenv("ZEL_KEYFILE", key_file(kKeyLineA + " active\n").c_str(), 1);
    std::string under_a = encode("pw");
    EXPECT_EQ(under_a.rfind("{ZK1}a:", 0), 0u) << under_a;
    EXPECT_NE(encode("pw"), under_a) << "a fresh nonce each time";
    EXPECT_TRUE(plat::util_is_current(under_a.c_str()));
    EXPECT_FALSE(plat::util_is_current(masked.c_str()));

    // A second active key: both read, the new one writes.
    setenv("ZEL_KEYFILE", key_file("# rotated\n" + kKeyLineA + "\n\n" + kKeyLineB + " active\n").c_str(), 1);
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
        {"over 64 KiB", key_file(good + std::string(64 * 1024, '\n'))},
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

// The keys are kept between calls; every change to the file shows at the
// next call.  The files are old enough to be kept before they change, so a
// change the kept identity misses would serve the old key.
TEST(KeyFile, AChangedKeyFileIsReadAnewAtTheNextCall) {
    const std::string under_b = kKeyLineB + " active\n";
    ASSERT_EQ(kKeyLineA.size(), kKeyLineB.size());
    struct Case {
        const char *change;
        std::function<void(const std::string &)> apply;
        const char *writes;
    };
    const Case cases[] = {
        {"renamed over",
         [&](const std::string &path) {
             const std::string fresh = key_file(under_b);
             ASSERT_EQ(std::rename(fresh.c_str(), path.c_str()), 0);
         },
         "{ZK1}b:"},
        {"edited in place, same size and times",
         [&](const std::string &path) {
             struct stat before {};
             ASSERT_EQ(stat(path.c_str(), &before), 0);
             std::ofstream(path, std::ios::in | std::ios::out) << under_b;
             const timespec times[2] = {before.st_atim, before.st_mtim};
             ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
         },
         "{ZK1}b:"},
        {"opened to others", [](const std::string &path) { chmod(path.c_str(), 0644); }, nullptr},
        {"removed", [](const std::string &path) { unlink(path.c_str()); }, nullptr},
    };
    std::vector<std::string> paths;
    for (size_t i = 0; i < std::size(cases); ++i) paths.push_back(key_file(kKeyLineA + " active\n"));
    // Past the clock step within which a changed file is not kept.
    struct stat made {};
    ASSERT_EQ(stat(paths.back().c_str(), &made), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(made.st_ctim.tv_nsec == 0 ? 2100 : 150));

    for (size_t i = 0; i < std::size(cases); ++i) {
        const Case &c = cases[i];
        SCOPED_TRACE(c.change);
        ScopedEnv env("ZEL_KEYFILE", paths[i].c_str());
        const std::string under_a = encode("pw");
        ASSERT_EQ(under_a.rfind("{ZK1}a:", 0), 0u) << under_a;
        ASSERT_EQ(decode(under_a), "pw");
        c.apply(paths[i]);
        bool required = false;
        Text text(plat::util_encode_checked("pw", required));
        if (c.writes) {
            ASSERT_NE(text, nullptr);
            EXPECT_EQ(std::string(text.get()).rfind(c.writes, 0), 0u) << text.get();
        } else {
            EXPECT_EQ(text, nullptr);
            EXPECT_EQ(plat::util_key_file_state(), plat::KeyFileState::refused);
        }
        EXPECT_EQ(decode(under_a), "(null)") << "key a is no longer in a usable file";
    }
}

}  // namespace
