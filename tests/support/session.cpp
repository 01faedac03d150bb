#include "support/session.h"

namespace zeltest {

ZelRC try_open(const Directory &dir, uint32_t version, ZelSession **out) {
    std::string admin = dir.admin_dn();
    if (version < 2)
        return Zel_open(nullptr, admin.c_str(), Directory::admin_password(), Directory::host(),
                        dir.port(), ZEL_OPEN_NONSSL, nullptr, nullptr, nullptr, out, version);
    return Zel_open_sec_domain(nullptr, admin.c_str(), Directory::admin_password(), Directory::host(),
                               dir.port(), ZEL_OPEN_NONSSL, nullptr, nullptr, nullptr,
                               dir.profile().domain.c_str(), out, version);
}

Session open_session(const Directory &dir, uint32_t version) {
    ZelSession *s = nullptr;
    ZelRC rc = try_open(dir, version, &s);
    EXPECT_EQ(rc, 0u) << "open failed: " << Zel_strerror(rc);
    return Session(rc == 0 ? s : nullptr);
}

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

std::string person_ldif(const std::string &parent, const std::string &cn, const std::string &uid) {
    return "dn: cn=" + cn + "," + parent +
           "\nobjectClass: top\nobjectClass: person\nobjectClass: organizationalPerson"
           "\nobjectClass: inetOrgPerson\nobjectClass: ePerson\ncn: " + cn + "\nsn: " + cn + "\nuid: " + uid + "\n\n";
}

}  // namespace zeltest
