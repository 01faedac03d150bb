// The directory calls each read operation makes, pinned: a change that adds
// a round trip, widens a search or drops its size limit shows here.
#include <functional>

#include "dataset.h"
#include "support/session.h"

using namespace zeltest;

namespace {

Profile two_users() {
    Profile p;
    p.seed_ldif = zelbench::base_ldif();
    zelbench::Layout layout{2};
    for (int j = 0; j < layout.services(); ++j) p.seed_ldif += zelbench::service_ldif(j);
    p.seed_ldif += zelbench::group_ldif(0);
    for (int i = 0; i < layout.users; ++i)
        p.seed_ldif += zelbench::person_ldif(i) + zelbench::zel_user_ldif(i) +
                       zelbench::record_ldif(i, "T:svc" + std::to_string(i), "a", "pw") +
                       zelbench::record_ldif(i, "G:grp0", "g", "gpw");
    return p;
}

// One line per directory call: what was asked, not what came back.
std::vector<std::string> made() {
    std::vector<std::string> out;
    for (const fault::Call &c : fault::calls()) {
        std::string line = std::string(c.fn == fault::Fn::Search ? "search" : fault::name(c.fn)) + " " + c.dn;
        if (c.fn == fault::Fn::Search) {
            line += " scope=" + std::to_string(c.scope) + " " + c.filter + " limit=" + std::to_string(c.sizelimit);
            if (c.attrsonly) line += " attrsonly";
            for (const std::string &a : c.attrs) line += " +" + a;
        }
        out.push_back(line);
    }
    return out;
}

class ReadCalls : public DirectoryTest {
protected:
    Profile profile() const override { return two_users(); }
};

TEST_F(ReadCalls, EachReadMakesTheSearchesItsAnswerNeeds) {
    Session s = open_session(*dir, 2);
    ASSERT_TRUE(s);
    auto credential = [&](const char *resource, ZelRC want) {
        ZelCredentialRequest req{nullptr, nullptr, const_cast<char *>(resource)};
        ZelCredential c{};
        EXPECT_EQ(Zel_getCredential(s.get(), "u0", &req, &c), want) << resource;
        Zel_memfree(c.userId);
        Zel_memfree(c.password);
    };
    const std::string person = "search o=acme scope=2 (&(objectClass=Person)(uid=u0)) limit=2 attrsonly";
    const std::string user = "search secAuthority=Default,o=acme scope=2 (&(objectClass=secUser)"
                             "(secDN=cn=u0,ou=People,o=acme)(secAuthority=Default:)) limit=2";
    const std::string records = "search principalName=u0,cn=Users,secAuthority=Default,o=acme scope=2 ";
    // Every record search resolves the user anew: the group pass repeats it.
    auto group_pass = [&](const char *resource) -> std::vector<std::string> {
        return {person, user, records + "secResCredsID=T:" + resource + " limit=0", person, user,
                records + "secResCredsID=G:* limit=0",
                std::string("search secResGroupID=grp0,cn=ResourceGroups,secAuthority=Default,o=acme scope=0 "
                            "(member=secResourceID=") + resource + ",cn=Resources,secAuthority=Default,o=acme) "
                            "limit=2 attrsonly"};
    };
    struct Case {
        const char *what;
        std::function<void()> call;
        std::vector<std::string> calls;
    } cases[] = {
        {"direct credential", [&] { credential("svc0", 0); }, {person, user, records + "secResCredsID=T:svc0 limit=0"}},
        {"group credential", [&] { credential("svc5", 0); }, group_pass("svc5")},
        {"no credential", [&] { credential("nowhere", ZEL_RC_TR_NOT_FOUND); }, group_pass("nowhere")},
        {"target record",
         [&] {
             ZelTargetRecord *r = nullptr;
             EXPECT_EQ(Zel_getTargetRecord(s.get(), "u0", "T:svc0", &r), 0u);
             Zel_freeTargetRecord(r);
         },
         {person, user, records + "secResCredsID=T:svc0 limit=0"}},
        {"target service",
         [&] {
             ZelTargetService *ts = nullptr;
             EXPECT_EQ(Zel_getTargetService(s.get(), "svc1", &ts), 0u);
             Zel_freeTargetService(ts);
         },
         {"search cn=Resources,secAuthority=Default,o=acme scope=2 (&(objectClass=secResource)(secResourceID=svc1)) "
          "limit=2"}},
        {"user check",
         [&] {
             char *dn = nullptr;
             EXPECT_EQ(Zel_verifyZelUser(s.get(), "cn=u0,ou=People,o=acme", &dn), 1u);
             Zel_memfree(dn);
         },
         {user}},
    };
    for (const Case &c : cases) {
        fault::reset();
        c.call();
        EXPECT_EQ(made(), c.calls) << c.what;
    }
}

}  // namespace
