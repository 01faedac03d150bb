// zelctl doctor: a read-only look at a deployment as a client sees it.  Who
// can read the stored passwords (anonymous callers, and an ordinary identity
// when one is given), how they are stored, whether the connection is
// encrypted, whether lists run into the server's size limit, and what the
// directory holds.  It writes nothing.  The library answers what it learns at
// open; the rest is asked of the directory directly, over the same URI, as
// any client could.
#include <ldap.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "doctor_ad.h"
#include "doctor_replication.h"
#include "doctor_security.h"
#include "json_out.h"
#include "ldap_held.h"
#include "terminal_text.h"
#include "zelctl.h"

namespace zelctl {
namespace {

enum class Verdict { Ok, Warning, Danger };

const char *verdict_name(Verdict v) {
    switch (v) {
    case Verdict::Ok: return "ok";
    case Verdict::Warning: return "warning";
    case Verdict::Danger: return "danger";
    }
    return "?";
}

struct Finding {
    const char *check;
    Verdict verdict;
    std::string text;
    std::string fix;  // empty when nothing needs doing
};

constexpr const char *kSecuring = "see \"Securing a deployment\" in doc/admin.md";
constexpr const char *kRecordFilter = "(|(objectClass=eTargetRecord)(objectClass=secResCreds))";


// One search; `rc` gets the directory's answer (entries up to a size limit
// still come back with LDAP_SIZELIMIT_EXCEEDED).
Message search(LDAP *ld, const std::string &base, int scope, const char *filter, const char **attrs, int &rc) {
    LDAPMessage *raw = nullptr;
    rc = ldap_search_ext_s(ld, base.c_str(), scope, filter, const_cast<char **>(attrs), 0, nullptr, nullptr,
                           nullptr, 0, &raw);
    return Message(raw);
}

std::vector<std::string> first_values(LDAP *ld, LDAPMessage *entry, const char *attr) {
    std::vector<std::string> out;
    Values v(ldap_get_values_len(ld, entry, attr));
    for (berval **p = v.get(); p && *p; ++p) out.emplace_back((*p)->bv_val, (*p)->bv_len);
    return out;
}

// The target records an identity can see below the suffixes, and how many
// stored passwords among them it can read.
struct RecordView {
    int records = 0;
    std::vector<std::string> passwords;
    bool cut_short = false;
};

RecordView view_records(LDAP *ld, const std::vector<std::string> &suffixes) {
    RecordView view;
    const char *attrs[] = {"secretKey", "secAuthnData", nullptr};
    for (const std::string &suffix : suffixes) {
        int rc = 0;
        Message res = search(ld, suffix, LDAP_SCOPE_SUBTREE, kRecordFilter, attrs, rc);
        if (rc == LDAP_SIZELIMIT_EXCEEDED || rc == LDAP_ADMINLIMIT_EXCEEDED) view.cut_short = true;
        for (LDAPMessage *e = ldap_first_entry(ld, res.get()); e; e = ldap_next_entry(ld, e)) {
            ++view.records;
            for (const char *attr : {"secretKey", "secAuthnData"})
                for (std::string &v : first_values(ld, e, attr)) view.passwords.push_back(std::move(v));
        }
    }
    return view;
}

std::string count_text(int n, const char *one, const char *many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

Finding read_check(const char *check, const char *who, const RecordView &view, bool records_matter) {
    std::string more = view.cut_short ? " (at least: the search was cut short)" : "";
    if (!view.passwords.empty())
        return {check, Verdict::Danger,
                std::string(who) + " read " + count_text(static_cast<int>(view.passwords.size()),
                                                         "stored password", "stored passwords") + more,
                std::string("load the shipped access rules and fill the access groups; ") + kSecuring};
    if (records_matter && view.records > 0)
        return {check, Verdict::Warning,
                std::string(who) + " see " + count_text(view.records, "target record", "target records") +
                    " (accounts, no passwords)" + more,
                std::string("load the shipped access rules; ") + kSecuring};
    return {check, Verdict::Ok, std::string(who) + " read no stored password", ""};
}

Finding bind_refused(const char *check, const char *who, const std::string &error, bool anonymous) {
    if (anonymous) return {check, Verdict::Ok, std::string(who) + " cannot bind (" + error + ")", ""};
    return {check, Verdict::Warning, std::string(who) + " could not be checked: " + error,
            "give the DN and the password file of an existing ordinary identity"};
}

Finding storage_check(const RecordView &view) {
    int encrypted = 0, masked = 0, clear = 0;
    for (const std::string &v : view.passwords) {
        if (v.compare(0, 5, "{ZK1}") == 0) ++encrypted;
        else if (v.compare(0, 5, "{ZM1}") == 0) ++masked;
        else ++clear;
    }
    const char *check = "stored-passwords";
    if (clear > 0)
        return {check, Verdict::Danger, count_text(clear, "stored password is", "stored passwords are") +
                                            " in clear (first-generation records of the Orv kind)",
                "restrict who reads them with the directory's access control; nothing else protects them"};
    if (masked > 0)
        return {check, Verdict::Warning,
                count_text(masked, "stored password is", "stored passwords are") +
                    " only masked: whoever reads one and has the library unmasks it",
                "set ZEL_KEYFILE to a key file in every process that uses the library, then zelctl record rekey --all"};
    if (encrypted > 0)
        return {check, Verdict::Ok,
                count_text(encrypted, "stored password is", "stored passwords are") + " encrypted under a key",
                ""};
    if (view.records > 0)
        return {check, Verdict::Warning,
                "this identity reads no stored password, so their form is unknown",
                "run doctor as a Zel administrator or sign-on agent"};
    // Nothing seen is not nothing stored: this identity may see no record.
    return {check, Verdict::Ok, "no target record visible to this identity; any stored password is unknown to it", ""};
}

Finding connection_check(LDAP *ld) {
    char *uri = nullptr;
    ldap_get_option(ld, LDAP_OPT_URI, &uri);
    std::string scheme = uri ? std::string(uri).substr(0, std::string(uri).find(':')) : "";
    ldap_memfree(uri);
    if (scheme == "ldaps") return {"connection", Verdict::Ok, "encrypted (ldaps)", ""};
    if (scheme == "ldapi") return {"connection", Verdict::Ok, "local socket (ldapi)", ""};
    return {"connection", Verdict::Warning,
            "plain LDAP: bind passwords and the credentials agents read cross the network in clear",
            "connect with -H ldaps://HOST and --ca FILE (and have agents do the same)"};
}

// Every list the library makes, as one search per kind of entry.
Finding size_limit_check(LDAP *ld, const std::vector<std::string> &suffixes) {
    struct Kind {
        const char *name, *filter;
    };
    const Kind kinds[] = {
        {"target services", "(|(objectClass=eTargetService)(objectClass=secResource))"},
        {"resource groups", "(|(objectClass=eZelDomain)(objectClass=secResGroup))"},
        {"Zel users", "(|(objectClass=eZelUser)(objectClass=secUser))"},
        {"target records", kRecordFilter},
    };
    const char *no_attrs[] = {LDAP_NO_ATTRS, nullptr};
    int largest = 0;
    for (const Kind &k : kinds) {
        int count = 0;
        for (const std::string &suffix : suffixes) {
            int rc = 0;
            Message res = search(ld, suffix, LDAP_SCOPE_SUBTREE, k.filter, no_attrs, rc);
            count += ldap_count_entries(ld, res.get());
            if (rc == LDAP_SIZELIMIT_EXCEEDED || rc == LDAP_ADMINLIMIT_EXCEEDED)
                return {"size-limit", Verdict::Warning,
                        std::string("a list of ") + k.name + " stops at the server's size limit (" +
                            std::to_string(count) + " entries)",
                        "raise the limit for the identities that list (slapd: limits dn.exact=DN size=unlimited)"};
        }
        largest = count > largest ? count : largest;
    }
    return {"size-limit", Verdict::Ok,
            "the largest list (" + std::to_string(largest) + " entries) is within the server's size limit", ""};
}

Finding schema_check(LDAP *ld) {
    const char *dse_attrs[] = {"subschemaSubentry", nullptr};
    int rc = 0;
    Message dse = search(ld, "", LDAP_SCOPE_BASE, "(objectClass=*)", dse_attrs, rc);
    LDAPMessage *e = ldap_first_entry(ld, dse.get());
    std::vector<std::string> where = e ? first_values(ld, e, "subschemaSubentry") : std::vector<std::string>{};
    const char *attrs[] = {"objectClasses", nullptr};
    Message schema = where.empty() ? nullptr
                                   : search(ld, where.front(), LDAP_SCOPE_BASE, "(objectClass=subschema)", attrs, rc);
    e = ldap_first_entry(ld, schema.get());
    std::string known;
    for (const std::string &v : e ? first_values(ld, e, "objectClasses") : std::vector<std::string>{})
        known += v + "\n";
    std::string missing;
    for (const char *oc : {"eApplicationSystem", "eZelUser", "eTargetRecord", "secUser", "secResCreds"})
        if (known.find("NAME '" + std::string(oc) + "'") == std::string::npos) missing += std::string(" ") + oc;
    if (known.empty())
        return {"schema", Verdict::Warning, "the server's schema could not be read",
                "let this identity read the subschema entry, or check the schema on the server"};
    if (!missing.empty())
        return {"schema", Verdict::Warning, "object classes missing:" + missing,
                "load zel.schema (slapd.conf), zel.ldif (cn=config) or 99zel.ldif (389)"};
    return {"schema", Verdict::Ok, "the Zel object classes are known", ""};
}

Finding storage_forms_check(LDAP *ld, const std::vector<std::string> &suffixes) {
    std::string found;
    const char *no_attrs[] = {LDAP_NO_ATTRS, nullptr};
    const std::pair<const char *, const char *> forms[] = {
        {"first generation", "(&(objectClass=eApplicationSystem)(systemName=ORVZEL))"},
        {"security domain", "(objectClass=secAuthorityInfo)"}};
    for (const auto &[name, filter] : forms)
        for (const std::string &suffix : suffixes) {
            int rc = 0;
            Message res = search(ld, suffix, LDAP_SCOPE_SUBTREE, filter, no_attrs, rc);
            for (LDAPMessage *e = ldap_first_entry(ld, res.get()); e; e = ldap_next_entry(ld, e)) {
                found += std::string(found.empty() ? "" : "; ") + name + " at " + dn_of(ld, e, "?");
            }
        }
    if (found.empty())
        return {"storage-forms", Verdict::Warning, "no Zel database and no security domain visible",
                "create one with zelctl db create SUFFIX, or check this identity's rights"};
    return {"storage-forms", Verdict::Ok, found, ""};
}

void print(const Options &opts, const std::vector<Finding> &findings, bool dangerous) {
    if (!opts.json) {
        for (const Finding &f : findings) {
            say("%-8s %-17s %s\n", verdict_name(f.verdict), f.check, f.text.c_str());
            if (!f.fix.empty()) say("%-26s fix: %s\n", "", f.fix.c_str());
        }
        return;
    }
    Json listed = Json::array();
    for (const Finding &f : findings)
        listed.push_back(Json{{"check", json_text(f.check)}, {"verdict", json_text(verdict_name(f.verdict))},
                              {"finding", f.text}, {"fix", f.fix}});
    print_json(Json{{"findings", std::move(listed)}, {"dangerous", dangerous}});
}

}  // namespace

// A connection of its own to the server the options name, bound as `dn` (an
// empty DN binds anonymously).  Null, with the reason in `error`, when the
// server cannot be reached or refuses the bind.
Ldap connect_as(const Options &opts, const std::string &dn, const std::string &password, std::string &error) {
    LDAP *raw = nullptr;
    if (ldap_initialize(&raw, opts.uri.empty() ? nullptr : opts.uri.c_str()) != LDAP_SUCCESS || !raw) {
        error = "cannot reach the directory";
        return nullptr;
    }
    Ldap ld(raw);
    int v3 = LDAP_VERSION3;
    timeval limit{15, 0};
    ldap_set_option(ld.get(), LDAP_OPT_PROTOCOL_VERSION, &v3);
    ldap_set_option(ld.get(), LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
    ldap_set_option(ld.get(), LDAP_OPT_NETWORK_TIMEOUT, &limit);
    ldap_set_option(ld.get(), LDAP_OPT_TIMEOUT, &limit);
    if (!opts.ca_file.empty()) {
        int zero = 0;
        ldap_set_option(ld.get(), LDAP_OPT_X_TLS_CACERTFILE, opts.ca_file.c_str());
        ldap_set_option(ld.get(), LDAP_OPT_X_TLS_NEWCTX, &zero);
    }
    berval cred{password.size(), const_cast<char *>(password.data())};
    int rc = ldap_sasl_bind_s(ld.get(), dn.empty() ? nullptr : dn.c_str(), LDAP_SASL_SIMPLE, &cred, nullptr,
                              nullptr, nullptr);
    if (rc != LDAP_SUCCESS) {
        error = ldap_err2string(rc);
        return nullptr;
    }
    return ld;
}

bool own_view(const Options &opts, ZelSession *s, const char *command, OwnView &view) {
    ZelSessionInfo *raw_info = nullptr;
    ZelRC zrc = Zel_getSessionInfo(s, &raw_info);
    view.info.reset(raw_info);
    if (zrc != 0) return fail("cannot read what the session learnt", zrc), false;
    for (int32_t i = 0; i < view.info->suffixCount; ++i) view.suffixes.emplace_back(view.info->suffixes[i]);
    std::string error;
    view.ld = connect_as(opts, opts.bind_dn, opts.password, error);
    if (!view.ld) {
        say_to(stderr, "zelctl: %s: cannot bind as %s: %s\n", command, opts.bind_dn.c_str(), error.c_str());
        return false;
    }
    return true;
}

int run_doctor(const Options &opts, Args args) {
    int status = 0;
    std::string user_dn, user_password_file;
    bool user_given = false, file_given = false;
    if (!take_value(args, "--user", user_dn, user_given, status) ||
        !take_value(args, "--user-password-file", user_password_file, file_given, status))
        return status;
    std::vector<std::string> none;
    if (!take_operands(args, "doctor", {}, none, status)) return status;
    if (user_given != file_given) return usage("doctor: --user and --user-password-file go together");
    std::string user_password;
    struct Wipe {
        std::string &secret;
        ~Wipe() { forget_secret(secret); }
    } wipe{user_password};
    if (file_given && !read_secret_file(user_password_file, user_password))
        return usage("cannot read the password file " + user_password_file);

    Session s(open_session(opts));
    if (!s) return 1;
    OwnView view;
    if (!own_view(opts, s.get(), "doctor", view)) return 1;
    const Held<ZelSessionInfo, Zel_freeSessionInfo> &info = view.info;
    const std::vector<std::string> &suffixes = view.suffixes;
    Ldap &ld = view.ld;
    std::string error;
    std::string kind = std::string(directory_kind_name(info->dirKind)) + " directory; suffixes:";
    for (const std::string &suffix : suffixes) kind += " " + suffix;
    std::vector<Finding> findings = {{"directory", Verdict::Ok, kind, ""}, schema_check(ld.get()),
                                     storage_forms_check(ld.get(), suffixes), connection_check(ld.get())};

    Ldap anonymous = connect_as(opts, "", "", error);
    findings.push_back(anonymous ? read_check("anonymous-read", "anonymous callers",
                                              view_records(anonymous.get(), suffixes), true)
                                 : bind_refused("anonymous-read", "anonymous callers", error, true));
    Ldap user = user_given ? connect_as(opts, user_dn, user_password, error) : nullptr;
    if (user_given) {
        std::string who = "the identity " + user_dn;
        findings.push_back(user ? read_check("user-read", who.c_str(), view_records(user.get(), suffixes), false)
                                : bind_refused("user-read", who.c_str(), error, false));
    }
    for (SecurityFinding &f : security_findings(opts, ld.get(), anonymous.get(), user.get(), suffixes))
        findings.push_back({f.check, static_cast<Verdict>(f.verdict), std::move(f.text), std::move(f.fix)});

    RecordView own = view_records(ld.get(), suffixes);
    findings.push_back(storage_check(own));
    for (std::string &p : own.passwords) forget_secret(p);
    findings.push_back(size_limit_check(ld.get(), suffixes));
    for (ReplicationFinding &f : replication_findings(ld.get(), suffixes, info->dirKind))
        findings.push_back({f.check, f.danger ? Verdict::Danger : f.warning ? Verdict::Warning : Verdict::Ok, f.text, f.fix});
    if (info->dirKind == ZEL_DIR_ACTIVE_DIRECTORY) {
        AdReadersFinding r = ad_readers_check(ld.get(), suffixes);
        findings.push_back({"ad-readers", r.ok ? Verdict::Ok : Verdict::Warning, r.text, r.fix});
    }

    bool dangerous = false;
    for (const Finding &f : findings) dangerous = dangerous || f.verdict == Verdict::Danger;
    print(opts, findings, dangerous);
    return dangerous ? 3 : 0;
}

}  // namespace zelctl
