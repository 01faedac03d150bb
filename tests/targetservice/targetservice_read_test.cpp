// Reading target services: both storage forms, the fallback of a security
// domain session to first-generation entries, record contents and cleanup.
#include <algorithm>
#include <map>

#include "support/family_fixture.h"

namespace {

using namespace famtest;

struct ListFree { void operator()(ZelTargetServiceList *l) const { Zel_freeTargetServices(l); } };
struct ServiceFree { void operator()(ZelTargetService *t) const { Zel_freeTargetService(t); } };
using List = std::unique_ptr<ZelTargetServiceList, ListFree>;
using Service = std::unique_ptr<ZelTargetService, ServiceFree>;

// "name:id,id" for each type listed, sorted; "8" when the list answers 8.
std::vector<std::string> listed_types(ZelSession *s) {
    ZelTargetServiceTypeList *raw = nullptr;
    ZelRC rc = Zel_getAllTargetServiceType(s, &raw);
    std::unique_ptr<ZelTargetServiceTypeList, void (*)(ZelTargetServiceTypeList *)> list(raw,
                                                                                        Zel_freeTargetServiceTypes);
    if (rc != 0) {
        EXPECT_EQ(raw, nullptr);
        return {std::to_string(rc)};
    }
    std::vector<std::string> out;
    for (int32_t i = 0; i < list->count; ++i) {
        std::string line = text(list->types[i]->typeName) + ":";
        for (int32_t k = 0; k < list->types[i]->identifierCount; ++k)
            line += (k ? "," : "") + text(list->types[i]->identifierNames[k]);
        out.push_back(line);
    }
    std::sort(out.begin(), out.end());
    return out;
}

std::map<std::string, const ZelTargetService *> by_name(const ZelTargetServiceList *l) {
    std::map<std::string, const ZelTargetService *> out;
    for (int32_t i = 0; i < l->count; ++i) out[text(l->services[i]->name)] = l->services[i];
    return out;
}

TEST_F(TargetServiceV1, ListsAndGetsRecords) {
    ZelTargetServiceList *raw = nullptr;
    ASSERT_EQ(Zel_getAllTargetService(s.get(), &raw), 0u);
    List list(raw);
    ASSERT_EQ(list->count, 5);
    const ZelTargetService *mainframe = by_name(list.get())["mainframe"];
    ASSERT_NE(mainframe, nullptr);
    EXPECT_EQ(service_text(mainframe), "mainframe|Host|(null)");
    EXPECT_EQ(mainframe->reqIdentifiers, nullptr);

    ZelTargetService *one = nullptr;
    ASSERT_EQ(Zel_getTargetService(s.get(), "PORTAL", &one), 0u);
    EXPECT_EQ(service_text(Service(one).get()), "portal|Web|The portal|host=portal.acme");

    // Identifier values split at runs of equal signs; a third word is dropped.
    ASSERT_EQ(Zel_getTargetService(s.get(), "odd", &one), 0u);
    EXPECT_EQ(service_text(Service(one).get()), "odd|Web|(null)|plain=value|lead=double|name=first|alone=(null)");

    // One name below two types is ambiguous.  (That a failure hands nothing
    // out is the torture runner's.)
    fault::reset();
    EXPECT_EQ(Zel_getTargetService(s.get(), "twin", &one), ZEL_RC_TS_NOT_FOUND);
    ASSERT_EQ(fault::count(Fn::Search), 1);
    EXPECT_EQ(fault::calls(Fn::Search)[0].sizelimit, 2);

    EXPECT_EQ(Zel_getTargetService(s.get(), nullptr, &one), ZEL_RC_INVALID_ARGUMENT);
    EXPECT_EQ(Zel_getAllTargetService(s.get(), nullptr), ZEL_RC_INVALID_ARGUMENT);

    EXPECT_EQ(listed_types(s.get()), (std::vector<std::string>{"Host:", "Open:", "Web:host,port"}));
    EXPECT_EQ(Zel_getAllTargetServiceType(s.get(), nullptr), ZEL_RC_INVALID_ARGUMENT);
}

TEST_F(TargetServiceDomain, ListsResourcesAndReadsAMissingContainerAsEmpty) {
    open(2);
    ZelTargetServiceList *raw = nullptr;
    EXPECT_EQ(Zel_getAllTargetService(s.get(), &raw), ZEL_RC_TS_NOT_FOUND);
    // Its own types are built in: without the Zel database it lists none.
    fault::reset();
    EXPECT_EQ(listed_types(s.get()), (std::vector<std::string>{"8"}));
    EXPECT_EQ(fault::count(Fn::Search), 0);
    dir->add(container_ldif(kResources, "Resources"));
    EXPECT_EQ(Zel_getAllTargetService(s.get(), &raw), ZEL_RC_TS_NOT_FOUND);

    dir->add(resource_ldif("web", "1", "Web site") + resource_ldif("group", "2") +
             resource_ldif("odd", "3"));
    fault::reset();
    ASSERT_EQ(Zel_getAllTargetService(s.get(), &raw), 0u);
    List list(raw);
    auto services = by_name(list.get());
    ASSERT_EQ(services.size(), 3u);
    EXPECT_EQ((std::vector<std::string>{service_text(services["web"]), service_text(services["group"]), service_text(services["odd"])}),
              (std::vector<std::string>{"web|Web Resource|Web site", "group|Resource Group|(null)", "odd|Unknown|(null)"}));
    // No database: only the Resources container is searched.
    ASSERT_EQ(fault::count(Fn::Search), 1);
    EXPECT_EQ(fault::calls(Fn::Search)[0].dn, kResources);
}

TEST_F(TargetServiceDomain, KnownDatabaseAddsFirstGenerationEntries) {
    dir->add(database_ldif("o=acme") + type_ldif("Web") +
             service_ldif("Web", "legacy", "Old", {"url=http://old"}));
    open(2);

    // No Resources container: the domain search reads as empty and the
    // first-generation entry serves.
    ZelTargetService *raw = nullptr;
    ASSERT_EQ(Zel_getTargetService(s.get(), "legacy", &raw), 0u);
    EXPECT_EQ(service_text(Service(raw).get()), "legacy|Web|Old|url=http://old");

    dir->add(container_ldif(kResources, "Resources") + resource_ldif("web", "1"));
    ZelTargetServiceList *all = nullptr;
    ASSERT_EQ(Zel_getAllTargetService(s.get(), &all), 0u);
    List list(all);
    ASSERT_EQ(list->count, 2);
    EXPECT_EQ((std::vector<std::string>{service_text(list->services[0]), service_text(list->services[1])}),
              (std::vector<std::string>{"legacy|Web|Old|url=http://old", "web|Web Resource|(null)"}));
    EXPECT_EQ(listed_types(s.get()), (std::vector<std::string>{"Web:"}));
    EXPECT_EQ(listed_types(open_session(*dir, 1).get()), (std::vector<std::string>{"Web:"}));
}

}  // namespace
