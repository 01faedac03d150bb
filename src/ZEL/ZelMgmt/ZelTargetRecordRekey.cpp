// Key rotation: stored passwords written again in the form a write uses now.
//
// Each value that is not yet in that form is read with the keys at hand and
// stored again.  A value that cannot be read is left as it is and reported.
// The rewrite deletes the very value that was read, so a record that a writer
// changed meanwhile makes the directory refuse it and keeps the newer value.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "ZelEntry.h"
#include "ZelProgress.h"
#include "ZelTargetRecord.h"
#include "platform/password_mask.h"
#include "ZelClient.h"
#include "ZelHolders.h"
#include "ZelRoutines.h"
#include "ZelSearch.h"
#include "ZelSession.h"
#include "ZelStatus.h"
#include "ZelTrace.h"

namespace {

// What a run did.  `status` is its first failure: an entry the directory
// refused, or a part of the tree that could not be searched; the run goes on
// past both and reports everything.
struct Tally {
    int32_t rewritten = 0;
    std::vector<std::string> unreadable;
    std::vector<std::string> failed;
    ZelRC status = 0;

    void note(ZelRC rc) {
        if (status == 0) status = rc;
    }
};

// Failures of this process rather than of an entry: the run stops.
bool ends_run(ZelRC rc) { return rc == ZEL_RC_NO_MEMORY || rc == ZEL_RC_SYSTEM_ERROR; }

// The attributes that hold a record's password in the two storage forms.
struct SecretAttribute {
    const char *type;
    bool with_length;  // the current form keeps the stored length beside it
};
constexpr SecretAttribute kSecretAttributes[] = {{"secAuthnData", true}, {"secretKey", false}};

// The stored value's clear text, in a zero-filled C string; 1013 when the
// keys at hand cannot read it.
ZelRC read_stored(ZelSession *s, const std::string &stored, zel::CText &clear) {
    int32_t length = 0;
    char *raw = nullptr;
    ZelRC rc = mask_password(s, stored.c_str(), &length, &raw, zel::kUnmask);
    clear.reset(raw);
    return rc;
}

ZelRC rewrite_value(ZelSession *s, const char *dn, const SecretAttribute &attr, struct berval *old, Tally &tally) {
    // The stored value carries its NUL; the text ends at the first one.
    std::string stored(old->bv_val, strnlen(old->bv_val, old->bv_len));
    if (plat::util_is_current(stored.c_str())) return 0;
    zel::CText clear;
    ZelRC rc = read_stored(s, stored, clear);
    if (rc == ZEL_RC_DECODE_FAILED) {
        tally.unreadable.emplace_back(dn);
        return 0;
    }
    if (rc != 0) return rc;
    int32_t length = 0;
    char *raw = nullptr;
    rc = mask_password(s, clear.get(), &length, &raw, zel::kMask);
    std::memset(clear.get(), 0, std::strlen(clear.get()));
    zel::CText fresh_text(raw);
    if (rc != 0) return rc;

    struct berval fresh {static_cast<ber_len_t>(length), fresh_text.get()};
    char length_text[20];
    std::snprintf(length_text, sizeof length_text, "%d", static_cast<int>(length));
    zel::ModList mods(4);
    if (!mods.ok()) return ZEL_RC_NO_MEMORY;
    if ((rc = mods.add_binary(LDAP_MOD_DELETE, attr.type, {old})) ||
        (rc = mods.add_binary(LDAP_MOD_ADD, attr.type, {&fresh})) ||
        (attr.with_length && (rc = mods.add(LDAP_MOD_REPLACE, "secAuthnLength", {length_text}))))
        return rc;
    int lrc = plat::ldap_modify_ext_s(s->ld, dn, mods.get(), nullptr, nullptr);
    // Gone or changed since it was read: the newer value stands.
    if (lrc == LDAP_NO_SUCH_ATTRIBUTE || lrc == LDAP_NO_SUCH_OBJECT) return 0;
    if (lrc != LDAP_SUCCESS) return check_LDAP_rc(s, static_cast<uint32_t>(lrc), 0, "ldap_modify_ext_s()");
    ++tally.rewritten;
    return 0;
}

// An entry the directory refuses to rewrite is listed and the run goes on.
ZelRC rekey_entry(ZelSession *s, LDAPMessage *entry, Tally &tally) {
    zel::LdapText dn(ldap_get_dn(s->ld, entry));
    if (!dn) return ZEL_RC_NO_MEMORY;
    for (const SecretAttribute &attr : kSecretAttributes) {
        // Orv keeps first-generation passwords in clear; they stay so.
        if (!attr.with_length && zel::clear_secret_key(s)) continue;
        zel::Bervals values(ldap_get_values_len(s->ld, entry, attr.type));
        for (struct berval **v = values.get(); v && *v; ++v) {
            ZelRC rc = rewrite_value(s, dn.get(), attr, *v, tally);
            if (rc == 0) continue;
            if (ends_run(rc)) return rc;
            tally.note(rc);
            tally.failed.emplace_back(dn.get());
            return 0;
        }
    }
    return 0;
}

ZelRC rekey_result(ZelSession *s, const zel::SearchPages &res, Tally &tally) {
    return res.each_entry(s->ld, [&](LDAPMessage *e) {
        ZelRC rc = rekey_entry(s, e, tally);
        zel::progress_step(s);
        return rc;
    });
}

// One search of the run: its pages and its LDAP result.  Every search is
// made before the first rewrite, so that the run knows how many records it
// will visit.
struct Listing {
    zel::SearchPages res;
    int lrc = LDAP_SUCCESS;
};

int64_t records_listed(ZelSession *s, const std::vector<Listing> &lists) {
    int64_t n = 0;
    for (const Listing &l : lists) n += l.res.count(s->ld);
    return n;
}

// The records of one Zel user, in every form the session reads them in.
ZelRC rekey_user(ZelSession *s, const char *user, zel::ProgressRun &progress, Tally &tally) {
    bool v1 = zel::first_generation(s);
    std::vector<int32_t> modes;
    if (v1 || s->database_dn) modes.push_back(zel::kFirstGenerationMode);
    if (!v1) modes.push_back(zel::kDomainMode);
    std::vector<Listing> lists(modes.size());
    size_t missing = 0;
    for (size_t i = 0; i < modes.size(); ++i) {
        ZelRC rc = zel::list_records(s, user, modes[i], lists[i].res);
        if (rc == ZEL_RC_USER_NOT_FOUND) ++missing;
        else if (!zel::search_made(rc)) return rc;
    }
    progress.set_total(records_listed(s, lists));
    for (const Listing &l : lists)
        if (ZelRC rc = rekey_result(s, l.res, tally)) return rc;
    return missing == modes.size() ? ZEL_RC_USER_NOT_FOUND : 0;
}

// Every target record of either form under the session's suffixes, page by
// page.  A suffix that cannot be searched is noted and the next one taken;
// what its pages read before the failure is rewritten all the same.
ZelRC rekey_all(ZelSession *s, zel::ProgressRun &progress, Tally &tally) {
    char filter[] = "(|(objectClass=secResCreds)(objectClass=eTargetRecord))";
    char *attrs[] = {const_cast<char *>("secAuthnData"), const_cast<char *>("secretKey"), nullptr};
    std::vector<Listing> lists;
    for (ZelSuffixNode *n = s->suffixes; n; n = n->next) {
        lists.emplace_back();
        lists.back().lrc = zel::search_all(s, n->suffix, LDAP_SCOPE_SUBTREE, filter, attrs, lists.back().res);
    }
    progress.set_total(records_listed(s, lists));
    for (const Listing &l : lists) {
        if (ZelRC rc = rekey_result(s, l.res, tally)) return rc;
        if (l.lrc == LDAP_SUCCESS) continue;
        ZelRC rc = check_LDAP_rc(s, static_cast<uint32_t>(l.lrc), 0, "ldap_search_ext_s()");
        if (ends_run(rc)) return rc;
        tally.note(rc);
    }
    return 0;
}

using ReportFree = zel::FreeWith<ZelRekeyReport, Zel_freeRekeyReport>;

ZelRC copy_dns(const std::vector<std::string> &dns, char **&array, int32_t &count) {
    if (dns.empty()) return 0;
    array = static_cast<char **>(std::calloc(dns.size(), sizeof(char *)));
    if (array == nullptr) return ZEL_RC_NO_MEMORY;
    for (const std::string &dn : dns) {
        char *copy = strdup(dn.c_str());
        if (copy == nullptr) return ZEL_RC_NO_MEMORY;
        array[count++] = copy;
    }
    return 0;
}

ZelRC hand_out(const Tally &tally, ZelRekeyReport **out) {
    std::unique_ptr<ZelRekeyReport, ReportFree> report(
        static_cast<ZelRekeyReport *>(std::calloc(1, sizeof(ZelRekeyReport))));
    if (!report) return ZEL_RC_NO_MEMORY;
    report->rewritten = tally.rewritten;
    if (ZelRC rc = copy_dns(tally.unreadable, report->unreadable, report->unreadableCount)) return rc;
    if (ZelRC rc = copy_dns(tally.failed, report->failed, report->failedCount)) return rc;
    *out = report.release();
    return 0;
}

ZelRC rekey_target_records(ZelSession *s, const char *user, ZelRekeyReport **out) {
    ZelRC rc = 0;
    if (out) *out = nullptr;
    if (out == nullptr) return rc = ZEL_RC_INVALID_ARGUMENT;
    // Nothing is read before the key file is known to be usable.
    if (plat::util_key_file_state() == plat::KeyFileState::refused) return rc = ZEL_RC_SYSTEM_ERROR;
    Tally tally;
    zel::ProgressRun progress(s);
    if ((rc = user ? rekey_user(s, user, progress, tally) : rekey_all(s, progress, tally)) != 0) return rc;
    progress.finish();
    zel::tracef(s, zel::kTraceProgress, "zelmgmt:Rewrote %d stored passwords, %d left unreadable, %d refused.\n",
                static_cast<int>(tally.rewritten), static_cast<int>(tally.unreadable.size()),
                static_cast<int>(tally.failed.size()));
    // The report goes out with the run's first failure too: what was
    // rewritten before and after it must not be lost.
    if ((rc = hand_out(tally, out)) != 0) return rc;
    return rc = tally.status;
}

}  // namespace

extern "C" {

ZEL_API ZelRC Zel_rekeyTargetRecords(ZelSession *s, const char *user, ZelRekeyReport **out) {
    return zel::write_call(s, "Zel_rekeyTargetRecords", {user},
                           [&] { return rekey_target_records(s, user, out); });
}

ZEL_API void Zel_freeRekeyReport(ZelRekeyReport *report) {
    if (report == nullptr) return;
    for (int32_t i = 0; i < report->unreadableCount; ++i) std::free(report->unreadable[i]);
    std::free(report->unreadable);
    for (int32_t i = 0; i < report->failedCount; ++i) std::free(report->failed[i]);
    std::free(report->failed);
    std::free(report);
}

}  // extern "C"
