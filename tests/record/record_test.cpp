// Target records in both storage forms: what is written, what reads back,
// and what each directory kind changes in it.
#include <ldap.h>
#include "support/family_fixture.h"

using namespace famtest;

namespace {

Strings all_ids(ZelSession *s, const char *user) {
    ZelTargetRecordList *l = nullptr;
    ZelRC rc = Zel_getAllTargetRecord(s, user, &l);
    if (rc != 0) return {status(rc)};
    Strings out;
    for (int32_t i = 0; i < l->count; ++i) out.push_back(text(l->records[i]->targetRecordId));
    Zel_freeTargetRecords(l);
    return out;
}

}  // namespace

TEST_F(RecordTest, BothFormsStoreMaskedPasswordsAndReadThemBack) {
    struct Case {
        uint32_t version;
        const char *service, *id, *kind;
        std::string dn;
        Strings classes, sent, updated;
        const char *secret, *description_after;
    };
    const Case cases[] = {
        {1, "legacy", "T:legacy", "Web Application", "cn=T:legacy," + kJoProfile,
         {"top", "cimManagedElement", "cimSetting", "eTargetRecord"},
         {"objectClass", "cn", "targetService", "tsType", "launchable", "description", "uid", "secretKey"},
         {"targetService", "tsType", "description", "uid", "secretKey"}, "secretKey", "(null)"},
        {2, "app", "T:app", "Web Resource", "secResCredsId=T:app,cn=ResCreds," + kJoDomainUser, {"top", "secResCreds"},
         {"objectClass", "secResCredsID", "secType", "secValid", "description", "secUid", "secAuthnData", "secAuthnLength",
          "secAuthnType"},
         {"secUid", "secAuthnData", "secAuthnLength", "secAuthnType"}, "secAuthnData", "Jo at work"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.version);
        open_with_jo(c.version);
        ZelTargetRecord r = record(c.id, c.service, "jdoe", "pa55word", "Jo at work", "web resource");
        if (c.version == 1) r.targetServiceType = const_cast<char *>("Web Application");
        ASSERT_EQ(Zel_addTargetRecord(s.get(), "jo", &r), 0u);
        ASSERT_EQ(fault::count(Fn::Add), 1);
        EXPECT_EQ(types_sent(fault::calls(Fn::Add)[0]), c.sent);

        Entry e = dir->entry(c.dn);
        EXPECT_EQ(e.values("objectClass"), c.classes);
        const std::string stored = e.first(c.secret);
        EXPECT_EQ(stored.rfind("{ZM1}", 0), 0u) << "masked";
        EXPECT_EQ(stored.back(), '\0') << "stored with its NUL";
        if (c.version == 2) {
            EXPECT_EQ(e.first("secAuthnLength"), std::to_string(stored.size()));
            EXPECT_EQ(e.first("secType"), "1");
        } else {
            EXPECT_EQ(e.first("targetService"), "tsName=legacy");
        }
        EXPECT_EQ(read_record(s.get(), "jo", c.id), (Strings{c.id, "Jo at work", "jdoe", "pa55word", c.service, c.kind}));

        // The update replaces what it is given; an empty description is
        // dropped on this directory kind (deleted in the first generation).
        fault::reset();
        ZelTargetRecord u = record(c.id, c.service, "jd", "n3w-secret", "");
        ASSERT_EQ(Zel_updateTargetRecord(s.get(), "jo", &u), 0u);
        ASSERT_EQ(fault::count(Fn::Modify), 1);
        EXPECT_EQ(types_sent(fault::calls(Fn::Modify)[0]), c.updated);
        EXPECT_EQ(read_record(s.get(), "jo", c.id), (Strings{c.id, c.description_after, "jd", "n3w-secret", c.service, c.kind}));
        EXPECT_EQ(all_ids(s.get(), "jo"), Strings{c.id});

        ASSERT_EQ(Zel_removeTargetRecord(s.get(), "jo", c.id), 0u);
        EXPECT_FALSE(dir->exists(c.dn));
        EXPECT_EQ(Zel_removeTargetRecord(s.get(), "jo", c.id), ZEL_RC_TR_NOT_FOUND);
        EXPECT_EQ(read_record(s.get(), "jo", c.id), (Strings{"status 24", ""}));
        EXPECT_EQ(all_ids(s.get(), "jo"), Strings{"status 24"});
    }
}

