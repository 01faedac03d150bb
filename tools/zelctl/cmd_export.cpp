// zelctl export: the Zel data the session sees as one versioned JSON
// document (document.h), on standard output or into a file.  Passwords are
// left out unless asked for, and then only sealed under the operator's key.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>

#include "document.h"
#include "progress.h"
#include "zelctl.h"

namespace zelctl {
namespace {

Text text_of(const char *value) { return value ? Text(value) : Text(); }

// A list that finds nothing answers its family's "not found": an empty list.
ZelRC read_types(ZelSession *s, Document &doc) {
    ZelTargetServiceTypeList *raw = nullptr;
    ZelRC rc = Zel_getAllTargetServiceType(s, &raw);
    Held<ZelTargetServiceTypeList, Zel_freeTargetServiceTypes> list(raw);
    if (rc == ZEL_RC_TST_NOT_FOUND) return 0;
    for (int32_t i = 0; rc == 0 && i < list->count; ++i) {
        const ZelTargetServiceType *t = list->types[i];
        DocServiceType out{t->typeName ? t->typeName : "", {}};
        for (int32_t k = 0; k < t->identifierCount; ++k)
            out.identifiers.emplace_back(t->identifierNames[k] ? t->identifierNames[k] : "");
        doc.types.push_back(std::move(out));
    }
    return rc;
}

ZelRC read_services(ZelSession *s, Document &doc) {
    ZelTargetServiceList *raw = nullptr;
    ZelRC rc = Zel_getAllTargetService(s, &raw);
    Held<ZelTargetServiceList, Zel_freeTargetServices> list(raw);
    if (rc == ZEL_RC_TS_NOT_FOUND) return 0;
    for (int32_t i = 0; rc == 0 && i < list->count; ++i) {
        const ZelTargetService *ts = list->services[i];
        DocService out{ts->name ? ts->name : "", text_of(ts->type), text_of(ts->description), {}};
        for (int32_t k = 0; k < ts->reqIdentifierCount; ++k) {
            const ZelReqIdentifier *id = ts->reqIdentifiers[k];
            out.identifiers.emplace_back(id->name ? id->name : "", id->value ? id->value : "");
        }
        doc.services.push_back(std::move(out));
    }
    return rc;
}

ZelRC read_groups(ZelSession *s, Document &doc) {
    ZelDomainList *raw = nullptr;
    ZelRC rc = Zel_getAllZelDomain(s, &raw);
    Held<ZelDomainList, Zel_freeZelDomains> list(raw);
    if (rc == ZEL_RC_ZEL_DOMAIN_NOT_FOUND) return 0;
    for (int32_t i = 0; rc == 0 && i < list->count; ++i) {
        const ZelDomain *d = list->domains[i];
        DocGroup out{d->name ? d->name : "", text_of(d->description), {}};
        for (int32_t k = 0; k < d->locationCount; ++k)
            out.members.emplace_back(d->locations[k]->type ? d->locations[k]->type : "",
                                     d->locations[k]->value ? d->locations[k]->value : "");
        doc.groups.push_back(std::move(out));
    }
    return rc;
}

ZelRC read_users(ZelSession *s, Document &doc) {
    ZelUserList *raw = nullptr;
    ZelRC rc = Zel_getAllZelUser(s, &raw);
    Held<ZelUserList, Zel_freeZelUsers> list(raw);
    for (int32_t i = 0; rc == 0 && i < list->count; ++i) {
        const ZelUser *u = list->users[i];
        if (u->userName == nullptr) continue;
        doc.users.push_back({u->userName, text_of(u->userType), text_of(u->description), text_of(u->personDN),
                             u->enabled != 0});
    }
    return rc;
}

// One user's records; the clear password is sealed at once and wiped.
ZelRC read_records(ZelSession *s, const std::string &user, bool sealed, Document &doc) {
    ZelTargetRecordList *raw = nullptr;
    ZelRC rc = Zel_getAllTargetRecord(s, user.c_str(), &raw);
    Held<ZelTargetRecordList, Zel_freeTargetRecords> list(raw);
    if (rc == ZEL_RC_TR_NOT_FOUND) return 0;
    for (int32_t i = 0; rc == 0 && i < list->count; ++i) {
        ZelTargetRecord *r = list->records[i];
        DocRecord out{user, r->targetRecordId ? r->targetRecordId : "", text_of(r->targetServiceName),
                      text_of(r->targetServiceType), text_of(r->userId), text_of(r->description), {}};
        if (sealed && r->password) {
            char *seal = nullptr;
            rc = Zel_sealPassword(r->password, &seal);
            if (rc == 0) out.password = seal;
            Zel_memfree(seal);
        }
        if (r->password) std::memset(r->password, 0, std::strlen(r->password));
        doc.records.push_back(std::move(out));
    }
    return rc;
}

std::string utc_now() {
    char text[32];
    std::time_t now = std::time(nullptr);
    struct tm tm {};
    gmtime_r(&now, &tm);
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return text;
}

// A new file readable by its owner only: sealed or not, an export is the
// directory's content.  The document lands under its name only once whole.
bool write_output(const std::string &path, const std::string &text) {
    if (path.empty() || path == "-") return std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
    const std::string temp = path + ".tmp";
    int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0) return false;
    bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && fsync(fd) == 0;
    ok = close(fd) == 0 && ok && std::rename(temp.c_str(), path.c_str()) == 0;
    if (!ok) std::remove(temp.c_str());
    return ok;
}

}  // namespace

int run_export(const Options &opts, Args args) {
    int status = 0;
    std::string passwords = "omit", output;
    bool given = false;
    if (!take_value(args, "--passwords", passwords, given, status) || !take_value(args, "-o", output, given, status))
        return status;
    bool quiet = take_flag(args, "--quiet");
    std::vector<std::string> operands;
    if (!take_operands(args, "export", {}, operands, status)) return status;
    if (passwords != "omit" && passwords != "sealed") return usage("export: --passwords takes omit or sealed");
    bool sealed = passwords == "sealed";
    if (sealed) {
        // Refused before anything is read: never an export in clear.
        char *probe = nullptr;
        ZelRC rc = Zel_sealPassword("", &probe);
        Zel_memfree(probe);
        if (rc != 0)
            return usage("export: --passwords sealed needs ZEL_KEYFILE naming a usable key file");
    }

    Session s(open_session(opts));
    if (!s) return 1;
    Document doc;
    doc.storage = static_cast<int>(opts.api_version);
    doc.passwords = passwords;
    ZelRC rc = 0;
    if ((rc = read_types(s.get(), doc)) != 0) return fail("cannot list the target service types", rc);
    if ((rc = read_services(s.get(), doc)) != 0) return fail("cannot list the target services", rc);
    if ((rc = read_groups(s.get(), doc)) != 0) return fail("cannot list the resource groups", rc);
    if ((rc = read_users(s.get(), doc)) != 0) return fail("cannot list the Zel users", rc);
    Progress progress("export", doc.users.size(), quiet);
    for (const DocUser &u : doc.users) {
        if ((rc = read_records(s.get(), u.name, sealed, doc)) != 0 && rc != ZEL_RC_USER_NOT_FOUND)
            return fail("cannot list the target records of " + u.name, rc);
        progress.step();
    }
    progress.done();
    doc.sort();
    if (!write_output(output, document_text(doc, utc_now())))
        return fail("cannot write " + output + ": " + std::strerror(errno), ZEL_RC_SYSTEM_ERROR);
    return 0;
}

}  // namespace zelctl
