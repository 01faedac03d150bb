// What each directory kind changes in a stored record.
#include "record/record_fixture.h"

using namespace recordtest;

namespace {

template <Kind K>
class RecordAs : public RecordTest {
protected:
    Profile profile() const override { return record_profile(K); }
};

}  // namespace

// Orv keeps first-generation passwords in clear (without a NUL), Netscape
// names the account principalName.
using OrvRecords = RecordAs<Kind::Orv>;
using NetscapeRecords = RecordAs<Kind::Netscape>;
using AdRecords = RecordAs<Kind::ActiveDirectory>;

TEST_F(OrvRecords, FirstGenerationSecretKeyIsStoredAsGiven) {
    open_with_jo(1);
    ZelTargetRecord r = record("T:legacy", "legacy", "jdoe", "pa55");
    ASSERT_EQ(Zel_addTargetRecord(s.get(), "jo", &r), 0u);
    Entry e = dir->entry("cn=T:legacy," + kJoProfile);
    EXPECT_EQ(std::make_tuple(e.first("secretKey"), e.first("uid")), std::make_tuple(std::string("pa55"), std::string("jdoe")));
    EXPECT_EQ(credential(s.get(), "jo", "legacy"), "jdoe/pa55");
}

TEST_F(NetscapeRecords, FirstGenerationAccountIsPrincipalName) {
    open(1);  // slapd does not take every access dialect: the profile is seeded
    dir->add("dn: " + kJoProfile + "\nobjectClass: eZelUser\ncn: jo\nassociatedName: " + kJo +
             "\nuserType: User\nuserState: Active\n");
    ZelTargetRecord r = record("T:legacy", "legacy", "jdoe", "pa55");
    ASSERT_EQ(Zel_addTargetRecord(s.get(), "jo", &r), 0u);
    Entry e = dir->entry("cn=T:legacy," + kJoProfile);
    EXPECT_EQ(std::make_tuple(e.first("principalName"), e.has("uid")), std::make_tuple(std::string("jdoe"), false));
    EXPECT_EQ(credential(s.get(), "jo", "legacy"), "jdoe/pa55");
}

TEST_F(AdRecords, EmptyValuesAreLeftOutOrDeleted) {
    open_with_jo(2);
    const std::string dn = "secResCredsId=T:app,cn=ResCreds," + kJoDomainUser;
    ZelTargetRecord r = record("T:app", "app", "jdoe", "pa55", "");
    ASSERT_EQ(Zel_addTargetRecord(s.get(), "jo", &r), 0u);
    EXPECT_FALSE(dir->entry(dn).has("description"));
    r.userId = const_cast<char *>("");
    ASSERT_EQ(Zel_updateTargetRecord(s.get(), "jo", &r), 0u);
    EXPECT_FALSE(dir->entry(dn).has("secUid"));
}
