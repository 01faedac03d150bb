// zelctl doctor on AD: the Zel entries are readable only by what their
// security descriptors grant, and a database created again starts without
// the grant.  Each security domain entry and Zel database entry is looked at
// for an explicit, inheritable allow ACE with read-property and list rights,
// the kind ad-grant-readers.sh writes; the SID it names is looked up.
#include "doctor_ad.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "ldap_held.h"

namespace zelctl {
namespace {

// LDAP_SERVER_SD_FLAGS asking for the DACL only: SEQUENCE { INTEGER 4 }.
constexpr const char *kSdFlagsOid = "1.2.840.113556.1.4.801";
const char kSdFlagsDacl[] = {0x30, 0x03, 0x02, 0x01, 0x04};

constexpr uint8_t kAccessAllowed = 0, kContainerInherit = 0x02, kInheritedAce = 0x10;
constexpr uint32_t kReadPropertyAndList = 0x10 | 0x04;

Message search(LDAP *ld, const std::string &base, int scope, const std::string &filter, const char **attrs,
               LDAPControl **controls) {
    LDAPMessage *raw = nullptr;
    timeval limit{15, 0};
    (void)ldap_search_ext_s(ld, base.c_str(), scope, filter.c_str(), const_cast<char **>(attrs), 0, controls, nullptr,
                            &limit, 0, &raw);
    return Message(raw);
}

uint32_t le32(const std::string &b, size_t at) {
    return static_cast<uint32_t>(static_cast<uint8_t>(b[at])) | static_cast<uint32_t>(static_cast<uint8_t>(b[at + 1])) << 8 |
           static_cast<uint32_t>(static_cast<uint8_t>(b[at + 2])) << 16 |
           static_cast<uint32_t>(static_cast<uint8_t>(b[at + 3])) << 24;
}
unsigned le16(const std::string &b, size_t at) {
    return static_cast<uint8_t>(b[at]) | static_cast<unsigned>(static_cast<uint8_t>(b[at + 1])) << 8;
}

// The SIDs of the explicit inheritable read grants in a self-relative
// security descriptor; bounds are checked at every step.
std::vector<std::string> read_grants(const std::string &sd) {
    std::vector<std::string> sids;
    if (sd.size() < 20) return sids;
    const size_t dacl = le32(sd, 16);
    if (dacl == 0 || dacl + 8 > sd.size()) return sids;
    const unsigned count = le16(sd, dacl + 4);
    size_t at = dacl + 8;
    for (unsigned i = 0; i < count && at + 8 <= sd.size(); ++i) {
        const unsigned size = le16(sd, at + 2);
        if (size < 8 || at + size > sd.size()) break;
        const uint8_t type = static_cast<uint8_t>(sd[at]), flags = static_cast<uint8_t>(sd[at + 1]);
        const uint32_t mask = le32(sd, at + 4);
        if (type == kAccessAllowed && (flags & kContainerInherit) && !(flags & kInheritedAce) &&
            (mask & kReadPropertyAndList) == kReadPropertyAndList)
            sids.push_back(sd.substr(at + 8, size - 8));
        at += size;
    }
    return sids;
}

std::string sid_text(const std::string &sid) {
    if (sid.size() < 8) return "?";
    uint64_t authority = 0;
    for (size_t i = 2; i < 8; ++i) authority = authority << 8 | static_cast<uint8_t>(sid[i]);
    std::string out = "S-" + std::to_string(static_cast<uint8_t>(sid[0])) + "-" + std::to_string(authority);
    for (size_t at = 8, n = 0; at + 4 <= sid.size() && n < static_cast<uint8_t>(sid[1]); at += 4, ++n)
        out += "-" + std::to_string(le32(sid, at));
    return out;
}

// The group a SID names, and whether it is a security group; the SID itself
// when nothing readable carries it.
std::string group_named(LDAP *ld, const std::vector<std::string> &suffixes, const std::string &sid, bool &security) {
    std::string filter = "(objectSid=";
    char hex[4];
    for (unsigned char c : sid) {
        std::snprintf(hex, sizeof hex, "\\%02x", c);
        filter += hex;
    }
    filter += ")";
    const char *attrs[] = {"groupType", nullptr};
    security = false;
    for (const std::string &suffix : suffixes) {
        Message res = search(ld, suffix, LDAP_SCOPE_SUBTREE, filter, attrs, nullptr);
        LDAPMessage *e = res ? ldap_first_entry(ld, res.get()) : nullptr;
        if (!e) continue;
        Values type(ldap_get_values_len(ld, e, "groupType"));
        if (type && type.get()[0])
            security = (std::strtoll(std::string(type.get()[0]->bv_val, type.get()[0]->bv_len).c_str(), nullptr, 10) &
                        0x80000000LL) != 0;
        return dn_of(ld, e, "?");
    }
    return sid_text(sid);
}

}  // namespace

AdReadersFinding ad_readers_check(LDAP *ld, const std::vector<std::string> &suffixes) {
    std::string granted, missing, unreadable;
    berval value{sizeof kSdFlagsDacl, const_cast<char *>(kSdFlagsDacl)};
    LDAPControl sd_flags{const_cast<char *>(kSdFlagsOid), value, 1};
    LDAPControl *controls[] = {&sd_flags, nullptr};
    const char *no_attrs[] = {LDAP_NO_ATTRS, nullptr};
    const char *sd_attrs[] = {"nTSecurityDescriptor", nullptr};
    for (const std::string &suffix : suffixes) {
        Message found = search(ld, suffix, LDAP_SCOPE_SUBTREE,
                               "(|(objectClass=secAuthorityInfo)(&(objectClass=eApplicationSystem)(systemName=ORVZEL)))",
                               no_attrs, nullptr);
        for (LDAPMessage *e = found ? ldap_first_entry(ld, found.get()) : nullptr; e; e = ldap_next_entry(ld, e)) {
            const std::string dn = dn_of(ld, e, "?");
            Message sd_res = search(ld, dn, LDAP_SCOPE_BASE, "(objectClass=*)", sd_attrs, controls);
            LDAPMessage *se = sd_res ? ldap_first_entry(ld, sd_res.get()) : nullptr;
            Values sd(se ? ldap_get_values_len(ld, se, "nTSecurityDescriptor") : nullptr);
            if (!sd || !sd.get()[0]) {
                unreadable += (unreadable.empty() ? "" : "; ") + dn;
                continue;
            }
            std::string groups;
            for (const std::string &sid : read_grants(std::string(sd.get()[0]->bv_val, sd.get()[0]->bv_len))) {
                bool security = false;
                std::string name = group_named(ld, suffixes, sid, security);
                groups += (groups.empty() ? "" : ", ") + name + (security ? "" : " (not a security group)");
            }
            if (groups.empty())
                missing += (missing.empty() ? "" : "; ") + dn;
            else
                granted += (granted.empty() ? "" : "; ") + dn + " to " + groups;
        }
    }
    if (!missing.empty() || !unreadable.empty()) {
        std::string text = missing.empty() ? "" : "no readers grant on " + missing;
        if (!unreadable.empty()) text += (text.empty() ? "" : "; ") + std::string("security descriptor not readable on ") + unreadable;
        if (!granted.empty()) text += "; granted on " + granted;
        return {false, text,
                "run schema/ad-grant-readers.sh GROUP_DN ENTRY_DN for the sign-on agents' security group (a "
                "database created again starts without it)"};
    }
    if (granted.empty()) return {true, "no security domain or Zel database to grant on", ""};
    return {true, "readers granted on " + granted, ""};
}

}  // namespace zelctl
