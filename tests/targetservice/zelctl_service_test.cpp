// zelctl service and service-type end to end.
#include "support/zelctl.h"
#include "targetservice/ts_fixtures.h"

namespace {

using namespace tstest;
using zeltest::zelctl;

class TargetServiceZelctl : public zeltest::DirectoryTest {};

TEST_F(TargetServiceZelctl, BothStorageFormsAndUsageErrors) {
    dir->add(zeltest::database_ldif(dir->suffix()) + resources_ldif(*dir));
    zeltest::CommandResult r = zelctl(*dir, {"service-type", "add", "Web", "--id", "host"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "target service type Web added\n");
    r = zelctl(*dir,
               {"service", "add", "portal", "--type", "Web", "--description", "The portal", "--id", "host=p.acme"});
    ASSERT_EQ(r.status, 0) << r.err;
    r = zelctl(*dir, {"--json", "service", "get", "portal"});
    EXPECT_EQ(r.out, "{\"name\":\"portal\",\"type\":\"Web\",\"description\":\"The portal\","
                     "\"identifiers\":[{\"name\":\"host\",\"value\":\"p.acme\"}]}\n");
    EXPECT_EQ(zelctl(*dir, {"service", "list"}).out, "portal\tWeb\tThe portal\n");

    r = zelctl(*dir, {"service", "add", "other", "--type", "Web"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "zelctl: cannot add target service other: " + std::string(Zel_strerror(ZEL_RC_CONFLICT)) +
                         " (status 17)\n");
    ASSERT_EQ(zelctl(*dir, {"service", "remove", "portal"}).status, 0);
    r = zelctl(*dir, {"--json", "service-type", "remove", "Web"});
    EXPECT_EQ(r.out, "{\"serviceType\":\"Web\",\"removed\":true}\n");

    // A security domain session: an empty listing is no error.
    EXPECT_EQ(zelctl(*dir, {"--json", "service", "list"}, "2").out, "[]\n");
    ASSERT_EQ(zelctl(*dir, {"service", "add", "site", "--type", "Web Resource"}, "2").status, 0);
    EXPECT_EQ(zelctl(*dir, {"--json", "service", "list"}, "2").out,
              "[{\"name\":\"site\",\"type\":\"Web Resource\",\"description\":null,\"identifiers\":[]}]\n");

    EXPECT_EQ(zelctl(*dir, {"service", "add", "x"}).status, 2) << "the type is required";
    EXPECT_EQ(zelctl(*dir, {"service", "add", "x", "--type", "Web Resource", "--description"}).status, 2);
    EXPECT_EQ(zelctl(*dir, {"service", "add", "x", "--type", "Web Resource", "--id", "novalue"}).status, 2);
    EXPECT_EQ(zelctl(*dir, {"service", "rename", "site"}).status, 2);
}

}  // namespace
