#include "platform/filter_format.h"
#include "platform/dn_escape.h"

#include <gtest/gtest.h>
#include <ldap.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using zel::platform::escape_filter_value;
using zel::platform::ku_mbs_sprintf;

struct FreeText {
    void operator()(char *p) const { free(p); }
};
using Text = std::unique_ptr<char, FreeText>;

// Only the filter syntax and NUL are escaped: UTF-8 and control bytes stand
// as they are, so a name's filter is no longer than the name.
TEST(FilterQuoting, EscapesFilterSyntaxAndNulOnly) {
    EXPECT_EQ(escape_filter_value("plain value=1,o=acme"), "plain value=1,o=acme");
    EXPECT_EQ(escape_filter_value(""), "");
    EXPECT_EQ(escape_filter_value("(*)"), "\\28\\2A\\29") << "reserved characters side by side";
    EXPECT_EQ(escape_filter_value("J\xC3\xBCrgen\t\x7F"), "J\xC3\xBCrgen\t\x7F");
}

// Each byte value at each place of values short and long, as escaping one
// byte at a time would give: the scans that pass over plain text a block at
// a time must neither miss a byte nor read one outside the value.
TEST(Escaping, EveryByteAtEveryPlaceAsOneByteAtATime) {
    using zel::platform::escape_dn_value;
    auto hex = [](unsigned char c) {
        char text[4];
        std::snprintf(text, sizeof text, "\\%02X", c);
        return std::string(text);
    };
    for (size_t size = 1; size <= 40; ++size)
        for (size_t at = 0; at < size; ++at)
            for (int byte = 0; byte < 256; ++byte) {
                const unsigned char c = static_cast<unsigned char>(byte);
                std::string value(size, 'a');
                value[at] = static_cast<char>(c);
                const std::string before = value.substr(0, at), after = value.substr(at + 1);
                const bool in_filter = c == 0 || c == '*' || c == '(' || c == ')' || c == '\\';
                ASSERT_EQ(escape_filter_value(value), before + (in_filter ? hex(c) : value.substr(at, 1)) + after)
                    << "size " << size << " at " << at << " byte " << byte;
                std::string in_dn = value.substr(at, 1);
                if (c < 0x20 || c == 0x7F)
                    in_dn = hex(c);
                else if (std::strchr("\"+,;<>\\=", c) || ((c == ' ' || c == '#') && at == 0) ||
                         (c == ' ' && at + 1 == size))
                    in_dn = "\\" + in_dn;
                ASSERT_EQ(escape_dn_value(value), before + in_dn + after)
                    << "size " << size << " at " << at << " byte " << byte;
                // The checks that let a plain value skip both escapes.
                const bool plain_in_dn = in_dn.size() == 1, plain_in_filter = !in_filter;
                ASSERT_EQ(zel::platform::filter_value_is_plain(value), plain_in_filter) << "byte " << byte;
                ASSERT_EQ(zel::platform::plain_in_dn_and_filter(value), plain_in_dn && plain_in_filter)
                    << "size " << size << " at " << at << " byte " << byte;
            }
}

// A DN value keeps its text but can never add an RDN or end early.
TEST(DnValueEscaping, EscapesRdnSyntaxOnly) {
    using zel::platform::escape_dn_value;
    EXPECT_EQ(escape_dn_value("Sales App"), "Sales App");
    EXPECT_EQ(escape_dn_value("a,cn=x+y=\"q\";<>\\"), "a\\,cn\\=x\\+y\\=\\\"q\\\"\\;\\<\\>\\\\");
    EXPECT_EQ(escape_dn_value(" #lead#  "), "\\ #lead# \\ ");
    EXPECT_EQ(escape_dn_value("#x"), "\\#x");
    EXPECT_EQ(escape_dn_value(std::string_view("a\0b\t\x7F", 5)), "a\\00b\\09\\7F");
    EXPECT_EQ(escape_dn_value("*()J\xC3\xBCrgen"), "*()J\xC3\xBCrgen");
}

