// doctor: who reads person passwords and in which form they are stored,
// whether the first administrator still has the library's default password,
// and whether the audit trail is kept where only its writers reach it.
// Values read are counted, never printed, and wiped after.
#include "doctor_security.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "ldap_held.h"

namespace zelctl {
namespace {

// What the library gives the first administrator when its caller names no
// password (zelctl never lets it); tried, never shown.
constexpr const char *kDefaultAdmin = "Zel Sr Admin";
constexpr const char kDefaultAdminPassword[] = {'q', 'i', 'm', '\0'};
constexpr int kOk = 0, kWarning = 1, kDanger = 2;

struct PersonView {
    int persons = 0;          // person entries seen
    int readable = 0;         // of them, with a userPassword value this identity reads
    int clear = 0;            // values not in a {SCHEME} form
};

PersonView view_persons(LDAP *ld, const std::vector<std::string> &suffixes) {
    PersonView view;
    char attr[] = "userPassword";
    char *attrs[] = {attr, nullptr};
    for (const std::string &suffix : suffixes) {
        LDAPMessage *raw = nullptr;
        ldap_search_ext_s(ld, suffix.c_str(), LDAP_SCOPE_SUBTREE, "(objectClass=person)", attrs, 0, nullptr, nullptr,
                          nullptr, 0, &raw);
        Message res(raw);
        for (LDAPMessage *e = ldap_first_entry(ld, raw); e; e = ldap_next_entry(ld, e)) {
            ++view.persons;
            berval **values = ldap_get_values_len(ld, e, attr);
            if (values && values[0]) ++view.readable;
            for (berval **v = values; v && *v; ++v) {
                // A hashed value reads "{SCHEME}..."; a scheme that stores clear text counts as clear.
                bool hashed = (*v)->bv_len > 2 && (*v)->bv_val[0] == '{' &&
                              std::memchr((*v)->bv_val, '}', (*v)->bv_len) != nullptr &&
                              strncasecmp((*v)->bv_val, "{CLEARTEXT}", std::min<size_t>((*v)->bv_len, 11)) != 0;
                if (!hashed) ++view.clear;
                std::memset((*v)->bv_val, 0, (*v)->bv_len);
            }
            ldap_value_free_len(values);
        }
    }
    return view;
}

std::string count(int n, const char *one, const char *many) { return std::to_string(n) + " " + (n == 1 ? one : many); }

SecurityFinding person_read_check(const char *check, const char *who, LDAP *ld,
                                  const std::vector<std::string> &suffixes) {
    PersonView view = view_persons(ld, suffixes);
    if (view.readable > 0)
        return {check, kDanger, std::string(who) + " read the password values of " +
                                    count(view.readable, "person", "persons"),
                "refuse userPassword to all but the person itself (access to attrs=userPassword by self write by "
                "anonymous auth by * none)"};
    return {check, kOk, std::string(who) + " read no person's password", ""};
}

SecurityFinding person_storage_check(LDAP *ld, const std::vector<std::string> &suffixes) {
    PersonView view = view_persons(ld, suffixes);
    const char *check = "person-passwords";
    if (view.clear > 0)
        return {check, kDanger, count(view.clear, "person password is", "person passwords are") + " stored in clear",
                "set them again with a hashing server (ldappasswd, or zelctl person add on a new entry)"};
    if (view.persons > view.readable)
        return {check, kWarning,
                count(view.persons - view.readable, "person's password is", "persons' passwords are") +
                    " unknown to this identity (not readable)",
                "run doctor as an identity that reads userPassword"};
    return {check, kOk, count(view.readable, "person password is", "person passwords are") + " hashed", ""};
}

SecurityFinding default_password_check(const Options &opts, const std::vector<std::string> &suffixes) {
    for (const std::string &suffix : suffixes) {
        LDAP *raw = nullptr;
        if (ldap_initialize(&raw, opts.uri.empty() ? nullptr : opts.uri.c_str()) != LDAP_SUCCESS || !raw) continue;
        Ldap ld(raw);
        int v3 = LDAP_VERSION3;
        timeval limit{15, 0};
        ldap_set_option(raw, LDAP_OPT_PROTOCOL_VERSION, &v3);
        ldap_set_option(raw, LDAP_OPT_NETWORK_TIMEOUT, &limit);
        ldap_set_option(raw, LDAP_OPT_TIMEOUT, &limit);
        if (!opts.ca_file.empty()) {
            int zero = 0;
            ldap_set_option(raw, LDAP_OPT_X_TLS_CACERTFILE, opts.ca_file.c_str());
            ldap_set_option(raw, LDAP_OPT_X_TLS_NEWCTX, &zero);
        }
        const std::string dn = std::string("cn=") + kDefaultAdmin + "," + suffix;
        berval cred{std::strlen(kDefaultAdminPassword), const_cast<char *>(kDefaultAdminPassword)};
        if (ldap_sasl_bind_s(raw, dn.c_str(), LDAP_SASL_SIMPLE, &cred, nullptr, nullptr, nullptr) == LDAP_SUCCESS)
            return {"default-password", kDanger, dn + " signs on with the library's default password",
                    "set a password of its own at once (ldappasswd), or remove the person"};
    }
    return {"default-password", kOk, "no administrator signs on with the library's default password", ""};
}

SecurityFinding trail_check() {
    const char *check = "audit-trail";
    const char *path = std::getenv("ZEL_AUDIT");
    if (path == nullptr || *path == '\0') return {check, kOk, "no audit trail (ZEL_AUDIT is not set here)", ""};
    if (std::strcmp(path, "syslog") == 0) return {check, kOk, "the trail goes to syslog", ""};
    struct stat st {};
    if (lstat(path, &st) == 0) {
        if (S_ISLNK(st.st_mode))
            return {check, kDanger, "the trail file is a symbolic link: the library refuses it",
                    "point ZEL_AUDIT at the file itself"};
        if (!S_ISREG(st.st_mode))
            return {check, kDanger, "the trail file is not a regular file: the library refuses it",
                    "point ZEL_AUDIT at a regular file"};
        if (st.st_mode & (S_IWGRP | S_IWOTH))
            return {check, kDanger, "group or others may write the trail file, so they may rewrite it",
                    "chmod go-w the file (the library refuses it until then)"};
        if (st.st_uid != geteuid() && st.st_uid != 0)
            return {check, kDanger, "another user owns the trail file, so it may rewrite it",
                    "give the file to the user that writes it (the library refuses it until then)"};
    }
    const char *key = std::getenv("ZEL_AUDIT_KEY");
    if (key == nullptr || *key == '\0')
        return {check, kWarning, "the trail is chained without a key: whoever may write it can re-seal it",
                "zelctl key generate FILE, then set ZEL_AUDIT_KEY=FILE for every writer and verifier"};
    return {check, kOk, "the trail file is its writers' alone and sealed under a key", ""};
}

}  // namespace

std::vector<SecurityFinding> security_findings(const Options &opts, LDAP *ld, LDAP *anonymous, LDAP *user,
                                               const std::vector<std::string> &suffixes) {
    std::vector<SecurityFinding> out;
    if (anonymous) out.push_back(person_read_check("anonymous-person-read", "anonymous callers", anonymous, suffixes));
    if (user)
        out.push_back(person_read_check("user-person-read", "the identity given with --user", user, suffixes));
    else
        out.push_back({"user-read", kWarning, "skipped: what an ordinary signed-in identity reads was not checked",
                       "give --user DN --user-password-file FILE of an ordinary identity"});
    out.push_back(person_storage_check(ld, suffixes));
    out.push_back(default_password_check(opts, suffixes));
    out.push_back(trail_check());
    return out;
}

}  // namespace zelctl
