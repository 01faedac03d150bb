// zelctl service and service-type end to end.
#include <string>
#include <vector>

#include "targetservice/ts_fixtures.h"

namespace {

using namespace tstest;
using zeltest::CommandResult;

class TargetServiceZelctl : public zeltest::DirectoryTest {
protected:
    CommandResult zelctl(std::vector<std::string> args, const char *api_version) {
        std::vector<std::string> argv = {ZELCTL_PATH, "-H", dir->uri(), "-D", dir->admin_dn(), "-w",
                                         zeltest::Directory::admin_password(), "--api-version", api_version};
        argv.insert(argv.end(), args.begin(), args.end());
        CommandResult r = zeltest::run_command(argv);
        EXPECT_EQ(r.out.find(zeltest::Directory::admin_password()), std::string::npos);
        EXPECT_EQ(r.err.find(zeltest::Directory::admin_password()), std::string::npos);
        return r;
    }
};

TEST_F(TargetServiceZelctl, FirstGenerationRoundTrip) {
    dir->add(zeltest::database_ldif(dir->suffix()));
    CommandResult r = zelctl({"service-type", "add", "Web", "--id", "host"}, "1");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "target service type Web added\n");
    r = zelctl({"service", "add", "portal", "--type", "Web", "--description", "The portal", "--id", "host=p.acme"}, "1");
    ASSERT_EQ(r.status, 0) << r.err;
    r = zelctl({"--json", "service", "get", "portal"}, "1");
    EXPECT_EQ(r.out, "{\"name\":\"portal\",\"type\":\"Web\",\"description\":\"The portal\","
                     "\"identifiers\":[{\"name\":\"host\",\"value\":\"p.acme\"}]}\n");
    EXPECT_EQ(zelctl({"service", "list"}, "1").out, "portal\tWeb\tThe portal\n");

    r = zelctl({"service", "add", "other", "--type", "Web"}, "1");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "zelctl: cannot add target service other: " + std::string(Zel_strerror(ZEL_RC_CONFLICT)) +
                         " (status 17)\n");
    ASSERT_EQ(zelctl({"service", "remove", "portal"}, "1").status, 0);
    r = zelctl({"--json", "service-type", "remove", "Web"}, "1");
    EXPECT_EQ(r.out, "{\"serviceType\":\"Web\",\"removed\":true}\n");
}

TEST_F(TargetServiceZelctl, DomainListingAndUsageErrors) {
    dir->add(resources_ldif(*dir));
    EXPECT_EQ(zelctl({"--json", "service", "list"}, "2").out, "[]\n");
    ASSERT_EQ(zelctl({"service", "add", "site", "--type", "Web Resource"}, "2").status, 0);
    EXPECT_EQ(zelctl({"--json", "service", "list"}, "2").out,
              "[{\"name\":\"site\",\"type\":\"Web Resource\",\"description\":null,\"identifiers\":[]}]\n");

    EXPECT_EQ(zelctl({"service", "add", "x"}, "2").status, 2) << "the type is required";
    EXPECT_EQ(zelctl({"service", "add", "x", "--type", "Web Resource", "--description"}, "2").status, 2);
    EXPECT_EQ(zelctl({"service", "add", "x", "--type", "Web Resource", "--id", "novalue"}, "2").status, 2);
    EXPECT_EQ(zelctl({"service", "rename", "site"}, "2").status, 2);
    CommandResult r = zelctl({"service", "get", "missing"}, "2");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("(status 14)"), std::string::npos) << r.err;
}

}  // namespace
