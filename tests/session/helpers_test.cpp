// The session layer's own routines: finding one entry across several
// suffixes and the lookups built on it, what a session hands out of what it
// learnt, subtree deletion, the locale calls and the bounded format.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <ldap.h>

#include "support/session.h"
#include "ZelCredentialQuery.h"
#include "ZelRoutines.h"
#include "ZelSession.h"
#include "ZelText.h"

using namespace zeltest;
using fault::Fn;

namespace {

class Resolve : public SessionTest {
protected:
    Profile profile() const override {
        Profile p;
        p.suffixes = {"o=a", "o=b"};
        // Naming contexts the library leaves out of its suffixes.
        p.root_dse = {{"namingContexts", "CN=Schema"}, {"namingContexts", "cn=Deleted Objects"},
                      {"namingContexts", "cn=localhost"}};
        p.seed_ldif = person_ldif("o=a", "Ann", "ann") + person_ldif("o=b", "Bob", "bob") +
                      person_ldif("o=b", "Ann Two", "ann") + person_ldif("o=a", "Twin One", "twin") +
                      person_ldif("o=a", "Twin Two", "twin");
        // A tree to delete.
        for (const char *ou : {"top", "left,ou=top", "right,ou=top", "leaf1,ou=left,ou=top", "leaf2,ou=right,ou=top"})
            p.seed_ldif += std::string("dn: ou=") + ou + ",o=a\nobjectClass: organizationalUnit\nou: " +
                           std::string(ou).substr(0, std::string(ou).find(',')) + "\n\n";
        return p;
    }
    ZelRC find(ZelRC (*fn)(ZelSession *, ZelSuffixNode *, const char *, char *, LDAPMessage **),
               const char *uid, LDAPMessage **res = nullptr) {
        std::memset(dn, 'x', sizeof dn);
        std::string filter = std::string("(uid=") + uid + ")";
        return fn(s.get(), s->suffixes, filter.c_str(), dn, res);
    }
    char dn[1000];
};

}  // namespace

TEST_F(Resolve, FirstSuffixWithOneMatchWinsUniqueNeedsExactlyOne) {
    LDAPMessage *res = nullptr;
    EXPECT_EQ(find(determine_DN, "ann", &res), 0u);
    EXPECT_STREQ(dn, "cn=Ann,o=a");
    ASSERT_NE(res, nullptr);
    EXPECT_EQ(ldap_count_entries(s->ld, res), 1);
    ldap_msgfree(res);

    EXPECT_EQ(find(determine_unique_DN, "ann", &res), ZEL_RC_NOT_UNIQUE);
    EXPECT_EQ(std::count(dn, dn + sizeof dn, '\0'), std::ptrdiff_t{sizeof dn}) << "cleared";
    EXPECT_EQ(res, nullptr);

    EXPECT_EQ(find(determine_unique_DN, "bob", &res), 0u);
    EXPECT_STREQ(dn, "cn=Bob,o=b");
    ldap_msgfree(res);

    // Two matches under one suffix: not found for both walks.
    EXPECT_EQ(find(determine_DN, "twin"), ZEL_RC_ENTRY_NOT_FOUND);
    EXPECT_EQ(find(determine_unique_DN, "twin"), ZEL_RC_ENTRY_NOT_FOUND);
    EXPECT_EQ(find(determine_DN, "nobody"), ZEL_RC_ENTRY_NOT_FOUND);
    EXPECT_EQ(determine_DN(s.get(), nullptr, "(uid=ann)", dn, nullptr), ZEL_RC_ENTRY_NOT_FOUND);
}

