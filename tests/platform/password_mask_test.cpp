#include "platform/password_mask.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

using zel::platform::util_decode;
using zel::platform::util_encode;

struct FreeText {
    void operator()(char *p) const { free(p); }
};
using Text = std::unique_ptr<char, FreeText>;

std::string masked(const std::string &clear) {
    Text text(util_encode(clear.c_str()));
    return text ? std::string(text.get()) : std::string("encode failed");
}

bool decodes(const std::string &text) {
    return Text(util_decode(text.c_str())) != nullptr;
}

TEST(PasswordMask, RoundTrips) {
    for (const std::string &clear :
         {std::string(), std::string("secret"), std::string(1000, 'p'),
          std::string("p\xC3\xA4sswort \xE2\x9C\x93")}) {
        SCOPED_TRACE(clear.size());
        std::string text = masked(clear);
        EXPECT_EQ(text.rfind("{ZM1}", 0), 0u) << text;
        if (!clear.empty()) {
            EXPECT_EQ(text.find(clear), std::string::npos);
        }
        Text back(util_decode(text.c_str()));
        ASSERT_NE(back, nullptr);
        EXPECT_EQ(std::string(back.get()), clear);
    }
}

TEST(PasswordMask, EachEncodingIsFresh) {
    std::string first = masked("secret");
    std::string second = masked("secret");
    EXPECT_NE(first, second);
    EXPECT_TRUE(decodes(first));
    EXPECT_TRUE(decodes(second));
}

TEST(PasswordMask, DecodeRefusesWhatEncodeDidNotProduce) {
    const std::string good = masked("secret");
    ASSERT_TRUE(decodes(good));
    const std::string body = good.substr(5);

    EXPECT_EQ(util_encode(nullptr), nullptr);
    EXPECT_EQ(util_decode(nullptr), nullptr);
    EXPECT_FALSE(decodes("secret"));
    EXPECT_FALSE(decodes("{ZM1}"));
    EXPECT_FALSE(decodes("{ZM1}not base64 at all!"));
    EXPECT_FALSE(decodes("{ZM1}AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA"));   // right size, no tag
    EXPECT_FALSE(decodes("{ZM1}AAAA"));                                       // too short
    EXPECT_FALSE(decodes("{ZM2}" + body));
    EXPECT_FALSE(decodes("{zm1}" + body));
    EXPECT_FALSE(decodes(body));
    EXPECT_FALSE(decodes(good + "\n"));
    EXPECT_FALSE(decodes(good.substr(0, good.size() - 1)));
    EXPECT_FALSE(decodes(good.substr(0, good.size() - 4)));

    // Any changed character, padding bits included, is caught.
    for (size_t i = 5; i < good.size() && good[i] != '='; ++i) {
        for (char replacement : {'A', 'B', '+'}) {
            if (good[i] == replacement) continue;
            std::string changed = good;
            changed[i] = replacement;
            EXPECT_FALSE(decodes(changed)) << "position " << i << ": " << changed;
        }
    }
}

}  // namespace