// A security domain session sees first-generation records, updates them in
// place, and registers a person as a Zel user on the first add.
TEST_F(RecordTest, DomainSessionReachesFirstGenerationRecordsAndRegistersUsers) {
    open_with_jo(1);
    ZelTargetRecord legacy = record("T:legacy", "legacy", "old", "old-pw");
    ASSERT_EQ(Zel_addTargetRecord(s.get(), "jo", &legacy), 0u);
    open(2);

    legacy.password = const_cast<char *>("fresh-pw");
    ASSERT_EQ(Zel_updateTargetRecord(s.get(), kJoProfile.c_str(), &legacy), 0u);
    EXPECT_EQ(fault::calls(Fn::Modify).back().dn, "cn=T:legacy," + kJoProfile);
    EXPECT_EQ(read_record(s.get(), "jo", "T:legacy")[3], "fresh-pw");
    EXPECT_FALSE(dir->exists(kJoDomainUser));

    // jo has a first-generation profile only and is registered; ann has no
    // Zel profile at all and gets nothing.
    ZelTargetRecord app = record("T:app", "app", "jo", "pw");
    ASSERT_EQ(Zel_addTargetRecord(s.get(), "jo", &app), 0u);
    EXPECT_TRUE(dir->exists("secResCredsId=T:app,cn=ResCreds," + kJoDomainUser));
    EXPECT_EQ(all_ids(s.get(), "jo"), (Strings{"T:legacy", "T:app"}));
    // Read in bulk: each record with its user and form, the domain's first.
    ZelUserTargetRecordList *bulk = nullptr;
    ASSERT_EQ(Zel_getAllUserTargetRecord(s.get(), &bulk), 0u);
    Strings seen;
    for (int32_t i = 0; i < bulk->count; ++i)
        seen.push_back(text(bulk->records[i]->userName) + " " + std::to_string(bulk->records[i]->form) + " " +
                       read_record(s.get(), "jo", bulk->records[i]->record->targetRecordId)[3] + " " +
                       text(bulk->records[i]->record->password));
    Zel_freeUserTargetRecords(bulk);
    EXPECT_EQ(seen, (Strings{"jo 2 pw pw", "jo 1 fresh-pw fresh-pw"}));
    // A failed read of either form fails the whole list: no half answer.
    fault::reset();
    fault::fail_call(Fn::Search, 1, LDAP_BUSY);
    bulk = nullptr;
    EXPECT_EQ(Zel_getAllUserTargetRecord(s.get(), &bulk), ZEL_RC_DIRECTORY_ERROR);
    EXPECT_EQ(bulk, nullptr);
    fault::reset();
    EXPECT_EQ(Zel_addTargetRecord(s.get(), "ann", &app), ZEL_RC_USER_NOT_FOUND);
    EXPECT_EQ(fault::count(Fn::Add), 0);

    // Inactive users, in either form, keep reading and writing their records.
    ZelUser off = user_record("jo", "User", kJo, nullptr, 0);
    ASSERT_EQ(Zel_updateZelUser(s.get(), &off), 0u);
    dir->modify("dn: " + kJoProfile + "\nchangetype: modify\nreplace: userState\nuserState: Inactive\n");
    EXPECT_EQ(read_record(s.get(), "jo", "T:app")[3], "pw");
    ZelTargetRecord changed = record("T:app", "app", "jo2", nullptr);
    EXPECT_EQ(Zel_updateTargetRecord(s.get(), "jo", &changed), 0u);
    EXPECT_EQ(Zel_updateTargetRecord(s.get(), "jo", &legacy), 0u) << "first-generation record";
}

// An update enables a disabled account again, and its credentials answer
// again, in both storage forms.
TEST_F(RecordTest, DisabledUserIsEnabledAgain) {
    std::vector<std::string> got;
    for (uint32_t version : {1u, 2u}) {
        open_with_jo(version);
        const char *service = version == 1 ? "legacy" : "app";
        const std::string id = std::string("T:") + service;
        ZelTargetRecord r = record(id.c_str(), service, "jdoe", "pw");
        ASSERT_EQ(Zel_addTargetRecord(s.get(), "jo", &r), 0u);
        for (unsigned char enabled : {0, 1}) {
            ZelUser jo = user_record("jo", "User", kJo, nullptr, enabled);
            const ZelRC rc = Zel_updateZelUser(s.get(), &jo);
            got.push_back(std::to_string(rc) + " " + credential(s.get(), "jo", service));
        }
    }
    // A first-generation session refuses an inactive user's credentials; a domain session does not.
    EXPECT_EQ(got, (std::vector<std::string>{"0 status 33", "0 jdoe/pw", "0 jdoe/pw", "0 jdoe/pw"}));
    EXPECT_EQ(dir->entry(kJoDomainUser).first("secAcctValid"), "TRUE");
}

// The record add's retry under a newly registered user is measured before
// anything is written: an identifier that fits only under the shorter
// first-generation profile leaves no user behind.
TEST_F(RecordTest, RegistrationRetryIsMeasuredFirst) {
    open_with_jo(1);
    open(2);
    // jo's record DN under cn=jo,cn=Jo,o=acme is shorter than under the domain's Users.
    const size_t room = 1000 - 1 - std::string("secResCredsId=,cn=ResCreds,").size();
    const std::string id(room - kJoProfile.size(), 'x');
    ZelTargetRecord r = record(id.c_str(), "app", "jo", "pw");
    fault::reset();
    EXPECT_EQ(Zel_addTargetRecord(s.get(), "jo", &r), ZEL_RC_INVALID_ARGUMENT);
    EXPECT_EQ(fault::count(Fn::Add), 0);
    EXPECT_FALSE(dir->exists(kJoDomainUser));
}

