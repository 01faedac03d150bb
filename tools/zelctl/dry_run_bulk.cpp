// --dry-run of the commands that write many entries or a local file: db
// create and remove, record rekey, key generate.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <set>
#include <string>

#include "dry_run.h"

namespace zelctl {
namespace {

using Info = Held<ZelSessionInfo, Zel_freeSessionInfo>;

// What the session knows, after a read that makes a first-generation
// session look for its Zel database (it does so only when an operation
// needs it).
Info session_info(ZelSession *s) {
    ZelDomainList *groups = nullptr;
    (void)Zel_getAllZelDomain(s, &groups);
    Zel_freeZelDomains(groups);
    ZelSessionInfo *raw = nullptr;
    return Info(Zel_getSessionInfo(s, &raw) == 0 ? raw : nullptr);
}

// The suffix itself or an entry below it.
bool within(const std::string &dn, const std::string &suffix) {
    if (dn.size() < suffix.size()) return false;
    size_t tail = dn.size() - suffix.size();
    return same_ignoring_case(dn.substr(tail), suffix) && (tail == 0 || dn[tail - 1] == ',');
}

long record_count(ZelSession *s, const std::string &user, ZelRC &rc) {
    ZelTargetRecordList *raw = nullptr;
    rc = Zel_getAllTargetRecord(s, user.c_str(), &raw);
    Held<ZelTargetRecordList, Zel_freeTargetRecords> list(raw);
    if (rc == ZEL_RC_TR_NOT_FOUND) rc = 0;
    return list ? list->count : 0;
}

}  // namespace

// Any Zel database in the session's suffixes fails the creation with 901; a
// suffix outside every suffix of the server cannot be made (900).
int dry_run_db_create(ZelSession *s, const Options &opts, const std::string &suffix, unsigned char flags) {
    const std::string failed = "cannot create a Zel database under " + suffix;
    Info info = session_info(s);
    if (info && info->databaseDN) return DryRun::would_fail(failed, ZEL_RC_DATABASE_EXISTS);
    bool known = false;
    for (int32_t i = 0; info && i < info->suffixCount; ++i) known = known || within(suffix, info->suffixes[i]);
    if (info && !known) return DryRun::would_fail(failed, ZEL_RC_SUFFIX_UNAVAILABLE);
    DryRun dry(opts, "create a Zel database under " + suffix);
    dry.name("suffix", suffix).done("created");
    dry.note(flags & ZEL_CREATEDB_SUFFIX ? "the suffix entry would be made if it is missing"
                                         : "the suffix entry must exist (else status 900)");
    dry.note("the first administrator would be registered as a Senior Admin");
    if (flags & ZEL_CREATEDB_XR_DEFAULTS) dry.note("the default target service types would be made");
    if (flags & ZEL_CREATEDB_EXTENDED) dry.note("the extended containers would be made");
    return dry.report();
}

// Only a first-generation session removes (1011), and only a database that
// is there (29).  The database's own subtree goes; persons and the suffix stay.
int dry_run_db_remove(ZelSession *s, const Options &opts) {
    const std::string failed = "cannot remove the Zel database";
    Info info = session_info(s);
    if (info && info->apiVersion > 1) return DryRun::would_fail(failed, ZEL_RC_UNSUPPORTED_VERSION);
    if (!info || !info->databaseDN) return DryRun::would_fail(failed, ZEL_RC_DATABASE_NOT_FOUND);
    ZelTargetServiceList *services = nullptr;
    ZelDomainList *groups = nullptr;
    (void)Zel_getAllTargetService(s, &services);
    (void)Zel_getAllZelDomain(s, &groups);
    long service_count = services ? services->count : 0, group_count = groups ? groups->count : 0;
    Zel_freeTargetServices(services);
    Zel_freeZelDomains(groups);
    return DryRun(opts, std::string("remove the Zel database ") + info->databaseDN + " and everything below it")
        .name("database", info->databaseDN)
        .number("services", service_count)
        .number("resourceGroups", group_count)
        .done("removed")
        .note(std::to_string(service_count) + " target services and " + std::to_string(group_count) +
              " resource groups of the first generation, the service types and the access groups")
        .note("persons, their first-generation profiles and the suffix stay")
        .report();
}

// A key file that cannot be used fails the run with 1000, a user the
// library cannot resolve with its status.  Which stored values are already
// under the active key shows only when each is read for the rewrite.
int dry_run_rekey(ZelSession *s, const Options &opts, const std::vector<std::string> &users, bool all) {
    char *sealed = nullptr;
    ZelRC rc = Zel_sealPassword("dry run", &sealed);
    Zel_memfree(sealed);
    if (rc != 0)
        return DryRun::would_fail("cannot rekey the target records of " + (all ? std::string("every user") : users[0]), rc);
    std::set<std::string> names(users.begin(), users.end());
    if (all) {
        ZelUserList *raw = nullptr;
        if ((rc = Zel_getAllZelUser(s, &raw)) != 0) return DryRun::would_fail("cannot list the Zel users", rc);
        Held<ZelUserList, Zel_freeZelUsers> list(raw);
        for (int32_t i = 0; i < list->count; ++i)
            if (list->users[i]->userName) names.insert(list->users[i]->userName);
    }
    long records = 0, unreadable = 0;
    for (const std::string &user : names) {
        long n = record_count(s, user, rc);
        if (rc == ZEL_RC_DECODE_FAILED) ++unreadable;
        else if (rc != 0 && !all) return DryRun::would_fail("cannot rekey the target records of " + user, rc);
        records += n;
    }
    DryRun dry(opts, "rewrite the stored passwords not yet under the active key");
    dry.number("records", records).note(std::to_string(records) + " target records of " +
                                        std::to_string(names.size()) + " users would be read, and each one not yet "
                                        "under the active key rewritten");
    if (unreadable) dry.note(std::to_string(unreadable) + " users hold values the keys at hand cannot read: left as they are");
    return dry.report();
}

// A new file is never written over an existing one; --add needs a usable
// file, which the caller has checked as for real.
int dry_run_key_generate(const Options &opts, const std::string &file, bool add) {
    struct stat st {};
    if (!add && lstat(file.c_str(), &st) == 0)
        return usage("dry run: cannot write the key file " + file +
                     " (an existing file is never overwritten; --add adds a key to it)");
    std::string dir = file.find('/') == std::string::npos ? "." : file.substr(0, file.rfind('/') + 1);
    if (access(dir.c_str(), W_OK | X_OK) != 0) return usage("dry run: cannot write the key file " + file);
    return DryRun(opts, add ? "add a new active key to " + file : "write a new key file " + file + " (mode 0600)")
        .name("file", file)
        .done("active")
        .report();
}

}  // namespace zelctl
