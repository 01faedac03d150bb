// The family walk on slapd: the reference the 389 and AD runs answer like.
#include <gtest/gtest.h>

#include "peers/family_walk.h"
#include "support/key_files.h"

namespace {

using namespace zeltest;

class FamilyWalk : public DirectoryTest {
protected:
    Profile profile() const override {
        Profile p;
        p.seed_ldif = walk::security_domain_ldif("o=acme", false);
        return p;
    }
};

TEST_F(FamilyWalk, LibraryAndZelctlAnswerAlike) {
    walk::Target t{dir->suffix(), dir->suffix(), "", [&](uint32_t v) { return open_session(*dir, v); },
                   {ZELCTL_PATH, "-H", dir->uri(), "-D", dir->admin_dn(), "-y", key_file(Directory::admin_password())},
                   [](const std::string &pw) { return key_file(pw); },
                   [&](const std::string &name) {
                       dir->try_add("dn: cn=" + name + "," + dir->suffix() + "\nobjectClass: inetOrgPerson\ncn: " +
                                    name + "\nsn: " + name + "\nuid: " + name + "\n");
                       return "cn=" + name + "," + dir->suffix();
                   },
                   [&](const std::string &base, const std::string &filter) { return dir->search(base, "sub", filter).size(); }};
    t.admin = t.person("zeladmin");  // the database's administrator is a person of the directory
    walk::run(t, walk::Driver::Library, "l");
    walk::run(t, walk::Driver::Zelctl, "z");
}

}  // namespace