TEST_F(RecordTest, RefusalsAndDamagedValues) {
    open_with_jo(2);
    ZelTargetRecord ok = record("T:app", "app", "jdoe", "pw");
    ASSERT_EQ(Zel_addTargetRecord(s.get(), "jo", &ok), 0u);
    ZelTargetRecord no_service = record("T:app", nullptr, "jdoe", "pw");
    ZelTargetRecord wrong_kind = record("T:mail", "mail", "jdoe", "pw", nullptr, "Resource Group");
    ZelTargetRecord unknown_kind = record("T:mail", "mail", "jdoe", "pw", nullptr, "Foo");
    ZelTargetRecord unknown = record("T:x", "x", "jdoe", "pw");
    ZelTargetRecord pattern = record("T:x", "*", "jdoe", "pw");
    const std::string long_id(1000, 'x');
    ZelTargetRecord too_long = record(long_id.c_str(), "app", "jdoe", "pw");
    // A service is named by any value of its naming attribute.
    dir->add("dn: " + resource_dn("r1") + "\nobjectClass: secResource\nsecResourceID: r1\nsecResourceID: alias1\n"
             "secType: 1\n\n");
    ZelTargetRecord by_alias = record("T:alias1", "alias1", "jdoe", "pw");
    // The domain knows two types only: another is answered without a search.
    ZelTargetService foo{const_cast<char *>("x1"), const_cast<char *>("Foo"), nullptr, 0, nullptr};
    struct Case {
        const char *what;
        ZelRC got, want;
    } cases[] = {
        {"no service", Zel_addTargetRecord(s.get(), "jo", &no_service), ZEL_RC_INVALID_ARGUMENT},
        {"kind differs", Zel_addTargetRecord(s.get(), "jo", &wrong_kind), ZEL_RC_CONFLICT},
        {"kind unknown", Zel_addTargetRecord(s.get(), "jo", &unknown_kind), ZEL_RC_CONFLICT},
        {"unknown service", Zel_addTargetRecord(s.get(), "jo", &unknown), ZEL_RC_TS_NOT_FOUND},
        {"second name", Zel_addTargetRecord(s.get(), "jo", &by_alias), 0},
        {"unknown type", Zel_addTargetService(s.get(), &foo), ZEL_RC_TST_NOT_FOUND},
        {"service pattern", Zel_addTargetRecord(s.get(), "jo", &pattern), ZEL_RC_TS_NOT_FOUND},
        {"DN too long", Zel_addTargetRecord(s.get(), "jo", &too_long), ZEL_RC_INVALID_ARGUMENT},
        // Not found in the domain; jo has no first-generation profile to fall back to.
        {"target pattern", Zel_removeTargetRecord(s.get(), "jo", "T:*"), ZEL_RC_USER_NOT_FOUND},
        {"filter too long", Zel_removeTargetRecord(s.get(), "jo", long_id.c_str()), ZEL_RC_INVALID_ARGUMENT},
        {"not a Zel user", Zel_removeTargetRecord(s.get(), "max", "T:app"), ZEL_RC_USER_NOT_FOUND},
    };
    for (const Case &c : cases) EXPECT_EQ(c.got, c.want) << c.what;
    EXPECT_EQ(fault::count(Fn::Delete), 0);
    for (const fault::Call &c : fault::calls(Fn::Search)) EXPECT_NE(c.filter, "") << "no empty filter is sent";

    // A stored value the library did not mask fails the whole read.
    dir->modify("dn: secResCredsId=T:app,cn=ResCreds," + kJoDomainUser +
                "\nchangetype: modify\nreplace: secAuthnData\nsecAuthnData: plain\n");
    EXPECT_EQ(read_record(s.get(), "jo", "T:app"), (Strings{"status 1013", ""}));
    EXPECT_EQ(credential(s.get(), "jo", "app"), "status 1013");
}

// What each directory kind changes: Orv keeps first-generation passwords in
// clear (without a NUL), Netscape names the account principalName.
using OrvRecords = RecordAs<Kind::Orv>;
using NetscapeRecords = RecordAs<Kind::Netscape>;
using AdRecords = RecordAs<Kind::ActiveDirectory>;

TEST_F(OrvRecords, FirstGenerationSecretKeyIsStoredAsGiven) {
    open_with_jo(1);
    ZelTargetRecord r = record("T:legacy", "legacy", "jdoe", "pa55");
    ASSERT_EQ(Zel_addTargetRecord(s.get(), "jo", &r), 0u);
    Entry e = dir->entry("cn=T:legacy," + kJoProfile);
    EXPECT_EQ((Strings{e.first("secretKey"), e.first("uid")}), (Strings{"pa55", "jdoe"}));
    EXPECT_EQ(credential(s.get(), "jo", "legacy"), "jdoe/pa55");
    EXPECT_EQ(read_record(s.get(), "jo", "T:legacy")[3], "pa55");
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
    EXPECT_EQ(read_record(s.get(), "jo", "T:legacy")[2], "jdoe");
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
