// Names at their fixed buffer's size: a name that exactly fits the template
// the library fills is looked for like a short one; one byte more is refused
// with 1005 before anything is sent.
#include <cstring>

#include "record/record_fixture.h"

namespace {

using namespace recordtest;

struct Limit {
    const char *what;
    uint32_t version;
    const char *fixed;  // the template's own text around the name
    size_t size;        // its buffer, terminator included
    ZelRC (*call)(ZelSession *, const char *name);
    ZelRC fits;         // the answer for an unknown name of any length that fits
};

ZelRC get_service(ZelSession *s, const char *name) {
    ZelTargetService *ts = nullptr;
    ZelRC rc = Zel_getTargetService(s, name, &ts);
    Zel_freeTargetService(ts);
    return rc;
}
ZelRC get_domain(ZelSession *s, const char *name) {
    ZelDomain *d = nullptr;
    ZelRC rc = Zel_getZelDomain(s, name, &d);
    Zel_freeZelDomain(d);
    return rc;
}
ZelRC remove_record(ZelSession *s, const char *name) { return Zel_removeTargetRecord(s, "jo", name); }
ZelRC remove_domain(ZelSession *s, const char *name) { return Zel_removeZelDomain(s, name); }
ZelRC remove_user(ZelSession *s, const char *name) { return Zel_removeZelUser(s, name); }

const Limit kLimits[] = {
    {"service", 1, "(&(objectClass=eTargetService)(tsName=))", 600, get_service, ZEL_RC_TS_NOT_FOUND},
    {"service", 2, "(&(objectClass=secResource)(secResourceID=))", 600, get_service, ZEL_RC_TS_NOT_FOUND},
    {"domain", 1, "(&(objectClass=eZelDomain)(cn=))", 600, get_domain, ZEL_RC_ZEL_DOMAIN_NOT_FOUND},
    {"domain", 2, "(&(objectClass=secResGroup)(secResGroupID=))", 600, get_domain, ZEL_RC_ZEL_DOMAIN_NOT_FOUND},
    {"domain removal", 1, "cn=,cn=Zel Domains,systemName=ORVZEL,o=acme", 1000, remove_domain,
     ZEL_RC_ZEL_DOMAIN_NOT_FOUND},
    {"record", 1, "(&(objectClass=eTargetRecord)(cn=))", 600, remove_record, ZEL_RC_TR_NOT_FOUND},
    {"user", 1, "(&(objectClass=eZelUser)(cn=))", 600, remove_user, ZEL_RC_USER_NOT_FOUND},
};

TEST_F(RecordTest, NamesAtAndPastTheirBuffer) {
    std::vector<std::string> got, want;
    for (const Limit &l : kLimits) {
        open(l.version);
        ZelUser jo = user_record("jo", "User", kJo);
        (void)Zel_addZelUser(s.get(), &jo);  // already there after the first round of a form
        const size_t fits = l.size - 1 - std::strlen(l.fixed);
        for (size_t length : {fits, fits + 1}) {
            fault::reset();
            const bool record = std::strcmp(l.what, "record") == 0;  // identifiers are "T:<name>"
            const std::string name = (record ? "T:" : "") + std::string(length - (record ? 2 : 0), 'x');
            ZelRC rc = l.call(s.get(), name.c_str());
            // The one past the limit must not reach the directory at all.
            int writes = length == fits ? 0 : fault::count(Fn::Add) + fault::count(Fn::Modify) + fault::count(Fn::ModifyS) +
                         fault::count(Fn::Delete);
            got.push_back(std::string(l.what) + std::to_string(l.version) + "@" + std::to_string(length) + ": " +
                          std::to_string(rc) + (writes ? " written" : ""));
            want.push_back(std::string(l.what) + std::to_string(l.version) + "@" + std::to_string(length) + ": " +
                           std::to_string(length == fits ? l.fits : ZEL_RC_INVALID_ARGUMENT));
        }
    }
    EXPECT_EQ(got, want);
}

}  // namespace