TEST_F(Resolve, SomeResultsSkipASuffixOthersStopTheWalk) {
    fault::fail_call(Fn::Search, 1, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(find(determine_DN, "ann"), 0u);
    EXPECT_STREQ(dn, "cn=Ann Two,o=b");

    // A lost connection is connected again and the search re-sent once;
    // when the re-sent one fails too, the walk stops.
    fault::reset();
    fault::lose_connection_at_search(1, LDAP_SERVER_DOWN);
    EXPECT_EQ(find(determine_DN, "bob"), ZEL_RC_DIRECTORY_ERROR);
    EXPECT_EQ(fault::count(Fn::Search), 2) << "o=b must not be searched";

    fault::reset();
    fault::lose_connection_at_search(1, LDAP_SERVER_DOWN);
    char db[1000];
    EXPECT_EQ(locate_ZEL_database(s.get(), s->suffixes, db), ZEL_RC_DIRECTORY_ERROR);
    fault::reset();
    fault::lose_connection_at_search(1, LDAP_TIMEOUT);
    EXPECT_EQ(locate_ZEL_database(s.get(), s->suffixes, db), ZEL_RC_TIMEOUT)
        << "no answer in time is not an absent database";
    EXPECT_EQ(fault::calls(Fn::Search)[0].filter, "(&(objectClass=eApplicationSystem)(systemName=ORVZEL))");
}

TEST_F(Resolve, PersonLookupsAndProfileParents) {
    char person[1000];
    EXPECT_EQ(locate_ePerson(s.get(), "bob", s->suffixes, person), 0u);
    EXPECT_STREQ(person, "cn=Bob,o=b");
    EXPECT_EQ(locate_ePerson(s.get(), "twin", s->suffixes, person), ZEL_RC_EPERSON_NOT_FOUND);
    EXPECT_EQ(locate_ePerson(s.get(), std::string(700, 'x').c_str(), s->suffixes, person), ZEL_RC_INVALID_ARGUMENT)
        << "a filter that would not fit is refused";

    EXPECT_EQ(construct_ePersonDN_from_UP(s.get(), "cn=prof, uid=jo, o=acme", person), 0u);
    EXPECT_STREQ(person, "uid=jo,o=acme");
    EXPECT_EQ(construct_ePersonDN_from_UP(s.get(), "cn=alone", person), 0u);
    EXPECT_STREQ(person, "");
    EXPECT_EQ(construct_ePersonDN_from_UP(s.get(), "not a dn", person), ZEL_RC_INVALID_ARGUMENT);
    EXPECT_EQ(std::count(person, person + sizeof person, '\0'), std::ptrdiff_t{sizeof person}) << "cleared";
}

// What the session learnt, handed out as the caller's own copy: the suffixes
// in the server's order, without the excluded names.
TEST_F(Resolve, SessionInfoIsACopy) {
    ZelSessionInfo *info = nullptr;
    EXPECT_EQ(Zel_getSessionInfo(nullptr, &info), ZEL_RC_INVALID_HANDLE);
    EXPECT_EQ(Zel_getSessionInfo(s.get(), nullptr), ZEL_RC_INVALID_ARGUMENT);
    Zel_freeSessionInfo(nullptr);
    ASSERT_EQ(Zel_getSessionInfo(s.get(), &info), 0u);
    EXPECT_EQ(std::vector<std::string>(info->suffixes, info->suffixes + info->suffixCount),
              (std::vector<std::string>{"o=a", "o=b"}));
    EXPECT_NE(info->suffixes[0], s->suffixes->suffix) << "the caller gets copies";
    EXPECT_EQ(info->apiVersion, 2u);
    Zel_freeSessionInfo(info);
}

TEST_F(Resolve, DeleteTreeRemovesChildrenFirst) {
    EXPECT_EQ(delete_tree(s.get(), "ou=leaf1,ou=left,ou=top,o=a"), 0u);
    EXPECT_EQ(fault::count(Fn::Delete), 1) << "a leaf goes with one call";

    // A parent deleted before its children would be refused by the server.
    EXPECT_EQ(delete_tree(s.get(), "ou=top,o=a"), 0u);
    EXPECT_FALSE(dir->exists("ou=top,o=a"));
    EXPECT_TRUE(dir->exists("o=a"));

    EXPECT_EQ(delete_tree(s.get(), "ou=gone,o=a"), ZEL_RC_NO_SUCH_OBJECT);
    fault::fail_call(Fn::Delete, fault::count(Fn::Delete) + 1, 777);
    EXPECT_EQ(delete_tree(s.get(), "cn=Bob,o=b"), 777u) << "unlisted results come back as they are";
}

// The client keeps its own copy; each get hands out a fresh one.
// A security domain named with filter syntax.  The session escapes its
// name and DN once and keeps them: each stays a value in the filters of
// every call, the first and the next.
class OddDomain : public SessionTest {
protected:
    Profile profile() const override {
        Profile p;
        p.domain = "D(1)*";
        p.seed_ldif = person_ldif("o=acme", "Ann", "ann");
        return p;
    }
};

TEST_F(OddDomain, ItsNameAndDnStayValuesInEveryFilter) {
    for (int call = 1; call <= 2; ++call) {
        fault::reset();
        ZelCredentialRequest req{nullptr, nullptr, const_cast<char *>("app")};
        ZelCredential c{};
        EXPECT_EQ(Zel_getCredential(s.get(), "ann", &req, &c), ZEL_RC_TR_NOT_FOUND) << "call " << call;
        const std::vector<fault::Call> searches = fault::calls(Fn::Search);
        ASSERT_EQ(searches.size(), 2u) << "call " << call;
        EXPECT_EQ(searches[1].filter, "(&(objectClass=secUser)(secDN=cn=Ann,o=acme)(secAuthority=D\\281\\29\\2A:))")
            << "call " << call;
        zel::CredentialQuery q;
        ASSERT_EQ(zel::form_credential_query(s.get(), "app", q), 0u);
        EXPECT_EQ(q.member_filter(), "(member=secResourceID=app,cn=Resources,secAuthority=D\\281\\29\\2A,o=acme)")
            << "call " << call;
    }
}

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

// A refused format leaves its buffer alone.
TEST(TextHelpers, BoundedFormat) {
    char buf[8] = "keep";
    EXPECT_FALSE(zel::format_into(buf, sizeof buf, "%s=%d", "toolong", 1));
    EXPECT_STREQ(buf, "keep");
    EXPECT_TRUE(zel::format_into(buf, sizeof buf, "%s=%d", "cn", 42));
    EXPECT_STREQ(buf, "cn=42");
}
