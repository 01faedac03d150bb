// Names at their fixed buffer's size: a name that exactly fits the template
// the library fills is looked for like a short one; one byte more is refused
// with 1005 before anything is sent.
#include <cstring>

#include "record/record_fixture.h"

namespace {

using namespace recordtest;

template <class T>
ZelRC read(ZelRC (*get)(ZelSession *, const char *, T **), void (*release)(T *), ZelSession *s, const char *name) {
    T *out = nullptr;
    ZelRC rc = get(s, name, &out);
    release(out);
    return rc;
}

ZelRC credential(ZelSession *s, const char *resource) {
    ZelCredentialRequest req{nullptr, nullptr, const_cast<char *>(resource)};
    ZelCredential c{};
    return Zel_getCredential(s, "jo", &req, &c);
}

struct Limit {
    const char *what;
    uint32_t version;
    const char *fixed;  // the template's own text around the name
    size_t size;        // its buffer, terminator included
    ZelRC (*call)(ZelSession *, const char *name);
    ZelRC fits;  // the answer for an unknown name of any length that fits
} const kLimits[] = {
    {"service", 1, "(&(objectClass=eTargetService)(tsName=))", 600,
     [](ZelSession *s, const char *n) { return read(Zel_getTargetService, Zel_freeTargetService, s, n); },
     ZEL_RC_TS_NOT_FOUND},
    {"service", 2, "(&(objectClass=secResource)(secResourceID=))", 600,
     [](ZelSession *s, const char *n) { return read(Zel_getTargetService, Zel_freeTargetService, s, n); },
     ZEL_RC_TS_NOT_FOUND},
    {"domain", 1, "(&(objectClass=eZelDomain)(cn=))", 600,
     [](ZelSession *s, const char *n) { return read(Zel_getZelDomain, Zel_freeZelDomain, s, n); },
     ZEL_RC_ZEL_DOMAIN_NOT_FOUND},
    {"domain", 2, "(&(objectClass=secResGroup)(secResGroupID=))", 600,
     [](ZelSession *s, const char *n) { return read(Zel_getZelDomain, Zel_freeZelDomain, s, n); },
     ZEL_RC_ZEL_DOMAIN_NOT_FOUND},
    {"domain removal", 1, "cn=,cn=Zel Domains,systemName=ORVZEL,o=acme", 1000, Zel_removeZelDomain,
     ZEL_RC_ZEL_DOMAIN_NOT_FOUND},
    {"record", 1, "(&(objectClass=eTargetRecord)(cn=T:))", 600,
     [](ZelSession *s, const char *n) { return Zel_removeTargetRecord(s, "jo", ("T:" + std::string(n)).c_str()); },
     ZEL_RC_TR_NOT_FOUND},
    {"user", 1, "(&(objectClass=eZelUser)(cn=))", 600, Zel_removeZelUser, ZEL_RC_USER_NOT_FOUND},
    {"credential", 1, "T:", 512, credential, ZEL_RC_TR_NOT_FOUND},
    {"credential", 2, "T:", 512, credential, ZEL_RC_TR_NOT_FOUND},
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
            ZelRC rc = l.call(s.get(), std::string(length, 'x').c_str());
            // The one past the limit must not reach the directory at all.
            bool written = length > fits && fault::count(Fn::Add) + fault::count(Fn::Modify) +
                                                    fault::count(Fn::ModifyS) + fault::count(Fn::Delete);
            std::string what = std::string(l.what) + std::to_string(l.version) + "@" + std::to_string(length) + ": ";
            got.push_back(what + std::to_string(rc) + (written ? " written" : ""));
            want.push_back(what + std::to_string(length == fits ? l.fits : ZEL_RC_INVALID_ARGUMENT));
        }
    }
    EXPECT_EQ(got, want);
}

}  // namespace
