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
#include <set>
#include <stdexcept>
#include <string>

#include "document.h"
#include "progress.h"
#include "terminal_text.h"
#include "zelctl.h"

namespace zelctl {
namespace {

Text text_of(const char *value) { return value ? Text(value) : Text(); }

// Which entries of a list of both forms are of the first generation: the
// names the first-generation session lists, matched from the end of the
// list where that form comes last (users), else from its start.
std::vector<bool> first_generation_marks(const std::vector<std::string> &all, std::vector<std::string> older,
                                         bool older_last) {
    std::multiset<std::string> left(older.begin(), older.end());
    std::vector<bool> marks(all.size(), false);
    for (size_t k = 0; k < all.size(); ++k) {
        size_t i = older_last ? all.size() - 1 - k : k;
        auto it = left.find(all[i]);
        if (it != left.end()) marks[i] = true, left.erase(it);
    }
    return marks;
}

template <class List, class Item, class NameOf>
std::vector<std::string> names_of(const List *list, Item **List::*items, NameOf name) {
    std::vector<std::string> out;
    for (int32_t i = 0; list && i < list->count; ++i) out.emplace_back(name((list->*items)[i]));
    return out;
}

// One family's list as the session reads it, with the marks of its entries
// of the first generation (`older`, when open, lists those).  The family's
// "not found" (0 for a family without one) is an empty list: `list` stays
// null then.
template <class List, auto Free, class Item, class NameOf>
ZelRC read_marked(ZelSession *s, ZelSession *older, ZelRC (*get_all)(ZelSession *, List **), ZelRC not_found,
                  Item **List::*items, NameOf name, bool older_last, Held<List, Free> &list,
                  std::vector<bool> &marks) {
    List *raw = nullptr, *raw_older = nullptr;
    ZelRC rc = get_all(s, &raw);
    list.reset(raw);
    if (rc != 0) return rc == not_found ? 0 : rc;
    rc = older ? get_all(older, &raw_older) : 0;
    Held<List, Free> older_list(raw_older);
    if (rc != 0 && rc != not_found) return rc;
    marks = first_generation_marks(names_of(list.get(), items, name), names_of(older_list.get(), items, name),
                                   older_last);
    return 0;
}

// A list that finds nothing answers its family's "not found": an empty list.
ZelRC read_types(ZelSession *s, Document &doc) {
    ZelTargetServiceTypeList *raw = nullptr;
    ZelRC rc = Zel_getAllTargetServiceType(s, &raw);
    Held<ZelTargetServiceTypeList, Zel_freeTargetServiceTypes> list(raw);
    if (rc == ZEL_RC_TST_NOT_FOUND) return 0;
    for (int32_t i = 0; rc == 0 && i < list->count; ++i) {
        const ZelTargetServiceType *t = list->types[i];
        DocServiceType out{or_empty(t->typeName), {}};
        for (int32_t k = 0; k < t->identifierCount; ++k) out.identifiers.emplace_back(or_empty(t->identifierNames[k]));
        doc.types.push_back(std::move(out));
    }
    return rc;
}

// The session of the security domain form also lists the first
// generation's objects; `older`, when open, tells which those are.
ZelRC read_services(ZelSession *s, ZelSession *older, Document &doc) {
    Held<ZelTargetServiceList, Zel_freeTargetServices> list;
    std::vector<bool> marks;
    ZelRC rc = read_marked(s, older, Zel_getAllTargetService, ZEL_RC_TS_NOT_FOUND, &ZelTargetServiceList::services,
                           [](const ZelTargetService *ts) { return or_empty(ts->name); }, false, list, marks);
    if (rc != 0 || !list) return rc;
    for (int32_t i = 0; i < list->count; ++i) {
        const ZelTargetService *ts = list->services[i];
        DocService out{marks[i] ? kFirstGenerationForm : kDocumentForm, or_empty(ts->name), text_of(ts->type),
                       text_of(ts->description), {}};
        for (int32_t k = 0; k < ts->reqIdentifierCount; ++k) {
            const ZelReqIdentifier *id = ts->reqIdentifiers[k];
            out.identifiers.emplace_back(or_empty(id->name), or_empty(id->value));
        }
        doc.services.push_back(std::move(out));
    }
    return 0;
}

ZelRC read_groups(ZelSession *s, ZelSession *older, Document &doc) {
    Held<ZelDomainList, Zel_freeZelDomains> list;
    std::vector<bool> marks;
    ZelRC rc = read_marked(s, older, Zel_getAllZelDomain, ZEL_RC_ZEL_DOMAIN_NOT_FOUND, &ZelDomainList::domains,
                           [](const ZelDomain *d) { return or_empty(d->name); }, false, list, marks);
    if (rc != 0 || !list) return rc;
    for (int32_t i = 0; i < list->count; ++i) {
        const ZelDomain *d = list->domains[i];
        DocGroup out{marks[i] ? kFirstGenerationForm : kDocumentForm, or_empty(d->name), text_of(d->description), {}};
        for (int32_t k = 0; k < d->locationCount; ++k)
            out.members.emplace_back(or_empty(d->locations[k]->type), or_empty(d->locations[k]->value));
        doc.groups.push_back(std::move(out));
    }
    return 0;
}

ZelRC read_users(ZelSession *s, ZelSession *older, Document &doc) {
    Held<ZelUserList, Zel_freeZelUsers> list;
    std::vector<bool> marks;
    // No user is an empty list, not a "not found".
    ZelRC rc = read_marked(s, older, Zel_getAllZelUser, 0, &ZelUserList::users,
                           [](const ZelUser *u) { return or_empty(u->userName); }, true, list, marks);
    if (rc != 0) return rc;
    for (int32_t i = 0; i < list->count; ++i) {
        const ZelUser *u = list->users[i];
        if (u->userName == nullptr) continue;
        doc.users.push_back({marks[i] ? kFirstGenerationForm : kDocumentForm, u->userName, text_of(u->userType),
                             text_of(u->description), text_of(u->personDN), u->enabled != 0});
    }
    return 0;
}

// Every record in one read, each with its user and form; the clear
// password is sealed at once and wiped.  One the keys at hand cannot open
// is exported without its password and named in `unopened`.
ZelRC read_records(ZelSession *s, bool two_forms, bool sealed, Document &doc, std::vector<std::string> &unopened) {
    ZelUserTargetRecordList *raw = nullptr;
    ZelRC rc = Zel_getAllUserTargetRecord(s, &raw);
    Held<ZelUserTargetRecordList, Zel_freeUserTargetRecords> list(raw);
    for (int32_t i = 0; rc == 0 && i < list->count; ++i) {
        ZelUserTargetRecord *item = list->records[i];
        ZelTargetRecord *r = item->record;
        if (item->userName == nullptr || r == nullptr) continue;
        int form = two_forms && item->form == ZEL_FORM_FIRST_GENERATION ? kFirstGenerationForm : kDocumentForm;
        DocRecord out{form, item->userName, or_empty(r->targetRecordId), text_of(r->targetServiceName),
                      text_of(r->targetServiceType), text_of(r->userId), text_of(r->description), {}};
        if (item->unreadable) unopened.push_back(out.user + " " + out.id);
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
    // A security domain session that knows the Zel database sees both
    // forms; a first-generation session beside it tells them apart.
    Session older;
    ZelSessionInfo *raw_info = nullptr;
    ZelRC info_rc = opts.api_version >= 2 ? Zel_getSessionInfo(s.get(), &raw_info) : 0;
    Held<ZelSessionInfo, Zel_freeSessionInfo> info(raw_info);
    if (info_rc == 0 && info && info->databaseDN != nullptr) {
        Options first_generation = opts;
        first_generation.api_version = 1;
        older = open_session(first_generation);
        if (!older) return 1;
    }
    Document doc;
    doc.storage = static_cast<int>(opts.api_version);
    doc.passwords = passwords;
    std::vector<std::string> unopened;
    ZelRC rc = 0;
    Progress progress("export", 5, quiet);
    if ((rc = read_types(s.get(), doc)) != 0) return fail("cannot list the target service types", rc);
    progress.step();
    if ((rc = read_services(s.get(), older.get(), doc)) != 0) return fail("cannot list the target services", rc);
    progress.step();
    if ((rc = read_groups(s.get(), older.get(), doc)) != 0) return fail("cannot list the resource groups", rc);
    progress.step();
    if ((rc = read_users(s.get(), older.get(), doc)) != 0) return fail("cannot list the Zel users", rc);
    progress.step();
    if ((rc = read_records(s.get(), static_cast<bool>(older), sealed, doc, unopened)) != 0)
        return fail("cannot list the target records", rc);
    progress.step();
    progress.done();
    doc.sort();
    std::string text;
    try {
        text = document_text(doc, utc_now());
    } catch (const std::exception &e) {
        return fail(std::string("cannot write the document: ") + e.what(), ZEL_RC_SYSTEM_ERROR);
    }
    if (!write_output(output, text))
        return fail("cannot write " + output + ": " + std::strerror(errno), ZEL_RC_SYSTEM_ERROR);
    // Without passwords nothing is missing; with them, what could not be
    // opened is named, and the rest is in the document.
    if (sealed && !unopened.empty()) {
        for (const std::string &name : unopened)
            say_to(stderr, "zelctl: export: record %s: its password cannot be read with the keys at hand; "
                   "exported without it\n", name.c_str());
        return 1;
    }
    return 0;
}

}  // namespace zelctl
