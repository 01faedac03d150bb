// Which account a sign-on agent gets: the direct record first, then the
// first group record (in directory order) whose resource group holds the
// resource.
#include <array>
#include <ldap.h>

#include "support/family_fixture.h"
#include "ZelSession.h"

using namespace famtest;

namespace {

void add_records(ZelSession *s, std::initializer_list<std::array<const char *, 3>> records) {
    for (const auto &[id, service, account] : records) {
        std::string password = std::string(account) + "-pw";
        ZelTargetRecord r = record(id, service, account, password.c_str());
        ASSERT_EQ(Zel_addTargetRecord(s, "jo", &r), 0u) << id;
    }
}

}  // namespace

TEST_F(RecordTest, CredentialsResolveDirectThenFirstMatchingGroup) {
    open_with_jo(2);
    add_records(s.get(), {{"T:app", "app", "direct"},
                          {"G:Nope", "Nope", "nope"},  // no such resource group
                          {"G:Ops", "Ops", "ops"},
                          {"G:Sales", "Sales", "sales"},
                          {"G:Old", "Old", "old"}});  // a first-generation Zel domain only
    struct Case {
        const char *resource, *want;
    } cases[] = {
        {"app", "direct/direct-pw"},  // Sales holds app as well
        {"mail", "ops/ops-pw"},       // Ops and Sales: the first one wins
        {"shop", "sales/sales-pw"},   // Ops passed over
        {"legacy", "old/old-pw"},     // T:legacy as a location of the Zel domain
        {"*", "status 24"},
        {"G:Ops", "status 24"},
        {"unknown", "status 24"},
    };
    for (const Case &c : cases) EXPECT_EQ(credential(s.get(), "jo", c.resource), c.want) << c.resource;

    ZelUser off = user_record("jo", "User", kJo, nullptr, 0);
    ASSERT_EQ(Zel_updateZelUser(s.get(), &off), 0u);
    EXPECT_EQ(credential(s.get(), "jo", "mail"), "ops/ops-pw") << "inactive users still sign on";

    // A direct record without a password answers, and has nothing to give.
    ZelTargetRecord bare = record("T:mail", "mail", "bare", nullptr);
    ASSERT_EQ(Zel_addTargetRecord(s.get(), "jo", &bare), 0u);
    EXPECT_EQ(credential(s.get(), "jo", "mail"), "status 13");

    ZelCredential c{};
    ZelCredentialRequest none{};
    EXPECT_EQ(Zel_getCredential(s.get(), "jo", &none, &c), ZEL_RC_INVALID_ARGUMENT);
    EXPECT_EQ(credential(s.get(), "max", "app"), "status 24") << "max is no Zel user";
}

// A membership search that finds no group does not end the query (other
// failures do: the torture runner).  Step by step, the second pass finds the
// group again; the merged query reads it as no group holding the resource.
TEST_F(RecordTest, AMissingGroupIsPassedOver) {
    open_with_jo(2);
    add_records(s.get(), {{"G:Sales", "Sales", "sales"}});
    for (bool stepwise : {true, false}) {
        s->stepwise_credentials = stepwise;
        fault::reset();
        ASSERT_EQ(credential(s.get(), "jo", "shop"), "sales/sales-pw");
        const std::vector<fault::Call> searches = fault::calls(Fn::Search);
        int nth = 1;
        while (nth <= static_cast<int>(searches.size()) && searches[nth - 1].filter.find("(member=") == std::string::npos)
            ++nth;
        ASSERT_LE(nth, static_cast<int>(searches.size()));
        fault::reset();
        fault::fail_call(Fn::Search, nth, LDAP_NO_SUCH_OBJECT);
        EXPECT_EQ(credential(s.get(), "jo", "shop"), stepwise ? "sales/sales-pw" : "status 24");
        EXPECT_EQ(fault::calls(Fn::Search)[nth - 1].result, LDAP_NO_SUCH_OBJECT);
    }
}

TEST_F(RecordTest, FirstGenerationCredentials) {
    open_with_jo(1);
    add_records(s.get(), {{"G:Old", "Old", "old"}});
    EXPECT_EQ(credential(s.get(), "jo", "legacy"), "old/old-pw");
    add_records(s.get(), {{"T:legacy", "legacy", "direct"}});
    EXPECT_EQ(credential(s.get(), "jo", "legacy"), "direct/direct-pw");
    EXPECT_EQ(credential(s.get(), "max", "legacy"), "status 19");  // inactive users: DisabledUserIsEnabledAgain
}