// Read without parsing only where the full parse reads the same type and
// value; everything a DN escapes, quotes or trims goes to the full parse.
TEST(DnFirstRdn, ReadPlainlyOnlyWhereTheFullParseAgrees) {
    std::vector<std::string> declined;
    for (const char *dn : {"cn=G:grp1,cn=x", "secResCredsID=G:a b,cn=x", "CN=Mixed Case,o=x", "cn=\xc3\xa9*(),o=x",
                           "cn=G\\2Cx,cn=y", "cn=a+sn=b,cn=y", "cn= a,cn=y", "cn=a ,cn=y", "cn=#41,cn=y",
                           "cn=\"q\",cn=y", "cn=a;cn=y", "cn=a", "=a,cn=y", "cn=,cn=y", "cn=a=b,cn=y", "cn=<a>,o=x"}) {
        std::string_view type, value;
        const char *parent = nullptr;
        if (!zel::platform::plain_first_rdn(dn, type, value, parent)) {
            declined.push_back(dn);
            continue;
        }
        LDAPRDN rdn = nullptr;
        char *rest = nullptr;
        ASSERT_EQ(ldap_str2rdn(dn, &rdn, &rest, LDAP_DN_FORMAT_LDAP), LDAP_SUCCESS) << dn;
        EXPECT_EQ(type, std::string_view(rdn[0]->la_attr.bv_val, rdn[0]->la_attr.bv_len)) << dn;
        EXPECT_EQ(value, std::string_view(rdn[0]->la_value.bv_val, rdn[0]->la_value.bv_len)) << dn;
        EXPECT_EQ(rdn[1], nullptr) << dn;
        EXPECT_STREQ(parent, std::strchr(dn, ',') + 1) << dn;
        ldap_rdnfree(rdn);
    }
    EXPECT_EQ(declined, (std::vector<std::string>{"cn=G\\2Cx,cn=y", "cn=a+sn=b,cn=y", "cn= a,cn=y", "cn=a ,cn=y",
                                                  "cn=#41,cn=y", "cn=\"q\",cn=y", "cn=a;cn=y", "cn=a", "=a,cn=y",
                                                  "cn=,cn=y", "cn=a=b,cn=y", "cn=<a>,o=x"}));
}

// A DN's place is read from its text only where no escape or quote can
// make the text mean another place; a DN spelled another way is not taken
// for the same one.
TEST(DnText, ParentAndBaseAreReadPastEscapes) {
    const struct {
        const char *dn, *parent;
    } parents[] = {{"cn=a,o=x", "o=x"},         {"cn=a\\,b,o=x", "o=x"},  {"cn=a\\\\,o=x", "o=x"},
                   {"cn=a\\2Cb,o=x", "o=x"},   {"cn=\"a,b\",o=x", nullptr}, {"cn=a", nullptr},
                   {"cn=a\\", nullptr}};
    for (const auto &p : parents) {
        const char *got = zel::platform::dn_parent(p.dn);
        EXPECT_STREQ(got ? got : "(none)", p.parent ? p.parent : "(none)") << p.dn;
    }
    const struct {
        const char *dn, *base;
        bool within;
    } bases[] = {{"cn=p,ou=People,o=acme", "o=acme", true}, {"o=acme", "o=acme", true},
                 {"cn=p\\\\,o=acme", "o=acme", true},      {"cn=p,xo=acme", "o=acme", false},
                 {"cn=p\\,o=acme", "o=acme", false},         {"cn=p,O=ACME", "o=acme", false},
                 {"o=acme", "", false},                     {"o=acme", "cn=p,o=acme", false}};
    for (const auto &b : bases) EXPECT_EQ(zel::platform::dn_text_within(b.dn, b.base), b.within) << b.dn << " in " << b.base;
}

TEST(FilterFormat, MixesQuotedAndPlainConversions) {
    Text text(ku_mbs_sprintf("(&(cn=%Q)(uid=%s)(n=%d)(i=%i)(u=%u)(x=%x)%c%%)", "a*(b)", "x*",
                             -5, 12, 7u, 255u, '!'));
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text.get(), "(&(cn=a\\2A\\28b\\29)(uid=x*)(n=-5)(i=12)(u=7)(x=ff)!%)");

    Text null_text(ku_mbs_sprintf("(cn=%s)", static_cast<const char *>(nullptr)));
    ASSERT_NE(null_text, nullptr);
    EXPECT_STREQ(null_text.get(), "(cn=(null))");

    // What it cannot format gives no text at all.
    EXPECT_EQ(Text(ku_mbs_sprintf("(cn=%z)", "x")), nullptr);
    EXPECT_EQ(Text(ku_mbs_sprintf("(n=%5d)", 1)), nullptr);
    EXPECT_EQ(Text(ku_mbs_sprintf("(n=%ld)", 1L)), nullptr);
    EXPECT_EQ(Text(ku_mbs_sprintf("trailing %")), nullptr);
    EXPECT_EQ(Text(ku_mbs_sprintf("(cn=%Q)", static_cast<const char *>(nullptr))), nullptr);
    EXPECT_EQ(Text(ku_mbs_sprintf("(cn=%c)", 0)), nullptr);
    EXPECT_EQ(Text(ku_mbs_sprintf(nullptr)), nullptr);
}

}  // namespace
