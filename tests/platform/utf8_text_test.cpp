#include "platform/utf8_text.h"

#include <gtest/gtest.h>

#include <string>

#include "ZelText.h"

namespace {

using zel::platform::zgetUTF8Handle;
using zel::platform::zstricmp;
using zel::platform::zstrstr;

int sign(int v) { return (v > 0) - (v < 0); }

// Checks the result and that swapping the arguments flips its sign; the
// library's in-place comparison of names, which hands over to full folding at
// the first byte past ASCII, must agree.
void expect_order(const char *a, const char *b, int expected_sign) {
    SCOPED_TRACE(std::string(a ? a : "(null)") + " vs " + (b ? b : "(null)"));
    EXPECT_EQ(sign(zstricmp(zgetUTF8Handle(), a, b)), expected_sign);
    EXPECT_EQ(sign(zstricmp(zgetUTF8Handle(), b, a)), -expected_sign);
    EXPECT_EQ(zel::same_text(a, b), expected_sign == 0);
}

// ASCII ignores case; past ASCII, full case folding; invalid UTF-8 compares
// bytes (ASCII letters still folded); null sorts before any text.
TEST(Utf8Compare, OrdersIgnoringCase) {
    ASSERT_NE(zgetUTF8Handle(), nullptr);
    // Longer than the stack buffers.
    const std::string lower = std::string(300, 'x') + "stra\xC3\x9F" "e", upper = std::string(300, 'X') + "STRASSE";
    const std::string upper_more = upper + "!";
    struct Case {
        const char *a, *b;
        int sign;
    } cases[] = {
        {"objectClass", "OBJECTCLASS", 0}, {"abc", "ABD", -1}, {"ab", "ABC", -1}, {"", "a", -1},
        // Letters fold to lower case, as full folding does: '[' sorts before
        // 'a' whether or not the rest of the text is ASCII.
        {"[", "A", -1}, {"[\xC3\xA9", "A\xC3\xA9", -1}, {"@", "`", -1}, {"[", "{", -1}, {"uid", "uidx", -1},
        {"stra\xC3\x9F" "e", "STRASSE", 0},                          // straße
        {"\xC3\x84rger", "\xC3\xA4RGER", 0},                          // Ärger, äRGER
        {"\xCE\xA3\xCE\x99\xCE\xA3", "\xCF\x83\xCE\xB9\xCF\x82", 0},   // ΣΙΣ, σις
        {"\xC3\xA4", "b", 1},                                         // ä after b
        {"\xC3\x84", "\xC3\xA5", -1},                                 // Ä before å
        {lower.c_str(), upper.c_str(), 0}, {lower.c_str(), upper_more.c_str(), -1},
        {"\xFF", "\xFF", 0}, {"A\xFF", "a\xFF", 0},
        {"\xC3", "\xC3", 0}, {"\xC3", "\xC3\xA4", -1},                // truncated sequence
        {"\xC0\xAF", "/", 1},                                          // overlong '/' is not '/'
        {"\xC3\x84\xFF", "\xC3\xA4\xFF", -1},                         // invalid: no Unicode folding
        {nullptr, nullptr, 0}, {nullptr, "", -1},
    };
    for (const Case &c : cases) expect_order(c.a, c.b, c.sign);
}

TEST(Utf8Search, FindsSubstringIgnoringCase) {
    const char *dn = "cn=J\xC3\xBCrgen,O=Stra\xC3\x9F" "e";
    auto h = zgetUTF8Handle();
    struct Case { const char *needle; long at; } cases[] = {
        {"=", 2}, {"j\xC3\x9CRGEN", 3}, {"o=strasse", 11}, {"SSE", 17}, {"ou=", -1}, {"", 0},
    };
    for (const Case &c : cases) {
        const char *found = zstrstr(h, dn, c.needle);
        EXPECT_EQ(found ? found - dn : -1, c.at) << c.needle;
    }
    EXPECT_EQ(zstrstr(h, "\xC3\x9F", "s"), nullptr);          // never inside one code point's folding
    EXPECT_STREQ(zstrstr(h, "A\xFF" "B=x", "\xFF" "b="), "\xFF" "B=x");   // invalid UTF-8: ASCII folding
    EXPECT_EQ(zstrstr(h, nullptr, "="), nullptr);
    EXPECT_EQ(zstrstr(h, dn, nullptr), nullptr);
}

}  // namespace
