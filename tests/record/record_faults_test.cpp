// Allocation and directory failures on the record and credential calls:
// 1012 and nothing handed out for every failed allocation, mapped statuses
// for failed searches.
#include "support/alloc_faults.h"
#include "record/record_fixture.h"

using namespace recordtest;

TEST_F(RecordTest, AllocationFailuresInBothStorageForms) {
    for (uint32_t version : {1u, 2u}) {
        SCOPED_TRACE(version);
        open_with_jo(version);
        ZelSession *ss = s.get();
        const char *id = version == 1 ? "T:legacy" : "T:app", *service = id + 2;
        ZelTargetRecord r = record(id, service, "jdoe", "pw", "desc");
        auto add = [&] { return Zel_addTargetRecord(ss, "jo", &r); };
        auto drop = [&] { (void)Zel_removeTargetRecord(ss, "jo", id); };

        each_allocation_fails("add", 0, add, drop);
        each_allocation_fails("update", 0, [&] { return Zel_updateTargetRecord(ss, "jo", &r); });
        each_allocation_fails("get", 0, [&] {
            ZelTargetRecord *out = nullptr;
            ZelRC rc = Zel_getTargetRecord(ss, "jo", id, &out);
            EXPECT_EQ(out == nullptr, rc != 0);
            Zel_freeTargetRecord(out);
            return rc;
        });
        each_allocation_fails("get all", 0, [&] {
            ZelTargetRecordList *out = nullptr;
            ZelRC rc = Zel_getAllTargetRecord(ss, "jo", &out);
            EXPECT_EQ(out == nullptr, rc != 0);
            Zel_freeTargetRecords(out);
            return rc;
        });
        each_allocation_fails("credential", 0, [&] {
            ZelCredentialRequest req{nullptr, nullptr, const_cast<char *>(service)};
            ZelCredential c{};
            ZelRC rc = Zel_getCredential(ss, "jo", &req, &c);
            EXPECT_EQ(c.userId == nullptr && c.password == nullptr, rc != 0);
            Zel_memfree(c.userId);
            Zel_memfree(c.password);
            return rc;
        });
        each_allocation_fails("remove", 0, [&] { return Zel_removeTargetRecord(ss, "jo", id); }, [&] {
            if (dir->search("o=acme", "sub", std::string("(|(cn=") + id + ")(secResCredsID=" + id + "))").empty()) {
                ASSERT_EQ(add(), 0u);
            }
        });
    }
    // The first add for a person registers the Zel user; a failed attempt
    // leaves the user, which the next attempt finds.
    ZelTargetRecord app = record("T:app", "app", "ann", "pw");
    ZelTargetRecord sales = record("G:Sales", "Sales", "ann", "pw");
    each_allocation_fails("add registering", 0, [&] { return Zel_addTargetRecord(s.get(), "ann", &app); },
                          [&] { (void)Zel_removeTargetRecord(s.get(), "ann", "T:app"); });
    ASSERT_EQ(Zel_addTargetRecord(s.get(), "ann", &sales), 0u);
    each_allocation_fails("group credential", 0, [&] {
        ZelCredentialRequest req{nullptr, nullptr, const_cast<char *>("shop")};
        ZelCredential c{};
        ZelRC rc = Zel_getCredential(s.get(), "ann", &req, &c);
        Zel_memfree(c.userId);
        Zel_memfree(c.password);
        return rc;
    });
}

TEST_F(RecordTest, MembershipSearchFailuresEndTheQueryButMissingGroupsDoNot) {
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

    struct Case {
        int result;
        const char *want;
    } cases[] = {{LDAP_BUSY, "status 2"},
                 {LDAP_INSUFFICIENT_ACCESS, "status 7"},
                 // Passed over, and found again by the second pass over the same records.
                 {LDAP_NO_SUCH_OBJECT, "sales/pw"}};
    for (const Case &c : cases) {
        fault::reset();
        fault::fail_call(Fn::Search, nth + 1, c.result);
        EXPECT_EQ(credential(s.get(), "jo", "shop"), c.want) << c.result;
    }
}
