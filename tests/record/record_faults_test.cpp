// A membership search that finds no group does not end a credential query.
#include "record/record_fixture.h"

using namespace recordtest;

TEST_F(RecordTest, AMissingGroupIsPassedOver) {
    open_with_jo(2);
    ZelTargetRecord sales = record("G:Sales", "Sales", "sales", "pw");
    ASSERT_EQ(Zel_addTargetRecord(s.get(), "jo", &sales), 0u);
    fault::reset();
    ASSERT_EQ(credential(s.get(), "jo", "shop"), "sales/pw");
    const std::string group = "secResGroupID=Sales,cn=ResourceGroups," + kDomain;
    std::vector<fault::Call> searches = fault::calls(Fn::Search);
    int nth = 0;
    while (nth < static_cast<int>(searches.size()) && searches[nth].dn != group) ++nth;
    ASSERT_LT(nth, static_cast<int>(searches.size()));
    const fault::Call &m = searches[nth];
    EXPECT_EQ(std::make_tuple(m.scope, m.filter, m.attrsonly, m.sizelimit),
              std::make_tuple(0, "(member=" + resource_dn("shop") + ")", 1, 2));

    // Other failures end the query (the torture runner); a missing group is
    // passed over and found again by the second pass over the same records.
    fault::reset();
    fault::fail_call(Fn::Search, nth + 1, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(credential(s.get(), "jo", "shop"), "sales/pw");
}
