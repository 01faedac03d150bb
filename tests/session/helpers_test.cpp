// Subtree deletion, the Novell membership edits (under faults: the torture
// runner's eDirectory users), the locale calls and text helpers.
#include <gtest/gtest.h>

#include <cstring>

#include "support/session.h"

using namespace zeltest;
using fault::Fn;

class Helpers : public SessionTest {
protected:
    Profile profile() const override {
        Profile p;
        p.seed_ldif =
            "dn: ou=top,o=acme\nobjectClass: organizationalUnit\nou: top\n\n"
            "dn: ou=left,ou=top,o=acme\nobjectClass: organizationalUnit\nou: left\n\n"
            "dn: ou=right,ou=top,o=acme\nobjectClass: organizationalUnit\nou: right\n\n"
            "dn: ou=leaf1,ou=left,ou=top,o=acme\nobjectClass: organizationalUnit\nou: leaf1\n\n"
            "dn: ou=leaf2,ou=right,ou=top,o=acme\nobjectClass: organizationalUnit\nou: leaf2\n\n" +
            person_ldif("o=acme", "Member", "member");
        return p;
    }
};

TEST_F(Helpers, DeleteTreeRemovesChildrenFirst) {
    EXPECT_EQ(delete_tree(s.get(), "ou=leaf1,ou=left,ou=top,o=acme"), 0u);
    EXPECT_EQ(fault::count(Fn::Delete), 1) << "a leaf goes with one call";

    // A parent deleted before its children would be refused by the server.
    EXPECT_EQ(delete_tree(s.get(), "ou=top,o=acme"), 0u);
    EXPECT_FALSE(dir->exists("ou=top,o=acme"));
    EXPECT_TRUE(dir->exists("o=acme"));

    EXPECT_EQ(delete_tree(s.get(), "ou=gone,o=acme"), ZEL_RC_NO_SUCH_OBJECT);
    fault::fail_call(Fn::Delete, fault::count(Fn::Delete) + 1, 777);
    EXPECT_EQ(delete_tree(s.get(), "cn=Member,o=acme"), 777u) << "unlisted results come back as they are";
}

TEST_F(Helpers, NovellMembershipEdits) {
    const char *member = "cn=Member,o=acme";
    EXPECT_EQ(internal_nds_member_add(s.get(), "cn=A,o=acme", member), 0u);
    EXPECT_EQ(internal_nds_member_add(s.get(), "cn=B,o=acme", member), 0u);
    EXPECT_EQ(internal_nds_member_add(s.get(), "cn=B,o=acme", member), static_cast<ZelRC>(LDAP_TYPE_OR_VALUE_EXISTS))
        << "raw LDAP results, not statuses";
    Entry e = dir->entry(member);
    EXPECT_EQ(e.values("securityEquals").size(), 2u);
    EXPECT_EQ(e.values("groupMembership").size(), 2u);

    // Removal for A drops B as well: the whole attributes go.
    EXPECT_EQ(internal_nds_member_rem(s.get(), "cn=A,o=acme", member), 0u);
    e = dir->entry(member);
    EXPECT_FALSE(e.has("securityEquals"));
    EXPECT_FALSE(e.has("groupMembership"));
}

// The client keeps its own copy; each get hands out a fresh one.
TEST(Locale, SetKeepsACopyAndEachGetHandsOutItsOwn) {
    Zel_memfree(nullptr);
    char name[] = "de_DE.UTF-8";
    ASSERT_EQ(Zel_set_locale(name), 0);
    name[0] = 'X';
    EXPECT_EQ(Zel_set_locale(nullptr), 89) << "and the setting stays";
    char *first = Zel_get_locale(), *second = Zel_get_locale();
    ASSERT_TRUE(first && second);
    EXPECT_STREQ(first, "de_DE.UTF-8");
    EXPECT_NE(first, second);
    Zel_memfree(first);
    Zel_memfree(second);
}

// Names and values compare ignoring case; the in-place ASCII comparison hands
// over to full folding at the first byte past ASCII, and keeps a refused
// format from touching its buffer.
TEST(TextHelpers, SameTextAndBoundedFormat) {
    struct Case {
        const char *a, *b;
        bool same;
    } cases[] = {
        {"secAuthnData", "SECAUTHNDATA", true}, {"uid", "uidx", false}, {"@", "`", false},
        {"[", "{", false},                       {"cn=Stra\xC3\x9F" "e", "CN=STRASSE", true},
        {"x\xFF", "X\xFF", true},                {"", "", true},        {nullptr, "", false},
    };
    for (const Case &c : cases) EXPECT_EQ(zel::same_text(c.a, c.b), c.same) << (c.a ? c.a : "(null)") << " " << c.b;

    char buf[8] = "keep";
    EXPECT_FALSE(zel::format_into(buf, sizeof buf, "%s=%d", "toolong", 1));
    EXPECT_STREQ(buf, "keep");
    EXPECT_TRUE(zel::format_into(buf, sizeof buf, "%s=%d", "cn", 42));
    EXPECT_STREQ(buf, "cn=42");
}
