// Names made of filter and DN syntax are plain values: a service, a domain
// and a record so named go through add, read and removal unchanged.
#include "record/record_fixture.h"

namespace {

using namespace recordtest;

TEST_F(RecordTest, NamesOfFilterAndDnSyntaxRoundTrip) {
    char odd[] = "a(b)*c\\d,e+f=g\"h";
    const std::string id = std::string("T:") + odd;
    std::vector<std::string> got;
    for (uint32_t version : {1u, 2u}) {
        open_with_jo(version);
        ZelSession *ss = s.get();
        char *type = const_cast<char *>(version == 1 ? "Web Application" : "Web Resource");
        ZelTargetService ts{odd, type, nullptr, 0, nullptr}, *service = nullptr;
        ZelDomainLocation where{const_cast<char *>("resourceName"), odd}, *locations[] = {&where};
        ZelDomain d{odd, nullptr, 1, locations}, *domain = nullptr;
        ZelTargetRecord r = record(id.c_str(), odd, "jdoe", "pw"), *rec = nullptr;
        for (ZelRC rc : {Zel_addTargetService(ss, &ts), Zel_addZelDomain(ss, &d), Zel_addTargetRecord(ss, "jo", &r),
                         Zel_getTargetService(ss, odd, &service), Zel_getZelDomain(ss, odd, &domain),
                         Zel_getTargetRecord(ss, "jo", id.c_str(), &rec)})
            got.push_back(std::to_string(rc));
        // Neither the name nor a pattern made of its start finds more than the record.
        got.insert(got.end(), {service ? service->name : "-", domain ? domain->name : "-",
                               rec ? rec->targetRecordId : "-", credential(ss, "jo", odd), credential(ss, "jo", "a(b)*")});
        Zel_freeTargetService(service);
        Zel_freeZelDomain(domain);
        Zel_freeTargetRecord(rec);
        for (ZelRC rc : {Zel_removeTargetRecord(ss, "jo", id.c_str()), Zel_removeZelDomain(ss, odd),
                         Zel_removeTargetService(ss, odd)})
            got.push_back(std::to_string(rc));
    }
    const std::vector<std::string> once = {"0", "0", "0", "0", "0", "0", odd, odd, id, "jdoe/pw", "status 24",
                                           "0", "0", "0"};
    std::vector<std::string> want = once;
    want.insert(want.end(), once.begin(), once.end());
    EXPECT_EQ(got, want);
    EXPECT_TRUE(dir->search("o=acme", "sub", "(|(cn=*a\\28b*)(secResourceID=a\\28b*)(secResGroupID=a\\28b*)"
                                             "(tsName=a\\28b*)(secResCredsID=T:a\\28b*))").empty())
        << "nothing left behind";
}

}  // namespace
