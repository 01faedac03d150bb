// Names at their fixed buffer's size: a name that exactly fits the filter or
// DN the library fills is looked for like a short one; one byte more is refused
// with 1005 before anything is sent.  The same holds for names beyond ASCII
// (measured in bytes) and for names whose escaping makes them longer.
#include <cstring>
#include <set>

#include "support/family_fixture.h"
#include "ZelSession.h"

namespace {

using namespace famtest;

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

char *text(const char *t) { return const_cast<char *>(t); }
std::string with(const char *prefix, const char *n) { return prefix + std::string(n); }
// A name made from the length and the first byte, for rows whose fitting call creates an entry.
std::string numbered(const char *prefix, const char *n) {
    return prefix + std::to_string(std::strlen(n)) + "-" + std::to_string(static_cast<unsigned char>(n[0]));
}

// A first-generation service, with one identifier pair "n=<pair>" when given.
ZelRC add_service(ZelSession *s, const std::string &name, const char *type, const char *pair = nullptr) {
    ZelReqIdentifier id{text("n"), text(pair)}, *ids[] = {&id};
    ZelTargetService ts{text(name.c_str()), text(type), nullptr, pair ? 1 : 0, ids};
    return Zel_addTargetService(s, &ts);
}

ZelRC add_domain(ZelSession *s, const std::string &name, const char *location = nullptr) {
    ZelDomainLocation loc{text("resourceName"), text(location)}, *locs[] = {&loc};
    ZelDomain d{text(name.c_str()), nullptr, location ? 1 : 0, locs};
    return Zel_addZelDomain(s, &d);
}

ZelRC add_person(ZelSession *s, const std::string &parent, const std::string &cn, const char *uid, const char *type) {
    ZelPerson p{text(parent.c_str()), text(cn.c_str()), text(cn.c_str()), nullptr, text(uid), nullptr};
    return Zel_create_ePerson(s, &p, type);
}

ZelRC jo_as(ZelRC (*write)(ZelSession *, const ZelUser *), ZelSession *s, const char *name, const std::string &person) {
    ZelUser u = user_record(name, "User", person);
    return write(s, &u);
}

// A user for a person with no profile (one per person), as long as Jo's DN;
// the profile goes again so that the next name gets its own add.
ZelRC add_unheld(ZelSession *s, const char *name) {
    ZelRC rc = jo_as(Zel_addZelUser, s, name, "cn=Jx,o=acme");
    if (rc == 0) (void)Zel_removeZelUser(s, name);
    return rc;
}

ZelRC add_record(ZelSession *s, const char *id, const std::string &service) {
    ZelTargetRecord r = record(id, service.c_str(), "acct", "pw");
    return Zel_addTargetRecord(s, "jo", &r);
}

// An open on the session's own connection, closed again.
ZelRC open_on(ZelSession *s, const char *user, const char *domain) {
    ZelSession *out = nullptr;
    ZelRC rc = domain ? Zel_open_sec_domain(s->ld, user, "pw", nullptr, 0, 0, 0, 0, 0, domain, &out, 2)
                      : Zel_open(s->ld, user, "pw", nullptr, 0, 0, nullptr, nullptr, nullptr, &out, 1);
    if (out) Zel_close(out, 0);
    return rc;
}

// A name of `length` bytes: ASCII, two-byte characters (one 'x' to make an
// odd length), or a name that doubles in a DN and triples in a filter.
std::string filler(size_t length, int form) {
    if (form == 0) return std::string(length, 'x');
    std::string out;
    const char *unit = form == 1 ? "\xD0\xB6" : ",\\";
    while (out.size() + 2 <= length) out += unit;
    if (out.size() < length) out += 'x';
    return out;
}

const std::set<std::string> kInCallersDn = {"user person", "user update", "person parent", "database suffix",
                                            "database admin", "open user"};

// The fitting name reaches the directory with its write, whatever the test
// server makes of an RDN value that long (its DN index takes a few hundred
// bytes only).
constexpr ZelRC kSent = ~0u;

struct Limit {
    const char *what;
    uint32_t version;
    // The longest name in bytes: what the call's fixed buffer holds besides
    // the filter or DN text the library writes around the name.
    size_t longest;
    ZelRC (*call)(ZelSession *, const char *name);
    ZelRC fits;  // the answer for an unknown name of any length that fits, or kSent
};

using S = ZelSession *;
using N = const char *;

ZelRC get_service(S s, N n) { return read(Zel_getTargetService, Zel_freeTargetService, s, n); }
ZelRC get_domain(S s, N n) { return read(Zel_getZelDomain, Zel_freeZelDomain, s, n); }
ZelRC get_record(S s, N n) {
    ZelTargetRecord *r = nullptr;
    ZelRC rc = Zel_getTargetRecord(s, "jo", with("T:", n).c_str(), &r);
    Zel_freeTargetRecord(r);
    return rc;
}
ZelRC user_person(S s, N n) { return jo_as(Zel_addZelUser, s, "jo", with("cn=", n)); }
// Services of these names are seeded by the test, in 'y's apart from the other rows' names.
ZelRC record_service(S s, N n) { return add_record(s, numbered("T:", n).c_str(), std::string(std::strlen(n), 'y')); }

// No fixed buffer, no limit: descriptions, sn, passwords, accounts, kinds and types, identifier names,
// the administrator's uid, open's host and key files, Zel_verifyZelUser's person DN.
const Limit kLimits[] = {
    {"service", 1, 559, get_service, ZEL_RC_TS_NOT_FOUND},
    {"service", 2, 555, get_service, ZEL_RC_TS_NOT_FOUND},
    {"domain", 1, 567, get_domain, ZEL_RC_ZEL_DOMAIN_NOT_FOUND},
    {"domain", 2, 555, get_domain, ZEL_RC_ZEL_DOMAIN_NOT_FOUND},
    {"domain removal", 1, 956, Zel_removeZelDomain, ZEL_RC_ZEL_DOMAIN_NOT_FOUND},
    {"record", 1, 562, [](S s, N n) { return Zel_removeTargetRecord(s, "jo", with("T:", n).c_str()); },
     ZEL_RC_TR_NOT_FOUND},
    {"user", 1, 569, Zel_removeZelUser, ZEL_RC_USER_NOT_FOUND},
    {"credential", 1, 509, credential, ZEL_RC_TR_NOT_FOUND},
    {"credential", 2, 509, credential, ZEL_RC_TR_NOT_FOUND},
    {"service add", 1, 559, [](S s, N n) { return add_service(s, n, "Web Application"); }, kSent},
    {"service type", 1, 555, [](S s, N n) { return add_service(s, "svc", n); }, ZEL_RC_TST_NOT_FOUND},
    {"identifier pair", 1, 253, [](S s, N n) { return add_service(s, numbered("p", n), "Web Application", n); }, 0},
    {"type add", 1, 943,
     [](S s, N n) { ZelTargetServiceType t{text(n), 0, nullptr}; return Zel_addTargetServiceType(s, &t); }, kSent},
    {"service removal", 1, 559, Zel_removeTargetService, ZEL_RC_TS_NOT_FOUND},
    {"type removal", 1, 555, Zel_removeTargetServiceType, ZEL_RC_TST_NOT_FOUND},
    {"user person", 1, 990, user_person, kSent},
    {"user add", 1, 983, add_unheld, kSent},
    {"user add", 2, 936, add_unheld, kSent},
    {"user person", 2, 996, user_person, kSent},
    {"user update", 1, 996, [](S s, N n) { return jo_as(Zel_updateZelUser, s, "jo", with("cn=", n)); },
     ZEL_RC_USER_NOT_FOUND},
    {"user read", 1, 569, [](S s, N n) { return read(Zel_getZelUser, Zel_freeZelUser, s, n); },
     ZEL_RC_USER_NOT_FOUND},
    {"person parent", 1, 991, [](S s, N n) { return add_person(s, with("ou=", n), "p", 0, 0); }, kSent},
    {"person cn", 1, 989, [](S s, N n) { return add_person(s, "o=acme", n, nullptr, nullptr); }, kSent},
    {"person uid", 1, 984, [](S s, N n) { return add_person(s, "o=acme", "p", n, "User"); }, kSent},
    {"rekey user", 1, 570, [](S s, N n) { return read(Zel_rekeyTargetRecords, Zel_freeRekeyReport, s, n); },
     ZEL_RC_EPERSON_NOT_FOUND},
    {"record read", 1, 562, get_record, ZEL_RC_TR_NOT_FOUND},
    {"record id", 1, 977, [](S s, N n) { return add_record(s, n, "legacy"); }, kSent},
    {"record service", 1, 248, record_service, 0},
    {"record service", 2, 555, record_service, 0},
    {"domain add", 1, 567, [](S s, N n) { return add_domain(s, n); }, kSent},
    {"domain member", 1, 1021, [](S s, N n) { return add_domain(s, numbered("d", n), n); }, 0},
    {"member add", 1, 559, [](S s, N n) { return Zel_addLocationToDomain(s, "Old", "resourceName", n); },
     ZEL_RC_TS_NOT_FOUND},
    {"member removal", 1, 1021, [](S s, N n) { return Zel_removeLocationFromDomain(s, "Old", "resourceName", n); },
     ZEL_RC_LOCATION_NOT_FOUND},
    // Creation measures everything before it looks for an existing database.
    {"database suffix", 1, 937,
     [](S s, N n) { return Zel_createDatabase(s, with("o=", n).c_str(), nullptr, nullptr, nullptr, 0); },
     ZEL_RC_DATABASE_EXISTS},
    {"database admin", 1, 986,
     [](S s, N n) { return Zel_createDatabase(s, "o=acme", with("cn=a,ou=", n).c_str(), nullptr, nullptr, 0); },
     ZEL_RC_DATABASE_EXISTS},
    {"open user", 1, 996, [](S s, N n) { return open_on(s, with("cn=", n).c_str(), nullptr); },
     ZEL_RC_AUTHENTICATION_FAILED},
    {"open domain", 1, 551, [](S s, N n) { return open_on(s, nullptr, n); }, ZEL_RC_SECURITY_DOMAIN_NOT_FOUND},
};

TEST_F(RecordTest, NamesAtAndPastTheirBuffer) {
    for (size_t length : {248, 249})  // under short RDNs: the test server takes no longer one
        dir->add("dn: tsName=s" + std::to_string(length) + ",tsType=Web Application,cn=Target Service Types," + kDb +
                 "\nobjectClass: eTargetService\ntsName: " + std::string(length, 'y') + "\ntsName: s" +
                 std::to_string(length) + "\ntsType: Web Application\n\n");
    dir->add("dn: " + resource_dn("r") + "\nobjectClass: secResource\nsecResourceID: " + std::string(555, 'y') +
             "\nsecResourceID: r\nsecType: 1\n\n");
    std::vector<std::string> got, want;
    for (const Limit &l : kLimits) {
        open(l.version);
        ZelUser jo = user_record("jo", "User", kJo);
        (void)Zel_addZelUser(s.get(), &jo);  // already there after the first round of a form
        const size_t fits = l.longest;
        // Where the name is part of a DN the caller writes, it cannot hold DN syntax.
        const bool in_dn = kInCallersDn.count(l.what) > 0;
        for (int form = 0; form < (in_dn ? 2 : 3); ++form) {
            for (size_t length : {fits, fits + 1}) {
                fault::reset();
                ZelRC rc = l.call(s.get(), filler(length, form).c_str());
                // The one past the limit must not reach the directory at all.
                int writes = fault::count(Fn::Add) + fault::count(Fn::Modify) + fault::count(Fn::ModifyS) +
                             fault::count(Fn::Delete);
                bool sent = l.fits == kSent && length == fits && writes > 0 && rc != ZEL_RC_INVALID_ARGUMENT;
                std::string what = std::string(l.what) + std::to_string(l.version) + "/" + std::to_string(form) +
                                   "@" + std::to_string(length) + ": ";
                got.push_back(what + (sent ? "sent" : std::to_string(rc)) + (length > fits && writes ? " written" : ""));
                ZelRC expected = length == fits ? l.fits : ZEL_RC_INVALID_ARGUMENT;
                want.push_back(what + (expected == kSent ? "sent" : std::to_string(expected)));
            }
        }
    }
    // One by one: the whole table does not fit a failure message.
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); ++i) EXPECT_EQ(got[i], want[i]);
}

}  // namespace
