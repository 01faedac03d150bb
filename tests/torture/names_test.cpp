// Names made of filter and DN syntax are plain values: a service, a domain
// and a record so named go through add, read and removal unchanged.
#include "record/record_fixture.h"

namespace {

using namespace recordtest;

TEST_F(RecordTest, NamesOfFilterAndDnSyntaxRoundTrip) {
    const std::string odd = "a(b)*c\\d,e+f=g\"h";
    const std::string id = "T:" + odd;
    std::vector<std::string> got;
    for (uint32_t version : {1u, 2u}) {
        open_with_jo(version);
        ZelSession *ss = s.get();
        const char *type = version == 1 ? "Web Application" : "Web Resource";
        ZelTargetService ts{const_cast<char *>(odd.c_str()), const_cast<char *>(type), nullptr, 0, nullptr};
        ZelDomainLocation where{const_cast<char *>("resourceName"), const_cast<char *>(odd.c_str())};
        ZelDomainLocation *locations[] = {&where};
        ZelDomain d{const_cast<char *>(odd.c_str()), nullptr, 1, locations};
        ZelTargetRecord r = record(id.c_str(), odd.c_str(), "jdoe", "pw");

        ZelTargetService *service = nullptr;
        ZelDomain *domain = nullptr;
        ZelTargetRecord *rec = nullptr;
        const ZelRC rcs[] = {Zel_addTargetService(ss, &ts), Zel_addZelDomain(ss, &d), Zel_addTargetRecord(ss, "jo", &r),
                             Zel_getTargetService(ss, odd.c_str(), &service), Zel_getZelDomain(ss, odd.c_str(), &domain),
                             Zel_getTargetRecord(ss, "jo", id.c_str(), &rec)};
        got.insert(got.end(), {std::to_string(version), service ? service->name : "-", domain ? domain->name : "-",
                               rec ? rec->targetRecordId : "-", credential(ss, "jo", odd.c_str())});
        Zel_freeTargetService(service);
        Zel_freeZelDomain(domain);
        Zel_freeTargetRecord(rec);
        // Neither a pattern nor a prefix of the name finds it.
        got.push_back(credential(ss, "jo", "a(b)*"));
        for (ZelRC rc : rcs) got.push_back(std::to_string(rc));
        for (ZelRC rc : {Zel_removeTargetRecord(ss, "jo", id.c_str()), Zel_removeZelDomain(ss, odd.c_str()),
                         Zel_removeTargetService(ss, odd.c_str())})
            got.push_back(std::to_string(rc));
    }
    const std::vector<std::string> once = {odd, odd, id, "jdoe/pw", "status 24", "0", "0", "0", "0", "0", "0",
                                           "0", "0", "0"};
    std::vector<std::string> want = {"1"};
    want.insert(want.end(), once.begin(), once.end());
    want.push_back("2");
    want.insert(want.end(), once.begin(), once.end());
    EXPECT_EQ(got, want);
    EXPECT_TRUE(dir->search("o=acme", "sub", "(|(cn=*a\\28b*)(secResourceID=a\\28b*)(secResGroupID=a\\28b*)"
                                             "(tsName=a\\28b*)(secResCredsID=T:a\\28b*))")
                    .empty())
        << "nothing left behind";
}

}  // namespace
