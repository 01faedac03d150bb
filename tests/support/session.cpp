#include "support/session.h"

namespace zeltest {

ZelRC try_open(const Directory &dir, uint32_t version, ZelSession **out, const std::string &bind_dn,
               const char *password) {
    std::string who = bind_dn.empty() ? dir.admin_dn() : bind_dn;
    const char *pw = password ? password : Directory::admin_password();
    if (version < 2)
        return Zel_open(nullptr, who.c_str(), pw, Directory::host(), dir.port(), ZEL_OPEN_NONSSL, nullptr, nullptr,
                        nullptr, out, version);
    return Zel_open_sec_domain(nullptr, who.c_str(), pw, Directory::host(), dir.port(), ZEL_OPEN_NONSSL, nullptr,
                               nullptr, nullptr, dir.profile().domain.c_str(), out, version);
}

Session open_session_as(const Directory &dir, const std::string &bind_dn, const char *password, uint32_t version) {
    ZelSession *s = nullptr;
    ZelRC rc = try_open(dir, version, &s, bind_dn, password);
    EXPECT_EQ(rc, 0u) << "open failed: " << Zel_strerror(rc);
    return Session(rc == 0 ? s : nullptr);
}

Session open_session(const Directory &dir, uint32_t version) { return open_session_as(dir, "", nullptr, version); }

std::string database_ldif(const std::string &suffix) {
    std::string db = "systemName=ORVZEL," + suffix;
    std::string out = "dn: " + db +
                      "\nobjectClass: top\nobjectClass: cimManagedElement\nobjectClass: cimManagedSystemElement"
                      "\nobjectClass: cimLogicalElement\nobjectClass: eSystem\nobjectClass: eApplicationSystem"
                      "\nsystemName: ORVZEL\ndescription: Orv Zel Meta-data\n\n";
    for (const char *cn : {"Access Groups", "Zel Domains", "Target Service Types"})
        out += std::string("dn: cn=") + cn + "," + db + "\nobjectClass: top\nobjectClass: container\ncn: " + cn + "\n\n";
    for (const char *cn : {"Senior Administrators", "Administrators", "Middle Tier Servers", "Full Users", "Users"})
        out += std::string("dn: cn=") + cn + ",cn=Access Groups," + db +
               "\nobjectClass: accessGroup\ncn: " + cn + "\nmember: " + db + "\n\n";
    return out;
}

std::string person_ldif(const std::string &parent, const std::string &cn, const std::string &uid,
                        const std::string &password) {
    return "dn: cn=" + cn + "," + parent +
           "\nobjectClass: top\nobjectClass: person\nobjectClass: organizationalPerson"
           "\nobjectClass: inetOrgPerson\nobjectClass: ePerson\ncn: " + cn + "\nsn: " + cn + "\nuid: " + uid +
           (password.empty() ? "" : "\nuserPassword: " + password) + "\n\n";
}

}  // namespace zeltest
